#include "FigureSeries.h"

#include "Text.h"

#include <algorithm>
#include <numeric>

namespace vxrun {

std::string figureName(const std::string& kind, const std::string& plane) {
    return plane.empty() ? kind : kind + "_" + lowerCase(plane);
}

void FigureSeries::add(uint64_t frame, const Figures& figures) {
    for (const Figure& figure : figures) {
        const auto isSame = [&](const Plane& plane) { return plane.name == figure.plane; };
        auto plane = std::find_if(mPlanes.begin(), mPlanes.end(), isSame);
        if (plane == mPlanes.end()) {
            plane = mPlanes.emplace(plane);
            plane->name = figure.plane;
        }
        plane->values.push_back(figure.value);
        if (figure.value >= plane->lowest) continue;
        plane->lowest = figure.value;
        plane->lowestFrame = frame;
    }
}

std::vector<FigureSeries::Summary> FigureSeries::summaries() const {
    std::vector<Summary> summaries;
    for (const Plane& plane : mPlanes) {
        Summary& summary = summaries.emplace_back();
        summary.name = figureName(mKind, plane.name);
        summary.lowestFrame = plane.lowestFrame;
        summary.sorted = plane.values;
        std::sort(summary.sorted.begin(), summary.sorted.end());
        summary.mean = std::accumulate(plane.values.begin(), plane.values.end(), 0.0) /
                       static_cast<double>(plane.values.size());
    }
    return summaries;
}

double FigureSeries::Summary::percentile(size_t percent) const {
    constexpr size_t kAll = 100;
    const size_t rank = (sorted.size() * percent + kAll - 1) / kAll;  // rounded up
    return sorted[std::max<size_t>(rank, 1) - 1];
}

}  // namespace vxrun
