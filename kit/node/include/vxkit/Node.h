// Node: what the nodes of an application have in common.
//
// A node type is one source file: a class derived from Source, Transform, Decoder, Encoder, Sink or
// Node, its keys, and a Registered object (<vxkit/NodeType.h>). Its hooks throw Failure; Node's
// final overrides catch everything, so that no exception reaches libvxbase.
#pragma once

#include <VXNode.h>
#include <vxkit/Evidence.h>
#include <vxkit/Failure.h>
#include <vxkit/Fences.h>
#include <vxkit/FrameView.h>
#include <vxkit/NodeType.h>
#include <vxkit/Pool.h>

#include <atomic>
#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <vector>

namespace vxkit {

// Route: the output port that sent a work. Works carry it, since the list of pending inputs does
// not record the input port. A plain value.
struct Route : public vexa::VXInfo {
    std::weak_ptr<vexa::VXOutputPort> port;
};

// Life     made by a NodeFactory, ended by teardown() in Registered's class.
// Threads  open(): the one that builds the graph. begin(): the graph's. process(), wake(): the
//          node's event thread. The other operations: those of the hook that calls them, unless
//          marked.
// Owns     its fences; its record belongs to the evidence.
class Node : public vexa::VXNode {
public:
    // For derived classes to hide. The configs and entries of every such node, besides those that
    // Registered is given.
    static std::vector<const ConfigKey*> commonConfigs() { return {&kAllocator}; }
    static std::vector<EntryKey> commonEntries() { return {}; }
    // Whether the node has a pool for its frames.
    static constexpr bool kHasPool = false;
    // Whether a node with this description checks its inputs.
    static bool checks(const vexa::VXNodeDescriptor&) { return false; }
    // The least number of frames that a node with this description holds back before it sends the
    // first.
    static uint64_t leastFramesHeld(const vexa::VXNodeDescriptor&) { return 0; }
    // Throws Failure when this machine lacks what a node with this description needs, such as a
    // device. A suite asks before its first vector, in a process of its own.
    static void probe(const vexa::VXNodeDescriptor&) {}

    explicit Node(NodeArguments arguments);
    ~Node() override { mRun.evidence.removeNode(mRecord); }
    std::vector<std::string> getPreferredAllocatorTypes() override;
    // Both note, for reports, what the node waits for and how many works wait for it.
    vexa::VXError countAvailablePendingInputWorks(unsigned long maxCount,
                                                  unsigned long* actualCount,
                                                  bool* hasEOS) override;
    vexa::VXError getPendingInputWorks(
        unsigned long requestedCount,
        std::list<std::shared_ptr<vexa::VXSharedWork>>* works) override;

protected:
    using SharedWorks = std::list<std::shared_ptr<vexa::VXSharedWork>>;
    using Works = std::list<std::unique_ptr<vexa::VXWork>>;

    // Reads the configs and opens files. The ports exist.
    virtual void open() {}
    // What the base has to do when open() is done.
    virtual void opened() {}
    // Makes the files that the node writes: a graph that cannot be built leaves none. Before any
    // process() of a node without outputs; one that has some may be processing already.
    virtual void begin() {}
    virtual void process(const SharedWorks& inputs) = 0;
    // The node has stopped, whatever the reason: no other hook is called from now on. For what a
    // node that holds works back can still find out about them; they go nowhere. Not after a hook
    // has thrown.  [the thread that stops the graph]
    virtual void end() {}
    // Whether each process() is a sign of life of the run, as frames that are sent are.
    virtual bool movesByProcess() const { return true; }
    // The answer to wakeUp(). By default the oldest fence of fenced() fires.
    virtual void wake() { mFences.fireNext(); }

    // Calls wake() once on the event thread, `delay` milliseconds from now, unless the node has
    // stopped by then.  [any thread]
    void wakeUp(unsigned delay);
    // A function that has the node scheduled once more, as long as it runs. It may outlive the
    // node. [any thread]
    std::function<void()> scheduler();
    // Counts and sends a finished work. It leaves after the events that are waiting now.
    void send(std::unique_ptr<vexa::VXWork> work);
    // The same within process(), once per input or not at all: the work leaves as soon as process()
    // returns. A node uses only one of the two, or works would overtake others.
    void sendOutput(std::unique_ptr<vexa::VXWork> work);
    // Replaces each work by a share of it that reports to the pool of its buffer when the node
    // releases it.
    void hold(SharedWorks* works);
    // A work that carries the same frame as `input`.
    static std::unique_ptr<vexa::VXWork> shareOf(const vexa::VXSharedWork& input);
    // What to send in place of `buffer`, a new picture: before a transform/fence the same with a
    // fence that fires "fence_ms" milliseconds later, else `buffer` itself. Such a node has no
    // wake().
    std::shared_ptr<PoolBuffer> fenced(std::shared_ptr<PoolBuffer> buffer,
                                       const vexa::VXFrameInfo& frame);

    // A config's value, see the key's class. Throws Failure for a key that the node's type has not
    // declared.
    template <typename Key>
    typename Key::Value config(const Key& key) {
        return key.valueOf(configText(key));
    }
    // The same as the text of the description; empty when it was not given.
    std::string configText(const ConfigKey& key);
    bool isGiven(const ConfigKey& key) { return !configText(key).empty(); }
    // The same as config(), but throws Failure when it was not given.
    template <typename Key>
    typename Key::Value requiredConfig(const Key& key) {
        if (!isGiven(key)) throw Failure("config '" + key.name + "' is missing");
        return config(key);
    }

    // The entries of the description: each is declared by the type, with a value in its range.
    // configStore() returns those that apply to a frame.
    const std::vector<vexa::VXNodeDescriptor::ConfigEntry>& entries() const { return mEntries; }

    // Counts a frame; the last one, too, as the end of the stream.
    void countFrame(const vexa::VXFrameInfo& frame);
    // Counts a frame as one that differs, is missing or is extra.
    void countMismatch(WrongFrame frame);
    // The same of frame `number`, of which no more is known.
    void countMismatch(uint64_t number);
    // Reports a failed check. The run goes on, so that the other sinks finish.
    void failCheck(vexa::VexaError error, const std::string& text);
    // Prints a line for the user that begins with the node's name.
    void print(const std::string& text) const;

    NodeRecord& record() { return mRecord; }
    Evidence& evidence() const { return mRun.evidence; }

    // A new pool for the node, of "slots" buffers. The node is scheduled again when a buffer comes
    // back after none was free.
    std::shared_ptr<Pool> newPool(const PictureFormat& format) {
        return newPool(format, scheduler());
    }
    // The same for a node that fetches buffers by itself. `onFree` may outlive the node, see
    // Pool::make().
    std::shared_ptr<Pool> newPool(const PictureFormat& format, std::function<void()> onFree);

private:
    vexa::VXError onSetup(bool beforeFence) final;
    vexa::VXError onStart() final;
    vexa::VXError onStop() final;
    vexa::VXError onProcess(SharedWorks inputs, Works* outputs) final;
    vexa::VXError onBufferFilled(int fd) final;
    void onDrain() final {}
    void onFlush() final {}

    // The same as guarded(), on the event thread.
    template <typename Action>
    vexa::VXError timed(vexa::VexaError error, Action action);
    template <typename Action>
    vexa::VXError guarded(vexa::VexaError error, Action action);
    void finishWork(vexa::VXWork& work);
    void traceQueue();
    void fail(Verdict verdict, const std::string& text);

    const NodeType& mType;
    const RunContext mRun;
    NodeRecord& mRecord;
    const std::vector<vexa::VXNodeDescriptor::ConfigEntry> mEntries;
    const std::string mMistake;  // in the description
    const std::shared_ptr<Route> mRoute = std::make_shared<Route>();
    Works mOutputs;  // of the process() that runs. [event thread]
    bool mBeforeFence = false;
    PictureFences mFences;
    uint64_t mTraced = 0;              // frames that the trace has a span for  [event thread]
    std::atomic<bool> mBroken{false};  // a hook has failed; the others no longer do anything
};

}  // namespace vxkit
