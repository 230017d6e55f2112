#include "FrameDiff.h"

#include "FrameFigures.h"
#include "Text.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace vxrun {
namespace {

std::string point(int64_t x, int64_t y) {
    return concat("(", x, ",", y, ")");
}

template <typename Sample>
bool isAnyBeyond(uint32_t tolerance, const Sample* actual, const Sample* expected, size_t count) {
    uint32_t largest = 0;
    for (size_t x = 0; x < count; ++x) {
        largest = std::max(largest, static_cast<uint32_t>(std::abs(actual[x] - expected[x])));
    }
    return largest > tolerance;
}

}  // namespace

bool haveSamePlanes(const PictureFormat& actual, const PictureFormat& expected) {
    return actual.pixels.rangelessName() == expected.pixels.rangelessName() &&
           actual.width == expected.width && actual.height == expected.height;
}

bool differ(const FrameView& actual, const FrameView& expected, uint32_t tolerance) {
    const PictureFormat& format = actual.format();
    if (!haveSamePlanes(format, expected.format())) return true;
    for (int p = 0; p < format.pixels.planes; ++p) {
        const size_t bytes = format.rowBytes(p);
        for (int y = 0; y < format.rows(p); ++y) {
            const uint8_t* const a = actual.row(p, y);
            const uint8_t* const b = expected.row(p, y);
            if (std::memcmp(a, b, bytes) == 0) continue;
            const bool isWide = format.pixels.bytesPerSample() > 1;
            if (isWide ? isAnyBeyond(tolerance, reinterpret_cast<const uint16_t*>(a),
                                     reinterpret_cast<const uint16_t*>(b), bytes / 2)
                       : isAnyBeyond(tolerance, a, b, bytes))
                return true;
        }
    }
    return false;
}

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

WrongFrame wrongFrame(uint64_t number, const FrameView& actual, const FrameView& expected,
                      uint32_t tolerance, bool withCells) {
    constexpr int kCell = 64;
    const PictureFormat& format = actual.format();
    WrongFrame wrong;
    wrong.number = number;
    if (!haveSamePlanes(format, expected.format())) return wrong;
    if (actual.size() > 0) {
        wrong.psnr = psnrOf(errorsOf(actual, expected), format.pixels.depth).back().value;
    }
    if (!withCells || !format.isPicture()) return wrong;
    wrong.cellSize = kCell;
    wrong.columns = static_cast<uint32_t>((format.width + kCell - 1) / kCell);
    wrong.rows = static_cast<uint32_t>((format.height + kCell - 1) / kCell);
    wrong.cells.resize(size_t{wrong.columns} * wrong.rows);
    const size_t sampleBytes = static_cast<size_t>(format.pixels.bytesPerSample());
    for (int p = 0; p < format.pixels.planes; ++p) {
        // Planes of the first one's size have its cells.
        const int shiftX = format.columns(p) < format.width ? format.pixels.chromaShiftX : 0;
        const int shiftY = format.rows(p) < format.height ? format.pixels.chromaShiftY : 0;
        const size_t side = size_t(kCell >> shiftX), bytes = format.rowBytes(p);
        for (int y = 0; y < format.rows(p); ++y) {
            const uint8_t* const a = actual.row(p, y);
            const uint8_t* const b = expected.row(p, y);
            if (std::memcmp(a, b, bytes) == 0) continue;
            size_t cell = size_t(y / (kCell >> shiftY)) * wrong.columns;
            for (size_t x = 0; x < bytes; x += side * sampleBytes, ++cell) {
                const size_t count = std::min(side, (bytes - x) / sampleBytes);
                if (wrong.cells.at(cell)) continue;
                wrong.cells[cell] =
                    sampleBytes > 1
                        ? isAnyBeyond(tolerance, reinterpret_cast<const uint16_t*>(a + x),
                                      reinterpret_cast<const uint16_t*>(b + x), count)
                        : isAnyBeyond(tolerance, a + x, b + x, count);
            }
        }
    }
    return wrong;
}

uint32_t FrameDiff::Plane::difference(size_t at) const {
    return actual.empty() ? 0 : static_cast<uint32_t>(std::abs(actual[at] - expected[at]));
}

FrameDiff::FrameDiff(const FrameView& actual, const FrameView& expected, uint32_t tolerance)
    : mFormat(actual.format()), mTolerance(tolerance) {
    if (!haveSamePlanes(actual.format(), expected.format())) {
        mFormats =
            "actual " + mFormat.description() + ", expected " + expected.format().description();
        return;
    }
    for (int p = 0; p < mFormat.pixels.planes; ++p) {
        Plane& plane = mPlanes.emplace_back();
        plane.name = planeName(mFormat, p);
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

const FrameDiff::Plane& FrameDiff::firstPlane() const {
    const auto isWrong = [](const Plane& plane) { return plane.wrong > 0; };
    const auto found = std::find_if(mPlanes.begin(), mPlanes.end(), isWrong);
    return found != mPlanes.end() ? *found : mPlanes.front();
}

Mismatch FrameDiff::mismatch() const {
    Mismatch mismatch;
    mismatch.kind = mFormats.empty() ? "samples" : "format";
    mismatch.text = evidence();
    if (!mFormats.empty()) return mismatch;
    const Plane& first = firstPlane();
    mismatch.shape = shape(first).name;
    mismatch.plane = first.name;
    mismatch.x = first.x;
    mismatch.y = first.y;
    mismatch.actual = first.actual[first.at(first.x, first.y)];
    mismatch.expected = first.expected[first.at(first.x, first.y)];
    return mismatch;
}

std::string FrameDiff::evidence() const {
    if (!mFormats.empty()) return mFormats;
    std::string counts;
    uint32_t largest = 0;
    for (const Plane& plane : mPlanes) {
        counts += concat(counts.empty() ? "" : ", ", plane.name, " ", plane.wrong, " of ",
                         plane.columns * plane.rows);
        largest = std::max(largest, plane.largest);
    }
    const Plane& first = firstPlane();
    const size_t at = first.at(first.x, first.y);
    const std::string values =
        concat(" actual ", first.actual[at], " expected ", first.expected[at]);
    std::string place = concat("byte ", first.x, values);
    if (mFormat.isPicture()) {
        place = concat("plane ", first.name, " x=", first.x, " y=", first.y, values, ", 8x8 block ",
                       point(first.x / 8, first.y / 8), ", 64x64 block ",
                       point(first.x / 64, first.y / 64));
    }
    return concat(place, "; ", shape(first).text(), "; wrong samples: ", counts,
                  "; largest difference ", largest);
}

FrameDiff::Shape FrameDiff::shape(const Plane& first) const {
    uint64_t wrong = 0;
    std::string whole;  // planes that are wrong for the most part
    for (const Plane& plane : mPlanes) {
        wrong += plane.wrong;
        if (2 * plane.wrong < plane.columns * plane.rows) continue;
        whole += (whole.empty() ? "" : ", ") + plane.name;
    }
    if (wrong == 1) return {"one sample", ""};
    if (mPlanes.size() == 3 && !mPlanes[1].actual.empty() &&
        mPlanes[1].actual == mPlanes[2].expected && mPlanes[2].actual == mPlanes[1].expected) {
        return {"planes Cb and Cr swapped", ""};
    }
    if (std::string shifted = shift(first); !shifted.empty()) return {"shifted", shifted};
    if (!whole.empty()) return {"whole plane " + whole, ""};
    if (first.y == first.bottom) return {"in one row", ""};
    if (first.left == first.right) return {"in one column", ""};
    for (const size_t side : {8, 64}) {
        if (first.left / side == first.right / side && first.y / side == first.bottom / side) {
            return {concat("in one ", side, "x", side, " block"), ""};
        }
    }
    return {"in a rectangle",
            "from " + point(first.left, first.y) + " to " + point(first.right, first.bottom)};
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
    if (!mFormats.empty()) return picture;
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
