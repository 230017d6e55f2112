#include "Limits.h"

#include "Text.h"

namespace vxrun {

const std::vector<LimitKind>& limitKinds() {
    static const std::vector<LimitKind> kinds = {
        {"min_fps", "N", "Fail the run when it is slower, in frames per second", " frames/s", true,
         false, "no frame came through"},
        {"max_latency_p99", "MS",
         "Fail the run when 1 in 100 pictures takes longer, in milliseconds",
         " ms of latency (p99)", false, false, "no picture had the time of an access unit"},
        {"max_rss", "SIZE", "Fail the run when it uses more memory; k, M and G are units",
         " bytes of memory", false, true, "the peak of the memory is not known"}};
    return kinds;
}

double parseLimit(const LimitKind& kind, const std::string& text) {
    constexpr double kLeast = 0.001, kMost = 1e15;
    if (!kind.isSize) return parseReal(text, kLeast, kMost);
    constexpr char kUnits[] = "kMG";
    const size_t unit = std::string(kUnits).find(text.empty() ? ' ' : text.back());
    if (unit == std::string::npos) return static_cast<double>(parseNumber(text, 1, UINT64_MAX));
    const uint64_t size = 1ull << (10 * (unit + 1));
    const std::string number = text.substr(0, text.size() - 1);
    return static_cast<double>(parseNumber(number, 1, UINT64_MAX / size) * size);
}

}  // namespace vxrun
