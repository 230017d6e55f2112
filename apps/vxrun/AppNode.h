// AppNode: what the nodes of vxrun have in common, and the table of node types.
//
// A node type is one source file in nodes/: a class derived from AppNode, Producer or Sink, and a
// NodeType that describes it. Its hooks throw Failure; AppNode's final overrides catch everything, so
// that no exception reaches the library.
#pragma once

#include "Evidence.h"
#include "Failure.h"
#include "Payload.h"
#include "PictureFences.h"
#include "Pool.h"

#include <VXNode.h>

#include <deque>
#include <list>
#include <memory>
#include <string>
#include <vector>

namespace vxrun {

// What the value of a config is.
struct ConfigKind {
    enum Kind { TEXT, FILE, FLAG, NUMBER, REAL } kind;
    uint64_t low = 0, high = 0, preset = 0;  // of a number
    double least = 0, most = 0;              // of a real one
};
constexpr ConfigKind kText = {ConfigKind::TEXT};
constexpr ConfigKind kFile = {ConfigKind::FILE};
constexpr ConfigKind kFlag = {ConfigKind::FLAG};  // true or false
constexpr ConfigKind number(uint64_t low, uint64_t high, uint64_t preset) {
    return {ConfigKind::NUMBER, low, high, preset};
}
constexpr ConfigKind real(double least, double most) {
    return {ConfigKind::REAL, 0, 0, 0, least, most};
}

struct ConfigKey {
    std::string name;
    ConfigKind value;
    std::string help;
    bool alone = false;  // excludes the others that are marked so
};

// A per-frame entry that a node type takes: a number in [low, high].
struct EntryKey {
    uint32_t kind;  // of vexa::VXNodeDescriptor::ConfigEntry
    std::string name;
    uint64_t low;
    uint64_t high;
    std::string help;
};

struct NodeType;

// What a node is made from.
struct NodeArguments {
    const NodeType& type;
    std::string fullName;  // "graph.node"
    std::string nodeName;  // as the description has it
    std::vector<vexa::VXNodeDescriptor::ConfigEntry> entries;
    std::string mistake;  // the first of mistakesOf() it, if any
    std::unique_ptr<vexa::VXNodeDescriptor> descriptor;
    Evidence& evidence;
};

struct NodeType {
    std::string name;
    std::string help;
    size_t inputs;  // how many ports of each kind a node of this type has
    size_t outputs;
    std::vector<ConfigKey> configs;
    std::vector<EntryKey> entries;
    bool hasPool;  // the rest: AppNode's members of these names
    bool (*checks)(const vexa::VXNodeDescriptor& node);
    uint64_t (*keeps)(const vexa::VXNodeDescriptor& node);
    std::unique_ptr<vexa::VXNode> (*make)(NodeArguments arguments);

    // The config `key`; null when the type does not know it.
    const ConfigKey* find(const std::string& key) const;
    // The same for code that reads its own configs; a Failure for a key that the type has not declared.
    const ConfigKey& declared(const std::string& key) const;
    // The value of the config `key`, a number, given as `text`. Its preset where that is empty or, which is
    // mistakesOf()'s to report, out of range.
    uint64_t number(const std::string& key, const std::string& text) const;
};

// The types of this program; null for an unknown name.
const std::deque<NodeType>& nodeTypes();
const NodeType* findNodeType(const std::string& name);
// Adds a type, and the configs that all have to its own; true. Before main().
bool addNodeType(NodeType type);

// The value of a config; empty when it was not given. A number's, as its type has it.
std::string configOf(const vexa::VXNodeDescriptor& node, const std::string& key);
uint64_t numberOf(const vexa::VXNodeDescriptor& node, const std::string& key);

// Adds the type of the class `Node`, an AppNode.
template <typename Node>
bool addNodeType(const char* name, const char* help, size_t inputs, size_t outputs,
                 std::vector<ConfigKey> configs = {}, std::vector<EntryKey> entries = {}) {
    // The most derived class has to end the node's life.
    struct Made final : public Node {
        using Node::Node;
        ~Made() override { this->teardown(); }
    };
    const auto make = [](NodeArguments arguments) -> std::unique_ptr<vexa::VXNode> {
        return std::make_unique<Made>(std::move(arguments));
    };
    return addNodeType({name, help, inputs, outputs, std::move(configs), std::move(entries),
                        Node::kHasPool, Node::checks, Node::keeps, make});
}

// What is wrong with the ports, configs and entries of a description for a node of `type`: the config in
// question, or "", and a line.
std::vector<std::pair<std::string, std::string>> mistakesOf(const NodeType& type,
                                                            const vexa::VXNodeDescriptor& node);

// NodeFactory: makes the nodes of one type with the evidence of one run.
class NodeFactory final : public vexa::VXNodeBaseFactory {
public:
    NodeFactory(const NodeType& type, Evidence& evidence);
    void createNode(const std::string& name, std::unique_ptr<vexa::VXNodeDescriptor> descriptor,
                    std::unique_ptr<vexa::VXNode>* node) override;

private:
    const NodeType& mType;
    Evidence& mEvidence;
};

// Route: the output port that has sent a work. Works carry it, since the list of pending inputs does
// not say which input a work came by.
struct Route : public vexa::VXInfo {
    std::weak_ptr<vexa::VXOutputPort> port;
};

// The base class.
//
// Threads  open(): the one that builds the graph. begin(): the graph's. process(): the node's event thread.
class AppNode : public vexa::VXNode {
public:
    // For derived classes to hide. Whether their frames lie in buffers of their own.
    static constexpr bool kHasPool = false;
    // Whether a node so described checks what it gets.
    static bool checks(const vexa::VXNodeDescriptor&) { return false; }
    // How many frames a node so described takes at least before it gives the first.
    static uint64_t keeps(const vexa::VXNodeDescriptor&) { return 0; }

    explicit AppNode(NodeArguments arguments);
    ~AppNode() override { mEvidence.removeNode(mRecord); }
    std::vector<std::string> getPreferredAllocatorTypes() override;

protected:
    using SharedWorks = std::list<std::shared_ptr<vexa::VXSharedWork>>;
    using Works = std::list<std::unique_ptr<vexa::VXWork>>;

    // Takes the configs and opens files. The ports exist.
    virtual void open() {}
    // Makes the files that the node writes: a graph that cannot be built leaves none. Before any process()
    // of a node without outputs; one that has some may be processing already.
    virtual void begin() {}
    virtual void process(const SharedWorks& inputs) = 0;
    // What wakeUp() asked for; here: the fence that fenced() has made first fires.
    virtual void wake() { mFences.fireNext(); }

    // Has wake() called on the event thread, `delay` milliseconds from now; once per call. A node that
    // has stopped sleeps on.  [any thread]
    void wakeUp(unsigned delay);
    // Sends a finished work, and counts it. It goes when the events that wait now have been handled.
    void send(std::unique_ptr<vexa::VXWork> work);
    // The same within process(), once per input or not at all: the work goes as soon as that returns. A node
    // sends in one way only, or works would overtake others.
    void sendOutput(std::unique_ptr<vexa::VXWork> work);
    // Replaces each work by a share of it that tells the pool of its buffer when the node lets go of it.
    void hold(SharedWorks* works);
    // A work that carries what `input` carries.
    static std::unique_ptr<vexa::VXWork> shareOf(const vexa::VXSharedWork& input);
    // What to send in place of `buffer`, a new picture: before a transform/fence the same with a fence
    // that fires "fence_ms" milliseconds later, else `buffer` itself. Such a node has no wake().
    std::shared_ptr<vexa::VXBuffer> fenced(std::shared_ptr<vexa::VXBuffer> buffer,
                                           const vexa::VXFrameInfo& frame);

    // A config's value; empty when it was not given. Numbers and flags are what the type says of them. A
    // Failure for a key that the type has not declared.
    std::string config(const std::string& key);
    // The same; a Failure when it was not given, too.
    std::string requiredConfig(const std::string& key);
    uint64_t numberConfig(const std::string& key) { return mType.number(key, config(key)); }
    bool flagConfig(const std::string& key) { return config(key) == "true"; }

    // The entries of the description, each of which the type takes, with a value that is in its range.
    // What applies to a frame is up to configStore() to tell.
    const std::vector<vexa::VXNodeDescriptor::ConfigEntry>& entries() const { return mEntries; }

    // Counts a frame; the last one, too, as the end of the stream.
    void countFrame(const vexa::VXFrameInfo& frame);
    // Counts frame `number` as one that differs, is missing or is too much.
    void noteBad(uint64_t number);
    // Reports a failed check. The run goes on, so that the other sinks finish.
    void failCheck(vexa::VexaError error, const std::string& text);

    NodeRecord& record() { return mRecord; }

    // A new pool of the node's, of as many buffers as the config "slots" says. It has the node scheduled
    // again when a buffer comes back after none was free.
    std::shared_ptr<Pool> newPool(const PictureFormat& format);

private:
    vexa::VXError onSetup(bool beforeFence) final;
    vexa::VXError onStart() final;
    vexa::VXError onStop() final { return vexa::VX_OK; }
    vexa::VXError onProcess(SharedWorks inputs, Works* outputs) final;
    vexa::VXError onBufferFilled(int fd) final;
    void onDrain() final {}
    void onFlush() final {}

    template <typename Action>
    vexa::VXError guarded(vexa::VexaError error, Action action);
    void finish(vexa::VXWork& work);
    void traceQueue();
    void fail(const std::string& verdict, const std::string& text);

    const NodeType& mType;
    Evidence& mEvidence;
    NodeRecord& mRecord;
    const std::vector<vexa::VXNodeDescriptor::ConfigEntry> mEntries;
    const std::string mMistake;  // in the description
    const std::shared_ptr<Route> mRoute = std::make_shared<Route>();
    Works mOutputs;  // of the process() that runs. [event thread]
    bool mBeforeFence = false;
    PictureFences mFences;
    uint64_t mTraced = 0;              // frames that the trace has a span for  [event thread]
    std::atomic<bool> mBroken{false};  // a hook has failed; the others do nothing any more
};

// Sink: a node that takes frames and gives none. Reports completion after the last frame.
class Sink : public AppNode {
public:
    using AppNode::AppNode;

protected:
    virtual void consume(const Frame& frame) = 0;
    // The last frame has been consumed.
    virtual void finish() {}

private:
    void process(const SharedWorks& inputs) final;
};

}  // namespace vxrun
