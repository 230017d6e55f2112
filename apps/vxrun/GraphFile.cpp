#include "GraphFile.h"

#include "AppNode.h"
#include "Failure.h"
#include "Json.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <set>
#include <vector>

namespace vxrun {
namespace {

using vexa::VXGraphInfo;
using vexa::VXNodeDescriptor;

// GraphReader: one walk over the document, from top to bottom.
class GraphReader {
public:
    explicit GraphReader(const std::string& path)
        : mDocument(path), mFolder(std::filesystem::path(path).parent_path()) {}

    VXGraphInfo read() {
        const JsonValue& root =
            mDocument.expectObject(mDocument.root(), {"name", "nodes", "connections"});
        mInfo.name = mDocument.name(root, "name");
        const JsonValue& nodes = mDocument.member(root, "nodes", JsonValue::ARRAY);
        constexpr size_t kMaxNodes = 1000;  // each has a thread
        if (nodes.items.empty() || nodes.items.size() > kMaxNodes) {
            mDocument.fail(nodes,
                           "expected 1 to 1000 nodes, got " + std::to_string(nodes.items.size()));
        }
        for (const JsonValue& node : nodes.items) readNode(node);
        mUpstream.resize(mInfo.nodes.size());
        for (const auto& list : mDocument.items(root, "connections", JsonValue::OBJECT)) {
            readConnections(list);
        }
        checkAllConnected();
        std::vector<size_t> path;
        std::vector<bool> done(mInfo.nodes.size());
        for (size_t node = 0; node < done.size(); ++node) checkAcyclic(node, &path, &done);
        return std::move(mInfo);
    }

private:
    struct Port {
        size_t node;  // its number
        std::string format;
        const JsonValue* json;
        bool connected = false;
    };
    using Ports = std::map<std::string, Port>;

    // ---- Nodes ----

    void readNode(const JsonValue& json) {
        mDocument.expectObject(json, {"name", "type", "configs", "inputs", "outputs", "entries"});
        auto node = std::make_unique<VXNodeDescriptor>();
        node->name = mDocument.name(json, "name");
        if (!mNodeNames.insert(node->name).second) {
            mDocument.fail(*json.find("name"), "another node is named " + quote(node->name));
        }
        node->type = mDocument.name(json, "type");
        const NodeType* const type = findNodeType(node->type);
        if (type == nullptr) {
            mDocument.fail(*json.find("type"),
                           "unknown node type " + quote(node->type) + ", see --list-nodes",
                           errorName(vexa::NODE_NOT_FOUND));
        }
        for (const JsonValue& config : mDocument.items(json, "configs", JsonValue::OBJECT)) {
            const std::string& value = mDocument.scalar(config);
            const ConfigKey* const key = type->find(config.key);  // the node refuses unknown ones
            const bool isFile = key != nullptr && key->isFile;
            node->configs[config.key] = isFile ? (mFolder / value).string() : value;
        }
        node->inputPorts = readPorts(json, "inputs", &mInputs);
        node->outputPorts = readPorts(json, "outputs", &mOutputs);
        for (const JsonValue& entry : mDocument.items(json, "entries", JsonValue::ARRAY)) {
            node->entries.push_back(readEntry(entry));
        }
        mInfo.nodes.push_back(std::move(node));
    }

    std::vector<VXNodeDescriptor::PortInfo> readPorts(const JsonValue& node, const std::string& key,
                                                      Ports* ports) {
        std::vector<VXNodeDescriptor::PortInfo> infos;
        for (const JsonValue& json : mDocument.items(node, key, JsonValue::ARRAY)) {
            mDocument.expectObject(json, {"name", "format"});
            const std::string& name = mDocument.name(json, "name");
            const std::string& format = mDocument.name(json, "format");
            const auto [port, isNew] = ports->insert({name, {mInfo.nodes.size(), format, &json}});
            if (!isNew) {
                mDocument.fail(*json.find("name"),
                               port->second.json->where + " is named " + quote(name) + ", too");
            }
            infos.push_back({name, format});
        }
        return infos;
    }

    VXNodeDescriptor::ConfigEntry readEntry(const JsonValue& json) const {
        using Entry = VXNodeDescriptor::ConfigEntry;
        mDocument.expectObject(json, {"frame", "kind", "key", "value", "alternate"});
        Entry entry;
        const JsonValue& frame = mDocument.member(json, "frame", JsonValue::NUMBER);
        try {
            entry.frameIndex = static_cast<uint32_t>(parseNumber(frame.text, 0, UINT32_MAX));
        } catch (const Failure& failure) {
            mDocument.fail(frame, failure.what());
        }
        const JsonValue& kind = mDocument.member(json, "kind", JsonValue::STRING);
        if (kind.text != "command" && kind.text != "tuning") {
            mDocument.fail(kind, "expected 'command' or 'tuning', got " + quote(kind.text));
        }
        entry.kind = kind.text == "command" ? Entry::COMMAND : Entry::TUNING;
        entry.key = mDocument.name(json, "key");
        if (json.find("value") == nullptr) mDocument.fail(json, "missing key 'value'");
        entry.value = mDocument.scalar(*json.find("value"));
        entry.alternate = json.find("alternate") != nullptr &&
                          mDocument.member(json, "alternate", JsonValue::BOOLEAN).text == "true";
        return entry;
    }

    // ---- Connections ----

    void readConnections(const JsonValue& list) {
        const auto output = mOutputs.find(list.key);
        if (output == mOutputs.end()) {
            mDocument.fail(list, "no output port is named " + quote(list.key));
        }
        for (const JsonValue& target : mDocument.expect(list, JsonValue::ARRAY).items) {
            const auto input = mInputs.find(mDocument.expect(target, JsonValue::STRING).text);
            if (input == mInputs.end()) {
                mDocument.fail(target, "no input port is named " + quote(target.text));
            }
            connect(target, &output->second, &input->second);
            mInfo.connections[list.key].push_back(target.text);
        }
    }

    void connect(const JsonValue& target, Port* output, Port* input) {
        if (input->connected) {
            mDocument.fail(target, "input port " + quote(target.text) + " is connected already");
        }
        if (output->format != input->format) {
            mDocument.fail(target,
                           "an output of " + quote(output->format) + " cannot feed input port " +
                               quote(target.text) + " of " + quote(input->format),
                           errorName(vexa::GRAPH_BUILD_FAIL));
        }
        output->connected = true;
        input->connected = true;
        mUpstream[input->node].push_back(output->node);
    }

    // A node whose port leads nowhere would wait for ever, or work for nobody.
    void checkAllConnected() const {
        for (const Ports* ports : {&mInputs, &mOutputs}) {
            for (const auto& [name, port] : *ports) {
                if (!port.connected) {
                    mDocument.fail(*port.json, "port " + quote(name) + " is not connected");
                }
            }
        }
    }

    // Walks upstream from `node`, depth first. `path` leads from the start of the walk to here.
    void checkAcyclic(size_t node, std::vector<size_t>* path, std::vector<bool>* done) const {
        if (std::find(path->begin(), path->end(), node) != path->end()) {
            std::string names = mInfo.nodes[node]->name;
            for (auto step = path->rbegin(); *step != node; ++step) {
                names += " -> " + mInfo.nodes[*step]->name;
            }
            mDocument.fail(*mDocument.root().find("connections"),
                           "the nodes form a cycle: " + names + " -> " + mInfo.nodes[node]->name);
        }
        if ((*done)[node]) return;
        path->push_back(node);
        for (const size_t upstream : mUpstream[node]) checkAcyclic(upstream, path, done);
        path->pop_back();
        (*done)[node] = true;
    }

    const JsonDocument mDocument;
    const std::filesystem::path mFolder;
    VXGraphInfo mInfo;
    std::set<std::string> mNodeNames;
    Ports mInputs;
    Ports mOutputs;
    std::vector<std::vector<size_t>> mUpstream;  // by node number: the nodes that feed it
};

}  // namespace

VXGraphInfo readGraphFile(const std::string& path) {
    return GraphReader(path).read();
}

void overrideConfig(VXGraphInfo* graph, const std::string& assignment) {
    // Node names may hold full stops, config keys hold none.
    const size_t equals = assignment.find('=');
    const size_t stop = assignment.rfind('.', equals);
    if (equals == std::string::npos || stop == std::string::npos) {
        throw Failure("vxrun: --set: expected NODE.KEY=VALUE, got " + quote(assignment),
                      "BAD_OPTION");
    }
    const std::string node = assignment.substr(0, stop);
    for (const auto& descriptor : graph->nodes) {
        if (descriptor->name != node) continue;
        descriptor->configs[assignment.substr(stop + 1, equals - stop - 1)] =
            assignment.substr(equals + 1);
        return;
    }
    throw Failure("vxrun: --set: the graph has no node " + quote(node), "BAD_OPTION");
}

void setWhereKnown(VXGraphInfo* graph, const std::string& key, const std::string& value) {
    for (const auto& node : graph->nodes) {
        const NodeType* const type = findNodeType(node->type);
        if (type != nullptr && type->find(key) != nullptr) node->configs[key] = value;
    }
}

}  // namespace vxrun
