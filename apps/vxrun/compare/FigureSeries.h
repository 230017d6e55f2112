// FigureSeries: figures of one kind, such as PSNR, over the frames of a run.
#pragma once

#include "FrameFigures.h"

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

namespace vxrun {

// The name of a figure in reports: "psnr_y" for the kind "psnr" and the plane "Y", "psnr" for that
// of all planes.
std::string figureName(const std::string& kind, const std::string& plane);

// FigureSeries: keeps every figure: 8 bytes for each frame and plane.
//
// Threads  one at a time.
class FigureSeries {
public:
    explicit FigureSeries(std::string kind) : mKind(std::move(kind)) {}

    void add(uint64_t frame, const Figures& figures);

    // A plane, or all of them.
    struct Summary {
        // The least figure that so many percent of the frames do not exceed.
        double percentile(size_t percent) const;

        std::string name;  // "psnr_y"
        double mean;
        uint64_t lowestFrame;        // the first that has the lowest figure
        std::vector<double> sorted;  // the figures of all frames
    };
    // Those of the planes, and last that of all.
    std::vector<Summary> summaries() const;

private:
    struct Plane {
        std::string name;
        std::vector<double> values;
        double lowest = std::numeric_limits<double>::infinity();
        uint64_t lowestFrame = 0;
    };

    const std::string mKind;
    std::vector<Plane> mPlanes;
};

}  // namespace vxrun
