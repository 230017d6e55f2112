#include <vxkit/Failure.h>
#include <vxkit/NodeType.h>
#include <vxkit/Text.h>

#include <algorithm>

namespace vxkit {

using vexa::VXNode;
using vexa::VXNodeDescriptor;

const ChoiceKey kAllocator{"allocator",
                           {"dmabuf", "xcodec2"},
                           "the buffer allocator that the node requires: dmabuf or xcodec2"};
const NumberKey kSlots{"slots", 1, 1000, 16, "buffers in the node's pool, default 16"};
const NumberKey kFenceMs{"fence_ms", 0, 3600000, 1,
                         "before a transform/fence: milliseconds until a fence fires, default 1"};

// Made when the first type is registered, before main().
static std::map<std::string, NodeType>& types() {
    static std::map<std::string, NodeType> all;
    return all;
}

static std::vector<std::string>& clashes() {
    static std::vector<std::string> all;
    return all;
}

void registerNodeType(NodeType type) {
    const std::string name = type.name;
    if (!types().emplace(name, std::move(type)).second) clashes().push_back(name);
}

const std::map<std::string, NodeType>& nodeTypes() {
    return types();
}

const std::vector<std::string>& clashingNodeTypes() {
    return clashes();
}

static void (*sLoad)() = [] {};

void loadNodeTypesWith(void (*load)()) {
    sLoad = load;
}

const NodeType* findNodeType(const std::string& name) {
    if (types().count(name) == 0) sLoad();
    const auto found = types().find(name);
    return found != types().end() ? &found->second : nullptr;
}

bool NodeType::declares(const ConfigKey& key) const {
    return std::find(configs.begin(), configs.end(), &key) != configs.end();
}

const ConfigKey* NodeType::findConfig(const std::string& key) const {
    for (const ConfigKey* config : configs) {
        if (config->name == key) return config;
    }
    return nullptr;
}

// What is wrong with an entry; empty when nothing is.
static std::string mistakeIn(const VXNodeDescriptor::ConfigEntry& entry, const NodeType& type) {
    const auto nameOf = [](uint32_t kind, const std::string& key) {
        const bool command = kind == VXNodeDescriptor::ConfigEntry::COMMAND;
        return (command ? "command '" : "tuning '") + key + "'";
    };
    const std::string text = concat(entry.alternate != 0 ? "alternate " : "",
                                    nameOf(entry.kind, entry.key), " at frame ", entry.frameIndex);
    std::string known = type.entries.empty() ? " no entries" : "";
    for (const EntryKey& key : type.entries) {
        if (key.names(entry)) {
            try {
                parseNumber(entry.value, key.low, key.high);
                return "";
            } catch (const Failure& failure) {
                return text + ": " + failure.what();
            }
        }
        known += (known.empty() ? " " : ", ") + nameOf(key.kind, key.name);
    }
    return text + ": a " + type.name + " accepts" + known;
}

std::vector<std::pair<std::string, std::string>> mistakesIn(const VXNodeDescriptor& node,
                                                            const NodeType& type) {
    std::vector<std::pair<std::string, std::string>> mistakes;
    const auto checkCount = [&](const char* kind, size_t expected, size_t actual) {
        if (actual == expected) return;
        mistakes.emplace_back("", concat("a ", type.name, " has ", expected, " ", kind,
                                         " port(s), the description has ", actual));
    };
    checkCount("input", type.inputs, node.inputPorts.size());
    checkCount("output", type.outputs, node.outputPorts.size());
    const ConfigKey* other = nullptr;  // the one before that is not free
    for (const auto& [name, value] : node.configs) {
        const ConfigKey* const key = type.findConfig(name);
        if (key == nullptr) {
            std::string text = concat("unknown config '", name, "' = ", quote(value), ", a ",
                                      type.name, " accepts:");
            for (const ConfigKey* known : type.configs) text.append(" ").append(known->name);
            mistakes.emplace_back(name, text);
            continue;
        }
        // An empty value counts as not given, so it excludes nothing.
        if (key->use != ConfigKey::FREE && !value.empty()) {
            if (other != nullptr &&
                (key->use == ConfigKey::EXCLUSIVE || other->use == ConfigKey::EXCLUSIVE)) {
                const auto& [first, second] = std::minmax(other->name, name);
                mistakes.emplace_back(
                    name, concat("configs '", first, "' and '", second, "' exclude each other"));
            }
            other = key;
        }
        const std::string mistake = key->mistakeIn(value);
        if (!mistake.empty()) {
            mistakes.emplace_back(name, concat("config '", name, "': ", mistake));
        }
    }
    for (const auto& entry : node.entries) {
        const std::string mistake = mistakeIn(entry, type);
        if (!mistake.empty()) mistakes.emplace_back("", mistake);
    }
    return mistakes;
}

std::unique_ptr<VXNode> newNode(const NodeType& type, const std::string& fullName,
                                std::unique_ptr<VXNodeDescriptor> descriptor,
                                const RunContext& run) {
    const auto mistakes = mistakesIn(*descriptor, type);
    // Copies, since the library takes the descriptor apart.
    const std::string nodeName = descriptor->name;
    auto entries = descriptor->entries;
    return type.make({type, fullName, nodeName, std::move(entries),
                      mistakes.empty() ? "" : mistakes.front().second, std::move(descriptor), run});
}

NodeFactory::NodeFactory(const NodeType& type, const RunContext& run)
    : VXNodeBaseFactory(type.name), mType(type), mRun(run) {}

void NodeFactory::createNode(const std::string& name, std::unique_ptr<VXNodeDescriptor> descriptor,
                             std::unique_ptr<VXNode>* node) {
    *node = newNode(mType, name, std::move(descriptor), mRun);
}

}  // namespace vxkit
