// FrameFigures: how near a frame is to the expected one, as PSNR and SSIM. The samples are read
// where they are; both frames have the same planes, see haveSamePlanes().
#pragma once

#include "Vxkit.h"

#include <vxkit/FrameView.h>

#include <string>
#include <vector>

namespace vxrun {

// Figure: of one plane, or of all samples of a frame. A plain value.
struct Figure {
    std::string plane;  // "Y", "Cb", "Cr", or "byte" of a block; empty: all of them
    double value;
};
using Figures = std::vector<Figure>;  // of each plane, then of all

// The name of a plane, as above.
std::string planeName(const PictureFormat& format, int plane);

// The mean squared error in units of peak^2.
Figures errorsOf(const FrameView& actual, const FrameView& expected);

// The PSNR of such an error, in dB: 10 log10(peak^2 / mse), at most 6 * depth + 12, which equal
// samples have.
double psnrOf(double error, int depth);
Figures psnrOf(Figures errors, int depth);

// The mean structural similarity over windows of 8x8 samples, 4 apart; the last ones end with the
// row or column, and a smaller plane is one window. 1 for equal planes. Constants (0.01 peak)^2 and
// (0.03 peak)^2, population variances. That of all is the mean of the planes, weighted by their
// samples.
Figures ssimOf(const FrameView& actual, const FrameView& expected);

// "(Y 40 Cb 44 Cr 43.81)": the figures of the planes.
std::string planesText(const Figures& figures);

}  // namespace vxrun
