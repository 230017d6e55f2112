// Limits: what a run must reach, as options and graph files state it.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace vxrun {

// Life     static.
// Threads  any.
struct LimitKind {
    std::string name;   // in graph files; of the option with hyphens
    std::string usage;  // what the option expects
    std::string help;
    std::string unit;    // of the figure, for people
    bool isLeast;        // the figure must not be below the limit; else not above it
    bool isSize;         // of bytes, which may end in k, M or G
    std::string figure;  // what is missing where nothing was measured
};
// All kinds.
const std::vector<LimitKind>& limitKinds();

// The limits of a run, by the names of their kinds.
using Limits = std::map<std::string, double>;

// The limit `text` of `kind`. Throws Failure when it is malformed or out of range.
double parseLimit(const LimitKind& kind, const std::string& text);

}  // namespace vxrun
