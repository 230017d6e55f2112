#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <xc2/EventQueue.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "support/LogCapture.h"
#include "support/Scale.h"
#include "support/Tally.h"

using namespace xc2;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// ---- Counted memory ---------------------------------------------------------------------------

namespace {
std::atomic<int> gAllocations{0};
thread_local bool tRefuseMemory = false;  // by the form of new that may answer null
}  // namespace

// Not inline: g++ takes an inlined pair of them for a new that meets a free.
#define COUNTED __attribute__((noinline))
COUNTED void* operator new(size_t size) {
    ++gAllocations;
    void* const memory = std::malloc(size);
    if (memory == nullptr) std::abort();
    return memory;
}
COUNTED void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return tRefuseMemory ? nullptr : operator new(size);
}
COUNTED void operator delete(void* memory) noexcept {
    std::free(memory);
}
COUNTED void operator delete(void* memory, size_t) noexcept {
    std::free(memory);
}

namespace {

// ---- Fixtures ---------------------------------------------------------------------------------

// Counts what is alive: events are dropped when their payloads are.
struct Payload : Bundle::Storable {
    explicit Payload(int n = 0, std::shared_ptr<void> k = nullptr)
        : number(n), keeps(std::move(k)) {
        ++sAlive;
    }
    ~Payload() override { --sAlive; }
    const int number;
    const std::shared_ptr<void> keeps;
    inline static std::atomic<int> sAlive{0};
};
struct OtherPayload : Bundle::Storable {};

std::shared_ptr<Event> numbered(uint32_t number) {
    return std::make_shared<Event>(number);
}

std::shared_ptr<Event> loaded(uint32_t id, std::shared_ptr<void> keeps = nullptr) {
    auto event = numbered(id);
    event->info().put("payload", std::make_shared<Payload>(static_cast<int>(id), std::move(keeps)));
    return event;
}

class Handler : public virtual EventHandler {
public:
    using OnEvent = std::function<XC2Status(const std::shared_ptr<Event>&)>;
    explicit Handler(OnEvent onEvent) : mOnEvent(std::move(onEvent)) {}
    XC2Status onEvent(std::shared_ptr<Event> event) override { return mOnEvent(event); }

private:
    const OnEvent mOnEvent;
};

std::shared_ptr<Handler> handlerOn(const std::shared_ptr<EventQueue>& queue,
                                   Handler::OnEvent onEvent) {
    auto handler = std::make_shared<Handler>(std::move(onEvent));
    handler->attach(queue);
    return handler;
}

std::shared_ptr<EventQueue> startedQueue(const std::string& name = "queue") {
    auto queue = std::make_shared<EventQueue>(name);
    queue->start(0);
    return queue;
}

// Hits "thread ended" of its tally when the thread that made it ends.
struct EndOfThread {
    explicit EndOfThread(Tally& t) : tally(t) {}
    ~EndOfThread() { tally.hit("thread ended"); }
    Tally& tally;
};
void noteEndOfThread(Tally& tally) {
    thread_local EndOfThread sEnd(tally);
}

// Posts until the queue refuses, which is when a stop() on another thread has begun; returns how many
// it took, -1 when it never refused.
int postUntilRefused(EventHandler& handler) {
    const auto limit = Clock::now() + 30s;
    for (int taken = 0; Clock::now() < limit; ++taken) {
        if (handler.postAsync(numbered(1)) != XC2_OK) return taken;
    }
    return -1;
}

// The rest of the line of /proc/self/task/<thread>/status that begins with `field`.
std::string statusOf(pid_t thread, const std::string& field) {
    std::ifstream status("/proc/self/task/" + std::to_string(thread) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind(field + ":", 0) == 0) return line.substr(field.size() + 1);
    }
    return "";
}

long voluntarySwitches(pid_t thread) {
    const std::string count = statusOf(thread, "voluntary_ctxt_switches");
    return count.empty() ? -1 : std::strtol(count.c_str(), nullptr, 10);
}

bool waitUntilAsleep(pid_t thread) {
    const auto limit = Clock::now() + 30s;
    while (Clock::now() < limit) {
        if (statusOf(thread, "State").find('S') != std::string::npos) return true;
        sched_yield();
    }
    return false;
}

// A thread inside postSyncAndWait(); it waits once this is constructed.
class Waiter {
public:
    Waiter(std::shared_ptr<EventHandler> handler, std::shared_ptr<Event> event,
           unsigned int timeout) {
        std::atomic<pid_t> id{0};
        mThread = std::thread(
            [this, handler = std::move(handler), event = std::move(event), timeout, &id]() mutable {
                id = static_cast<pid_t>(syscall(SYS_gettid));
                mStatus = handler->postSyncAndWait(std::move(event), timeout);
                mTally.hit("released");
            });
        while (id == 0) sched_yield();
        EXPECT_TRUE(waitUntilAsleep(id));
    }
    ~Waiter() { mThread.join(); }

    // What the post returned, once it has.
    XC2Status status() {
        EXPECT_TRUE(mTally.waitFor("released"));
        return mStatus;
    }

private:
    std::atomic<XC2Status> mStatus{XC2_OK};
    Tally mTally;
    std::thread mThread;
};

// A started queue whose thread is held inside an event until open().
class HeldQueue : public testing::Test {
protected:
    HeldQueue() {
        holder = handlerOn(queue, [this](const auto&) {
            noteEndOfThread(tally);
            tally.hit("held");
            EXPECT_TRUE(tally.waitFor("open"));
            if (atEnd) atEnd();
            return XC2_OK;
        });
        recorder = handlerOn(queue, [this](const auto& event) {
            {
                std::lock_guard<std::mutex> lock(seenLock);
                seen.push_back(event->id());
            }
            tally.hit("seen");
            return XC2Status(static_cast<int32_t>(event->id()));
        });
        EXPECT_EQ(holder->postAsync(numbered(0)), XC2_OK);
        EXPECT_TRUE(tally.waitFor("held"));
    }
    ~HeldQueue() override {
        open();
        if (queue == nullptr) {
            EXPECT_TRUE(tally.waitFor("thread ended"));
        }
    }

    void open() { tally.hit("open"); }
    std::vector<uint32_t> seenIds() {
        std::lock_guard<std::mutex> lock(seenLock);
        return seen;
    }

    Tally tally;
    std::function<void()> atEnd;  // run by the held event after open()
    std::mutex seenLock;
    std::vector<uint32_t> seen;
    std::shared_ptr<Handler> holder;
    std::shared_ptr<Handler> recorder;
    std::shared_ptr<EventQueue> queue = startedQueue();  // goes first: nothing runs after that
};

// ---- Bundle -----------------------------------------------------------------------------------

template <typename T>
bool holds(const Bundle& bundle, const std::string& key, T untouched) {
    T out = untouched;
    const XC2Status status = bundle.get(key, &out);
    EXPECT_TRUE(status == XC2_OK || out == untouched) << key << " changed the output and failed";
    return status == XC2_OK;
}

// Catches: a value read back as another type, e.g. a negative number as a huge unsigned one, and a
// failed read that spoils the caller's variable.
TEST(Bundle, AnItemIsReadOnlyAsTheTypeThatWasPut) {
    Event event(7);
    Bundle& info = event.info();
    EXPECT_EQ(info.put("u32", 4000000000u), XC2_OK);
    EXPECT_EQ(info.put("u64", uint64_t{1} << 63), XC2_OK);
    EXPECT_EQ(info.put("i32", int32_t{-5}), XC2_OK);
    EXPECT_EQ(info.put("string", std::string("text")), XC2_OK);
    EXPECT_EQ(info.put("literal", "text"), XC2_OK);
    EXPECT_EQ(info.put("object", std::make_shared<Payload>(9)), XC2_OK);

    for (const char* key : {"u32", "u64", "i32", "string", "literal", "object", "absent", ""}) {
        SCOPED_TRACE(key);
        const std::string name = key;
        EXPECT_EQ(holds<uint32_t>(info, key, 3), name == "u32");
        EXPECT_EQ(holds<uint64_t>(info, key, 3), name == "u64");
        EXPECT_EQ(holds<int32_t>(info, key, 3), name == "i32");
        EXPECT_EQ(holds<std::string>(info, key, "old"), name == "string" || name == "literal");
        EXPECT_EQ(holds(info, key, std::make_shared<Payload>()), name == "object");
    }
    int32_t negative = 0;
    EXPECT_EQ(info.get("i32", &negative), XC2_OK);
    EXPECT_EQ(negative, -5);
    std::string text;
    EXPECT_EQ(info.get("literal", &text), XC2_OK);
    EXPECT_EQ(text, "text");
    EXPECT_NE(info.get<uint32_t>("u32", nullptr), XC2_OK);
    EXPECT_EQ(event.id(), 7u);
}

// Catches: an object handed out as a class that it is not, and a null object taken for a missing one.
TEST(Bundle, AnObjectIsReadOnlyAsItsClassOrABaseOfIt) {
    Bundle info;
    const auto payload = std::make_shared<Payload>(9);
    info.put("object", payload);
    info.put("null", std::shared_ptr<Payload>());

    std::shared_ptr<Payload> same;
    EXPECT_EQ(info.get("object", &same), XC2_OK);
    EXPECT_EQ(same, payload);
    std::shared_ptr<Bundle::Storable> base;
    EXPECT_EQ(info.get("object", &base), XC2_OK);
    EXPECT_EQ(base, payload);
    const auto other = std::make_shared<OtherPayload>();
    std::shared_ptr<OtherPayload> untouched = other;
    EXPECT_EQ(info.get("object", &untouched), XC2_NOT_FOUND);
    EXPECT_EQ(untouched, other);
    EXPECT_EQ(info.get("null", &same), XC2_OK);
    EXPECT_EQ(same, nullptr);
}

// Catches: a second item under one name, and items lost where inline room ends.
TEST(Bundle, APutReplacesTheItemOfThatNameWhereverItIs) {
    Bundle info;
    constexpr int kItems = 1000;
    for (int i = 0; i < kItems; ++i) info.put(std::to_string(i), uint64_t{0});
    for (int i = 0; i < kItems; ++i) info.put(std::to_string(i), int32_t{i});  // another type
    for (int i = 0; i < kItems; ++i) {
        int32_t value = -1;
        EXPECT_EQ(info.get(std::to_string(i), &value), XC2_OK);
        EXPECT_EQ(value, i);
    }
}

// Catches: a put without memory that crashes, is silent, heeds the log mask or spoils the bundle.
TEST(Bundle, APutWithoutMemoryIsLoggedAndRefused) {
    LogCapture log(0);
    Bundle info;
    for (const char* key : {"one", "two", "three"}) EXPECT_EQ(info.put(key, 1u), XC2_OK);
    tRefuseMemory = true;
    EXPECT_EQ(info.put("four", 4u), 14);
    tRefuseMemory = false;
    EXPECT_EQ(log.count(ANDROID_LOG_ERROR, "Vexa:VXNode", "failed to emplace : four"), 1);
    EXPECT_FALSE(holds<uint32_t>(info, "four", 0));
    for (const char* key : {"one", "two", "three"})
        EXPECT_TRUE(holds<uint32_t>(info, key, 0)) << key;
    EXPECT_EQ(info.put("four", 4u), XC2_OK);
}

// Catches: memory fetched on the hot path, per small item or per post.
TEST(Bundle, AnEventWithTwoSmallItemsIsOneAllocation) {
    auto event = numbered(1);
    const int before = gAllocations;
    event = numbered(2);
    event->info().put("portId", std::string("decoder.out"));
    event->info().put("delay", uint64_t{5});
    EXPECT_EQ(gAllocations - before, 1);
}

// ---- Order ------------------------------------------------------------------------------------

// Catches: an order kept per handler but not over all handlers of a queue, and an event object that
// is in flight twice delivered only once.
TEST_F(HeldQueue, OrderIsFirstInFirstOutOverAllHandlers) {
    const auto second =
        handlerOn(queue, [this](const auto& event) { return recorder->onEvent(event); });
    std::vector<uint32_t> expected;
    for (uint32_t i = 1; i <= 1000; ++i) {
        EXPECT_EQ((i % 3 == 0 ? second : recorder)->postAsync(numbered(i)), XC2_OK);
        expected.push_back(i);
    }
    const auto twice = numbered(2000);
    EXPECT_EQ(recorder->postAsync(twice), XC2_OK);
    EXPECT_EQ(second->postAsync(twice), XC2_OK);
    expected.insert(expected.end(), {2000, 2000});
    open();
    EXPECT_EQ(recorder->postSyncAndWait(numbered(3000), 0), 3000);
    expected.push_back(3000);
    EXPECT_EQ(seenIds(), expected);
}

// Catches: events lost, doubled or overtaken when several threads post at once, and a handler that
// is entered twice at once.
TEST(EventQueue, FourProducersKeepTheirOrder) {
    constexpr uint32_t kProducers = 4;
    const uint32_t each = static_cast<uint32_t>(scaled(50000));
    const auto queue = startedQueue();
    std::vector<uint32_t> next(kProducers, 0);  // unguarded: one event at a time
    const auto handler = handlerOn(queue, [&](const std::shared_ptr<Event>& event) {
        EXPECT_EQ(next[event->id() / each]++, event->id() % each);
        return XC2_OK;
    });
    std::vector<std::thread> producers;
    for (uint32_t p = 0; p < kProducers; ++p) {
        producers.emplace_back([&, p] {
            for (uint32_t i = 0; i < each; ++i) {
                EXPECT_EQ(handler->postAsync(numbered(p * each + i)), XC2_OK);
            }
        });
    }
    for (auto& producer : producers) producer.join();
    queue->stop();
    for (uint32_t p = 0; p < kProducers; ++p) EXPECT_EQ(next[p], each) << "producer " << p;
}

// Catches: memory fetched per post by a queue that has been as full before.
TEST(EventQueue, PostsOnAWarmQueueAllocateNothing) {
    std::vector<std::shared_ptr<Event>> events;
    for (uint32_t i = 0; i < 500; ++i) events.push_back(numbered(i));
    Tally tally;
    int round = 0;
    const auto queue = startedQueue();
    const auto holder = handlerOn(queue, [&](const auto&) {
        tally.hit("held");
        EXPECT_TRUE(tally.waitFor("open", round));
        return XC2_OK;
    });
    const auto handler = handlerOn(queue, [&](const auto& event) {
        if (event == events.back()) tally.hit("done");
        return XC2_OK;
    });
    for (round = 1; round <= 3; ++round) {
        holder->postAsync(numbered(0));
        ASSERT_TRUE(tally.waitFor("held", round));
        const int before = gAllocations;
        for (const auto& event : events) handler->postAsync(event);
        const int allocations = gAllocations - before;
        EXPECT_TRUE(round == 1 || allocations == 0) << allocations;
        tally.hit("open");
        ASSERT_TRUE(tally.waitFor("done", round));
    }
}

// ---- Refused posts ----------------------------------------------------------------------------

// Catches: a post that nobody will ever deliver reported as queued, or kept instead of dropped, or a
// synchronous one that waits for ever.
TEST(EventQueue, APostThatCannotBeDeliveredIsRefusedAndDropped) {
    const auto fresh = std::make_shared<EventQueue>("fresh");
    const auto stopped = startedQueue();
    stopped->stop();
    const auto running = startedQueue();
    const auto onEvent = [](const auto&) { return XC2_OK; };
    const auto detached = handlerOn(running, onEvent);
    detached->attach(nullptr);
    Handler notShared(onEvent);
    notShared.attach(running);
    const auto released = handlerOn(startedQueue(), onEvent);

    const struct {
        const char* what;
        std::shared_ptr<EventHandler> handler;
    } cases[] = {
        {"no queue", std::make_shared<Handler>(onEvent)},
        {"queue never started", handlerOn(fresh, onEvent)},
        {"queue stopped", handlerOn(stopped, onEvent)},
        {"queue released", released},
        {"attached to null", detached},
        {"not a shared object", {std::shared_ptr<void>(), &notShared}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(c.handler->postAsync(loaded(1)), XC2_BAD_STATE);
        EXPECT_EQ(c.handler->postAsyncDelayed(loaded(1), 1), XC2_BAD_STATE);
        EXPECT_EQ(c.handler->postSyncAndWait(loaded(1), 0), XC2_BAD_STATE);
        EXPECT_EQ(Payload::sAlive, 0);
    }
    const auto good = handlerOn(running, onEvent);
    EXPECT_EQ(good->postAsync(nullptr), XC2_BAD_VALUE);
    EXPECT_EQ(good->postSyncAndWait(nullptr, 0), XC2_BAD_VALUE);
    EXPECT_EQ(good->postSyncAndWait(loaded(1), 0), XC2_OK);
}

// ---- Stop and start ---------------------------------------------------------------------------

// Catches: a stop that drops what was posted before it, one that delivers what came later, and one
// that returns while its thread still runs. Two threads stop at once: both must wait.
TEST_F(HeldQueue, StopDeliversWhatWasPostedBeforeAndEndsTheThread) {
    for (uint32_t i = 0; i < 100; ++i) EXPECT_EQ(recorder->postAsync(loaded(i)), XC2_OK);
    std::vector<std::thread> stoppers;
    for (int i = 0; i < 2; ++i) {
        stoppers.emplace_back([this] {
            queue->stop();
            EXPECT_EQ(tally.count("thread ended"), 1);
        });
    }
    const int late = postUntilRefused(*recorder);
    EXPECT_GE(late, 0);
    open();
    for (auto& stopper : stoppers) stopper.join();
    EXPECT_EQ(seenIds().size(), 100u + static_cast<size_t>(late));
    EXPECT_EQ(Payload::sAlive, 0);

    queue->stop();  // a second time: harmless
    EXPECT_EQ(recorder->postAsync(loaded(1)), XC2_BAD_STATE);
    EXPECT_EQ(tally.count("thread ended"), 1);
}

// Catches: a second thread on a queue started twice, and a queue that cannot be used again.
TEST(EventQueue, StartOnARunningQueueIsHarmlessAndAStoppedOneStartsAgain) {
    const auto queue = startedQueue();
    std::thread::id thread;
    const auto handler = handlerOn(queue, [&](const auto&) {
        thread = std::this_thread::get_id();
        return XC2_OK;
    });
    EXPECT_EQ(handler->postSyncAndWait(numbered(1), 0), XC2_OK);
    const std::thread::id first = thread;
    queue->start(0);
    EXPECT_EQ(handler->postSyncAndWait(numbered(1), 0), XC2_OK);
    EXPECT_EQ(thread, first);
    for (int i = 0; i < scaled(200); ++i) {
        queue->stop();
        queue->stop();
        EXPECT_EQ(handler->postAsync(numbered(1)), XC2_BAD_STATE);
        queue->start(0);
        EXPECT_EQ(handler->postSyncAndWait(numbered(1), 0), XC2_OK);
    }
}

// Catches: a start that comes while another thread's stop is at work and revives a thread that is
// being joined, or is lost.
TEST_F(HeldQueue, AStartDuringAStopTakesEffectAfterIt) {
    std::thread stopper([this] { queue->stop(); });
    EXPECT_GE(postUntilRefused(*recorder), 0);
    std::thread starter([this] {
        queue->start(0);
        EXPECT_EQ(tally.count("thread ended"), 1);
    });
    open();
    stopper.join();
    starter.join();
    EXPECT_EQ(recorder->postSyncAndWait(numbered(77), 0), 77);
}

// Catches: an event in flight whose handler is gone, and a queue that keeps handlers for ever.
TEST_F(HeldQueue, AnEventInFlightKeepsItsHandlerAlive) {
    struct Short : public virtual EventHandler {
        explicit Short(Tally& t) : tally(t) {}
        ~Short() override { tally.hit("handler gone"); }
        XC2Status onEvent(std::shared_ptr<Event>) override {
            EXPECT_EQ(tally.count("handler gone"), 0);
            tally.hit("delivered");
            return XC2_OK;
        }
        Tally& tally;
    };
    auto handler = std::make_shared<Short>(tally);
    handler->attach(queue);
    EXPECT_EQ(handler->postAsync(numbered(1)), XC2_OK);
    handler.reset();
    EXPECT_EQ(tally.count("handler gone"), 0);
    open();
    EXPECT_TRUE(tally.waitFor("handler gone"));
    EXPECT_EQ(tally.count("delivered"), 1);
}

// ---- The end on the queue's own thread --------------------------------------------------------

// Catches: a thread that joins itself, one that goes on with what was queued, and waiters left behind
// when a queue is stopped, or released for the last time, by its own thread.
class EndOnOwnThread : public HeldQueue, public testing::WithParamInterface<bool> {};
TEST_P(EndOnOwnThread, DropsTheRestAndReleasesWaiters) {
    const bool byRelease = GetParam();
    const auto ender = handlerOn(queue, [&](const auto&) {
        tally.hit("ending");
        EXPECT_TRUE(tally.waitFor("end"));
        byRelease ? queue.reset() : queue->stop();
        EXPECT_EQ(Payload::sAlive, 0);
        EXPECT_EQ(recorder->postAsync(loaded(1)), XC2_BAD_STATE);
        return XC2_OK;
    });
    EXPECT_EQ(ender->postAsync(numbered(0)), XC2_OK);
    EXPECT_EQ(recorder->postAsyncDelayed(loaded(1), 600000), XC2_OK);
    Waiter takenAlready(recorder, loaded(1), 0);  // by the thread, together with the ender
    open();
    EXPECT_TRUE(tally.waitFor("ending"));
    EXPECT_EQ(recorder->postAsync(loaded(1)), XC2_OK);
    Waiter stillQueued(recorder, loaded(1), 60000);
    tally.hit("end");
    EXPECT_EQ(takenAlready.status(), XC2_CANCELED);
    EXPECT_EQ(stillQueued.status(), XC2_CANCELED);
    EXPECT_TRUE(tally.waitFor("thread ended"));
    EXPECT_TRUE(seenIds().empty());
    if (byRelease) return;
    queue->start(0);
    EXPECT_EQ(recorder->postSyncAndWait(numbered(5), 0), 5);
}
INSTANTIATE_TEST_SUITE_P(EventQueue, EndOnOwnThread, testing::Bool(), [](const auto& info) {
    return info.param ? "ByTheLastRelease" : "ByStop";
});

// Catches: a queue that its own thread stops and starts again within one event, left for dead or with
// two threads.
TEST_F(HeldQueue, AStartAfterAStopOnTheOwnThreadGoesOn) {
    std::thread::id thread;
    atEnd = [&] {
        thread = std::this_thread::get_id();
        queue->stop();
        queue->start(0);
        EXPECT_EQ(recorder->postAsync(numbered(2)), XC2_OK);
    };
    EXPECT_EQ(recorder->postAsync(numbered(1)), XC2_OK);
    open();
    EXPECT_TRUE(tally.waitFor("seen"));
    std::thread::id after;
    const auto asker = handlerOn(queue, [&](const auto&) {
        after = std::this_thread::get_id();
        return XC2_OK;
    });
    EXPECT_EQ(asker->postSyncAndWait(numbered(0), 0), XC2_OK);
    EXPECT_EQ(after, thread);
    EXPECT_EQ(seenIds(), std::vector<uint32_t>{2});
}

// Catches: the last release of a queue by the destructor of what a handled event carried, when the
// thread is between two events.
TEST(EventQueue, AnEventMayCarryTheLastReferenceToItsQueue) {
    Tally tally;
    auto queue = startedQueue();
    const auto handler = handlerOn(queue, [&](const auto& event) {
        noteEndOfThread(tally);
        tally.hit("id " + std::to_string(event->id()));
        EXPECT_TRUE(tally.waitFor("open"));
        return XC2_OK;
    });
    EXPECT_EQ(handler->postAsync(loaded(1, queue)), XC2_OK);
    EXPECT_EQ(handler->postAsync(loaded(2)), XC2_OK);
    queue.reset();
    tally.hit("open");
    EXPECT_TRUE(tally.waitFor("thread ended"));
    EXPECT_EQ(tally.count("id 1"), 1);
    EXPECT_EQ(tally.count("id 2"), 0);
    EXPECT_EQ(Payload::sAlive, 0);
}

// ---- Synchronous posts ------------------------------------------------------------------------

// Catches: a time-out that comes early or never, or takes the event away.
TEST_F(HeldQueue, AWaitThatTimesOutLeavesItsEventInTheQueue) {
    const auto start = Clock::now();
    EXPECT_EQ(recorder->postSyncAndWait(numbered(5), 20), XC2_TIMED_OUT);
    EXPECT_GE(Clock::now() - start, 20ms);
    open();
    queue->stop();
    EXPECT_EQ(seenIds(), std::vector<uint32_t>{5});
}

// Catches: a status that is lost on the way back to the waiter.
TEST(EventQueue, AWaiterGetsTheStatusOfTheHandler) {
    const auto queue = startedQueue();
    const auto handler = handlerOn(
        queue, [](const auto& event) { return XC2Status(static_cast<int32_t>(event->id()) - 3); });
    for (uint32_t id : {0u, 1u, 3u, 17u, 113u}) {
        for (unsigned int timeout : {0u, 60000u}) {
            EXPECT_EQ(handler->postSyncAndWait(numbered(id), timeout),
                      static_cast<int32_t>(id) - 3);
        }
    }
}

// Catches: a waiter that the end of its queue leaves behind, or tells anything but what its handler
// said: stop() delivers what came before it.
TEST_F(HeldQueue, AWaiterIsServedByAStopThatComesAfterIt) {
    Waiter waiter(recorder, numbered(42), 0);
    std::thread stopper([this] { queue->stop(); });
    EXPECT_GE(postUntilRefused(*holder), 0);
    open();
    EXPECT_EQ(waiter.status(), 42);
    stopper.join();
}

// Catches: a thread that waits for itself; waiting for another queue's thread is fine.
TEST_F(HeldQueue, ASynchronousPostIsRefusedOnlyOnItsOwnThread) {
    const auto other = startedQueue("other");
    const auto onOther = handlerOn(other, [](const auto&) { return XC2Status(8); });
    atEnd = [&] {
        EXPECT_EQ(recorder->postSyncAndWait(loaded(1), 0), XC2_BAD_STATE);
        EXPECT_EQ(Payload::sAlive, 0);
        EXPECT_EQ(onOther->postSyncAndWait(numbered(1), 0), 8);
        tally.hit("asked");
    };
    open();
    EXPECT_TRUE(tally.waitFor("asked"));
    EXPECT_TRUE(seenIds().empty());
}

// Catches: a waiter that goes on while the queue still holds the event's payload, so that what it
// releases next is not the last reference.
TEST(EventQueue, AfterASynchronousPostTheQueueHoldsNothingOfTheEvent) {
    const auto queue = startedQueue();
    const auto handler = handlerOn(queue, [](const auto&) { return XC2_OK; });
    for (int i = 0; i < 20; ++i) {
        std::atomic<bool> dropped{false};
        std::shared_ptr<void> slow(nullptr, [&](void*) {
            for (int n = 0; n < 1000; ++n) sched_yield();
            dropped = true;
        });
        EXPECT_EQ(handler->postSyncAndWait(loaded(1, std::move(slow)), 0), XC2_OK);
        EXPECT_TRUE(dropped);
    }
}

// ---- Delays -----------------------------------------------------------------------------------

// Catches: a delay that ends early, delays delivered in the order of their posts, and a thread asleep
// until a late delay that misses an earlier one.
TEST(EventQueue, DelaysAreDeliveredInOrderOfTimeAndNeverEarly) {
    struct Post {
        unsigned int delay;
        Clock::time_point posted;
        Clock::time_point delivered;
    } posts[] = {{400, {}, {}}, {200, {}, {}}, {1, {}, {}}, {1, {}, {}}, {0, {}, {}}};
    Tally tally;
    std::vector<uint32_t> order;
    const auto queue = startedQueue();
    const auto handler = handlerOn(queue, [&](const auto& event) {
        posts[event->id()].delivered = Clock::now();
        order.push_back(event->id());
        tally.hit("delivered");
        return XC2_OK;
    });
    for (uint32_t i = 0; i < std::size(posts); ++i) {
        posts[i].posted = Clock::now();
        EXPECT_EQ(handler->postAsyncDelayed(numbered(i), posts[i].delay), XC2_OK);
    }
    const auto posting = Clock::now() - posts[0].posted;
    ASSERT_TRUE(tally.waitFor("delivered", std::size(posts)));
    queue->stop();
    for (const Post& post : posts) {
        EXPECT_GE(post.delivered - post.posted, std::chrono::milliseconds(post.delay));
    }
    if (posting > 100ms) GTEST_SKIP() << "too busy a machine to tell the order";
    // The last post may overtake those of a millisecond, or the other way round.
    order.erase(std::remove(order.begin(), order.end(), 4u), order.end());
    EXPECT_EQ(order, (std::vector<uint32_t>{2, 3, 1, 0}));
}

// Catches: a stop that waits for a pending delay, delivers it, or keeps it for the next start.
TEST(EventQueue, DelaysStillPendingAtStopAreDropped) {
    std::atomic<int> delivered{0};
    const auto queue = startedQueue();
    const auto handler = handlerOn(queue, [&](const auto&) {
        ++delivered;
        return XC2_OK;
    });
    for (unsigned int delay : {600000u, 300000u}) {
        EXPECT_EQ(handler->postAsyncDelayed(loaded(1), delay), XC2_OK);
        EXPECT_EQ(Payload::sAlive, 1);
        queue->stop();
        EXPECT_EQ(Payload::sAlive, 0);
        queue->start(0);
    }
    queue->stop();
    EXPECT_EQ(delivered, 0);
}

// ---- The thread -------------------------------------------------------------------------------

// Catches: a thread without the name of its queue; the kernel refuses names that are not cut.
TEST(EventQueue, TheThreadIsNamedAfterItsQueue) {
    for (const char* name :
         {"n", "fifteen letters", "sixteen letters.", "graph.a long node name"}) {
        const auto queue = startedQueue(name);
        char seen[32] = {};
        const auto handler = handlerOn(queue, [&](const auto&) {
            return XC2Status(pthread_getname_np(pthread_self(), seen, sizeof(seen)));
        });
        EXPECT_EQ(handler->postSyncAndWait(numbered(0), 0), 0);
        EXPECT_EQ(seen, std::string(name).substr(0, 15));
    }
}

// Catches: a queue without work that wakes up, e.g. to poll or to yield.
TEST(EventQueue, AnIdleQueueNeverWakesUp) {
    pid_t thread = 0;
    const auto idle = startedQueue("idle");
    const auto asker = handlerOn(idle, [&](const auto&) {
        thread = static_cast<pid_t>(syscall(SYS_gettid));
        return XC2_OK;
    });
    const auto busy = startedQueue("busy");
    const auto answerer = handlerOn(busy, [](const auto&) { return XC2_OK; });
    EXPECT_EQ(asker->postSyncAndWait(numbered(0), 0), XC2_OK);
    ASSERT_TRUE(waitUntilAsleep(thread));
    const long before = voluntarySwitches(thread);
    for (int i = 0; i < scaled(1000); ++i) {
        EXPECT_EQ(answerer->postSyncAndWait(numbered(0), 0), XC2_OK);
    }
    EXPECT_GE(before, 0) << "no counter of context switches";
    EXPECT_EQ(voluntarySwitches(thread), before);
}

// ---- Everything at once -----------------------------------------------------------------------

// Catches: a post that was accepted and never delivered, or touches a queue that is gone, when
// threads post while another stops, starts, releases and replaces their queue.
TEST(EventQueue, PostsRaceWithStopRestartReleaseAndAttach) {
    std::atomic<int> accepted{0};
    std::atomic<int> delivered{0};
    std::atomic<bool> done{false};
    auto queue = startedQueue();
    const auto handler = handlerOn(queue, [&](const auto& event) {
        if (event->id() == 1) ++delivered;
        return XC2_OK;
    });
    using Post = std::function<XC2Status(std::shared_ptr<Event>)>;
    const Post async = [&](auto event) { return handler->postAsync(event); };
    const Post sync = [&](auto event) { return handler->postSyncAndWait(event, 0); };
    std::vector<std::thread> posters;
    for (const Post& post : {async, async, sync}) {
        posters.emplace_back([&, post] {
            while (!done) {
                if (post(loaded(1)) == XC2_OK) ++accepted;
                handler->postAsyncDelayed(loaded(0), 1);
            }
        });
    }
    for (int i = 0; i < scaled(200); ++i) {
        if (i % 3 == 0) {
            queue.reset();
            queue = startedQueue();
            handler->attach(queue);
        } else {
            queue->stop();
            queue->start(0);
        }
        if (handler->postSyncAndWait(loaded(1), 0) == XC2_OK) ++accepted;
    }
    done = true;
    for (auto& poster : posters) poster.join();
    queue->stop();
    EXPECT_EQ(delivered, accepted);
    EXPECT_EQ(Payload::sAlive, 0);
}

// Catches: a waiter or an event left behind when the queue's own thread stops it while others post,
// wait, stop and start.
TEST(EventQueue, PostsRaceWithStopsOnTheOwnThread) {
    std::atomic<bool> done{false};
    const auto queue = startedQueue();
    const auto handler = handlerOn(queue, [&](const auto& event) {
        if (event->id() == 1) queue->stop();
        return XC2_OK;
    });
    std::vector<std::thread> others;
    for (int i = 0; i < 2; ++i) {
        others.emplace_back([&] {
            while (!done) handler->postSyncAndWait(loaded(0), 0);
        });
    }
    others.emplace_back([&] {
        while (!done) {
            handler->postAsync(loaded(1));
            queue->stop();
        }
    });
    for (int i = 0; i < scaled(500); ++i) {
        queue->start(0);
        handler->postAsync(loaded(1));
    }
    done = true;
    for (auto& other : others) other.join();
    queue->stop();
    EXPECT_EQ(Payload::sAlive, 0);
}

}  // namespace
