#include <android/log.h>
#include <pthread.h>
#include <xc2/EventQueue.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <iterator>
#include <map>
#include <new>
#include <optional>
#include <thread>
#include <vector>

namespace xc2 {

// ---- Bundle -----------------------------------------------------------------------------------

Bundle::Storable::~Storable() = default;

Bundle::~Bundle() {
    for (uint32_t i = 0; i < mCount; ++i) mInline[i].entry.~Entry();
    // One by one: left to themselves the links would be destroyed recursively.
    while (mSpilled != nullptr) mSpilled = std::move(mSpilled->next);
}

const Bundle::Item* Bundle::find(const std::string& key) const {
    for (uint32_t i = 0; i < mCount; ++i) {
        if (mInline[i].entry.key == key) return &mInline[i].entry.item;
    }
    for (const Spilled* spilled = mSpilled.get(); spilled != nullptr;
         spilled = spilled->next.get()) {
        if (spilled->entry.key == key) return &spilled->entry.item;
    }
    return nullptr;
}

XC2Status Bundle::store(const std::string& key, Item&& item) {
    if (const Item* old = find(key)) {
        const_cast<Item&>(*old) = std::move(item);
        return XC2_OK;
    }
    if (mCount < std::size(mInline)) {
        new (&mInline[mCount++].entry) Entry(key, std::move(item));
        return XC2_OK;
    }
    std::unique_ptr<Spilled> spilled(new (std::nothrow) Spilled(key, std::move(item)));
    if (spilled == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, "Vexa:VXNode", "failed to emplace : %s",
                            key.c_str());
        return XC2_PUT_FAILED;
    }
    spilled->next = std::move(mSpilled);
    mSpilled = std::move(spilled);
    return XC2_OK;
}

// ---- EventQueue::Reply ------------------------------------------------------------------------

using Clock = std::chrono::steady_clock;

// What the waiter of one postSyncAndWait() gets.
class EventQueue::Reply {
public:
    void give(XC2Status status) {
        {
            std::lock_guard<std::mutex> lock(mLock);
            mStatus = status;
        }
        // Without the lock, or the waiter would wake up only to wait for it. The caller's share
        // keeps the reply alive when the waiter has timed out.
        mGiven.notify_one();
    }

    XC2Status wait(std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> lock(mLock);
        const auto given = [this] { return mStatus.has_value(); };
        if (timeout.count() == 0) {
            mGiven.wait(lock, given);
        } else if (!mGiven.wait_until(lock, Clock::now() + timeout, given)) {
            return XC2_TIMED_OUT;
        }
        return *mStatus;
    }

private:
    std::mutex mLock;
    std::condition_variable mGiven;
    std::optional<XC2Status> mStatus;  // guarded by mLock
};

// ---- Yielding ---------------------------------------------------------------------------------

namespace {

// Waking a thread costs several times what handing over a small work costs. A thread that runs dry
// therefore gives its core away a few times first, mostly to the very thread that is about to
// post. Beside threads that compute this would be ruinous: each yield then lasts a whole time
// slice. So every yield is timed, and one that comes back late ends all yielding of the process for
// ten times as long. bench/history.md has the figures.
constexpr int kYields = 20;
// A time slice ends at a tick of the kernel, which come every 1 to 10 ms; a round over 64 threads
// with a batch each takes 0.3 to 0.7 ms and is no lateness.
constexpr std::chrono::nanoseconds kLate = std::chrono::milliseconds(1);
std::atomic<Clock::rep> sNoYieldBefore{0};

// Returns when `ready`, or when it is better to sleep.
void yieldUntil(const std::atomic<bool>& ready) {
    Clock::time_point before = Clock::now();
    if (before.time_since_epoch().count() < sNoYieldBefore.load(std::memory_order_relaxed)) return;
    for (int i = 0; i < kYields && !ready.load(std::memory_order_relaxed); ++i) {
        std::this_thread::yield();
        const Clock::time_point after = Clock::now();
        if (after - before >= kLate) {
            const Clock::time_point resume = after + 10 * (after - before);
            sNoYieldBefore.store(resume.time_since_epoch().count(), std::memory_order_relaxed);
            return;
        }
        before = after;
    }
}

}  // namespace

// ---- EventQueue::Core -------------------------------------------------------------------------

// The queue proper. It outlives its EventQueue for as long as the thread or a post is inside it.
//
//             start                stop, other thread           (thread joined)
//   STOPPED ---------> RUNNING ------------------------> DRAINING ------> STOPPED
//                       |   ^                               ^
//     stop, own thread  v   |  start    stop, other thread  |
//                      LEAVING -----------------------------+
//                         |  (thread has left by itself)
//                         +---------------------------------------------> STOPPED
//
// Only RUNNING takes posts; in LEAVING nothing is queued. Events, and with them foreign
// destructors, are never released while mLock is held.
class EventQueue::Core : public std::enable_shared_from_this<Core> {
public:
    // One event on its way to one handler.
    struct Delivery {
        Attachment* to;  // null when the handler has been let go already
        std::shared_ptr<Event> event;
        std::shared_ptr<Reply> reply;  // null unless a thread waits
    };

    explicit Core(const std::string& name) : mName(name.substr(0, 15)) {}

    void start();
    void stop();
    void release();
    XC2Status post(EventHandler& handler, Delivery&& delivery, std::chrono::milliseconds delay);

private:
    enum State { STOPPED, RUNNING, DRAINING, LEAVING };

    using Handlers = std::vector<std::shared_ptr<EventHandler>>;
    static void letGo(Delivery& delivery, Handlers* idle);
    void drop(Delivery& delivery);

    void run();
    void letGoOfDelivered(std::unique_lock<std::mutex>& lock);
    void takeDueDelays();
    void sleep(std::unique_lock<std::mutex>& lock);
    void unlockAndWake(std::unique_lock<std::mutex>& lock);
    void awaitEnd(std::unique_lock<std::mutex>& lock);
    bool onOwnThread() const { return mThreadId == std::this_thread::get_id(); }

    const std::string mName;

    // mLock guards everything down to the next blank line. What every post touches comes first,
    // close together.
    std::mutex mLock;
    std::vector<Delivery> mWaiting;
    std::atomic<bool> mAnyWaiting{false};  // mWaiting is not empty; read without mLock too
    bool mSleeping = false;                // the thread waits for a notification
    State mState = STOPPED;
    std::condition_variable mWork;   // the thread sleeps here
    std::condition_variable mEnded;  // DRAINING is over
    std::thread mThread;             // empty in DRAINING: the thread that joins it has it
    std::thread::id mThreadId;
    std::multimap<Clock::time_point, Delivery> mDelayed;

    // Of the queue's thread alone.
    std::vector<Delivery> mBatch;
    size_t mNext = 0;  // the first of mBatch that has not been taken
    Handlers mIdle;    // to be released
};

// ---- Life -------------------------------------------------------------------------------------

void EventQueue::Core::start() {
    std::unique_lock<std::mutex> lock(mLock);
    // A stop that is at work ends first, and a thread that has left by itself is joined, before
    // there is a new one. On the queue's own thread that would be a wait for itself.
    while (mState == DRAINING || (mState == STOPPED && mThread.joinable())) {
        if (onOwnThread()) return;
        awaitEnd(lock);
    }
    if (mState == STOPPED) {
        // Under the lock, which the new thread takes first: it cannot compare itself with mThreadId
        // before that is set. It has a share of the core, for the queue may be released while it
        // runs.
        mThread = std::thread([self = shared_from_this()] { self->run(); });
        mThreadId = mThread.get_id();
    }
    mState = RUNNING;  // a thread that was about to leave stays
}

void EventQueue::Core::stop() {
    std::multimap<Clock::time_point, Delivery> delays;
    std::vector<Delivery> rest;
    std::unique_lock<std::mutex> lock(mLock);
    // Out of reach first: the thread goes on taking due delays while it drains.
    delays.swap(mDelayed);
    if (!onOwnThread()) {
        awaitEnd(lock);
    } else if (mState == RUNNING) {
        // The thread cannot wait for its own end, and whatever it left queued would keep waiters
        // waiting. So it finishes the event in hand, and the rest is dropped here.
        mState = LEAVING;
        const auto next = mBatch.begin() + static_cast<std::ptrdiff_t>(mNext);
        rest.assign(std::make_move_iterator(next), std::make_move_iterator(mBatch.end()));
        mBatch.erase(next, mBatch.end());
        std::move(mWaiting.begin(), mWaiting.end(), std::back_inserter(rest));
        mWaiting.clear();
        mAnyWaiting.store(false, std::memory_order_relaxed);
    }
    lock.unlock();
    // Without the lock: destructors of events are foreign code, and may post.
    for (auto& [due, delivery] : delays) drop(delivery);
    for (auto& delivery : rest) drop(delivery);
}

// The last stop. When a thread releases its own queue, no other thread is left to join it.
void EventQueue::Core::release() {
    stop();
    std::lock_guard<std::mutex> lock(mLock);
    if (mThread.joinable()) mThread.detach();
}

// Ends the thread, or waits for the other thread that does. Not for the thread itself.
void EventQueue::Core::awaitEnd(std::unique_lock<std::mutex>& lock) {
    if (!mThread.joinable()) {
        mEnded.wait(lock, [this] { return mState != DRAINING; });
        return;
    }
    // Taken out, so that of several stops one joins and the others wait for mEnded.
    mState = DRAINING;
    std::thread thread = std::move(mThread);
    unlockAndWake(lock);
    thread.join();
    lock.lock();
    // The system may give the id to another thread, which would then count as the queue's own.
    mThreadId = std::thread::id();
    mState = STOPPED;
    mEnded.notify_all();
}

// ---- Posting ----------------------------------------------------------------------------------

XC2Status EventQueue::Core::post(EventHandler& handler, Delivery&& delivery,
                                 std::chrono::milliseconds delay) {
    std::unique_lock<std::mutex> lock(mLock);
    if (mState != RUNNING) return XC2_BAD_STATE;
    // The thread would wait for an event that only it can deliver.
    if (delivery.reply != nullptr && onOwnThread()) return XC2_BAD_STATE;
    // The first event in flight takes a reference for all: one per event would be written by poster
    // and queue in turns, each time on another core.
    if (delivery.to->inFlight == 0) {
        delivery.to->handler = handler.weak_from_this().lock();
        if (delivery.to->handler == nullptr) return XC2_BAD_STATE;
    }
    ++delivery.to->inFlight;
    if (delay.count() == 0) {
        mWaiting.push_back(std::move(delivery));
        // Relaxed: it only ends the yields early. What was queued is read under the lock.
        mAnyWaiting.store(true, std::memory_order_relaxed);
    } else {
        mDelayed.emplace(Clock::now() + delay, std::move(delivery));
    }
    unlockAndWake(lock);
    return XC2_OK;
}

// Unlocks first: a thread that wakes up only to wait for the lock would cost two switches more. And
// only the first post after the thread fell asleep pays for a notification.
void EventQueue::Core::unlockAndWake(std::unique_lock<std::mutex>& lock) {
    const bool wake = mSleeping;
    mSleeping = false;
    lock.unlock();
    if (wake) mWork.notify_one();
}

// ---- The queue's thread -----------------------------------------------------------------------

void EventQueue::Core::run() {
    pthread_setname_np(pthread_self(), mName.c_str());
    std::unique_lock<std::mutex> lock(mLock);
    for (;;) {
        // Each time round, and in front of the check, so that a delay that has come due keeps the
        // thread from sleeping.
        takeDueDelays();
        if (mWaiting.empty()) {
            if (mState != RUNNING) break;
            sleep(lock);
            continue;
        }
        // All that waits at once: one lock per batch instead of one per event. The two vectors keep
        // their memory.
        mBatch.swap(mWaiting);
        mAnyWaiting.store(false, std::memory_order_relaxed);
        mNext = 0;
        lock.unlock();
        while (mNext < mBatch.size()) {  // stop() on this thread cuts mBatch short
            Delivery& delivery = mBatch[mNext++];
            // The delivery counts as in flight, and so holds the handler; no reference of its own
            // is needed.
            const XC2Status status = delivery.to->handler->onEvent(std::move(delivery.event));
            if (delivery.reply != nullptr) {
                lock.lock();
                letGoOfDelivered(lock);
                lock.unlock();
                delivery.reply->give(status);
            }
        }
        yieldUntil(mAnyWaiting);
        lock.lock();
        letGoOfDelivered(lock);
        mBatch.clear();
    }
    if (mState == LEAVING) mState = STOPPED;  // from DRAINING, the joining thread does it
}

// Comes after the yields: a handler that got its next event meanwhile has never been idle. And
// before a waiter goes on: then the queue holds nothing of its event, nor of those before it.
void EventQueue::Core::letGoOfDelivered(std::unique_lock<std::mutex>& lock) {
    // From the start, as letGo() skips what it has seen. Handlers are destroyed without the lock:
    // they are foreign code.
    for (size_t i = 0; i < mNext; ++i) letGo(mBatch[i], &mIdle);
    if (mIdle.empty()) return;
    lock.unlock();
    mIdle.clear();
    lock.lock();
}

// Under mLock. The last event in flight leaves its handler to be released.
void EventQueue::Core::letGo(Delivery& delivery, Handlers* idle) {
    Attachment* const to = std::exchange(delivery.to, nullptr);
    if (to != nullptr && --to->inFlight == 0) idle->push_back(std::move(to->handler));
}

// Not delivered after all.
void EventQueue::Core::drop(Delivery& delivery) {
    delivery.event.reset();
    Handlers idle;
    {
        std::lock_guard<std::mutex> lock(mLock);
        letGo(delivery, &idle);
    }
    idle.clear();
    if (delivery.reply != nullptr) delivery.reply->give(XC2_CANCELED);
}

void EventQueue::Core::takeDueDelays() {
    if (mDelayed.empty()) return;
    const auto due = mDelayed.upper_bound(Clock::now());
    for (auto delayed = mDelayed.begin(); delayed != due; ++delayed) {
        mWaiting.push_back(std::move(delayed->second));
    }
    mDelayed.erase(mDelayed.begin(), due);
}

void EventQueue::Core::sleep(std::unique_lock<std::mutex>& lock) {
    mSleeping = true;
    if (mDelayed.empty()) {
        mWork.wait(lock);
    } else {
        const Clock::time_point first = mDelayed.begin()->first;  // a copy: it may go meanwhile
        mWork.wait_until(lock, first);
    }
    // Also when no poster has cleared it: the time was up, or the wake-up spurious. run() looks
    // again.
    mSleeping = false;
}

// ---- EventQueue -------------------------------------------------------------------------------

EventQueue::EventQueue(const std::string& name) : mCore(std::make_shared<Core>(name)) {}

EventQueue::~EventQueue() {
    mCore->release();
}

void EventQueue::start(unsigned int) {
    mCore->start();
}

void EventQueue::stop() {
    mCore->stop();
}

// ---- EventHandler -----------------------------------------------------------------------------

EventHandler::EventHandler() = default;

EventHandler::~EventHandler() = default;

XC2Status EventHandler::postAsync(std::shared_ptr<Event> event) {
    return post(std::move(event), nullptr, 0);
}

XC2Status EventHandler::postAsyncDelayed(std::shared_ptr<Event> event, unsigned int delay) {
    return post(std::move(event), nullptr, delay);
}

XC2Status EventHandler::postSyncAndWait(std::shared_ptr<Event> event, unsigned int timeout) {
    const auto reply = std::make_shared<EventQueue::Reply>();
    const XC2Status status = post(std::move(event), reply, 0);
    return status == XC2_OK ? reply->wait(std::chrono::milliseconds(timeout)) : status;
}

XC2Status EventHandler::post(std::shared_ptr<Event> event, std::shared_ptr<EventQueue::Reply> reply,
                             unsigned int delay) {
    if (event == nullptr) return XC2_BAD_VALUE;
    // No reference and no lock: an attachment lives as long as its handler, which the caller holds.
    EventQueue::Attachment* to = mAttachment.load(std::memory_order_acquire);
    if (to == nullptr) return XC2_BAD_STATE;
    return to->core->post(*this, {to, std::move(event), std::move(reply)},
                          std::chrono::milliseconds(delay));
}

void EventHandler::attach(std::shared_ptr<EventQueue> queue) {
    std::lock_guard<std::mutex> lock(mLock);
    EventQueue::Attachment* to = nullptr;
    if (queue != nullptr) {
        // One per queue, however often a handler moves between two queues.
        const auto known = std::find_if(mAttachments.begin(), mAttachments.end(),
                                        [&](const auto& a) { return a.core == queue->mCore; });
        to = known != mAttachments.end() ? &*known : &mAttachments.emplace_front(queue->mCore);
    }
    mAttachment.store(to, std::memory_order_release);
}

}  // namespace xc2
