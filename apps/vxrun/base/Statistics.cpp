#include "Statistics.h"

#include <algorithm>
#include <cmath>
#include <functional>

namespace vxrun {

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    return (values[(n - 1) / 2] + values[n / 2]) / 2;
}

Interval medianInterval(std::vector<double> values, double confidence) {
    std::sort(values.begin(), values.end());
    const auto n = static_cast<double>(values.size());
    // Each value is below the median with probability 1/2. The k-th smallest one is above it when
    // fewer than k values are below.
    const auto chanceOf = [&](size_t below) {
        const auto k = static_cast<double>(below);
        return std::exp(std::lgamma(n + 1) - std::lgamma(k + 1) - std::lgamma(n - k + 1) -
                        n * std::log(2));
    };
    size_t first = 0;
    double outside = 2 * chanceOf(0);
    while (2 * (first + 1) < values.size() && outside + 2 * chanceOf(first + 1) <= 1 - confidence) {
        outside += 2 * chanceOf(++first);
    }
    return {values[first], values[values.size() - 1 - first], std::max(1 - outside, 0.0)};
}

Ratio pairedRatio(const std::vector<double>& values, const std::vector<double>& others) {
    std::vector<double> ratios(values.size());
    std::transform(values.begin(), values.end(), others.begin(), ratios.begin(), std::divides<>());
    return {median(ratios), medianInterval(ratios)};
}

Ratio ratioOfMedians(const std::vector<double>& values, const std::vector<double>& others) {
    // Both have to hold: each may fail in half of the cases in which the ratio may.
    const Interval ours = medianInterval(values, (1 + kConfidence) / 2);
    const Interval theirs = medianInterval(others, (1 + kConfidence) / 2);
    return {median(values) / median(others),
            {ours.low / theirs.high, ours.high / theirs.low,
             std::max(ours.confidence + theirs.confidence - 1, 0.0)}};
}

}  // namespace vxrun
