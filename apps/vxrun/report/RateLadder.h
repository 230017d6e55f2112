// RateLadder: what encoders made of one clip at several bit rates, as texts for people and programs
// (docs/commands.md).
#pragma once

#include "Suite.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace vxrun {

// The nodes whose figures are shown: a sink/bitrate and a sink/compare.
constexpr char kRateNode[] = "rate", kCompareNode[] = "compare";

// A plain value.
struct RateLadder {
    const TestVector& at(size_t encoder, size_t rate) const {
        return runs.vectors[encoder * rates.size() + rate];
    }

    std::string source;
    std::vector<std::string> encoders;  // the first is the anchor
    std::vector<uint64_t> rates;        // bits per second, rising
    Suite runs;                         // a vector for each encoder and rate, encoder by encoder
    // What the results depend on besides the encoders, name and value.
    std::vector<std::pair<std::string, std::string>> facts;
};

// A bit rate as people write it: "500k", "1.5M".
std::string rateText(double rate);

// A table of the rungs and the Bjontegaard deltas for a terminal; a row per rung; all that is
// known; the curves as a drawing that needs nothing but itself.
std::string ladderTable(const RateLadder& ladder);
std::string ladderCsv(const RateLadder& ladder);
std::string ladderJson(const RateLadder& ladder);
std::string ladderSvg(const RateLadder& ladder);

}  // namespace vxrun
