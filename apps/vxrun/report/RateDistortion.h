// RateDistortion: how much better one encoder is than another, by the points that both have been
// measured at: Bjontegaard's deltas.
//
// The mean horizontal and vertical distance of two curves, PSNR over the logarithm of the bit rate,
// where both are defined (ITU-T VCEG-M33, and HSTP-VID-WPOM for its use). The curves are piecewise
// cubic, monotone between the points (PCHIP), as in VCEG-AI11's successors: a polynomial through
// all points may swing between them.
#pragma once

#include <cstddef>
#include <vector>

namespace vxrun {

// A point of an encoder's curve. A plain value.
struct RatePoint {
    double bitrate;  // bits per second
    double psnr;     // dB
};

constexpr size_t kLeastRatePoints = 4;  // of each curve

// By how many percent the bit rate of `tested` is higher than that of `anchor` at the same PSNR,
// and by how many dB its PSNR is higher at the same bit rate. The points may be in any order. Both
// throw Failure when a curve has too few points or does not rise, and when the curves have no range
// in common.
double bdRatePercent(const std::vector<RatePoint>& anchor, const std::vector<RatePoint>& tested);
double bdPsnr(const std::vector<RatePoint>& anchor, const std::vector<RatePoint>& tested);

}  // namespace vxrun
