// FailureReport: what is known about a failed run, as the member "failure" of reports and as lines.
#pragma once

#include "RunProcess.h"
#include "StreamMap.h"

#include <VXGraph.h>
#include <nlohmann/json.hpp>

#include <string>
#include <vector>

namespace vxrun {

using FailureJson = nlohmann::ordered_json;

// What a run is about, besides its evidence. A plain value.
struct FailureFacts {
    FailureSignature signature;
    std::string text;  // the first error line
    std::string log, command, input;
    std::string bundle;  // the file that is written for it; empty: none
};

// The file that the pictures come from which `node` tests, or the graph's sources if it is empty;
// empty when there is none, or a raw video, which has no access units.
std::string videoOf(const vexa::VXGraphInfo& graph, const std::string& node);

// What only the run's process knows: the wrong frames, the hint, and, if `input` is a video file,
// the access units that they come from. The stream is mapped in a process of its own: it may crash
// on what the decoder fails on. Empty when no frame is wrong.
FailureJson wrongFramesOf(const Evidence& evidence, const std::string& input);
// The part of that which a map adds: "stream", the first wrong frames, and "order", the numbers in
// decoding order of the wrong frames' pictures; or "no_map", why it says nothing.
FailureJson traceOf(const StreamMap& map, const std::vector<WrongFrame>& wrong, uint64_t frames,
                    bool isComplete);

// The whole member. `wrongFrames` is what wrongFramesOf() has made.
FailureJson failureOf(const FailureFacts& facts, const FailureJson& wrongFrames);
// What it says about access units and the cause, in lines for people; none when it says nothing.
std::vector<std::string> linesOf(const FailureJson& failure);

}  // namespace vxrun
