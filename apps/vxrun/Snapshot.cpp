#include "Snapshot.h"

#include "Console.h"
#include "Failure.h"
#include "Files.h"

#include <filesystem>
#include <map>

namespace vxrun {
namespace {

// Such as 0.00.01.234.
std::string clockText(std::chrono::milliseconds age) {
    const auto ms = age.count();
    char text[48];
    std::snprintf(text, sizeof text, "%d.%02d.%02d.%03d", static_cast<int>(ms / 3600000),
                  static_cast<int>(ms / 60000 % 60), static_cast<int>(ms / 1000 % 60),
                  static_cast<int>(ms % 1000));
    return text;
}

std::string stateText(const Evidence::Moment& node) {
    static constexpr const char* kNames[] = {"created", "setting up", "set up",
                                             "running", "stopped",    "torn down"};
    const NodeRecord& record = node.record;
    return std::string(kNames[node.status.state]) + (record.busy ? ", processing" : "") + ", " +
           std::to_string(record.frames) + " frames" + (record.endOfStream ? ", ended" : "");
}

std::string worksText(const Evidence::Moment& node) {
    return "pending " + std::to_string(node.status.pendingInputs) + ", downstream " +
           std::to_string(node.status.outstandingWorks) + " of " +
           std::to_string(node.status.capacity);
}

std::string poolText(const PoolRecord& pool) {
    const auto out = static_cast<int64_t>(pool.out);
    std::string text = "free " + std::to_string(static_cast<int64_t>(pool.slots) - out) + ", out " +
                       std::to_string(out);
    int64_t elsewhere = out;
    for (const auto& [node, count] : pool.holders()) {
        if (count <= 0) continue;
        text += ", " + node->name + " holds " + std::to_string(count);
        elsewhere -= count;
    }
    if (elsewhere > 0) text += ", on the way " + std::to_string(elsewhere);
    return text;
}

// A label of several lines, each justified to the left.
std::string label(const std::vector<std::string>& lines) {
    std::string text = "\"";
    for (const std::string& line : lines) {
        for (const char c : line) {
            if (c == '"' || c == '\\') text += '\\';
            text += static_cast<unsigned char>(c) < ' ' ? '?' : c;
        }
        text += "\\l";
    }
    return text + "\"";
}

}  // namespace

SnapshotMaker::SnapshotMaker(const vexa::VXGraphInfo& info, const Evidence& evidence,
                             std::string folder)
    : mName(info.name),
      mEvidence(evidence),
      mFolder(std::move(folder)),
      mConnections(info.connections) {
    for (const auto& node : info.nodes) {
        mNodes.push_back({node->name, node->type, node->inputPorts, node->outputPorts});
    }
    std::error_code error;
    if (!mFolder.empty()) std::filesystem::create_directories(mFolder, error);
    if (error) throw Failure("vxrun: --dot: " + mFolder + ": " + error.message(), "BAD_OPTION");
}

std::string SnapshotMaker::text(std::chrono::milliseconds age) const {
    std::string text = "  graph '" + mName + "' at " + clockText(age) + ":";
    for (const Evidence::Moment& node : mEvidence.nodes()) {
        text += "\n  node '" + node.record.name + "': " + stateText(node) + "; " + worksText(node);
        for (const auto& port : node.status.inputPorts) {
            text += "; port '" + port.name + "' queued " + std::to_string(port.queuedWorks);
        }
    }
    for (const PoolRecord* pool : mEvidence.pools()) {
        text += "\n  pool of '" + pool->name + "': " + poolText(*pool);
    }
    return text;
}

void SnapshotMaker::draw(std::chrono::milliseconds age, const std::string& reason) const {
    if (mFolder.empty()) return;
    const std::string time = clockText(age);
    try {
        OutputFile file((std::filesystem::path(mFolder) / (time + "-" + reason + ".dot")).string());
        file.write(dot(mName + ": " + reason + " at " + time));
        file.commit();
    } catch (const Failure& failure) {
        console::line(std::string("vxrun: --dot: ") + failure.what());
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

    std::string text = "digraph graph_ {\n  rankdir=LR;\n  labelloc=t;\n  label=" + label({title}) +
                       ";\n  node [shape=box, style=filled, fontsize=9];\n  edge [fontsize=9];\n";
    std::map<std::string, std::string> inputIds;
    for (size_t i = 0; i < mNodes.size(); ++i) {
        const Node& node = mNodes[i];
        const std::string id = "n" + std::to_string(i);
        auto& its = lines[node.name];
        its.insert(its.begin(), {node.name, node.type});
        text += "  subgraph cluster_" + id + " {\n    label=" + label(its) + ";\n";
        const auto addPort = [&](const std::string& port, size_t number, const char* kind,
                                 const char* color) {
            std::string portId = id + kind + std::to_string(number);
            text +=
                "    " + portId + " [label=" + label({port}) + ", fillcolor=\"" + color + "\"];\n";
            return portId;
        };
        for (size_t p = 0; p < node.inputs.size(); ++p) {
            inputIds[node.inputs[p].name] = addPort(node.inputs[p].name, p, "_in", "#aaaaff");
        }
        for (size_t p = 0; p < node.outputs.size(); ++p) {
            addPort(node.outputs[p].name, p, "_out", "#ffaaaa");
        }
        text += "  }\n";
    }
    for (size_t i = 0; i < mNodes.size(); ++i) {
        for (size_t p = 0; p < mNodes[i].outputs.size(); ++p) {
            const auto& output = mNodes[i].outputs[p];
            const auto targets = mConnections.find(output.name);
            if (targets == mConnections.end()) continue;
            for (const std::string& input : targets->second) {
                text += "  n" + std::to_string(i) + "_out" + std::to_string(p) + " -> " +
                        inputIds[input] + " [label=" +
                        label({output.format, std::to_string(queued[input]) + " queued"}) + "];\n";
            }
        }
    }
    return text + "}\n";
}

}  // namespace vxrun
