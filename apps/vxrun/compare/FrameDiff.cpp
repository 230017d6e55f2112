#include "FrameDiff.h"

#include "Text.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace vxrun {
namespace {

std::string point(int64_t x, int64_t y) {
    return concat("(", x, ",", y, ")");
}

double peakOf(const PictureFormat& format) {
    return (1 << format.pixels.depth) - 1;
}

// Whether frames have the same planes. What their samples mean is ignored: full range is no
// difference.
bool comparable(const PictureFormat& actual, const PictureFormat& expected) {
    return actual.pixels.rangelessName() == expected.pixels.rangelessName() &&
           actual.width == expected.width && actual.height == expected.height;
}

}  // namespace

std::vector<uint16_t> samplesOf(const FrameView& frame, int plane) {
    const PictureFormat& format = frame.format();
    std::vector<uint16_t> samples;
    for (int y = 0; y < format.rows(plane); ++y) {
        const uint8_t* const row = frame.row(plane, y);
        for (int x = 0; x < format.columns(plane); ++x) {
            const uint8_t* const wide = row + ptrdiff_t{2} * x;
            samples.push_back(format.pixels.bytesPerSample() == 1
                                  ? row[x]
                                  : static_cast<uint16_t>(wide[0] | wide[1] << 8));
        }
    }
    return samples;
}

uint32_t FrameDiff::Plane::difference(size_t at) const {
    return actual.empty() ? 0 : static_cast<uint32_t>(std::abs(actual[at] - expected[at]));
}

FrameDiff::FrameDiff(const FrameView& actual, const FrameView& expected, uint32_t tolerance)
    : mFormat(actual.format()), mTolerance(tolerance) {
    if (!comparable(actual.format(), expected.format())) {
        mFormats =
            "actual " + mFormat.description() + ", expected " + expected.format().description();
        return;
    }
    static constexpr const char* kNames[] = {"Y", "Cb", "Cr"};
    for (int p = 0; p < mFormat.pixels.planes; ++p) {
        Plane& plane = mPlanes.emplace_back();
        plane.name = mFormat.isPicture() ? kNames[p] : "byte";
        plane.columns = static_cast<size_t>(mFormat.columns(p));
        plane.rows = static_cast<size_t>(mFormat.rows(p));
        int y = 0;
        const size_t bytes = mFormat.rowBytes(p);
        while (y < mFormat.rows(p) && std::memcmp(actual.row(p, y), expected.row(p, y), bytes) == 0)
            ++y;
        if (y == mFormat.rows(p)) continue;
        plane.actual = samplesOf(actual, p);
        plane.expected = samplesOf(expected, p);
        compare(&plane);
    }
}

void FrameDiff::compare(Plane* plane) const {
    for (size_t y = 0; y < plane->rows; ++y) {
        for (size_t x = 0; x < plane->columns; ++x) {
            const uint32_t difference = plane->difference(plane->at(x, y));
            plane->squares += uint64_t{difference} * difference;
            plane->largest = std::max(plane->largest, difference);
            if (difference <= mTolerance) continue;
            if (plane->wrong++ == 0) {
                plane->x = x;
                plane->y = y;
            }
            plane->left = std::min(plane->left, x);
            plane->right = std::max(plane->right, x);
            plane->bottom = y;
        }
    }
}

bool FrameDiff::anyWrong() const {
    const auto isWrong = [](const Plane& plane) { return plane.wrong > 0; };
    return !sameFormat() || std::any_of(mPlanes.begin(), mPlanes.end(), isWrong);
}

// ---- Figures ----------------------------------------------------------------------------------

std::vector<double> FrameDiff::psnr() const {
    const double peak = peakOf(mFormat);
    const auto figure = [&](uint64_t squares, uint64_t samples) {
        constexpr double kLeast = 1e-16;
        const double mse = static_cast<double>(squares) / static_cast<double>(samples);
        return std::min(10 * std::log10(peak * peak / std::max(mse, kLeast)),
                        6.0 * mFormat.pixels.depth + 12);
    };
    std::vector<double> figures;
    uint64_t squares = 0, samples = 0;
    for (const Plane& plane : mPlanes) {
        figures.push_back(figure(plane.squares, plane.columns * plane.rows));
        squares += plane.squares;
        samples += plane.columns * plane.rows;
    }
    figures.push_back(figure(squares, samples));
    return figures;
}

std::vector<double> FrameDiff::ssim() const {
    std::vector<double> figures;
    for (const Plane& plane : mPlanes) figures.push_back(similarity(plane));
    figures.push_back(*std::min_element(figures.begin(), figures.end()));
    return figures;
}

double FrameDiff::similarity(const Plane& plane) const {
    if (plane.actual.empty()) return 1;
    constexpr size_t kWindow = 8;
    constexpr size_t kStep = 4;
    const double c1 = std::pow(0.01 * peakOf(mFormat), 2);
    const double c2 = std::pow(0.03 * peakOf(mFormat), 2);
    const size_t height = std::min(plane.rows, kWindow);
    const size_t width = std::min(plane.columns, kWindow);
    const double count = static_cast<double>(width * height);
    const auto ofWindow = [&](size_t left, size_t top) {
        double a = 0, b = 0, squares = 0, products = 0;
        for (size_t y = top; y < top + height; ++y) {
            for (size_t x = left; x < left + width; ++x) {
                const double actual = plane.actual[plane.at(x, y)];
                const double expected = plane.expected[plane.at(x, y)];
                a += actual / count;
                b += expected / count;
                squares += (actual * actual + expected * expected) / count;
                products += actual * expected / count;
            }
        }
        return (2 * a * b + c1) * (2 * (products - a * b) + c2) /
               ((a * a + b * b + c1) * (squares - a * a - b * b + c2));
    };
    double sum = 0;
    size_t windows = 0;
    for (size_t y = 0; y < plane.rows - height + kStep; y += kStep) {
        for (size_t x = 0; x < plane.columns - width + kStep; x += kStep, ++windows) {
            sum += ofWindow(std::min(x, plane.columns - width), std::min(y, plane.rows - height));
        }
    }
    return sum / static_cast<double>(windows);
}

std::string FrameDiff::figuresText(const std::vector<double>& figures) const {
    std::string planes;
    for (size_t p = 0; p < mPlanes.size(); ++p) {
        planes += concat(p == 0 ? "" : " ", mPlanes[p].name, " ", figures[p]);
    }
    return concat(figures.back(), " (", planes, ")");
}

// ---- Evidence ---------------------------------------------------------------------------------

std::string FrameDiff::evidence() const {
    if (!sameFormat()) return mFormats;
    std::string counts;
    const Plane* found = &mPlanes.front();
    uint32_t largest = 0;
    for (const Plane& plane : mPlanes) {
        counts += concat(counts.empty() ? "" : ", ", plane.name, " ", plane.wrong, " of ",
                         plane.columns * plane.rows);
        if (found->wrong == 0) found = &plane;
        largest = std::max(largest, plane.largest);
    }
    const Plane& first = *found;
    const size_t at = first.at(first.x, first.y);
    const std::string values =
        concat(" actual ", first.actual[at], " expected ", first.expected[at]);
    std::string place = concat("byte ", first.x, values);
    if (mFormat.isPicture()) {
        place = concat("plane ", first.name, " x=", first.x, " y=", first.y, values, ", 8x8 block ",
                       point(first.x / 8, first.y / 8), ", 64x64 block ",
                       point(first.x / 64, first.y / 64));
    }
    return concat(place, "; ", shape(first), "; wrong samples: ", counts, "; largest difference ",
                  largest);
}

std::string FrameDiff::shape(const Plane& first) const {
    uint64_t wrong = 0;
    std::string whole;  // planes that are wrong for the most part
    for (const Plane& plane : mPlanes) {
        wrong += plane.wrong;
        if (2 * plane.wrong < plane.columns * plane.rows) continue;
        whole += (whole.empty() ? "" : ", ") + plane.name;
    }
    if (wrong == 1) return "one sample";
    if (mPlanes.size() == 3 && !mPlanes[1].actual.empty() &&
        mPlanes[1].actual == mPlanes[2].expected && mPlanes[2].actual == mPlanes[1].expected) {
        return "planes Cb and Cr swapped";
    }
    if (std::string shifted = shift(first); !shifted.empty()) return shifted;
    if (!whole.empty()) return "whole plane " + whole;
    if (first.y == first.bottom) return "in one row";
    if (first.left == first.right) return "in one column";
    for (const size_t side : {8, 64}) {
        if (first.left / side == first.right / side && first.y / side == first.bottom / side) {
            return concat("in one ", side, "x", side, " block");
        }
    }
    return "from " + point(first.left, first.y) + " to " + point(first.right, first.bottom);
}

// The smallest shift that explains the plane; empty when none does.
std::string FrameDiff::shift(const Plane& plane) {
    constexpr int kReach = 16;
    for (int reach = 1; reach <= kReach; ++reach) {
        for (int dy = -reach; dy <= reach; ++dy) {
            const bool edge = std::abs(dy) == reach;
            for (int dx = -reach; dx <= reach; dx += edge ? 1 : 2 * reach) {
                if (!isShifted(plane, dx, dy)) continue;
                return concat("shifted by ", point(dx, dy), ": sample (x,y) is the expected (x",
                              std::showpos, dx, ",y", dy, ")");
            }
        }
    }
    return "";
}

// Whether each sample is the one expected at (x + dx, y + dy), as far as both lie in the plane, and
// whether that explains most of the wrong ones.
bool FrameDiff::isShifted(const Plane& plane, int dx, int dy) {
    const size_t width = plane.columns - std::min(plane.columns, size_t(std::abs(dx)));
    const size_t height = plane.rows - std::min(plane.rows, size_t(std::abs(dy)));
    if (2 * width < plane.columns || 2 * height < plane.rows) return false;
    uint64_t explained = 0;
    for (size_t y = 0; y < height; ++y) {
        const size_t actual = plane.at(size_t(std::max(-dx, 0)), y + size_t(std::max(-dy, 0)));
        const size_t expected = plane.at(size_t(std::max(dx, 0)), y + size_t(std::max(dy, 0)));
        if (!std::equal(&plane.actual[actual], &plane.actual[actual] + width,
                        &plane.expected[expected]))
            return false;
        for (size_t x = 0; x < width; ++x) explained += plane.difference(actual + x) > 0;
    }
    return 2 * explained > plane.wrong;
}

std::vector<uint8_t> FrameDiff::picture() const {
    constexpr uint32_t kVisible = 64;
    constexpr uint32_t kFactor = 8;
    std::vector<uint8_t> picture;
    if (!sameFormat()) return picture;
    for (size_t y = 0; y < mPlanes[0].rows; ++y) {
        for (size_t x = 0; x < mPlanes[0].columns; ++x) {
            uint32_t largest = 0;
            for (const Plane& plane : mPlanes) {
                const bool chroma = &plane != mPlanes.data();
                const PixelFormat& pixels = mFormat.pixels;
                largest = std::max(
                    largest, plane.difference(plane.at(x >> (chroma ? pixels.chromaShiftX : 0),
                                                       y >> (chroma ? pixels.chromaShiftY : 0))));
            }
            picture.push_back(static_cast<uint8_t>(
                largest == 0 ? 0 : std::min(kVisible + kFactor * largest, 255u)));
        }
    }
    return picture;
}

}  // namespace vxrun
