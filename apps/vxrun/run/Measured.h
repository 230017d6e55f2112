// Measured: what was measured of a run, put together for people and reports.
#pragma once

#include "Limits.h"
#include "Vxkit.h"

#include <vxkit/Evidence.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vxrun {

// What this process has used, and the programs that it ran and that have ended. A plain value.
struct ProcessUse {
    double seconds = 0;  // of processors
    uint64_t peak = 0;   // bytes of memory
    double commandsSeconds = 0;
    uint64_t commandsPeak = 0;  // of the one with the most
    uint64_t preemptions = 0;   // involuntary switches to other threads, of all these processes
};
ProcessUse processUse();

// A limit and the figure that it is about; without a figure nothing was measured. A plain value.
struct LimitCheck {
    const LimitKind& kind;
    double limit;
    std::optional<double> value;
    bool isMet;
};
std::vector<LimitCheck> checkLimits(const Limits& limits, const Evidence& evidence);

// The lines of --stats, besides those of pools.
std::vector<std::string> statsLines(const Evidence& evidence);

}  // namespace vxrun
