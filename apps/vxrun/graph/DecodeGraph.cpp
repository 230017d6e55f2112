#include "DecodeGraph.h"

namespace vxrun {

using vexa::VXGraphInfo;
using vexa::VXNodeDescriptor;

VXGraphInfo decodeGraph(const DecodeOptions& options) {
    constexpr char kUnits[] = "video/bitstream", kPictures[] = "video/raw";
    VXGraphInfo graph;
    graph.name = "decode";
    // Adds a node with an input and an output of these formats, null for none; returns its configs.
    const auto addNode = [&](const char* type, const std::string& name, const char* input,
                             const char* output) -> auto& {
        auto node = std::make_unique<VXNodeDescriptor>();
        node->type = type;
        node->name = name;
        if (input != nullptr) node->inputPorts.push_back({name + ".in", input});
        if (output != nullptr) node->outputPorts.push_back({name + ".out", output});
        return graph.nodes.emplace_back(std::move(node))->configs;
    };
    const bool anyFormat = options.format == "None" || options.format == "Unknown";
    addNode("source/bitstream", "reader", nullptr, kUnits)["file"] = options.input;
    addNode("codec/decoder", "decoder", kUnits, kPictures) = {
        {"codec", options.codec}, {"format", anyFormat ? "" : options.format}};
    graph.connections["reader.out"] = {"decoder.in"};
    auto& sinks = graph.connections["decoder.out"];
    if (!options.output.empty()) {
        addNode("sink/file", "writer", kPictures, nullptr)["file"] = options.output;
        sinks.push_back("writer.in");
    }
    if (options.md5 || options.output.empty()) {
        addNode("sink/checksum", "md5", kPictures, nullptr)["print_md5"] = "true";
        sinks.push_back("md5.in");
    }
    return graph;
}

}  // namespace vxrun
