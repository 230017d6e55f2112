#include "FrameDiff.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstring>

namespace vxrun {
namespace {

std::string formatText(const Payload& payload) {
    const PictureFormat& format = payload.format();
    const auto number = [](size_t value) { return std::to_string(value); };
    if (!payload.isPicture()) return number(payload.size()) + " bytes";
    return number(format.width) + "x" + number(format.height) + " " + format.pixels;
}

std::string point(size_t x, size_t y) {
    return "(" + std::to_string(x) + "," + std::to_string(y) + ")";
}

double peakOf(const Payload& payload) {
    return (1u << payload.format().depth) - 1;
}

// Of one window of width x height samples at (left, top).
double similarity(const Payload& a, const Payload& b, size_t plane, size_t left, size_t top,
                  size_t width, size_t height) {
    double sumA = 0, sumB = 0, squaresA = 0, squaresB = 0, products = 0;
    for (size_t y = top; y < top + height; ++y) {
        const uint8_t* const rowA = a.planes()[plane].data + y * a.planes()[plane].stride;
        const uint8_t* const rowB = b.planes()[plane].data + y * b.planes()[plane].stride;
        for (size_t x = left; x < left + width; ++x) {
            const double valueA = FrameDiff::sample(a, rowA, x);
            const double valueB = FrameDiff::sample(b, rowB, x);
            sumA += valueA;
            sumB += valueB;
            squaresA += valueA * valueA;
            squaresB += valueB * valueB;
            products += valueA * valueB;
        }
    }
    const double count = static_cast<double>(width * height);
    const double meanA = sumA / count;
    const double meanB = sumB / count;
    const double variances = (squaresA + squaresB) / count - meanA * meanA - meanB * meanB;
    const double covariance = products / count - meanA * meanB;
    const double c1 = std::pow(0.01 * peakOf(a), 2);
    const double c2 = std::pow(0.03 * peakOf(a), 2);
    return (2 * meanA * meanB + c1) * (2 * covariance + c2) /
           ((meanA * meanA + meanB * meanB + c1) * (variances + c2));
}

}  // namespace

uint32_t FrameDiff::sample(const Payload& payload, const uint8_t* row, size_t x) {
    if (payload.format().bytesPerSample == 1) return row[x];
    return static_cast<uint32_t>(row[2 * x] | row[2 * x + 1] << 8);
}

bool FrameDiff::comparable(const Payload& got, const Payload& wanted) {
    PictureFormat format = got.format();
    format.pixels = wanted.format().pixels;
    return got.isPicture() == wanted.isPicture() && !(format != wanted.format());
}

FrameDiff::FrameDiff(const Payload& got, const Payload& wanted, uint32_t tolerance)
    : mGot(got), mWanted(wanted), mTolerance(tolerance) {
    if (!comparable(got, wanted)) {
        mFormats = "got " + formatText(got) + ", wanted " + formatText(wanted);
        return;
    }
    static constexpr std::array<const char*, 3> kNames = {"Y", "Cb", "Cr"};
    for (size_t p = 0; p < got.planes().size(); ++p) {
        const Payload::Plane& a = got.planes()[p];
        const Payload::Plane& b = wanted.planes()[p];
        Plane& plane = mPlanes.emplace_back();
        plane.name = got.isPicture() ? kNames.at(p) : "byte";
        plane.samples = a.rows * a.rowBytes / got.format().bytesPerSample;
        for (size_t y = 0; y < a.rows; ++y) {
            const uint8_t* const rowA = a.data + y * a.stride;
            const uint8_t* const rowB = b.data + y * b.stride;
            if (std::memcmp(rowA, rowB, a.rowBytes) != 0) compareRow(&plane, y, rowA, rowB);
        }
    }
}

void FrameDiff::compareRow(Plane* plane, size_t y, const uint8_t* got, const uint8_t* wanted) {
    const size_t columns = plane->samples / mGot.planes()[mPlanes.size() - 1].rows;
    for (size_t x = 0; x < columns; ++x) {
        const uint32_t a = sample(mGot, got, x);
        const uint32_t b = sample(mWanted, wanted, x);
        const uint32_t difference = std::max(a, b) - std::min(a, b);
        plane->squares += uint64_t{difference} * difference;
        plane->largest = std::max(plane->largest, difference);
        if (difference <= mTolerance) continue;
        if (plane->wrong++ == 0) {
            plane->x = x;
            plane->y = y;
            plane->got = a;
            plane->wanted = b;
        }
        plane->left = std::min(plane->left, x);
        plane->right = std::max(plane->right, x);
        plane->bottom = y;
    }
}

bool FrameDiff::anyWrong() const {
    const auto isWrong = [](const Plane& plane) { return plane.wrong > 0; };
    return !sameFormat() || std::any_of(mPlanes.begin(), mPlanes.end(), isWrong);
}

// ---- Figures ----------------------------------------------------------------------------------

std::vector<double> FrameDiff::psnr() const {
    const double peak = peakOf(mGot);
    const double highest = 6.0 * mGot.format().depth + 12;
    const auto figure = [&](uint64_t squares, uint64_t samples) {
        constexpr double kLeast = 1e-16;
        const double mse = static_cast<double>(squares) / static_cast<double>(samples);
        return std::min(10 * std::log10(peak * peak / std::max(mse, kLeast)), highest);
    };
    std::vector<double> figures;
    uint64_t squares = 0;
    uint64_t samples = 0;
    for (const Plane& plane : mPlanes) {
        figures.push_back(figure(plane.squares, plane.samples));
        squares += plane.squares;
        samples += plane.samples;
    }
    figures.push_back(figure(squares, samples));
    return figures;
}

std::vector<double> FrameDiff::ssim() const {
    constexpr size_t kWindow = 8;
    constexpr size_t kStep = 4;
    std::vector<double> figures;
    for (size_t p = 0; p < mPlanes.size(); ++p) {
        const size_t rows = mGot.planes()[p].rows;
        const size_t columns = mPlanes[p].samples / rows;
        const size_t height = std::min(rows, kWindow);
        const size_t width = std::min(columns, kWindow);
        double sum = 0;
        size_t windows = 0;
        for (size_t y = 0; y < rows - height + kStep; y += kStep) {
            for (size_t x = 0; x < columns - width + kStep; x += kStep, ++windows) {
                sum += similarity(mGot, mWanted, p, std::min(x, columns - width),
                                  std::min(y, rows - height), width, height);
            }
        }
        figures.push_back(sum / static_cast<double>(windows));
    }
    figures.push_back(*std::min_element(figures.begin(), figures.end()));
    return figures;
}

std::string FrameDiff::text(const std::vector<double>& figures) const {
    char number[32];
    std::snprintf(number, sizeof number, "%.6g (", figures.back());
    std::string text = number;
    for (size_t p = 0; p < mPlanes.size(); ++p) {
        std::snprintf(number, sizeof number, " %.6g", figures[p]);
        text += (p == 0 ? "" : " ") + mPlanes[p].name + number;
    }
    return text + ")";
}

// ---- Evidence ---------------------------------------------------------------------------------

std::string FrameDiff::text() const {
    if (!sameFormat()) return mFormats;
    std::string counts;
    const Plane* first = &mPlanes.front();
    uint32_t largest = 0;
    for (const Plane& plane : mPlanes) {
        counts += (counts.empty() ? "" : ", ") + plane.name + " " + std::to_string(plane.wrong) +
                  " of " + std::to_string(plane.samples);
        if (first->wrong == 0) first = &plane;
        largest = std::max(largest, plane.largest);
    }
    const std::string values =
        " got " + std::to_string(first->got) + " wanted " + std::to_string(first->wanted);
    std::string place = "byte " + std::to_string(first->x) + values;
    if (mGot.isPicture()) {
        place = "plane " + first->name + " x=" + std::to_string(first->x) +
                " y=" + std::to_string(first->y) + values + ", 8x8 block " +
                point(first->x / 8, first->y / 8) + ", 64x64 block " +
                point(first->x / 64, first->y / 64);
    }
    return place + "; " + shape(*first) + "; wrong samples: " + counts + "; largest difference " +
           std::to_string(largest);
}

std::string FrameDiff::shape(const Plane& first) const {
    uint64_t wrong = 0;
    std::string whole;  // planes that are wrong for the most part
    for (const Plane& plane : mPlanes) {
        wrong += plane.wrong;
        if (2 * plane.wrong >= plane.samples) whole += (whole.empty() ? "" : ", ") + plane.name;
    }
    if (wrong == 1) return "one sample";
    if (swapped()) return "planes Cb and Cr swapped";
    if (!whole.empty()) return "whole plane " + whole;
    if (first.y == first.bottom) return "in one row";
    if (first.left == first.right) return "in one column";
    for (const size_t side : {8, 64}) {
        if (first.left / side == first.right / side && first.y / side == first.bottom / side) {
            return "in one " + std::to_string(side) + "x" + std::to_string(side) + " block";
        }
    }
    return "from " + point(first.left, first.y) + " to " + point(first.right, first.bottom);
}

bool FrameDiff::swapped() const {
    if (mPlanes.size() != 3 || mPlanes[1].wrong == 0) return false;
    for (const size_t p : {1, 2}) {
        const Payload::Plane& a = mGot.planes()[p];
        const Payload::Plane& b = mWanted.planes()[3 - p];
        for (size_t y = 0; y < a.rows; ++y) {
            if (std::memcmp(a.data + y * a.stride, b.data + y * b.stride, a.rowBytes) != 0) {
                return false;
            }
        }
    }
    return true;
}

}  // namespace vxrun
