#include "GraphFile.h"

#include "AppNode.h"
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

// GraphReader: one walk over the document, from top to bottom. A mistake is noted, and the walk goes on
// behind it.
class GraphReader {
public:
    explicit GraphReader(const std::string& path)
        : mDocument(path), mFolder(std::filesystem::path(path).parent_path()) {}

    VXGraphInfo read() {
        const JsonValue& root = mDocument.root();
        attempt([&] { mDocument.expectObject(root, {"name", "nodes", "connections"}); });
        attempt([&] { mInfo.name = mDocument.name(root, "name"); });
        attempt([&] { readNodes(mDocument.member(root, "nodes", JsonValue::ARRAY)); });
        mUpstream.resize(mInfo.nodes.size());
        attempt([&] {
            for (const auto& list : mDocument.items(root, "connections", JsonValue::OBJECT)) {
                attempt([&] { readConnections(list); });
            }
        });
        checkAllConnected();
        attempt([&] {
            std::vector<size_t> path;
            std::vector<bool> done(mInfo.nodes.size());
            for (size_t node = 0; node < done.size(); ++node) checkAcyclic(node, &path, &done);
            mAcyclic = true;
        });
        return std::move(mInfo);
    }

    // What read() leaves to the nodes and to the run; after it.
    void checkFurther(const VXGraphInfo& info) {
        bool anyChecking = false;
        for (size_t i = 0; i < info.nodes.size(); ++i) {
            const VXNodeDescriptor& node = *info.nodes[i];
            const NodeType* const type = findNodeType(node.type);
            if (type == nullptr) continue;
            for (const auto& [key, text] : mistakesOf(*type, node)) note(*mNodes[i], key, text);
            anyChecking = anyChecking || type->checks(node);
            if (mAcyclic && type->hasPool) checkSlots(info, i);
        }
        const JsonValue* const nodes = mDocument.root().find("nodes");
        if (!anyChecking && nodes != nullptr) note(*nodes, "", "no sink checks anything");
    }

    // The nodes of a description without mistakes, those that feed others first: nodes start from the last
    // one to the first, and one that has not started loses what it is sent.
    VXGraphInfo inOrder(VXGraphInfo info) const {
        auto nodes = std::move(info.nodes);
        info.nodes.clear();
        for (const size_t node : mOrder) info.nodes.push_back(std::move(nodes[node]));
        return info;
    }

    const std::vector<Failure>& failures() const { return mFailures; }

private:
    struct Port {
        size_t node;  // its number
        std::string format;
        const JsonValue* json;
        bool connected = false;
    };
    using Ports = std::map<std::string, Port>;

    template <typename Action>
    void attempt(Action action) {
        try {
            action();
        } catch (const Failure& failure) {
            mFailures.push_back(failure);
        }
    }

    // Notes a mistake in the config `key` of a node, or in `json` itself.
    void note(const JsonValue& json, const std::string& key, const std::string& text) {
        const JsonValue* const configs = json.find("configs");
        const JsonValue* const config = configs != nullptr ? configs->find(key) : nullptr;
        attempt([&] { mDocument.fail(config != nullptr ? *config : json, text); });
    }

    // ---- Nodes ----

    void readNodes(const JsonValue& nodes) {
        constexpr size_t kMaxNodes = 1000;  // each has a thread
        if (nodes.items.empty() || nodes.items.size() > kMaxNodes) {
            mDocument.fail(nodes,
                           "expected 1 to 1000 nodes, got " + std::to_string(nodes.items.size()));
        }
        for (const JsonValue& node : nodes.items) {
            mInfo.nodes.push_back(std::make_unique<VXNodeDescriptor>());
            mNodes.push_back(&node);
            attempt([&] { readNode(node, mInfo.nodes.back().get()); });
        }
    }

    void readNode(const JsonValue& json, VXNodeDescriptor* node) {
        mDocument.expect(json, JsonValue::OBJECT);
        attempt([&] {
            mDocument.expectObject(json,
                                   {"name", "type", "configs", "inputs", "outputs", "entries"});
        });
        attempt([&] {
            node->name = mDocument.name(json, "name");
            if (!mNodeNames.insert(node->name).second) {
                mDocument.fail(*json.find("name"), "another node is named " + quote(node->name));
            }
        });
        const NodeType* type = nullptr;
        attempt([&] {
            node->type = mDocument.name(json, "type");
            type = findNodeType(node->type);
            if (type == nullptr) {
                mDocument.fail(*json.find("type"),
                               "unknown node type " + quote(node->type) + ", see --list-nodes",
                               errorName(vexa::NODE_NOT_FOUND));
            }
        });
        forEach(json, "configs", JsonValue::OBJECT, [&](const JsonValue& config) {
            const std::string& value = mDocument.scalar(config);
            // The node refuses unknown keys.
            const ConfigKey* const key = type != nullptr ? type->find(config.key) : nullptr;
            const bool isFile = key != nullptr && key->value.kind == ConfigKind::FILE;
            node->configs[config.key] = isFile ? (mFolder / value).string() : value;
        });
        node->inputPorts = readPorts(json, "inputs", &mInputs);
        node->outputPorts = readPorts(json, "outputs", &mOutputs);
        forEach(json, "entries", JsonValue::ARRAY,
                [&](const JsonValue& entry) { node->entries.push_back(readEntry(entry)); });
    }

    // Attempts `action` for each item of the array or object `key` of `json`.
    template <typename Action>
    void forEach(const JsonValue& json, const std::string& key, JsonValue::Kind kind,
                 Action action) {
        attempt([&] {
            for (const JsonValue& item : mDocument.items(json, key, kind)) {
                attempt([&] { action(item); });
            }
        });
    }

    std::vector<VXNodeDescriptor::PortInfo> readPorts(const JsonValue& node, const std::string& key,
                                                      Ports* ports) {
        std::vector<VXNodeDescriptor::PortInfo> infos;
        forEach(node, key, JsonValue::ARRAY, [&](const JsonValue& json) {
            mDocument.expectObject(json, {"name", "format"});
            const std::string& name = mDocument.name(json, "name");
            const std::string& format = mDocument.name(json, "format");
            const auto [port, isNew] =
                ports->insert({name, {mInfo.nodes.size() - 1, format, &json}});
            if (!isNew) {
                mDocument.fail(*json.find("name"),
                               port->second.json->where + " is named " + quote(name) + ", too");
            }
            infos.push_back({name, format});
        });
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
            attempt([&] { readConnection(target, list.key, &output->second); });
        }
    }

    void readConnection(const JsonValue& target, const std::string& from, Port* output) {
        const auto input = mInputs.find(mDocument.expect(target, JsonValue::STRING).text);
        if (input == mInputs.end()) {
            mDocument.fail(target, "no input port is named " + quote(target.text));
        }
        connect(target, output, &input->second);
        mInfo.connections[from].push_back(target.text);
    }

    void connect(const JsonValue& target, Port* output, Port* input) {
        if (input->connected) {
            mDocument.fail(target, "input port " + quote(target.text) + " is connected already");
        }
        output->connected = true;
        input->connected = true;
        mUpstream[input->node].push_back(output->node);
        if (output->format != input->format) {
            mDocument.fail(target,
                           "an output of " + quote(output->format) + " cannot feed input port " +
                               quote(target.text) + " of " + quote(input->format),
                           errorName(vexa::GRAPH_BUILD_FAIL));
        }
    }

    // A node whose port leads nowhere would wait for ever, or work for nobody.
    void checkAllConnected() {
        for (const Ports* ports : {&mInputs, &mOutputs}) {
            for (const auto& [name, port] : *ports) {
                if (!port.connected) {
                    note(*port.json, "", "port " + quote(name) + " is not connected");
                }
            }
        }
    }

    // Walks upstream from `node`, depth first. `path` leads from the start of the walk to here.
    void checkAcyclic(size_t node, std::vector<size_t>* path, std::vector<bool>* done) {
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
        mOrder.push_back(node);
    }

    // ---- What lets a run never move ----

    // A node may have (largest downstream total delay + batch + 2) works out, but never more than its
    // pool has slots. Fewer slots only pace it, as long as every work comes back without a further one.
    // Nodes that keep works until more follow take that many slots out of use for ever.
    void checkSlots(const VXGraphInfo& info, size_t node) {
        const uint64_t slots = numberOf(*info.nodes[node], "slots");
        const uint64_t kept = keptBehind(info, node);
        if (slots > kept) return;
        note(*mNodes[node], "slots",
             "a pool of " + std::to_string(slots) + " buffers, of which the nodes behind it keep " +
                 std::to_string(kept) + ": the run could not move");
    }

    // The most buffers of `node`'s pool that are kept on one way downstream.
    uint64_t keptBehind(const VXGraphInfo& info, size_t node) const {
        uint64_t most = 0;
        for (size_t next = 0; next < info.nodes.size(); ++next) {
            const auto& feeders = mUpstream[next];
            if (std::find(feeders.begin(), feeders.end(), node) == feeders.end()) continue;
            const VXNodeDescriptor& descriptor = *info.nodes[next];
            const NodeType* const type = findNodeType(descriptor.type);
            if (type == nullptr || type->hasPool) continue;  // has its own buffers
            const uint64_t kept = type->keeps(descriptor);
            most = std::max(most, kept + keptBehind(info, next));
        }
        return most;
    }

    const JsonDocument mDocument;
    const std::filesystem::path mFolder;
    VXGraphInfo mInfo;
    std::set<std::string> mNodeNames;
    Ports mInputs;
    Ports mOutputs;
    std::vector<const JsonValue*> mNodes;        // by node number
    std::vector<std::vector<size_t>> mUpstream;  // by node number: the nodes that feed it
    std::vector<size_t> mOrder;                  // node numbers, upstream first
    bool mAcyclic = false;
    std::vector<Failure> mFailures;
};

}  // namespace

VXGraphInfo readGraphFile(const std::string& path) {
    GraphReader reader(path);
    VXGraphInfo info = reader.read();
    if (!reader.failures().empty()) throw Failure(reader.failures().front());
    return reader.inOrder(std::move(info));
}

std::vector<Failure> checkGraphFile(const std::string& path) {
    try {
        GraphReader reader(path);
        reader.checkFurther(reader.read());
        return reader.failures();
    } catch (const Failure& failure) {  // no JSON
        return {failure};
    }
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
