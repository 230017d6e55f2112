#include "FrameFigures.h"

#include "Text.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <type_traits>

// The loops over samples are written so that compilers vectorize them: no branches, whole numbers
// of the smallest type that holds the sums.
namespace vxrun {
namespace {

double peakOf(const PictureFormat& format) {
    return (1 << format.pixels.depth) - 1;
}

// One plane of both frames, as samples of 8 bits or more.
template <typename Sample>
struct PlanePair {
    PlanePair(const FrameView& actualFrame, const FrameView& expectedFrame, int plane)
        : actual(reinterpret_cast<const Sample*>(actualFrame.plane(plane))),
          expected(reinterpret_cast<const Sample*>(expectedFrame.plane(plane))),
          actualStride(actualFrame.stride() / sizeof(Sample)),
          expectedStride(expectedFrame.stride() / sizeof(Sample)),
          columns(static_cast<size_t>(actualFrame.format().columns(plane))),
          rows(static_cast<size_t>(actualFrame.format().rows(plane))) {}

    const Sample *const actual, *const expected;
    const size_t actualStride, expectedStride;
    const size_t columns, rows;
};

// What `measure` returns for each plane, and the mean of that, weighted by samples.
template <typename Measure>
Figures measured(const FrameView& actual, const FrameView& expected, Measure measure) {
    const PictureFormat& format = actual.format();
    Figures figures;
    double sum = 0, samples = 0;
    for (int p = 0; p < format.pixels.planes; ++p) {
        const double value = format.pixels.bytesPerSample() == 1
                                 ? measure(PlanePair<uint8_t>(actual, expected, p))
                                 : measure(PlanePair<uint16_t>(actual, expected, p));
        const double size = double(format.columns(p)) * format.rows(p);
        figures.push_back({planeName(format, p), value});
        sum += value * size;
        samples += size;
    }
    figures.push_back({"", sum / samples});
    return figures;
}

template <typename Sample>
uint64_t sumOfSquares(const Sample* actual, const Sample* expected, size_t count) {
    constexpr size_t kChunk = 1 << 14;  // its squares of 8-bit samples fit into an int32_t
    using Difference = std::conditional_t<sizeof(Sample) == 1, int16_t, uint16_t>;
    using Square = std::conditional_t<sizeof(Sample) == 1, int32_t, uint32_t>;
    using Sum = std::conditional_t<sizeof(Sample) == 1, int32_t, uint64_t>;
    uint64_t all = 0;
    for (size_t start = 0; start < count; start += kChunk) {
        Sum sum = 0;
        const size_t end = std::min(start + kChunk, count);
        for (size_t x = start; x < end; ++x) {
            const int32_t signedDifference = actual[x] - expected[x];
            const auto difference = static_cast<Difference>(std::abs(signedDifference));
            sum += Square{difference} * Square{difference};
        }
        all += static_cast<uint64_t>(sum);
    }
    return all;
}

template <typename Sample>
double meanOfSquares(const PlanePair<Sample>& planes) {
    uint64_t sum = 0;
    for (size_t y = 0; y < planes.rows; ++y) {
        sum += sumOfSquares(planes.actual + y * planes.actualStride,
                            planes.expected + y * planes.expectedStride, planes.columns);
    }
    return static_cast<double>(sum) / static_cast<double>(planes.columns * planes.rows);
}

constexpr size_t kWindow = 8;
constexpr size_t kStep = 4;

// Similarity: the SSIM of a plane, by sums over the columns of a row of windows.
//
// Life     of one plane.
// Threads  one.
// Owns     the sums.
template <typename Sample>
class Similarity {
public:
    Similarity(const PlanePair<Sample>& planes, double peak)
        : mPlanes(planes),
          mWidth(std::min(planes.columns, kWindow)),
          mHeight(std::min(planes.rows, kWindow)),
          mC1(std::pow(0.01 * peak * count(), 2)),
          mC2(std::pow(0.03 * peak * count(), 2)),
          mUpper(planes.columns),
          mLower(planes.columns),
          mAll(planes.columns),
          mSteps(planes.columns / kStep) {}

    double mean() {
        const size_t right = mPlanes.columns - mWidth, bottom = mPlanes.rows - mHeight;
        const bool isWhole = mWidth == kWindow && mHeight == kWindow;
        double sum = 0;
        size_t windows = 0;
        for (size_t y = 0; y < bottom + kStep; y += kStep) {
            sumColumns(std::min(y, bottom));
            for (size_t x = 0; x < right + kStep; x += kStep, ++windows) {
                const size_t left = std::min(x, right);
                const bool isOnSteps = isWhole && left % kStep == 0;
                sum += isOnSteps ? ofWindow([at = left / kStep](const std::vector<Sum>&,
                                                                const std::vector<Sum>& steps) {
                    return steps[at] + steps[at + 1];
                })
                                 : ofWindow([&](const std::vector<Sum>& columns, const auto&) {
                                       return std::accumulate(&columns[left],
                                                              &columns[left] + mWidth, Sum{0});
                                   });
            }
        }
        return sum / static_cast<double>(windows);
    }

private:
    // Holds 8 squares, or 64 of 8-bit samples.
    using Sum = std::conditional_t<sizeof(Sample) == 1, uint32_t, uint64_t>;

    // Of each column, over some rows.
    struct Sums {
        explicit Sums(size_t columns)
            : actual(columns), expected(columns), squares(columns), products(columns) {}

        std::vector<Sum> actual, expected, squares, products;
        size_t top = SIZE_MAX;  // the first of the rows
    };

    double count() const { return static_cast<double>(mWidth * mHeight); }

    // Sums the columns of the windows from row `top` on. Their upper half is the lower one of those
    // before, but for the last ones.
    void sumColumns(size_t top) {
        if (mHeight < kWindow) return sumRows(top, mHeight, &mAll);
        if (mLower.top == top) {
            std::swap(mUpper, mLower);
        } else {
            sumRows(top, kStep, &mUpper);
        }
        sumRows(top + kStep, kStep, &mLower);
        for (const auto sums : {&Sums::actual, &Sums::expected, &Sums::squares, &Sums::products}) {
            addUp((mUpper.*sums).data(), (mLower.*sums).data(), (mAll.*sums).data());
            const Sum* column = (mAll.*sums).data();
            for (Sum& step : mSteps.*sums) {
                step = column[0] + column[1] + column[2] + column[3];
                column += kStep;
            }
        }
    }

    void addUp(const Sum* upper, const Sum* lower, Sum* __restrict all) const {
        for (size_t x = 0; x < mPlanes.columns; ++x) all[x] = upper[x] + lower[x];
    }

    void sumRows(size_t top, size_t rows, Sums* sums) const {
        for (auto* const of : {&sums->actual, &sums->expected, &sums->squares, &sums->products}) {
            std::fill(of->begin(), of->end(), 0);
        }
        for (size_t y = top; y < top + rows; ++y) {
            addRow(mPlanes.actual + y * mPlanes.actualStride,
                   mPlanes.expected + y * mPlanes.expectedStride, mPlanes.columns,
                   sums->actual.data(), sums->expected.data(), sums->squares.data(),
                   sums->products.data());
        }
        sums->top = top;
    }

    static void addRow(const Sample* actual, const Sample* expected, size_t columns,
                       Sum* __restrict sumsOfActual, Sum* __restrict sumsOfExpected,
                       Sum* __restrict squares, Sum* __restrict products) {
        for (size_t x = 0; x < columns; ++x) {
            const uint32_t a = actual[x], b = expected[x];
            sumsOfActual[x] += a;
            sumsOfExpected[x] += b;
            squares[x] += Sum{a * a} + Sum{b * b};
            products[x] += Sum{a * b};
        }
    }

    // In whole numbers as far as possible, so that equal windows have exactly 1. `sumOf` sums what
    // the window has of columns, or of steps.
    template <typename SumOf>
    double ofWindow(SumOf sumOf) const {
        const auto sum = [&](std::vector<Sum> Sums::*of) {
            return static_cast<int64_t>(sumOf(mAll.*of, mSteps.*of));
        };
        const int64_t a = sum(&Sums::actual), b = sum(&Sums::expected);
        const int64_t means = a * a + b * b, samples = static_cast<int64_t>(mWidth * mHeight);
        return (double(2 * a * b) + mC1) *
               (double(2 * (samples * sum(&Sums::products) - a * b)) + mC2) /
               ((double(means) + mC1) * (double(samples * sum(&Sums::squares) - means) + mC2));
    }

    const PlanePair<Sample>& mPlanes;
    const size_t mWidth, mHeight;  // of a window
    const double mC1, mC2;         // for sums in place of means
    Sums mUpper, mLower, mAll;     // halves of the windows, and both
    Sums mSteps;                   // the same of kStep columns each
};

}  // namespace

std::string planeName(const PictureFormat& format, int plane) {
    if (!format.isPicture()) return "byte";
    return plane == 0 ? "Y" : plane == 1 ? "Cb" : "Cr";
}

Figures errorsOf(const FrameView& actual, const FrameView& expected) {
    const double peak = peakOf(actual.format());
    return measured(actual, expected,
                    [&](const auto& planes) { return meanOfSquares(planes) / (peak * peak); });
}

double psnrOf(double error, int depth) {
    constexpr double kLeast = 1e-30;
    return std::min(-10 * std::log10(std::max(error, kLeast)), 6.0 * depth + 12);
}

Figures psnrOf(Figures errors, int depth) {
    for (Figure& figure : errors) figure.value = psnrOf(figure.value, depth);
    return errors;
}

Figures ssimOf(const FrameView& actual, const FrameView& expected) {
    const double peak = peakOf(actual.format());
    return measured(actual, expected,
                    [&](const auto& planes) { return Similarity(planes, peak).mean(); });
}

std::string planesText(const Figures& figures) {
    std::string text;
    for (const Figure& figure : figures) {
        if (figure.plane.empty()) continue;
        text += concat(text.empty() ? "(" : " ", figure.plane, " ", figure.value);
    }
    return text + ")";
}

}  // namespace vxrun
