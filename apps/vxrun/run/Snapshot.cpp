#include "Snapshot.h"

#include "Console.h"
#include "Files.h"
#include "Text.h"

#include <map>

namespace vxrun {
namespace {

// Such as 0.00.01.234.
std::string clockText(std::chrono::milliseconds age) {
    const auto ms = age.count();
    const auto two = std::setw(2);
    return concat(std::setfill('0'), ms / 3600000, ".", two, ms / 60000 % 60, ".", two,
                  ms / 1000 % 60, ".", std::setw(3), ms % 1000);
}

std::string stateText(const Evidence::Moment& node) {
    static constexpr const char* kNames[] = {"created", "setting up", "set up",
                                             "running", "stopped",    "torn down"};
    const NodeRecord& record = node.record;
    return concat(kNames[node.status.state], record.busy ? ", processing" : "", ", ", record.frames,
                  " frames", record.endOfStream ? ", ended" : "");
}

std::string worksText(const Evidence::Moment& node) {
    return concat("pending ", node.status.pendingInputs, ", downstream ",
                  node.status.outstandingWorks, " of ", node.status.capacity);
}

std::string poolText(const PoolRecord& pool) {
    const auto out = static_cast<int64_t>(pool.out);
    std::string text = concat("free ", static_cast<int64_t>(pool.slots) - out, ", out ", out);
    int64_t elsewhere = out;
    for (const auto& [node, count] : pool.holders()) {
        if (count <= 0) continue;
        text += concat(", ", printable(node->name), " holds ", count);
        elsewhere -= count;
    }
    return elsewhere > 0 ? concat(text, ", on the way ", elsewhere) : text;
}

// A label of several lines, each justified to the left.
std::string label(const std::vector<std::string>& lines) {
    std::string text = "\"";
    for (const std::string& line : lines) {
        for (const char c : printable(line)) {
            if (c == '"' || c == '\\') text += '\\';
            text += c;
        }
        text += "\\l";
    }
    return text + "\"";
}

}  // namespace

SnapshotMaker::SnapshotMaker(const vexa::VXGraphInfo& info, const Evidence& evidence,
                             std::string folder)
    : mEvidence(evidence), mFolder(std::move(folder)) {
    mInfo.name = info.name;
    mInfo.connections = info.connections;
    for (const auto& node : info.nodes) {
        mInfo.nodes.push_back(std::make_unique<vexa::VXNodeDescriptor>(*node));
    }
    if (!mFolder.empty()) makeFolder("--dot", mFolder);
}

std::string SnapshotMaker::graphText(std::chrono::milliseconds age) const {
    std::string text = concat("  graph '", printable(mInfo.name), "' at ", clockText(age), ":");
    for (const Evidence::Moment& node : mEvidence.nodes()) {
        text += concat("\n  node '", printable(node.record.name), "': ", stateText(node), "; ",
                       worksText(node));
        for (const auto& port : node.status.inputPorts) {
            text += concat("; port '", printable(port.name), "' queued ", port.queuedWorks);
        }
    }
    for (const PoolRecord* pool : mEvidence.pools()) {
        text += concat("\n  pool of '", printable(pool->name), "': ", poolText(*pool));
    }
    return text;
}

void SnapshotMaker::draw(std::chrono::milliseconds age, const std::string& reason) const {
    if (mFolder.empty()) return;
    const std::string time = clockText(age);
    try {
        writeTextFile("--dot", concat(mFolder, "/", time, "-", reason, ".dot"),
                      dot(concat(mInfo.name, ": ", reason, " at ", time)));
    } catch (const Failure& failure) {
        console::line(failure.what());
    }
}

std::string SnapshotMaker::dot(const std::string& title) const {
    std::map<std::string, std::vector<std::string>> lines;  // of a node's label
    std::map<std::string, uint64_t> queued;                 // by input port
    for (const Evidence::Moment& node : mEvidence.nodes()) {
        lines[node.record.name] = {stateText(node), worksText(node)};
        for (const auto& port : node.status.inputPorts) queued[port.name] = port.queuedWorks;
    }
    for (const PoolRecord* pool : mEvidence.pools()) {
        lines[pool->name].push_back("pool: " + poolText(*pool));
    }

    std::ostringstream text;
    text << "digraph graph_ {\n  rankdir=LR;\n  labelloc=t;\n  label=" << label({title})
         << ";\n  node [shape=box, style=filled, fontsize=9];\n  edge [fontsize=9];\n";
    std::map<std::string, std::string> inputs, outputs;  // the identifiers of ports
    const auto addPorts = [&](const auto& ports, auto* ids, const char* kind, const char* color) {
        for (const auto& port : ports) {
            const std::string id = (*ids)[port.name] = concat(kind, ids->size());
            text << "    " << id << " [label=" << label({port.name}) << ", fillcolor=\"" << color
                 << "\"];\n";
        }
    };
    for (const auto& node : mInfo.nodes) {
        auto& nodeLines = lines[node->name];
        nodeLines.insert(nodeLines.begin(), {node->name, node->type});
        text << "  subgraph cluster_" << inputs.size() + outputs.size()
             << " {\n    label=" << label(nodeLines) << ";\n";
        addPorts(node->inputPorts, &inputs, "in", "#aaaaff");
        addPorts(node->outputPorts, &outputs, "out", "#ffaaaa");
        text << "  }\n";
    }
    for (const auto& node : mInfo.nodes) {
        for (const auto& output : node->outputPorts) {
            for (const std::string& input : mInfo.connections.at(output.name)) {
                text << "  " << outputs[output.name] << " -> " << inputs[input]
                     << " [label=" << label({output.format, concat(queued[input], " queued")})
                     << "];\n";
            }
        }
    }
    return text.str() + "}\n";
}

}  // namespace vxrun
