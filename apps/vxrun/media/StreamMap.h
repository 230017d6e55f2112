// StreamMap: which bytes of a video file each picture comes from.
#pragma once

#include "Vxkit.h"

#include <vxkit/FrameView.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace vxrun {

// An access unit as a file has it. A plain value.
struct StreamUnit {
    static constexpr uint64_t kNoOffset = UINT64_MAX;

    uint64_t offset = kNoOffset;  // of its first byte in the file, where it can be told
    uint64_t bytes = 0;
    int64_t pts = UnitInfo::kNoTime, dts = UnitInfo::kNoTime;  // in units of StreamMap::timeBase
    bool isKey = false;                                        // decoding can begin here
};

// A picture as a stream codes it. An access unit has one, or none, or, with hidden pictures,
// several. A plain value.
struct CodedPicture {
    size_t unit = 0;          // its access unit
    char type = 0;            // 'I', 'P' or 'B'; 0 when not known
    int temporalLayer = -1;   // -1: the codec has none, or it is not known
    bool isReference = true;  // others may refer to it
    // The pictures that it may refer to; `refersExactly`: those that it does refer to.
    std::vector<size_t> refers;
    bool refersExactly = false;
};

// A plain value.
struct StreamMap {
    std::string codec;  // its name at libavcodec
    Rational timeBase = {0, 1};
    std::vector<StreamUnit> units;       // in decoding order
    std::vector<CodedPicture> pictures;  // in decoding order
    // For each frame that a decoder puts out, in output order, the picture that it shows. One that
    // is shown twice is there twice.
    std::vector<size_t> frames;
};

// Maps the best video stream of the file `path`. Decodes all of it. Throws Failure for what is no
// video file, Verdict::NotSupported without FFmpeg's libraries.
StreamMap mapStream(const std::string& path);

// The syntax of the headers of these access units, a section for each, as libavcodec's
// trace_headers filter states it. Throws Failure as mapStream() does.
std::string headersOf(const std::string& path, const std::vector<size_t>& units);

}  // namespace vxrun
