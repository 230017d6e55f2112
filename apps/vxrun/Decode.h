// Decode: the graph of `vxrun decode`, which needs no graph file.
#pragma once

#include <VXGraph.h>

#include <cstdint>
#include <string>

namespace vxrun {

struct DecodeOptions {
    std::string input;
    std::string output;  // the raw video to write; empty: none
    bool md5 = false;    // print the MD5 of the raw video; without an output it is printed anyway
    std::string format;  // the pixel format to insist on; empty, "None", "Unknown": any
    std::string codec;
    std::string allocator;
    uint32_t threads = 1;
    bool tolerateErrors = false;
    int unsupportedExit = 69;  // EX_UNAVAILABLE, as runners of conformance suites expect it
};

// source/bitstream -> codec/decoder -> sink/file, sink/checksum or both.
vexa::VXGraphInfo decodeGraph(const DecodeOptions& options);

}  // namespace vxrun
