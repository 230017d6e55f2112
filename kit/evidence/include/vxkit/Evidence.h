// Evidence: what a run has shown, and the verdict that follows from it.
//
// A pass is a matter of evidence, never of the graph's completion, which comes after errors too.
#pragma once

#include <VXNode.h>
#include <vxkit/Trace.h>
#include <vxkit/Verdict.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace vxkit {

// NodeRecord: what one node has shown.
//
// Life     that of its Evidence.
// Threads  written by the node, read by any.
struct NodeRecord {
    static constexpr uint64_t kNone = UINT64_MAX;

    // As they were when the node was made.
    vexa::VXNode* node = nullptr;  // null when it is gone; the evidence's lock guards it
    size_t number = 0;             // from 0, in the order of the description
    std::string name;
    std::string allocator;  // the one it insists on, else empty
    bool sink = false;      // it has inputs and no outputs

    std::atomic<bool> checking{false};  // it compares frames with an expectation
    std::atomic<uint64_t> frames{0};    // that came through the node
    std::atomic<uint64_t> checked{0};   // of these, compared
    std::atomic<uint64_t> firstBad{
        kNone};                            // the first frame that differed, or was missing or extra
    std::atomic<uint64_t> mismatches{0};   // frames that did
    std::atomic<uint64_t> expected{0};     // frames that are to come; 0 when not known
    std::atomic<uint64_t> moved{0};        // batches taken in or handed on: a sign of life
    std::atomic<bool> busy{false};         // the node is processing
    std::atomic<bool> endOfStream{false};  // the node has handled the last frame
};

// PoolRecord: what one pool has done.
//
// Life     that of its Evidence.
// Threads  written by the pool, read by any.
struct PoolRecord {
    PoolRecord(std::string nodeName, size_t limit) : name(std::move(nodeName)), slots(limit) {}

    // The pool has handed out a buffer, a new one or one that had come back.
    void handedOut(bool isNew) {
        ++(isNew ? made : recycled);
        // One thread fetches; others may give back meanwhile, which makes no new height.
        const uint64_t now = ++out;
        if (now > highWater) highWater = now;
    }
    void gotBack() { --out; }

    // `node` holds so many more (or fewer) works that carry a buffer of this pool.
    void held(const NodeRecord& node, int64_t change) {
        std::lock_guard<std::mutex> lock(mLock);
        mHolders[&node] += change;
    }
    // Which node holds how many; the rest is in queues, or with the pool's own node.
    std::map<const NodeRecord*, int64_t> holders() const {
        std::lock_guard<std::mutex> lock(mLock);
        return mHolders;
    }

    const std::string name;              // of the pool's node
    const size_t slots;                  // the most buffers that may be out
    std::atomic<uint64_t> made{0};       // new buffers
    std::atomic<uint64_t> recycled{0};   // buffers handed out again
    std::atomic<uint64_t> highWater{0};  // the most that were out at once
    std::atomic<uint64_t> out{0};        // that have not come back

private:
    mutable std::mutex mLock;
    std::map<const NodeRecord*, int64_t> mHolders;  // guarded by mLock
};

// Evidence: the records of all nodes and pools of a run, and its first error.
//
// Life     made before the graph, outlives its nodes.
// Threads  any.
// Owns     the records.
class Evidence {
public:
    // The counts over all nodes.
    struct Totals {
        uint64_t frames = 0;   // the most that any one sink consumed
        uint64_t checked = 0;  // over all sinks
        uint64_t mismatches = 0;
        uint64_t expected = 0;  // the most that any one sink is to consume; 0 when not known
        uint64_t moved = 0;     // grows with every batch that moves anywhere
        uint64_t firstBad = NodeRecord::kNone;
    };
    // A node at one moment.
    struct Moment {
        const NodeRecord& record;
        vexa::VXNode::Status status;
        uint64_t queued;  // works that wait for it, in its queue and pending
    };

    // A record for a new node; lives as long as this object. The node is watched until
    // removeNode(), which its destructor calls.
    NodeRecord& addNode(vexa::VXNode& node, const std::string& name, const std::string& allocator,
                        bool sink);
    void removeNode(NodeRecord& record);
    // A record for a new pool of `slots` buffers; lives as long as this object.
    PoolRecord& addPool(const std::string& name, size_t slots);

    // Records that the run has failed. The first verdict counts, but a failed test comes before
    // whatever else ended the run: a source may run into a truncated file before a sink has come to
    // the frame that differs. True when it was the first.
    bool setFailure(Verdict verdict);

    // The run has another purpose than a comparison: one that compares nothing and does not fail is
    // Verdict::Done. Before the run.
    void expectNoCheck() { mChecks = false; }

    // The MD5 of the whole stream as a sink has computed it, in hexadecimal; empty as long as none
    // has.
    void setStreamMd5(const std::string& md5);
    std::string streamMd5() const;

    // The verdict as of now: the first error, else what the sinks' records allow.
    Verdict verdict() const;
    Totals totals() const;
    uint64_t moved() const { return totals().moved; }
    // The nodes that live, in the order of the description.
    std::vector<Moment> nodes() const;
    std::vector<const PoolRecord*> pools() const;
    // The names of the nodes that have not handled their last frame, separated by commas.
    std::string unfinished() const;
    // The number of nodes that have stopped or are gone.
    size_t stopped() const;
    // The allocators that nodes insist on: "reader wants dmabuf, check wants xcodec2".
    std::string allocators() const;

private:
    template <typename TextOf>
    std::string textOfNodes(TextOf textOf) const;

    mutable std::mutex mLock;
    std::deque<NodeRecord> mNodes;    // guarded by mLock; the records themselves are not
    std::deque<PoolRecord> mPools;    // likewise
    std::optional<Verdict> mFailure;  // guarded by mLock
    std::string mStreamMd5;           // guarded by mLock
    bool mChecks = true;              // as it was set before the run
};

// RunContext: what the nodes of one run report to. Copied into each of them.
struct RunContext {
    Evidence& evidence;
    std::function<void(const std::string&)> printLine;  // prints a line for the user  [any thread]
    std::shared_ptr<Trace> trace;                       // null when none is wanted
};

}  // namespace vxkit
