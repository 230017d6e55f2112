// WrongAreas: what the places of the wrong samples say about the cause.
#pragma once

#include "Vxkit.h"

#include <vxkit/Mismatch.h>

#include <optional>
#include <string>
#include <vector>

namespace vxrun {

// A plain value.
struct Hint {
    std::string text, reason;
};

// What is known of the wrong frames. A plain value.
struct WrongAreas {
    // In decoding order where that is known, else in output order.
    std::vector<WrongFrame> frames;
    bool isDecodingOrder = false;
    std::string kind, shape;  // see Mismatch
    std::string finding;      // see NodeRecord
    uint64_t checked = 0;     // frames that were compared, the right ones, too
};

// The most likely cause, with its reason; empty when the evidence is thin.
std::optional<Hint> hintOf(const WrongAreas& areas);

}  // namespace vxrun
