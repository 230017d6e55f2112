// Evidence: what a run has shown, and the verdict that follows from it.
//
// A pass is a matter of evidence, never of the graph's completion, which comes after errors too.
#pragma once

#include "Outlet.h"

#include <VXNode.h>

#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace vxrun {

// What one node has shown. Written by the node, read by anyone at any time.
struct NodeRecord {
    static constexpr uint64_t kNone = UINT64_MAX;

    // As they were when the node was made.
    vexa::VXNode* node = nullptr;  // null when it is gone; the evidence's lock guards it
    size_t number = 0;             // from 0, in the order of the description
    std::string name;
    std::string allocator;  // the one it insists on, else empty
    bool sink = false;      // it takes frames and gives none

    std::atomic<bool> checking{false};  // it compares frames with an expectation
    std::atomic<uint64_t> frames{0};    // that came through the node
    std::atomic<uint64_t> checked{0};   // of these, compared
    std::atomic<uint64_t> firstBad{
        kNone};                            // the first frame that differed, was missing or too much
    std::atomic<uint64_t> mismatches{0};   // frames that did
    std::atomic<uint64_t> expected{0};     // frames that are to come; 0 when nobody knows
    std::atomic<uint64_t> moved{0};        // batches that were taken or handed on: a sign of life
    std::atomic<bool> busy{false};         // the node is processing
    std::atomic<bool> endOfStream{false};  // the node has handled the last frame
};

// What one pool has done. Written by the pool, read by anyone at any time.
struct PoolRecord {
    PoolRecord(std::string nodeName, size_t limit) : name(std::move(nodeName)), slots(limit) {}

    void took(bool isNew) {
        ++(isNew ? made : recycled);
        // One thread takes; others may give back meanwhile, which makes no new height.
        const uint64_t now = ++out;
        if (now > highWater) highWater = now;
    }
    void gotBack() { --out; }

    // `node` has taken a work that carries a buffer of this pool, or has let go of it.
    void held(const NodeRecord& node, int64_t change) {
        std::lock_guard<std::mutex> lock(mLock);
        mHolders[&node] += change;
    }
    // Who holds how many; the rest waits to be taken, or is with the pool's own node.
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

// The records of all nodes and pools of a run, and its first error.
//
// Life     made before the graph, outlives its nodes.
// Threads  any.
class Evidence {
public:
    // The sums over all sinks.
    struct Totals {
        uint64_t frames = 0;   // the most that any one sink took
        uint64_t checked = 0;  // over all sinks
        uint64_t mismatches = 0;
        uint64_t expected = 0;  // the most that any one sink is to take; 0 when nobody knows
        uint64_t moved = 0;     // grows with every batch that moves anywhere
        uint64_t firstBad = NodeRecord::kNone;
    };
    // A node at one moment.
    struct Moment {
        const NodeRecord& record;
        vexa::VXNode::Status status;
        uint64_t queued;  // works that wait for it, in its queue and pending
    };

    // The verdict line goes to the descriptor `out`, standard output or error.
    explicit Evidence(int out = STDOUT_FILENO) : mOut(out) {}

    // A record for a new node; lives as long as this object. The node is watched until removeNode(),
    // which its destructor calls.
    NodeRecord& addNode(vexa::VXNode& node, const std::string& name, const std::string& allocator,
                        bool sink);
    void removeNode(NodeRecord& record);
    // A record for a new pool of `slots` buffers; lives as long as this object.
    PoolRecord& addPool(const std::string& name, size_t slots);

    // Records that the run has failed. The first word is the verdict, but a failed test comes before whatever
    // else ended the run: a source may run into a truncated file before a sink has come to the frame that
    // differs. True when it was the first.
    bool fail(const std::string& word);

    // Says that the run has another purpose than a comparison: one that compares nothing and does not
    // fail is DONE. Before the run.
    void expectNoCheck() { mChecks = false; }

    // The verdict as of now: the first error, else what the sinks' records allow to say.
    std::string verdict() const;
    Totals totals() const;
    uint64_t moved() const { return totals().moved; }
    // The nodes that live, in the order of the description.
    std::vector<Moment> nodes() const;
    std::vector<const PoolRecord*> pools() const;
    // The names of the nodes that have not handled their last frame, separated by commas.
    std::string unfinished() const;
    // The nodes that have stopped or are gone.
    size_t stopped() const;
    // The allocators that nodes insist on: "reader wants dmabuf, check wants xcodec2".
    std::string allocators() const;

    // When the graph is gone: fails the run for pools that miss buffers, and prints a line per pool
    // when `report` is set.
    void closePools(bool report);

    // Prints the verdict line, the last one on standard output, and returns the exit code that goes
    // with it; 3 in place of 0 when the line could not be written.
    int printVerdict() const;

private:
    template <typename TextOf>
    std::string textOfNodes(TextOf textOf) const;

    mutable std::mutex mLock;
    std::deque<NodeRecord> mNodes;  // guarded by mLock; the records themselves are not
    std::deque<PoolRecord> mPools;  // likewise
    std::string mError;             // guarded by mLock: the verdict, if there is one already
    bool mChecks = true;            // as it was set before the run
    const int mOut;
};

// The verdict when all that is wrong is that something could not be written: a trace, a report, a result.
constexpr char kNotWritten[] = "NOT_WRITTEN";

// The exit code that goes with the word of a verdict.
int exitCode(const std::string& verdict);

// Prints what was asked for, see console::result(), and returns the exit code: `code`, or in place of 0 that
// of kNotWritten.
int printResult(const std::string& text, int code = 0, int out = STDOUT_FILENO,
                std::chrono::milliseconds patience = Outlet::kForever);

}  // namespace vxrun
