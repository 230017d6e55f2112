// Statistics: what repeated measurements show, however they are distributed.
// All functions: [any thread]
#pragma once

#include <vector>

namespace vxrun {

// The middle one of `values`, of which there is one at least; of an even number the mean of both.
double median(std::vector<double> values);

// Bounds of a median, and the probability that they hold it.
struct Interval {
    double low = 0, high = 0, confidence = 0;
};

// An interval for the median of that which `values`, at least one, are measurements of. Its bounds
// are the k-th smallest and the k-th largest value, with the largest k that gives `confidence`;
// where there are too few values for that, the smallest and the largest one, with the confidence
// that these give: 1 - 2^(1-n).
constexpr double kConfidence = 0.95;
Interval medianInterval(std::vector<double> values, double confidence = kConfidence);

// How many times as large one thing is as another.
struct Ratio {
    double value = 0;
    Interval interval;  // with kConfidence where there are enough values

    bool isDifference() const { return interval.low > 1 || interval.high < 1; }
};

// Of values that were measured side by side, as many of each: the median of their ratios, so that
// what disturbs both does not count.
Ratio pairedRatio(const std::vector<double>& values, const std::vector<double>& others);
// Of values that were measured apart: the ratio of the medians. Its interval is that of the ends of
// both medians' intervals; its confidence is the least that it can be.
Ratio ratioOfMedians(const std::vector<double>& values, const std::vector<double>& others);

}  // namespace vxrun
