// NodeType: the node types of a program: their names, ports, configs and entries, and how their
// nodes are made.
#pragma once

#include <VXNode.h>
#include <vxkit/Config.h>
#include <vxkit/Evidence.h>

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace vxkit {

// The major version of vxkit, which every node library reports as vxkitMajorVersion(): see
// loadNodeLibrary(). A library can be used by programs of the same major version.
constexpr unsigned kMajorVersion = 1;
extern "C" [[gnu::used, gnu::visibility("default")]] inline unsigned vxkitMajorVersion() {
    return kMajorVersion;
}

struct NodeType;

// What a node is made from. A plain value; `type` and `run` outlive the node.
struct NodeArguments {
    const NodeType& type;
    std::string fullName;  // "graph.node"
    std::string nodeName;  // as the description has it
    std::vector<vexa::VXNodeDescriptor::ConfigEntry> entries;
    std::string mistake;  // the first of mistakesIn(), or empty
    std::unique_ptr<vexa::VXNodeDescriptor> descriptor;
    const RunContext& run;
};

// Life     static; registered before main() or while a node library is loaded, see Registered.
// Threads  any, once they are registered.
// Owns     its texts and entries; its keys are static objects.
struct NodeType {
    bool declares(const ConfigKey& key) const;
    // The config of that name; null when the type has none.
    const ConfigKey* findConfig(const std::string& key) const;

    std::string name;
    std::string help;
    size_t inputs;  // the number of ports of each kind
    size_t outputs;
    std::vector<const ConfigKey*> configs;
    std::vector<EntryKey> entries;
    // The rest: Node's members of these names.
    bool hasPool;
    bool (*checks)(const vexa::VXNodeDescriptor& node);
    uint64_t (*leastFramesHeld)(const vexa::VXNodeDescriptor& node);
    void (*probe)(const vexa::VXNodeDescriptor& node);
    std::unique_ptr<vexa::VXNode> (*make)(NodeArguments arguments);
};

// The configs that nodes of every type have, and those of nodes with a pool.
extern const ChoiceKey kAllocator;
extern const NumberKey kSlots, kFenceMs;

// The types of this program by name; null for an unknown one.
const std::map<std::string, NodeType>& nodeTypes();
const NodeType* findNodeType(const std::string& name);
// From now on findNodeType() calls `load` for a name that is not registered, then looks again: for
// types that are costly to load. It may be called often, and does its work once.
// [before other threads]
void loadNodeTypesWith(void (*load)());
// Adds a type. The first of a name stays.
void registerNodeType(NodeType type);
// The names that were registered again.
const std::vector<std::string>& clashingNodeTypes();

// A node of the class `Author`, derived from Node.
template <typename Author>
std::unique_ptr<vexa::VXNode> makeNode(NodeArguments arguments) {
    // The most derived class has to end the node's life.
    struct Made final : public Author {
        using Author::Author;
        ~Made() override { this->teardown(); }
    };
    return std::make_unique<Made>(std::move(arguments));
}

// Registered: a node type whose nodes are of the class `Author`, derived from Node. Each source of
// a node type defines one, a static object without state:
//
//     const Registered<Delay> kType("transform/delay", "holds frames back", 1, 1,
//                                   {&kFrames, &kMs});
template <typename Author>
class Registered {
public:
    Registered(const char* name, const char* help, size_t inputs, size_t outputs,
               std::vector<const ConfigKey*> configs = {}, std::vector<EntryKey> entries = {}) {
        for (const ConfigKey* key : Author::commonConfigs()) configs.push_back(key);
        for (const EntryKey& entry : Author::commonEntries()) entries.push_back(entry);
        registerNodeType({name, help, inputs, outputs, std::move(configs), std::move(entries),
                          Author::kHasPool, Author::checks, Author::leastFramesHeld, Author::probe,
                          makeNode<Author>});
    }
};

// What is wrong with the ports, configs and entries of a description for a node of `type`: each
// time the config in question, or "", and a line.
std::vector<std::pair<std::string, std::string>> mistakesIn(const vexa::VXNodeDescriptor& node,
                                                            const NodeType& type);

// A node of `type` called `fullName` that reports to `run`. Its set-up refuses a description with
// mistakes.
std::unique_ptr<vexa::VXNode> newNode(const NodeType& type, const std::string& fullName,
                                      std::unique_ptr<vexa::VXNodeDescriptor> descriptor,
                                      const RunContext& run);

// NodeFactory: makes the nodes of one type for one run.
//
// Life     registered with the library as long as it lives; `run` outlives it.
// Threads  createNode(): the one that builds the graph.
// Owns     nothing; the nodes that it makes belong to the graph.
class NodeFactory final : public vexa::VXNodeBaseFactory {
public:
    NodeFactory(const NodeType& type, const RunContext& run);
    void createNode(const std::string& name, std::unique_ptr<vexa::VXNodeDescriptor> descriptor,
                    std::unique_ptr<vexa::VXNode>* node) override;

private:
    const NodeType& mType;
    const RunContext& mRun;
};

}  // namespace vxkit
