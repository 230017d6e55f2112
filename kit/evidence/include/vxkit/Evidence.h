// Evidence: what was seen of a run, and the verdict that follows from it.
//
// A pass follows from evidence, never from the graph's completion, which is reported after errors,
// too.
#pragma once

#include <VXNode.h>
#include <vxkit/Measures.h>
#include <vxkit/Mismatch.h>
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

// NodeRecord: what was seen of one node.
//
// Life     that of its Evidence.
// Threads  written by the node, read by any.
// Owns     nothing.
struct NodeRecord {
    static constexpr uint64_t kNone = UINT64_MAX;

    // As they were when the node was made.
    vexa::VXNode* node = nullptr;  // null when it is gone; the evidence's lock guards it
    size_t number = 0;             // from 0, in the order of the description
    std::string name;
    std::string type;
    std::string allocator;  // the one that it requires, or empty
    bool sink = false;      // it has inputs and no outputs

    std::atomic<bool> checking{false};      // it compares frames with an expectation
    std::atomic<uint64_t> frames{0};        // that came through the node
    std::atomic<uint64_t> checked{0};       // of these, compared
    std::atomic<uint64_t> mismatches{0};    // frames that differed, were missing or were extra
    std::atomic<uint64_t> firstBad{kNone};  // the first of them
    std::atomic<uint64_t> expected{0};      // frames that are to come; 0 when not known
    std::atomic<uint64_t> moved{0};         // batches received or sent: a sign of life
    std::atomic<bool> busy{false};          // one of its hooks runs, see AtWork
    std::atomic<bool> endOfStream{false};   // the node has handled the last frame
    NodeTimes times;

    // What the node waits for outside the graph, such as a device; empty for nothing.
    std::string waitsFor() const {
        std::lock_guard<std::mutex> lock(mLock);
        return mWaitsFor;
    }
    void setWaitsFor(const std::string& what) {
        std::lock_guard<std::mutex> lock(mLock);
        mWaitsFor = what;
    }

    // What the node has measured, for reports: by names such as "psnr_mean", in the unit that the
    // name ends with, if any.
    std::map<std::string, double> figures() const {
        std::lock_guard<std::mutex> lock(mLock);
        return mFigures;
    }
    void setFigure(const std::string& figure, double value) {
        std::lock_guard<std::mutex> lock(mLock);
        mFigures[figure] = value;
    }

    // How the first wrong frame differs; empty as long as none does. The first one that is set
    // stays.
    std::optional<Mismatch> mismatch() const {
        std::lock_guard<std::mutex> lock(mLock);
        return mMismatch;
    }
    void setMismatch(const Mismatch& mismatch) {
        std::lock_guard<std::mutex> lock(mLock);
        if (!mMismatch) mMismatch = mismatch;
    }

    // The wrong frames in the order in which they were found; kMostWrong of them.
    static constexpr size_t kMostWrong = 100000;
    std::vector<WrongFrame> wrongFrames() const {
        std::lock_guard<std::mutex> lock(mLock);
        return mWrongFrames;
    }
    void addWrongFrame(WrongFrame frame) {
        std::lock_guard<std::mutex> lock(mLock);
        if (mWrongFrames.size() < kMostWrong) mWrongFrames.push_back(std::move(frame));
    }

    // What the wrong frames are, all in all, such as expected ones at other places; empty: not
    // known.
    std::string finding() const {
        std::lock_guard<std::mutex> lock(mLock);
        return mFinding;
    }
    void setFinding(const std::string& finding) {
        std::lock_guard<std::mutex> lock(mLock);
        mFinding = finding;
    }

private:
    mutable std::mutex mLock;
    std::string mWaitsFor;  // guarded by mLock, as the rest is
    std::map<std::string, double> mFigures;
    std::optional<Mismatch> mMismatch;
    std::vector<WrongFrame> mWrongFrames;
    std::string mFinding;
};

// AtWork: this thread runs a hook of a node.
//
// Life     around the hook's call.
// Threads  the one that made it.
// Owns     nothing; the record outlives it.
class AtWork {
public:
    explicit AtWork(NodeRecord& record);
    ~AtWork();
    AtWork(const AtWork&) = delete;
    AtWork& operator=(const AtWork&) = delete;

    // The node whose hook runs on this thread; null for none. May be called by signal handlers.
    static const NodeRecord* onThisThread();

private:
    NodeRecord& mRecord;
};

// PoolRecord: what was seen of one pool.
//
// Life     that of its Evidence.
// Threads  written by the pool, read by any.
// Owns     nothing.
struct PoolRecord {
    PoolRecord(std::string nodeName, size_t limit) : name(std::move(nodeName)), slots(limit) {}

    // The pool has handed out a buffer, a new one or one that had come back.
    void handedOut(bool isNew) {
        ++(isNew ? made : recycled);
        // Only one thread fetches. Buffers that come back meanwhile cannot raise the mark.
        const uint64_t now = ++out;
        if (now > highWater) highWater = now;
    }
    void gotBack() { --out; }

    // `node` holds `change` more works (fewer, if negative) with a buffer of this pool.
    void held(const NodeRecord& node, int64_t change) {
        std::lock_guard<std::mutex> lock(mLock);
        mHolders[&node] += change;
    }
    // The number of such works by node. The other buffers that are out are in queues or with the
    // pool's own node.
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
    // Pictures of a device that had to be copied out of it: its layout is not that of the graph.
    std::atomic<uint64_t> copied{0};

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
    // The counts over all nodes. A plain value.
    struct Totals {
        uint64_t frames = 0;   // the most that any one sink consumed
        uint64_t checked = 0;  // over all sinks
        uint64_t mismatches = 0;
        uint64_t expected = 0;  // the most that any one sink is to consume; 0 when not known
        uint64_t moved = 0;     // grows with every batch that moves anywhere
        uint64_t firstBad = NodeRecord::kNone;
    };
    // A node at one moment. A plain value; the record belongs to the evidence.
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
    // anything else that ended the run: a source may reach the end of a truncated file before a
    // sink reaches the frame that differs. True for the first failure.
    bool setFailure(Verdict verdict);

    // The run is not meant to compare anything: without a failure it ends with Verdict::Done. Call
    // before the run.
    void expectNoCheck() { mChecks = false; }

    // The times of nodes are measured, see NodeTimes. Call before the run.
    void measureTimes() { mMeasuresTimes = true; }
    // The graph starts; it has ended. The time between the two, or from the first until now.
    void noteStart() { mStart = Clock::now().time_since_epoch(); }
    void noteEnd() { mEnd = Clock::now().time_since_epoch(); }
    double seconds() const;
    // Of the frames that totals() counts; 0 when there are none.
    double framesPerSecond() const;
    // From the moment that a decoder takes an access unit to that when its picture is sent.
    Histogram& latency() { return mLatency; }
    const Histogram& latency() const { return mLatency; }

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
    // All nodes, also those that are gone.
    std::vector<const NodeRecord*> records() const;
    std::vector<const PoolRecord*> pools() const;
    // The figures of all nodes, by names such as "compare.psnr_mean".
    std::map<std::string, double> figures() const;
    // Calls `visit` with the record of each node of which a hook runs. Without a lock, for signal
    // handlers; no node may be added meanwhile.
    template <typename Visitor>
    void forEachAtWork(Visitor visit) const {
        for (const NodeRecord& record : mNodes) {
            if (record.busy) visit(record);
        }
    }
    // The names of the nodes that have not handled their last frame, separated by commas, each with
    // what it waits for.
    std::string unfinished() const;
    // The number of nodes that have stopped or are gone.
    size_t stopped() const;
    // The allocators that nodes require: "reader requires dmabuf, check requires xcodec2".
    std::string allocators() const;

private:
    using Clock = std::chrono::steady_clock;

    template <typename TextOf>
    std::string textOfNodes(TextOf textOf) const;

    mutable std::mutex mLock;
    std::deque<NodeRecord> mNodes;    // guarded by mLock; the records themselves are not
    std::deque<PoolRecord> mPools;    // likewise
    std::optional<Verdict> mFailure;  // guarded by mLock
    std::string mStreamMd5;           // guarded by mLock
    bool mChecks = true;              // as it was set before the run
    bool mMeasuresTimes = false;      // likewise
    // Since the clock's epoch; 0: not yet.
    std::atomic<Clock::duration> mStart{Clock::duration(0)}, mEnd{Clock::duration(0)};
    Histogram mLatency;
};

// RunContext: what the nodes of one run report to. A plain value, copied into each of them; the
// evidence outlives them.
struct RunContext {
    Evidence& evidence;
    std::function<void(const std::string&)> printLine;  // prints a line for the user  [any thread]
    std::shared_ptr<Trace> trace;                       // null for no trace
};

}  // namespace vxkit
