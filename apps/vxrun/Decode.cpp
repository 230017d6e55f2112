#include "Decode.h"

#include <map>
#include <utility>

namespace vxrun {

using vexa::VXGraphInfo;
using vexa::VXNodeDescriptor;

VXGraphInfo decodeGraph(const DecodeOptions& options) {
    VXGraphInfo graph;
    graph.name = "decode";
    // Adds a node that is fed by `upstream` and takes `takes`; empty texts: it has no such port.
    const auto add = [&](const std::string& type, const std::string& name,
                         std::map<std::string, std::string> configs, const std::string& upstream,
                         const std::string& takes, const std::string& gives) {
        auto node = std::make_unique<VXNodeDescriptor>();
        node->type = type;
        node->name = name;
        for (auto& [key, value] : configs) node->configs[key] = std::move(value);
        if (!takes.empty()) {
            node->inputPorts.push_back({name + ".in", takes});
            graph.connections[upstream + ".out"].push_back(name + ".in");
        }
        if (!gives.empty()) node->outputPorts.push_back({name + ".out", gives});
        graph.nodes.push_back(std::move(node));
    };
    const bool anyFormat = options.format == "None" || options.format == "Unknown";
    add("source/bitstream", "reader", {{"file", options.input}, {"allocator", options.allocator}},
        "", "", "video/bitstream");
    add("codec/decoder", "decoder",
        {{"codec", options.codec},
         {"format", anyFormat ? "" : options.format},
         {"threads", std::to_string(options.threads)},
         {"tolerate_errors", options.tolerateErrors ? "true" : "false"}},
        "reader", "video/bitstream", "video/raw");
    if (!options.output.empty()) {
        add("sink/file", "writer", {{"file", options.output}}, "decoder", "video/raw", "");
    }
    if (options.md5 || options.output.empty()) {
        add("sink/checksum", "md5", {{"print_md5", "true"}}, "decoder", "video/raw", "");
    }
    return graph;
}

}  // namespace vxrun
