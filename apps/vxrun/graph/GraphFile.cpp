#include "GraphFile.h"

#include "Json.h"
#include "Text.h"

#include <vxkit/NodeLibrary.h>
#include <vxkit/NodeType.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <filesystem>
#include <map>
#include <set>
#include <vector>

namespace vxrun {
namespace {

using vexa::VXGraphInfo;
using vexa::VXNodeDescriptor;

// Makes one assignment in one of `nodes`, whose descriptions `descriptorOf` returns.
template <typename Nodes, typename DescriptorOf>
void setConfig(const std::string& assignment, const Nodes& nodes, DescriptorOf descriptorOf) {
    // Node names may hold full stops, config keys hold none.
    const size_t equals = assignment.find('=');
    const size_t stop = assignment.rfind('.', equals);
    if (equals == std::string::npos || stop == std::string::npos) {
        throw badOption("--set", "expected NODE.KEY=VALUE, got " + quote(assignment));
    }
    const std::string name = assignment.substr(0, stop);
    for (const auto& node : nodes) {
        VXNodeDescriptor& descriptor = *descriptorOf(node);
        if (descriptor.name != name) continue;
        descriptor.configs[assignment.substr(stop + 1, equals - stop - 1)] =
            assignment.substr(equals + 1);
        return;
    }
    throw badOption("--set", "the graph has no node " + quote(name));
}

// GraphReader: one walk over the document, from top to bottom. A mistake is noted, and the walk
// continues after it.
class GraphReader {
public:
    explicit GraphReader(const std::string& path, GraphValues values = {})
        : mDocument(parse(path)),
          mFolder(std::filesystem::path(path).parent_path()),
          mValues(std::move(values)) {}

    void read() {
        const JsonValue& root = mDocument.root();
        attempt([&] {
            mDocument.expectObject(root, {"name", "nodes_from", "limits", "nodes", "connections"});
        });
        attempt([&] { mInfo.name = mDocument.name(root, "name"); });
        forEach(root, "nodes_from", JsonValue::ARRAY, [&](const JsonValue& library) {
            loadNodes(mDocument.expect(library, JsonValue::STRING));
        });
        forEach(root, "limits", JsonValue::OBJECT, [&](const JsonValue& limit) { read(limit); });
        attempt([&] { readNodes(mDocument.member(root, "nodes", JsonValue::ARRAY)); });
        forEach(root, "connections", JsonValue::OBJECT, [&](const JsonValue& list) {
            const auto output = mOutputs.find(list.key);
            if (output == mOutputs.end()) {
                mDocument.fail(list, "no output port is named " + quote(list.key));
            }
            for (const JsonValue& target : mDocument.expect(list, JsonValue::ARRAY).items) {
                attempt([&] { connect(target, *output); });
            }
        });
        checkAllConnected();
        attempt([&] {
            std::vector<size_t> path;
            for (size_t node = 0; node < mNodes.size(); ++node) checkAcyclic(node, &path);
        });
    }

    // Makes an assignment, see GraphEdits; after read().
    void assign(const std::string& assignment) {
        setConfig(assignment, mNodes, [](const Node& node) { return node.descriptor.get(); });
    }

    // What read() leaves to the nodes and to the run; after it.
    void checkFurther() {
        bool anyChecking = false;
        for (Node& node : mNodes) {
            if (node.type == nullptr) continue;
            node.hasPool = node.type->hasPool;
            node.framesHeld = static_cast<int64_t>(node.type->leastFramesHeld(*node.descriptor));
            const auto mistakes = mistakesIn(*node.descriptor, *node.type);
            for (const auto& [key, text] : mistakes) note(*node.json, key, text);
            anyChecking = anyChecking || node.type->checks(*node.descriptor);
        }
        for (size_t i = 0; i < mNodes.size() && mOrder.size() == mNodes.size(); ++i) checkSlots(i);
        const JsonValue* const nodes = mDocument.root().find("nodes");
        if (!anyChecking && nodes != nullptr) note(*nodes, "", "no sink checks anything");
    }

    // The graph of a description without mistakes, nodes that feed others first: nodes start from
    // the last one to the first, and one that has not started loses what it is sent.
    VXGraphInfo release() {
        for (const size_t node : mOrder) {
            mInfo.nodes.push_back(std::move(mNodes[node].descriptor));
        }
        return std::move(mInfo);
    }

    const Limits& limits() const { return mLimits; }
    const std::vector<Failure>& failures() const { return mFailures; }

private:
    struct Node {
        const JsonValue* json;
        const NodeType* type = nullptr;  // null when it is not known
        std::unique_ptr<VXNodeDescriptor> descriptor = std::make_unique<VXNodeDescriptor>();
        std::vector<size_t> upstream = {};  // the numbers of the nodes that feed it
        bool done = false;                  // checkAcyclic() has visited it
        bool hasPool = false;               // see NodeType
        int64_t framesHeld = 0;             // at least, see NodeType
    };
    struct Port {
        size_t node;  // its number
        std::string format;
        const JsonValue* json;
        bool connected = false;
        std::set<size_t> fed = {};  // the numbers of the nodes that an output is connected to
    };
    using Ports = std::map<std::string, Port>;

    // A video in place of a graph file is most likely meant to be decoded.
    static JsonDocument parse(const std::string& path) {
        try {
            return JsonDocument(path);
        } catch (const Failure& failure) {
            const std::filesystem::path file = path;
            if (file.extension() == ".json" || !std::filesystem::is_regular_file(file)) throw;
            throw Failure(concat(failure.what(), "; if it is a video: vxrun decode ", path));
        }
    }

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

    void read(const JsonValue& limit) {
        std::string known;
        for (const LimitKind& kind : limitKinds()) {
            known += (known.empty() ? "" : ", ") + kind.name;
            if (limit.key != kind.name) continue;
            try {
                mLimits[kind.name] = parseLimit(kind, mDocument.scalar(limit));
            } catch (const Failure& failure) {
                mDocument.fail(limit, failure.what());
            }
            return;
        }
        mDocument.fail(limit, "unknown key, expected one of " + known);
    }

    // ---- Nodes ----

    // A name without a slash may be that of a library of the system.
    void loadNodes(const JsonValue& library) const {
        const std::filesystem::path file = mFolder / library.text;
        const bool isHere =
            library.text.find('/') < library.text.size() || std::filesystem::exists(file);
        try {
            loadNodeLibrary(isHere ? file.string() : library.text);
        } catch (const Failure& failure) {
            mDocument.fail(library, failure.what(), failure.verdict());
        }
    }

    void readNodes(const JsonValue& nodes) {
        constexpr size_t kMaxNodes = 1000;  // each has a thread
        if (nodes.items.empty() || nodes.items.size() > kMaxNodes) {
            mDocument.fail(nodes,
                           "expected 1 to 1000 nodes, got " + std::to_string(nodes.items.size()));
        }
        for (const JsonValue& json : nodes.items) {
            mNodes.push_back({&json});
            attempt([&] { readNode(json, &mNodes.back()); });
        }
    }

    void readNode(const JsonValue& json, Node* read) {
        VXNodeDescriptor* const node = read->descriptor.get();
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
        attempt([&] {
            node->type = mDocument.name(json, "type");
            read->type = findNodeType(node->type);
            if (read->type != nullptr) return;
            mDocument.fail(*json.find("type"),
                           "unknown node type " + quote(node->type) + ", see --list-nodes",
                           Verdict::NodeNotFound);
        });
        forEach(json, "configs", JsonValue::OBJECT, [&](const JsonValue& config) {
            // The node refuses unknown keys.
            const ConfigKey* const key =
                read->type != nullptr ? read->type->findConfig(config.key) : nullptr;
            const bool isList = key != nullptr && key->isList() && config.kind == JsonValue::ARRAY;
            std::string value =
                isList ? joinedWords(mDocument.strings(config)) : mDocument.scalar(config);
            for (const auto& [placeholder, meant] : mValues) {
                const size_t at = value.find(placeholder);
                if (at != std::string::npos) value.replace(at, placeholder.size(), meant);
            }
            const bool isPath = key != nullptr && key->isPath();
            node->configs[config.key] =
                isPath && !value.empty() ? (mFolder / value).string() : value;
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
            const auto [port, isNew] = ports->insert({name, {mNodes.size() - 1, format, &json}});
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

    void connect(const JsonValue& target, Ports::value_type& from) {
        const auto found = mInputs.find(mDocument.expect(target, JsonValue::STRING).text);
        if (found == mInputs.end()) {
            mDocument.fail(target, "no input port is named " + quote(target.text));
        }
        Port& output = from.second;
        Port& input = found->second;
        if (input.connected) {
            mDocument.fail(target, "input port " + quote(target.text) + " is connected already");
        }
        // The inputs of a node are different streams: this one would be compared with itself.
        const std::string& node = mNodes[input.node].descriptor->name;
        if (!output.fed.insert(input.node).second) {
            mDocument.fail(target, "output port " + quote(from.first) +
                                       " feeds another input of node " + quote(node) + " already");
        }
        output.connected = input.connected = true;
        mNodes[input.node].upstream.push_back(output.node);
        mInfo.connections[from.first].push_back(target.text);
        if (output.format != input.format) {
            mDocument.fail(target,
                           "an output of " + quote(output.format) + " cannot feed input port " +
                               quote(target.text) + " of " + quote(input.format),
                           Verdict::GraphBuildFail);
        }
    }

    // A node whose port leads nowhere would wait forever, or work for no consumer.
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
    void checkAcyclic(size_t node, std::vector<size_t>* path) {
        const auto nameOf = [this](size_t of) { return mNodes[of].descriptor->name; };
        if (std::find(path->begin(), path->end(), node) != path->end()) {
            std::string names = nameOf(node);
            for (auto step = path->rbegin(); *step != node; ++step) {
                names += " -> " + nameOf(*step);
            }
            mDocument.fail(*mDocument.root().find("connections"),
                           "the nodes form a cycle: " + names + " -> " + nameOf(node));
        }
        if (mNodes[node].done) return;
        path->push_back(node);
        for (const size_t upstream : mNodes[node].upstream) checkAcyclic(upstream, path);
        path->pop_back();
        mNodes[node].done = true;
        mOrder.push_back(node);
    }

    // ---- What lets a run never move ----

    // A node may have (largest downstream total delay + batch + 2) works out, but never more than
    // its pool has slots. Fewer slots only pace it, as long as every work comes back without a
    // further one. Nodes that hold works until more follow keep that many slots out of use.
    // One that brings streams together holds what has come by one way until the same has come by
    // the longest.
    void checkSlots(size_t origin) {
        if (!mNodes[origin].hasPool) return;
        std::vector<int64_t> held(mNodes.size(), -1);  // frames, from `origin` to behind a node
        std::vector<bool> gets(mNodes.size());         // whether a node gets buffers of this pool
        held[origin] = 0;
        int64_t most = 0;
        for (const size_t node : mOrder) {
            for (const size_t upstream : mNodes[node].upstream) {
                if (held[upstream] < 0) continue;  // no way leads here
                held[node] = std::max(held[node], held[upstream] + mNodes[node].framesHeld);
                const bool passesOn = gets[upstream] && !mNodes[upstream].hasPool;
                gets[node] = gets[node] || passesOn || upstream == origin;
            }
            if (gets[node] && !mNodes[node].hasPool) most = std::max(most, held[node]);
        }
        const uint64_t slots = kSlots.valueOf(kSlots.textIn(*mNodes[origin].descriptor));
        if (slots > static_cast<uint64_t>(most)) return;
        note(*mNodes[origin].json, "slots",
             concat("a pool of ", slots, " buffers, of which the nodes behind it hold ", most,
                    ": the run could not move"));
    }

    const JsonDocument mDocument;
    const std::filesystem::path mFolder;
    const GraphValues mValues;
    VXGraphInfo mInfo;
    Limits mLimits;
    std::set<std::string> mNodeNames;
    Ports mInputs;
    Ports mOutputs;
    std::vector<Node> mNodes;
    std::vector<size_t> mOrder;  // node numbers, upstream first; not all where there is a cycle
    std::vector<Failure> mFailures;
};

}  // namespace

VXGraphInfo readGraphFile(const std::string& path, const GraphValues& values, Limits* limits) {
    GraphReader reader(path, values);
    reader.read();
    if (!reader.failures().empty()) throw Failure(reader.failures().front());
    if (limits != nullptr) *limits = reader.limits();
    return reader.release();
}

std::string graphText(const VXGraphInfo& graph) {
    using Json = nlohmann::ordered_json;
    const auto portsJson = [](const std::vector<VXNodeDescriptor::PortInfo>& ports) {
        Json json = Json::array();
        for (const auto& port : ports)
            json.push_back({{"name", port.name}, {"format", port.format}});
        return json;
    };
    Json json = {{"name", graph.name}, {"nodes", Json::array()}};
    for (const auto& node : graph.nodes) {
        Json entries = Json::array();
        for (const auto& entry : node->entries) {
            const bool isCommand = entry.kind == VXNodeDescriptor::ConfigEntry::COMMAND;
            entries.push_back({{"frame", entry.frameIndex},
                               {"kind", isCommand ? "command" : "tuning"},
                               {"key", entry.key},
                               {"value", entry.value},
                               {"alternate", entry.alternate != 0}});
        }
        const std::map<std::string, std::string> configs(node->configs.begin(),
                                                         node->configs.end());
        json["nodes"].push_back({{"name", node->name},
                                 {"type", node->type},
                                 {"configs", configs},
                                 {"inputs", portsJson(node->inputPorts)},
                                 {"outputs", portsJson(node->outputPorts)},
                                 {"entries", entries}});
    }
    json["connections"] = std::map(graph.connections.begin(), graph.connections.end());
    return json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::vector<Failure> checkGraphFile(const std::string& path,
                                    const std::vector<std::string>& assignments) {
    try {
        GraphReader reader(path);
        reader.read();
        for (const std::string& assignment : assignments) reader.assign(assignment);
        reader.checkFurther();
        return reader.failures();
    } catch (const Failure& failure) {  // not a graph file, or an option without a node
        return {failure};
    }
}

VXNodeDescriptor& addNode(VXGraphInfo* graph, const std::string& type, const std::string& name,
                          const char* input, const char* output) {
    auto node = std::make_unique<VXNodeDescriptor>();
    node->type = type;
    node->name = name;
    if (input != nullptr) node->inputPorts.push_back({name + ".in", input});
    if (output != nullptr) node->outputPorts.push_back({name + ".out", output});
    return *graph->nodes.emplace_back(std::move(node));
}

void GraphEdits::applyTo(VXGraphInfo* graph) const {
    for (const std::string& assignment : assignments) {
        setConfig(assignment, graph->nodes, [](const auto& node) { return node.get(); });
    }
    for (const auto& node : graph->nodes) {
        const NodeType* const type = findNodeType(node->type);
        for (const auto& [key, value] : whereKnown) {
            if (type != nullptr && type->findConfig(key) != nullptr) node->configs[key] = value;
        }
    }
}

}  // namespace vxrun
