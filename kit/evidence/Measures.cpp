#include <vxkit/Measures.h>

#include <algorithm>
#include <cmath>
#include <ctime>

namespace vxkit {

// Values below kParts have buckets of their own.
size_t Histogram::bucketOf(uint64_t value) {
    if (value < kParts) return value;
    const auto shift = static_cast<unsigned>(63 - __builtin_clzll(value)) - kBits;
    return (shift << kBits) + (value >> shift);
}

uint64_t Histogram::largestIn(size_t bucket) {
    if (bucket < 2 * kParts) return bucket;
    const size_t shift = (bucket >> kBits) - 1;
    const uint64_t first = kParts + bucket % kParts;
    return ((first + 1) << shift) - 1;
}

void Histogram::add(Time time) {
    const int64_t value = std::max<int64_t>(time.count(), 0);
    mBuckets[bucketOf(static_cast<uint64_t>(value))].fetch_add(1, std::memory_order_relaxed);
    int64_t largest = mLargest;
    while (value > largest && !mLargest.compare_exchange_weak(largest, value)) continue;
}

uint64_t Histogram::count() const {
    uint64_t count = 0;
    for (const auto& bucket : mBuckets) count += bucket;
    return count;
}

Histogram::Time Histogram::percentile(double percent) const {
    const double rank = std::ceil(percent / 100 * static_cast<double>(count()));
    const auto wanted = std::max<uint64_t>(static_cast<uint64_t>(rank), 1);
    uint64_t seen = 0;
    for (size_t i = 0; i < mBuckets.size(); ++i) {
        seen += mBuckets[i];
        if (seen < wanted) continue;
        return std::min(Time(static_cast<int64_t>(largestIn(i))), largest());
    }
    return Time(0);
}

void NodeTimes::enter(Phase phase) {
    if (mPhase == ENDED || mPhase == phase) return;
    const auto now = Clock::now();
    if (mPhase != PHASES) {
        set<int64_t>(&mSpent[mPhase], mSpent[mPhase] + Time(now - mSince).count());
    }
    // The clock of a thread is a system call, so it is not read after each of many short hooks.
    constexpr std::chrono::milliseconds kRead(10);
    if (mPhase == BUSY && (phase == ENDED || now - mProcessorRead >= kRead)) {
        timespec time{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
        set<int64_t>(&mProcessor, time.tv_sec * 1000000000 + time.tv_nsec);
        mProcessorRead = now;
    }
    mPhase = phase;
    mSince = now;
}

void NodeTimes::noteQueue(uint64_t works) {
    if (works > mQueueHighWater) set(&mQueueHighWater, works);
}

}  // namespace vxkit
