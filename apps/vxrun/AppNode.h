// AppNode: what the nodes of vxrun have in common, and the table of node types.
//
// A node type is one source file in nodes/: a class derived from AppNode, Source or Sink, and a
// NodeType that describes it. Its hooks throw Failure; AppNode's final overrides catch everything, so
// that no exception reaches the library.
#pragma once

#include "Evidence.h"
#include "Payload.h"
#include "PictureFences.h"
#include "Pool.h"

#include <VXNode.h>

#include <atomic>
#include <list>
#include <memory>
#include <string>
#include <vector>

namespace vxrun {

constexpr size_t kDefaultSlots = 8;  // of a node's pool

struct ConfigKey {
    std::string name;
    bool isFile;
    std::string help;
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
    std::unique_ptr<vexa::VXNode> (*make)(NodeArguments arguments);
    std::vector<EntryKey> entries = {};

    // A node of this type checks what it gets when it has this config; "" for always.
    const char* checksWith = nullptr;

    bool checks(const vexa::VXNodeDescriptor& node) const;
    // The config `key`, common ones too; null when the type does not know it.
    const ConfigKey* find(const std::string& key) const;
};

template <typename Node>
std::unique_ptr<vexa::VXNode> makeNode(NodeArguments arguments) {
    return std::make_unique<Node>(std::move(arguments));
}

// The configs that every node knows, and those that every source does.
const std::vector<ConfigKey>& commonConfigs(bool isSource);

// The types of this program, in the order to list them; null for an unknown name.
const std::vector<const NodeType*>& nodeTypes();
const NodeType* findNodeType(const std::string& name);

// What is wrong with the ports and configs of a description for a node of `type`: the config in question,
// or "", and a line.
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

// The base class. Each most derived class calls teardown() in its destructor.
//
// Threads  open(): the one that builds the graph. process(): the node's event thread.
class AppNode : public vexa::VXNode {
public:
    std::vector<std::string> getPreferredAllocatorTypes() override;

    ~AppNode() override { mEvidence.removeNode(mRecord); }

protected:
    using SharedWorks = std::list<std::shared_ptr<vexa::VXSharedWork>>;
    using Works = std::list<std::unique_ptr<vexa::VXWork>>;

    explicit AppNode(NodeArguments arguments);

    // Takes the configs and opens files. The ports exist.
    virtual void open() {}
    // Leaves one output per input, or none.
    virtual void process(const SharedWorks& inputs, Works* outputs) = 0;
    // What wakeUp() asked for; here: the fence that fenced() has made first fires.
    virtual void wake() { mFences.fireNext(); }

    // Has wake() called on the event thread, `delay` milliseconds from now; once per call. A node that
    // has stopped sleeps on.  [any thread]
    void wakeUp(unsigned delay);
    // Works that process() does not leave.  [any thread]
    vexa::VXError returnWorks(Works works);
    // A work that carries what `input` carries.
    static std::unique_ptr<vexa::VXWork> passOn(const vexa::VXSharedWork& input);
    // What to send in place of `buffer`, a new picture: before a transform/fence the same with a fence
    // that fires "fence_ms" milliseconds later, else `buffer` itself. Such a node has no wake().
    std::shared_ptr<vexa::VXBuffer> fenced(std::shared_ptr<vexa::VXBuffer> buffer,
                                           const vexa::VXFrameInfo& frame);

    // A config's value; empty when it was not given.
    std::string config(const std::string& key);
    // The same; a Failure when it was not given.
    std::string requiredConfig(const std::string& key);
    // A config that is a number in [low, high]; `preset` when it was not given.
    uint64_t numberConfig(const std::string& key, uint64_t low, uint64_t high, uint64_t preset);
    // A config that is true or false; false when it was not given.
    bool flagConfig(const std::string& key);

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
    PoolRecord& newPoolRecord() { return mEvidence.addPool(mRecord.name, slots()); }

    // For the node's pools: the config "slots", and an `onFree` that has the node scheduled again.
    size_t slots() { return numberConfig("slots", 1, 1000, kDefaultSlots); }
    std::function<void()> scheduleSelf();

private:
    vexa::VXError onSetup(bool beforeFence) final;
    vexa::VXError onStart() final { return vexa::VX_OK; }
    vexa::VXError onStop() final { return vexa::VX_OK; }
    vexa::VXError onProcess(SharedWorks inputs, Works* outputs) final;
    vexa::VXError onBufferFilled(int fd) final;
    void onDrain() final {}
    void onFlush() final {}

    template <typename Action>
    vexa::VXError guarded(vexa::VexaError error, Action action);
    void hold(SharedWorks* works);
    void traceFrames(const Works& works);
    void traceQueue();
    void createPorts();
    void mark(const Works& works) const;
    void fail(const std::string& verdict, const std::string& text);

    const NodeType& mType;
    Evidence& mEvidence;
    NodeRecord& mRecord;
    const std::vector<vexa::VXNodeDescriptor::ConfigEntry> mEntries;
    const std::string mMistake;     // in the description
    std::shared_ptr<Route> mRoute;  // null without an output port
    bool mBeforeFence = false;
    unsigned mFenceDelay = 1;  // milliseconds
    PictureFences mFences;
    std::atomic<uint64_t> mTraced{0};  // frames that the trace has a span for
    bool mBroken = false;              // a process() or wake() has failed  [event thread]
};

// Source: a node that makes frames. It offers one input of its own making at a time, so that the
// regulator's flow control paces it: none without a free buffer (the next one that comes back has it
// scheduled again), and none after its last frame or a failure.
class Source : public AppNode {
public:
    vexa::VXError countAvailablePendingInputWorks(unsigned long maxCount,
                                                  unsigned long* actualCount,
                                                  bool* hasEOS) override;
    vexa::VXError getPendingInputWorks(
        unsigned long requestedCount,
        std::list<std::shared_ptr<vexa::VXSharedWork>>* works) override;

protected:
    explicit Source(NodeArguments arguments) : AppNode(std::move(arguments)) {}

    // Makes the pool that the next frames come from; for open() and hasNext(). An earlier pool lives
    // on with its buffers.
    void makePicturePool(const PictureFormat& format);
    void makeBlockPool(size_t bytes);

    // Fills the next frame: buffer, timestamp, infos.
    virtual void fill(const std::shared_ptr<vexa::VXBuffer>& buffer, vexa::VXFrameInfo* frame) = 0;
    // True when another frame follows the one filled last.
    virtual bool hasNext() = 0;

private:
    void process(const SharedWorks& inputs, Works* outputs) final;
    std::shared_ptr<Pool> mPool;
    // [event thread]
    std::shared_ptr<vexa::VXBuffer> mNext;  // for the next frame
    bool mEnded = false;
};

// Sink: a node that takes frames and gives none. Reports completion after the last frame.
class Sink : public AppNode {
protected:
    explicit Sink(NodeArguments arguments) : AppNode(std::move(arguments)) {}

    virtual void consume(const Payload& payload, const StreamInfo& stream,
                         const vexa::VXFrameInfo& frame) = 0;
    // The last frame has been consumed.
    virtual void finish() {}

private:
    void process(const SharedWorks& inputs, Works* outputs) final;
};

}  // namespace vxrun
