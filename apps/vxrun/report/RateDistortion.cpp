#include "RateDistortion.h"

#include "Text.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace vxrun {
namespace {

using Point = std::pair<double, double>;

// The piecewise cubic curve through points that rise in both coordinates (Fritsch and Butland).
class Curve {
public:
    explicit Curve(std::vector<Point> points) : mPoints(std::move(points)) {
        const size_t last = mPoints.size() - 1;
        mSlopes.resize(mPoints.size());
        mSlopes[0] = slopeAtEnd(width(0), width(1), secant(0), secant(1));
        mSlopes[last] =
            slopeAtEnd(width(last - 1), width(last - 2), secant(last - 1), secant(last - 2));
        for (size_t i = 1; i < last; ++i) {
            const double before = 2 * width(i) + width(i - 1), after = width(i) + 2 * width(i - 1);
            mSlopes[i] = (before + after) / (before / secant(i - 1) + after / secant(i));
        }
    }

    double low() const { return mPoints.front().first; }
    double high() const { return mPoints.back().first; }

    // From low() to `x`.
    double integral(double x) const {
        double sum = 0;
        for (size_t i = 0; i + 1 < mPoints.size() && mPoints[i].first < x; ++i) {
            const double h = width(i);
            const double t = std::min((x - mPoints[i].first) / h, 1.0);
            const double t2 = t * t, t3 = t2 * t, t4 = t3 * t;
            sum +=
                h * (mPoints[i].second * (t - t3 + t4 / 2) + mPoints[i + 1].second * (t3 - t4 / 2) +
                     h * mSlopes[i] * (t2 / 2 - t3 * 2 / 3 + t4 / 4) +
                     h * mSlopes[i + 1] * (t4 / 4 - t3 / 3));
        }
        return sum;
    }

private:
    double width(size_t i) const { return mPoints[i + 1].first - mPoints[i].first; }
    double secant(size_t i) const { return (mPoints[i + 1].second - mPoints[i].second) / width(i); }
    // From the two pieces at an end, the nearer one first. The curve does not fall.
    static double slopeAtEnd(double width, double nextWidth, double secant, double nextSecant) {
        const double slope =
            ((2 * width + nextWidth) * secant - width * nextSecant) / (width + nextWidth);
        return std::max(slope, 0.0);
    }

    std::vector<Point> mPoints;
    std::vector<double> mSlopes;
};

// The curve of `measured` with the logarithm of the bit rate along one axis: along y if `byPsnr`.
Curve curveOf(std::vector<RatePoint> measured, bool byPsnr) {
    if (measured.size() < kLeastRatePoints) {
        throw Failure(concat("needs ", kLeastRatePoints, " points per encoder"));
    }
    std::sort(measured.begin(), measured.end(),
              [](const auto& one, const auto& other) { return one.bitrate < other.bitrate; });
    std::vector<Point> points;
    for (const RatePoint& point : measured) {
        const bool rises = points.empty() || (point.bitrate > (&point - 1)->bitrate &&
                                              point.psnr > (&point - 1)->psnr);
        if (!rises || point.bitrate <= 0) {
            throw Failure("a curve does not rise: more bits do not give a higher PSNR");
        }
        const double rate = std::log10(point.bitrate);
        points.push_back(byPsnr ? Point(point.psnr, rate) : Point(rate, point.psnr));
    }
    return Curve(std::move(points));
}

// By how much `tested` is above `anchor`, on average.
double meanGap(const Curve& anchor, const Curve& tested, const char* axis) {
    const double low = std::max(anchor.low(), tested.low());
    const double high = std::min(anchor.high(), tested.high());
    if (low >= high) throw Failure(concat("the curves have no common range of ", axis));
    const auto area = [&](const Curve& curve) {
        return curve.integral(high) - curve.integral(low);
    };
    return (area(tested) - area(anchor)) / (high - low);
}

}  // namespace

double bdRatePercent(const std::vector<RatePoint>& anchor, const std::vector<RatePoint>& tested) {
    constexpr double kBase = 10, kPercent = 100;
    const double gap = meanGap(curveOf(anchor, true), curveOf(tested, true), "PSNR");
    return kPercent * (std::pow(kBase, gap) - 1);
}

double bdPsnr(const std::vector<RatePoint>& anchor, const std::vector<RatePoint>& tested) {
    return meanGap(curveOf(anchor, false), curveOf(tested, false), "bit rates");
}

}  // namespace vxrun
