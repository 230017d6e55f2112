// TestedDecoder: a decoder that is to be tested, and how a video file is decoded with it
// (docs/decoders.md).
#pragma once

#include "Limits.h"
#include "Vxkit.h"

#include <VXGraph.h>

#include <map>
#include <string>
#include <unordered_map>
#include <vector>

namespace vxrun {

class TestedDecoder;

struct DecodeOptions {
    std::string input;
    std::string output;  // the raw video to write; empty: none
    bool md5 = false;    // print the MD5 of the raw video; without an output it is printed anyway
    std::string format;  // the pixel format that is required; empty, "None", "Unknown": any
    std::string codec;   // libavcodec's name, or that of one of its decoders; empty: the stream's
    std::string list = {};  // the checksum list that the pictures must match; empty: none
    const TestedDecoder* against = nullptr;  // whose pictures they must equal; null: no other's
};

// Life     made from a description, then probed once.
// Threads  one at a time.
class TestedDecoder {
public:
    // libavcodec's, if this program has it.
    TestedDecoder();
    static bool hasDefault();
    // The decoder `name`: a description, as a file or as the name of a shipped one, or a node type.
    // Throws Failure, Verdict::BadOption, for an unknown one, and for a description with a mistake
    // what JsonDocument throws.
    static TestedDecoder find(const std::string& name);
    // The graph file `path` as a template: in the values of its configs {input} and {format} stand
    // for a file and a pixel format. Its one sink/checksum computes the MD5.
    static TestedDecoder ofGraph(const std::string& path);

    const std::string& name() const { return mName; }
    const std::string& help() const { return mHelp; }
    const std::string& version() const { return mVersion; }  // empty when it is not known

    // Finds out whether the decoder can run here, and which version it is. The reason why it
    // cannot; empty when it can.
    std::string probe();
    // The description's variables, NAME=VALUE.
    const std::vector<std::string>& environment() const { return mEnvironment; }
    // Sets them in the environment of this process, whose other threads do
    // not run yet.
    void setEnvironment() const;
    // Why it is not made for streams of `codec`; empty when it is.
    std::string refusal(const std::string& codec) const;

    // What this machine lacks for `graph`, one of the decoder's, as its nodes find out in a process
    // of their own; empty when it lacks nothing.
    static std::string probe(const vexa::VXGraphInfo& graph);

    // source/bitstream -> decoder -> sink/file, sink/checksum or both: the nodes reader, decoder,
    // writer and md5. A decoder that reads files itself has no reader; without libavformat it is a
    // source/ivf.
    // A list is compared by the node md5. The pictures of another decoder are compared by the node
    // compare; its nodes and ports are those of its own graph with "reference_" before their names.
    // `limits`, unless null, becomes those of a template.
    vexa::VXGraphInfo graphFor(const DecodeOptions& options, Limits* limits = nullptr) const;

    // Those of the shipped descriptions.
    static std::vector<TestedDecoder> shipped();

private:
    void read(const std::string& path);
    vexa::VXGraphInfo decodingGraph(const DecodeOptions& options, Limits* limits) const;

    std::string mName, mHelp, mVersion;
    std::vector<std::string> mCodecs;                       // empty: any
    std::string mNodeType;                                  // empty: a graph
    std::unordered_map<std::string, std::string> mConfigs;  // of the node
    std::string mGraph;                                     // the template's path
    std::vector<std::string> mProbe;                        // a command; empty: none
    std::vector<std::string> mEnvironment;
};

}  // namespace vxrun
