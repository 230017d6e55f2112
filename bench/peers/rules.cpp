// What the library's rules alone cost: handlers and a pool that do only what those rules require of
// every engine and pool, without nodes, ports, a regulator or back-ends. What they take above the
// bare floors is the price of the rules; what the library takes above them is its own.
#include <VXWork.h>
#include <xc2/EventQueue.h>

#include <array>
#include <deque>
#include <list>
#include <type_traits>

#include "Peer.h"

namespace {

using namespace peer;
using namespace vexa;

// ---- Chains and fans of handlers --------------------------------------------------------------

enum : uint32_t { SCHEDULE = 2, RELEASED = 4, WORKS = 512 };

// How much of a hop is done. Events: one event for what is handed over, one for its release, each
// made for its post. Works: also a work of its own for every hop, which a tracker brings back.
// Locks: also those that are asked for around the handler, the regulator and the pending inputs.
enum Depth { EVENTS_ONLY, AND_WORKS, AND_LOCKS };

template <Depth depth>
class Stage final : public virtual xc2::EventHandler {
public:
    // The first one makes `works` items, the last one counts them; each computes for `us`.
    Stage(int64_t us, int64_t works, Arrivals* arrivals)
        : mQueue(std::make_shared<xc2::EventQueue>("bench")),
          mUs(us),
          mLeft(works),
          mArrivals(arrivals) {}

    void start() {
        mQueue->start(0);
        attach(mQueue);
    }
    void stop() { mQueue->stop(); }
    void connectTo(const std::shared_ptr<Stage>& downstream) {
        mDownstream.push_back(downstream);
        downstream->mUpstream = this;
    }
    // For the first one, when all have started.
    void begin() { postAsync(std::make_shared<xc2::Event>(SCHEDULE)); }

    xc2::XC2Status onEvent(std::shared_ptr<xc2::Event> event) override {
        { const Lock lock(mLock); }
        if (event->id() == WORKS) {
            std::shared_ptr<WorkInfo> info;
            event->info().get("works", &info);
            const Lock lock(mPendingLock);
            mPending.splice(mPending.end(), info->works);
        } else if (event->id() == RELEASED) {
            uint64_t id = 0;
            event->info().get("res-id", &id);
            mOut.erase(std::find(mOut.begin(), mOut.end(), id));
        }
        schedule();
        return xc2::XC2_OK;
    }

private:
    struct NoLock {
        explicit NoLock(VXMutex&) {}
        ~NoLock() {}
    };
    using Lock = std::conditional_t<depth == AND_LOCKS, VXLocker<VXMutex>, NoLock>;

    struct Bare {  // in place of a work: an item that is handed on, and released by hand
        Item item;
        uint64_t id = 0;
    };
    using Work = std::conditional_t<depth == EVENTS_ONLY, Bare, VXSharedWork>;
    using Works = std::list<std::shared_ptr<Work>>;
    struct WorkInfo : xc2::Bundle::Storable {
        Works works;
    };

    struct Tracker {
        void onRelease(VXSharedWork* work) {
            uint64_t id = 0;
            work->get("_res_id", &id);
            if (const auto owner = stage.lock()) {
                release(*owner, VXSharedWork::Allocator<xc2::Event>(work), id);
            }
            delete work;
        }
        std::weak_ptr<xc2::EventHandler> stage;
    };

    template <typename Allocator>
    static void release(xc2::EventHandler& to, const Allocator& allocator, uint64_t id) {
        auto event = std::allocate_shared<xc2::Event>(allocator, RELEASED);
        event->info().put("res-id", id);
        to.postAsync(std::move(event));
    }

    bool canSchedule() {
        if (mOut.size() >= kInFlight) return false;
        if (mUpstream == nullptr) return mLeft > 0;
        const Lock lock(mPendingLock);
        return !mPending.empty();
    }

    // One pass, one batch; a further pass is an event of its own.
    void schedule() {
        if (!canSchedule()) return;
        Works inputs;
        if (mUpstream != nullptr) {
            const Lock lock(mPendingLock);
            inputs.swap(mPending);
        } else {
            --mLeft;
            inputs.push_back(nullptr);
        }
        process(std::move(inputs));
        if (canSchedule()) begin();
    }

    void process(Works inputs) {
        Works outgoing;
        for (auto& input : inputs) {
            Item item = input == nullptr ? makeItem() : itemOf(*input);
            if constexpr (depth == EVENTS_ONLY) {
                if (input != nullptr) {
                    release(*mUpstream, std::allocator<xc2::Event>(), input->id);
                }
            }
            compute(mUs);
            if (mArrivals != nullptr) mArrivals->one();
            if (mDownstream.empty()) continue;
            outgoing.push_back(share(std::move(item), ++mIds));
            mOut.push_back(mIds);
        }
        inputs.clear();
        if (outgoing.empty()) return;
        for (const auto& downstream : mDownstream) {
            auto info = std::make_shared<WorkInfo>();
            info->works = downstream == mDownstream.back() ? std::move(outgoing) : outgoing;
            auto event = std::make_shared<xc2::Event>(WORKS);
            event->info().put("works", std::move(info));
            downstream->postAsync(std::move(event));
        }
    }

    static Item itemOf(const Bare& work) { return work.item; }
    static Item itemOf(const VXSharedWork& work) { return work.payload<int>(); }

    std::shared_ptr<Work> share(Item item, uint64_t id) {
        if constexpr (depth == EVENTS_ONLY) {
            return std::make_shared<Bare>(Bare{std::move(item), id});
        } else {
            const auto work = std::make_unique<VXWork>();
            work->setPayload(std::move(item));
            work->put("_res_id", id);
            const Lock handler(mLock);
            return work->share(Tracker{weak_from_this()});
        }
    }

    const std::shared_ptr<xc2::EventQueue> mQueue;
    std::vector<std::shared_ptr<Stage>> mDownstream;
    Stage* mUpstream = nullptr;
    VXMutex mLock, mPendingLock;
    Works mPending;
    std::vector<uint64_t> mOut;
    uint64_t mIds = 0;
    const int64_t mUs;
    int64_t mLeft;
    Arrivals* const mArrivals;
};

// A number of them, each on its queue from here to the end of the scope.
template <Depth depth>
class Stages {
public:
    explicit Stages(const Options& options) : mUs(options.us) {}
    std::shared_ptr<Stage<depth>> add(int64_t works, Arrivals* arrivals) {
        return mStages.emplace_back(std::make_shared<Stage<depth>>(mUs, works, arrivals));
    }
    void run() {
        for (const auto& stage : mStages) stage->start();
        mStages.front()->begin();
    }
    ~Stages() {
        for (const auto& stage : mStages) stage->stop();
    }

private:
    const int64_t mUs;
    std::vector<std::shared_ptr<Stage<depth>>> mStages;
};

template <Depth depth>
void chain(const Options& options) {
    perItem(options, [&](int64_t count) {
        Arrivals arrivals(count);
        Stages<depth> stages(options);
        auto last = stages.add(count, nullptr);
        for (int64_t i = 1; i < options.n; ++i) {
            const auto next = stages.add(0, i + 1 == options.n ? &arrivals : nullptr);
            last->connectTo(next);
            last = next;
        }
        stages.run();
        return arrivals.wait();
    });
}

void fanOut(const Options& options) {
    perItem(options, [&](int64_t count) {
        std::deque<Arrivals> arrivals;
        Stages<AND_LOCKS> stages(options);
        const auto first = stages.add(count, nullptr);
        for (int64_t i = 0; i < options.n; ++i) {
            first->connectTo(stages.add(0, &arrivals.emplace_back(count)));
        }
        stages.run();
        return slowest(arrivals);
    });
}

// ---- Life ---------------------------------------------------------------------------------------

// The threads of a graph: its own, one per node, and two that wait for its end; the nodes' are
// started and stopped one by one, and each gets an event.
void lifeCycle(const Options& options) {
    perCall(options, [&] {
        std::vector<std::thread> waiters;
        for (int i = 0; i < 2; ++i) waiters.emplace_back([] {});
        {
            Stages<AND_LOCKS> stages(options);
            for (int64_t i = 0; i <= options.n; ++i) {
                const auto stage = stages.add(0, nullptr);
                stage->start();
                stage->begin();
            }
        }
        for (std::thread& waiter : waiters) waiter.join();
    });
}

// ---- A pool -------------------------------------------------------------------------------------

// A pool's own lock; its stash's recursive one, taken again for the counts; two lists; a shared
// pointer per fetch with a weak reference back to the stash.
class Pool {
public:
    explicit Pool(size_t count) {
        for (size_t i = 0; i < count; ++i) mStash->free.push_back(new Buffer());
    }
    ~Pool() {
        for (Buffer* buffer : mStash->free) delete buffer;
    }
    Pool(const Pool&) = delete;
    Pool& operator=(const Pool&) = delete;

    using Buffer = std::array<char, 4096>;

    // Empty when all are out.
    std::shared_ptr<Buffer> fetch() {
        const VXLocker poolLock(mLock);
        Buffer* buffer = nullptr;
        {
            const VXLocker lock(mStash->lock);
            if (mStash->free.empty()) return nullptr;
            buffer = mStash->free.front();
            mStash->inUse.splice(mStash->inUse.end(), mStash->free, mStash->free.begin());
        }
        return std::shared_ptr<Buffer>(buffer, Tracker{mStash});
    }

private:
    struct Stash {
        size_t total() {
            const VXLocker again(lock);
            return inUse.size() + free.size();
        }
        VXRecursiveMutex lock;
        std::list<Buffer*> free, inUse;
    };
    struct Tracker {
        void operator()(Buffer* buffer) const {
            const auto owner = stash.lock();
            if (owner == nullptr) return;
            const VXLocker lock(owner->lock);
            const auto found = std::find(owner->inUse.begin(), owner->inUse.end(), buffer);
            if (owner->total() <= kInFlight) {
                owner->free.splice(owner->free.end(), owner->inUse, found);
            }
        }
        std::weak_ptr<Stash> stash;
    };

    VXMutex mLock;
    const std::shared_ptr<Stash> mStash = std::make_shared<Stash>();
};

void pool(const Options& options) {
    Pool pool(kInFlight);
    perFetch(options, [&] { return pool.fetch(); });
}

}  // namespace

int main(int argc, char** argv) {
    return peer::run(argc, argv,
                     {{"chain_events", chain<EVENTS_ONLY>},
                      {"chain_works", chain<AND_WORKS>},
                      {"chain", chain<AND_LOCKS>},
                      {"fanout", fanOut},
                      {"lifecycle", lifeCycle},
                      {"pool", pool}});
}
