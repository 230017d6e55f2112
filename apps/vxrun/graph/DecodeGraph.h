// DecodeGraph: the graph that decodes one video file, which needs no graph file.
#pragma once

#include "Vxkit.h"

#include <VXGraph.h>

#include <string>

namespace vxrun {

struct DecodeOptions {
    std::string input;
    std::string output;  // the raw video to write; empty: none
    bool md5 = false;    // print the MD5 of the raw video; without an output it is printed anyway
    std::string format;  // the pixel format that is required; empty, "None", "Unknown": any
    std::string codec;
};

// source/bitstream -> codec/decoder -> sink/file, sink/checksum or both: the nodes reader, decoder,
// writer and md5.
vexa::VXGraphInfo decodeGraph(const DecodeOptions& options);

}  // namespace vxrun
