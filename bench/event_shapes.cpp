// Which shape the event layer has (platform/xc2/EventQueue.cpp), decided by measurement: two ways
// to keep what waits, each with three ways to go to sleep, and beside them the queue as it stands.
//
// Every candidate carries the same chain of stages, one thread each. Each work is one event forward
// and one back (room for the next), four in flight per hop; every event is made for its post, has
// one item and keeps its handler alive, as in a graph. Candidates take turns within a round, so
// that a noisy minute hits them all.
//
//     event_shapes [rounds [milliseconds per measurement]]
#include "BusyThreads.h"

#include <linux/futex.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <xc2/EventQueue.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kInFlight = 4;  // works per hop
constexpr int kYields = 20;

enum EventId : uint32_t { ROOM, WORK, STOP, END };

// An event with what the stack needs in each; the same one for all candidates.
struct Linked : xc2::Event {
    explicit Linked(uint32_t id) : xc2::Event(id) { info().put("res-id", uint64_t{1}); }
    Linked* next = nullptr;
    std::shared_ptr<xc2::EventHandler> handler;
    std::shared_ptr<Linked> self;  // while it is on the stack
};

// ---- Before sleeping --------------------------------------------------------------------------

// `ready` reports without a lock whether there is work.
struct NoYield {
    template <typename Ready>
    static void pause(Ready) {}
};

struct BareYield {
    template <typename Ready>
    static void pause(Ready ready) {
        for (int i = 0; i < kYields && !ready(); ++i) sched_yield();
    }
};

// A yield that comes back late handed its time slice to a thread that computes. Then the whole
// process sleeps at once for ten times as long. Each candidate has a guard of its own, so that none
// profits from what another candidate has just detected.
template <int kCandidate>
struct GuardedYield {
    static constexpr int64_t kLate = 300000;  // ns
    inline static std::atomic<int64_t> sNotBefore{0};

    static int64_t now() { return Clock::now().time_since_epoch().count(); }

    template <typename Ready>
    static void pause(Ready ready) {
        int64_t before = now();
        if (before < sNotBefore.load(std::memory_order_relaxed)) return;
        for (int i = 0; i < kYields && !ready(); ++i) {
            sched_yield();
            const int64_t after = now();
            if (after - before >= kLate) {
                sNotBefore.store(after + 10 * (after - before), std::memory_order_relaxed);
                return;
            }
            before = after;
        }
    }
};

// ---- Candidates -------------------------------------------------------------------------------

// A vector under a mutex, taken whole by a swap; a condition variable to sleep on.
template <typename Yield>
class MutexQueue {
public:
    explicit MutexQueue(std::shared_ptr<xc2::EventHandler> handler)
        : mHandler(handler), mThread([this] { run(); }) {}
    ~MutexQueue() {
        post(std::make_shared<Linked>(END));
        mThread.join();
    }

    void post(std::shared_ptr<Linked> event) {
        std::shared_ptr<xc2::EventHandler> handler = mHandler.lock();
        std::unique_lock<std::mutex> lock(mLock);
        mWaiting.push_back({std::move(handler), std::move(event)});
        mAny.store(true, std::memory_order_relaxed);
        const bool wake = std::exchange(mSleeping, false);
        lock.unlock();
        if (wake) mWork.notify_one();
    }

private:
    struct Delivery {
        std::shared_ptr<xc2::EventHandler> handler;
        std::shared_ptr<xc2::Event> event;
    };

    void run() {
        std::vector<Delivery> batch;
        for (;;) {
            Yield::pause([this] { return mAny.load(std::memory_order_relaxed); });
            {
                std::unique_lock<std::mutex> lock(mLock);
                while (mWaiting.empty()) {
                    mSleeping = true;
                    mWork.wait(lock);
                }
                mSleeping = false;
                batch.swap(mWaiting);
                mAny.store(false, std::memory_order_relaxed);
            }
            for (Delivery& waiting : batch) {
                const Delivery delivery = std::move(waiting);
                if (delivery.event->id() == END) return;
                delivery.handler->onEvent(delivery.event);
            }
            batch.clear();
        }
    }

    const std::weak_ptr<xc2::EventHandler> mHandler;
    std::mutex mLock;
    std::condition_variable mWork;
    std::vector<Delivery> mWaiting;
    bool mSleeping = false;
    std::atomic<bool> mAny{false};
    std::thread mThread;
};

// A lock-free stack through the events, taken whole and turned round; a futex to sleep on. A
// consumer that sleeps leaves a mark on the stack, and the thread that posts on top of the mark
// wakes it.
template <typename Yield>
class StackQueue {
public:
    explicit StackQueue(std::shared_ptr<xc2::EventHandler> handler)
        : mHandler(handler), mThread([this] { run(); }) {}
    ~StackQueue() {
        post(std::make_shared<Linked>(END));
        mThread.join();
    }

    void post(std::shared_ptr<Linked> posted) {
        Linked* const event = posted.get();
        event->handler = mHandler.lock();
        event->self = std::move(posted);
        Linked* top = mTop.load(std::memory_order_relaxed);
        do {
            event->next = top == &mSleeper ? nullptr : top;
        } while (!mTop.compare_exchange_weak(top, event, std::memory_order_acq_rel,
                                             std::memory_order_relaxed));
        if (top != &mSleeper) return;
        mAwake.store(1, std::memory_order_release);
        futex(FUTEX_WAKE_PRIVATE, 1);
    }

private:
    void futex(int operation, int value) {
        syscall(SYS_futex, reinterpret_cast<int*>(&mAwake), operation, value, nullptr, nullptr, 0);
    }

    void sleep() {
        mAwake.store(0, std::memory_order_relaxed);
        Linked* none = nullptr;
        if (!mTop.compare_exchange_strong(none, &mSleeper, std::memory_order_acq_rel)) return;
        while (mAwake.load(std::memory_order_acquire) == 0) futex(FUTEX_WAIT_PRIVATE, 0);
    }

    void run() {
        const auto any = [this] { return mTop.load(std::memory_order_relaxed) != nullptr; };
        for (;;) {
            Yield::pause(any);
            while (!any()) sleep();
            Linked* newest = mTop.exchange(nullptr, std::memory_order_acq_rel);
            Linked* oldest = nullptr;
            while (newest != nullptr) {
                Linked* const next = newest->next;
                newest->next = oldest;
                oldest = newest;
                newest = next;
            }
            while (oldest != nullptr) {
                const std::shared_ptr<Linked> event = std::move(oldest->self);
                const std::shared_ptr<xc2::EventHandler> handler = std::move(event->handler);
                oldest = event->next;
                if (event->id() == END) return;
                handler->onEvent(event);
            }
        }
    }

    const std::weak_ptr<xc2::EventHandler> mHandler;
    std::atomic<Linked*> mTop{nullptr};
    std::atomic<int> mAwake{0};
    Linked mSleeper{END};  // the mark
    std::thread mThread;
};

// The queue as it stands.
class Shipped {
public:
    explicit Shipped(std::shared_ptr<xc2::EventHandler> handler) : mHandler(std::move(handler)) {
        mQueue->start(0);
        mHandler->attach(mQueue);
    }

    void post(std::shared_ptr<Linked> event) { mHandler->postAsync(std::move(event)); }

private:
    const std::shared_ptr<xc2::EventQueue> mQueue = std::make_shared<xc2::EventQueue>("stage");
    const std::shared_ptr<xc2::EventHandler> mHandler;
};

// ---- The chain --------------------------------------------------------------------------------

// Arithmetic that takes about `us` microseconds of processor time.
void compute(int us) {
    static const double sStepsPerUs = [] {
        constexpr int kSteps = 20000000;
        const auto from = Clock::now();
        for (volatile int i = 0; i < kSteps; i = i + 1) {
        }
        return kSteps / std::chrono::duration<double, std::micro>(Clock::now() - from).count();
    }();
    const int steps = static_cast<int>(us * sStepsPerUs);
    for (volatile int i = 0; i < steps; i = i + 1) {
    }
}

struct Result {
    double nsPerWork = 0;
    double switchesPerWork = 0;
};

template <typename Queue>
class Chain {
public:
    Chain(int stages, int workUs) : mWorkUs(workUs) {
        for (int i = 0; i < stages; ++i) {
            mStages.push_back(std::make_shared<Stage>(*this, i, i + 1 == stages));
            mQueues.push_back(std::make_unique<Queue>(mStages.back()));
        }
        for (int i = 0; i + 1 < stages; ++i) {
            for (int n = 0; n < kInFlight; ++n) post(i, ROOM);
        }
    }

    // No queue goes before everything is back at its sender.
    ~Chain() {
        post(0, STOP);
        const int all = kInFlight * static_cast<int>(mQueues.size() - 1);
        while (!mStopped || mRoom != all) sched_yield();
    }

    Result measure(std::chrono::milliseconds length) {
        std::this_thread::sleep_for(length / 5);  // warm up
        const long switches = contextSwitches();
        const int64_t works = mDone;
        const auto from = Clock::now();
        std::this_thread::sleep_for(length);
        const std::chrono::duration<double, std::nano> taken = Clock::now() - from;
        const double done = static_cast<double>(std::max<int64_t>(mDone - works, 1));
        return {taken.count() / done, static_cast<double>(contextSwitches() - switches) / done};
    }

private:
    struct Stage : public virtual xc2::EventHandler {
        Stage(Chain& c, int i, bool l) : chain(c), index(i), last(l) {}

        xc2::XC2Status onEvent(std::shared_ptr<xc2::Event> event) override {
            if (event->id() == STOP) {
                chain.mStopped = true;
                return xc2::XC2_OK;
            }
            if (event->id() == WORK) {
                ++works;
            } else {
                ++room;
                ++chain.mRoom;
            }
            while ((last || room > 0) && (index == 0 ? !chain.mStopped : works > 0)) passOn();
            return xc2::XC2_OK;
        }

        void passOn() {
            if (chain.mWorkUs > 0) compute(chain.mWorkUs);
            if (last) {
                chain.mDone.fetch_add(1, std::memory_order_relaxed);
            } else {
                --room;
                --chain.mRoom;
                chain.post(index + 1, WORK);
            }
            if (index == 0) return;
            --works;
            chain.post(index - 1, ROOM);
        }

        Chain& chain;
        const int index;  // 0: the source
        const bool last;
        int works = 0;  // arrived
        int room = 0;   // downstream
    };

    static long contextSwitches() {
        rusage usage = {};
        getrusage(RUSAGE_SELF, &usage);
        return usage.ru_nvcsw + usage.ru_nivcsw;
    }

    void post(int stage, EventId id) { mQueues[stage]->post(std::make_shared<Linked>(id)); }

    const int mWorkUs;
    std::atomic<bool> mStopped{false};  // the source makes no more works
    std::atomic<int> mRoom{0};          // of all stages
    std::atomic<int64_t> mDone{0};      // works through the last stage
    std::vector<std::shared_ptr<Stage>> mStages;
    std::vector<std::unique_ptr<Queue>> mQueues;
};

// ---- Measuring --------------------------------------------------------------------------------

struct Shape {
    const char* name;
    int busyThreads;
    int workUs;
};
constexpr Shape kShapes[] = {
    {"quiet", 0, 0}, {"beside 2 busy threads", 2, 0}, {"20 us of work", 0, 20}};
constexpr int kStages[] = {3, 5, 9};

template <typename Queue>
Result measure(const Shape& shape, int stages, std::chrono::milliseconds length) {
    BusyThreads busy(shape.busyThreads);
    return Chain<Queue>(stages, shape.workUs).measure(length);
}

struct Candidate {
    const char* name;
    Result (*measure)(const Shape&, int stages, std::chrono::milliseconds);
};
constexpr Candidate kCandidates[] = {
    {"mutex + swap, sleep at once", measure<MutexQueue<NoYield>>},
    {"mutex + swap, 20 bare yields", measure<MutexQueue<BareYield>>},
    {"mutex + swap, 20 guarded yields", measure<MutexQueue<GuardedYield<0>>>},
    {"stack taken whole, sleep at once", measure<StackQueue<NoYield>>},
    {"stack taken whole, 20 bare yields", measure<StackQueue<BareYield>>},
    {"stack taken whole, 20 guarded yields", measure<StackQueue<GuardedYield<1>>>},
    {"xc2::EventQueue as it stands", measure<Shipped>},
};

constexpr size_t kBaseline = 2;  // of the ratios

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

void compare(const Shape& shape, int stages, int rounds, std::chrono::milliseconds length) {
    constexpr size_t kCount = std::size(kCandidates);
    std::vector<double> ns[kCount];
    std::vector<double> ratios[kCount];  // to kBaseline in the same round
    std::vector<double> switches[kCount];
    for (int round = 0; round < rounds; ++round) {
        for (size_t i = 0; i < kCount; ++i) {
            const Result result = kCandidates[i].measure(shape, stages, length);
            ns[i].push_back(result.nsPerWork);
            switches[i].push_back(result.switchesPerWork);
        }
        for (size_t i = 0; i < kCount; ++i) {
            ratios[i].push_back(ns[i].back() / ns[kBaseline].back());
        }
    }
    std::printf("\n%s, %d stages: median of %d rounds\n", shape.name, stages, rounds);
    std::printf("  %-38s %12s %8s %10s %22s\n", "", "ns/work", "ratio", "switches",
                "range of ns/work");
    for (size_t i = 0; i < kCount; ++i) {
        const auto [least, most] = std::minmax_element(ns[i].begin(), ns[i].end());
        std::printf("  %-38s %12.0f %8.3f %10.2f %10.0f .. %9.0f\n", kCandidates[i].name,
                    median(ns[i]), median(ratios[i]), median(switches[i]), *least, *most);
    }
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 7;
    const std::chrono::milliseconds length(argc > 2 ? std::max(1, std::atoi(argv[2])) : 100);
    for (const Shape& shape : kShapes) {
        for (int stages : kStages) compare(shape, stages, rounds, length);
    }
    return 0;
}
