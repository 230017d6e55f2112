// Measures: what is measured of a run while it is under way, in constant memory.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace vxkit {

// Histogram: times in buckets, 32 for each power of two, so that a percentile is at most 1/32 above
// the exact one, and never below it. The largest time is exact.
//
// Life     any.
// Threads  any.
// Owns     its buckets, 15 KiB.
class Histogram {
public:
    using Time = std::chrono::nanoseconds;

    // A negative time counts as none.
    void add(Time time);

    uint64_t count() const;
    // A time that `percent` percent of all do not exceed; 0 as long as there are none.
    Time percentile(double percent) const;
    Time largest() const { return Time(mLargest); }

private:
    static constexpr unsigned kBits = 5;  // of a value behind its first one that count
    static constexpr size_t kParts = 1 << kBits;

    static size_t bucketOf(uint64_t value);
    static uint64_t largestIn(size_t bucket);

    std::array<std::atomic<uint64_t>, (64 - kBits) * kParts + kParts> mBuckets{};
    std::atomic<int64_t> mLargest{0};
};

// NodeTimes: how the event thread of a node spends its time. Every moment from the node's first
// hook on belongs to exactly one phase. It costs about 10 looks at the clock per frame, and so
// nothing is measured without start().
//
// Life     that of its node's record.
// Threads  the event thread, and end() when that has stopped; the operations that are const: any.
// Owns     nothing.
class NodeTimes {
public:
    using Time = std::chrono::nanoseconds;
    enum Phase : uint8_t {
        BUSY,             // in a hook
        WAITS_FOR_INPUT,  // nothing to process has come, or what the node makes is not ready
        WAITS_FOR_ROOM,   // as many works are downstream as flow control allows
        WAITS_FOR_BUFFER,
        READY,  // has all that it needs; its turn is a matter of its event queue
        ENDED,  // after the last frame
        PHASES
    };

    // Before the first hook.
    void start() { mPhase = PHASES; }
    // From now on it is in `phase`. There is no way back from ENDED.
    void enter(Phase phase);
    // `works` wait for the node, or are in its hands.
    void noteQueue(uint64_t works);

    Time spentIn(Phase phase) const { return Time(mSpent[phase]); }
    // The processor time of the event thread, except for what it has used in the last 10 ms before
    // its end. Not that of threads that a codec has.
    Time processor() const { return Time(mProcessor); }
    uint64_t queueHighWater() const { return mQueueHighWater; }

private:
    using Clock = std::chrono::steady_clock;

    // Written by one thread, so that no operation has to lock the bus.
    template <typename Value>
    static void set(std::atomic<Value>* to, Value value) {
        to->store(value, std::memory_order_relaxed);
    }

    Phase mPhase = ENDED;  // PHASES: none yet
    Clock::time_point mSince;
    Clock::time_point mProcessorRead;
    std::array<std::atomic<int64_t>, PHASES + 1> mSpent{};  // nanoseconds, also of no phase
    std::atomic<int64_t> mProcessor{0};
    std::atomic<uint64_t> mQueueHighWater{0};
};

}  // namespace vxkit
