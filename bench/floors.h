// Floors: the least that does the same kind of work, for rows of the benchmarks to be divided by.
// Each is as fast as a few dozen lines can be made and has none of the engine's contracts: no
// refusals, no end, one producer and one consumer, no releases back.
#pragma once

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <list>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

namespace floors {

using Clock = std::chrono::steady_clock;

// ---- Yield, then futex ------------------------------------------------------------------------

// Where one thread waits for another: 20 yields, then the futex. Each yield is timed, and one that
// comes back late, since the core computes something else, ends them for ten times as long.
class Gate {
public:
    // Returns when `ready()`, which open() has to follow.
    template <typename Ready>
    void wait(const Ready& ready) {
        Clock::time_point before = Clock::now();
        if (before.time_since_epoch().count() >= sNoYieldBefore.load(std::memory_order_relaxed)) {
            for (int i = 0; i < 20; ++i) {
                if (ready()) return;
                std::this_thread::yield();
                const Clock::time_point after = Clock::now();
                if (after - before >= std::chrono::microseconds(300)) {
                    const Clock::time_point resume = after + 10 * (after - before);
                    sNoYieldBefore.store(resume.time_since_epoch().count(),
                                         std::memory_order_relaxed);
                    break;
                }
                before = after;
            }
        }
        for (;;) {
            mSleeping.store(1);
            if (ready()) break;
            syscall(SYS_futex, &mSleeping, FUTEX_WAIT_PRIVATE, 1, nullptr, nullptr, 0);
        }
        mSleeping.store(0, std::memory_order_relaxed);
    }
    // Comes after the store that makes the other side ready, which is sequentially consistent.
    void open() {
        if (mSleeping.load() != 0 && mSleeping.exchange(0) != 0) {
            syscall(SYS_futex, &mSleeping, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
        }
    }

private:
    inline static std::atomic<Clock::rep> sNoYieldBefore{0};
    std::atomic<uint32_t> mSleeping{0};
};

// The hand-over of the bare actor: a ring of at most Depth items between two threads.
template <typename T, uint32_t Depth = 4>
class Ring {
public:
    void push(T item) {
        const uint32_t tail = mTail.load(std::memory_order_relaxed);
        const auto hasRoom = [&] { return tail - mHead.load() < Depth; };
        if (!hasRoom()) mRoom.wait(hasRoom);
        mItems[tail % Depth] = std::move(item);
        mTail.store(tail + 1);
        mFilled.open();
    }
    T pop() {
        const uint32_t head = mHead.load(std::memory_order_relaxed);
        const auto hasItem = [&] { return mTail.load() != head; };
        if (!hasItem()) mFilled.wait(hasItem);
        T item = std::move(mItems[head % Depth]);
        mHead.store(head + 1);
        mRoom.open();
        return item;
    }

private:
    alignas(64) std::atomic<uint32_t> mHead{0};
    Gate mRoom;
    alignas(64) std::atomic<uint32_t> mTail{0};
    Gate mFilled;
    alignas(64) T mItems[Depth];
};

// ---- Mutex and condition variable ---------------------------------------------------------------

// What one would write first; pushes wait while it is full.
template <typename T>
class PlainQueue {
public:
    explicit PlainQueue(size_t depth = 4) : mDepth(depth) {}
    void push(T item) {
        std::unique_lock<std::mutex> lock(mLock);
        mRoom.wait(lock, [this] { return mItems.size() < mDepth; });
        mItems.push_back(std::move(item));
        mFilled.notify_one();
    }
    T pop() {
        std::unique_lock<std::mutex> lock(mLock);
        mFilled.wait(lock, [this] { return !mItems.empty(); });
        T item = std::move(mItems.front());
        mItems.pop_front();
        mRoom.notify_one();
        return item;
    }

private:
    const size_t mDepth;
    std::mutex mLock;
    std::condition_variable mFilled, mRoom;
    std::deque<T> mItems;
};

// ---- Free list --------------------------------------------------------------------------------

// The plainest pool: a list under a recursive mutex, and shared pointers that bring items back.
template <typename T>
class FreeList {
public:
    explicit FreeList(size_t count) {
        for (size_t i = 0; i < count; ++i) mFree.push_back(new T());
    }
    ~FreeList() {
        for (T* item : mFree) delete item;
    }
    FreeList(const FreeList&) = delete;
    FreeList& operator=(const FreeList&) = delete;

    // Empty when all items are out.
    std::shared_ptr<T> fetch() {
        T* item = nullptr;
        {
            std::lock_guard<std::recursive_mutex> lock(mLock);
            if (mFree.empty()) return nullptr;
            item = mFree.front();
            mFree.pop_front();
        }
        return std::shared_ptr<T>(item, [this](T* released) {
            std::lock_guard<std::recursive_mutex> lock(mLock);
            mFree.push_back(released);
        });
    }

private:
    std::recursive_mutex mLock;
    std::list<T*> mFree;
};

}  // namespace floors
