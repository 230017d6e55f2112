// HeaderTrace: the syntax of a stream's headers, as libavcodec's trace_headers filter states it.
#pragma once

#include "LibavFrames.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace vxrun {

// A header: its name, and its syntax elements in the order of the stream. A plain value.
struct TracedHeader {
    // The last value of an element; `otherwise` when it is not there.
    int64_t value(const std::string& element, int64_t otherwise = 0) const;
    // The elements as lines.
    std::string text() const;

    std::string name;  // "Sequence Parameter Set", "Slice Header", ...
    std::vector<std::pair<std::string, int64_t>> elements;
};

// Threads  one at a time.
// Owns     the filter.
class HeaderTrace {
public:
    // No headers come out where libavcodec cannot trace the codec.
    explicit HeaderTrace(const LibavStreamInfo& stream);

    // Those outside of the access units.
    const std::vector<TracedHeader>& outOfBand() const { return mOutOfBand; }
    // Those of the next access unit; of a damaged one those before the damage. Every unit of the
    // stream has to be given: later ones cannot be read without earlier ones.
    std::vector<TracedHeader> read(const AVPacket& unit);

private:
    Libav<AVBSFContext> mFilter;  // null: the codec cannot be traced
    std::vector<TracedHeader> mOutOfBand;
};

}  // namespace vxrun
