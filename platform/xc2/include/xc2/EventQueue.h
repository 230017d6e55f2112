// EventQueue and EventHandler: one thread per active object, and the only way into it.
//
//     auto queue = std::make_shared<xc2::EventQueue>("decoder");
//     queue->start(0);
//     auto handler = std::make_shared<MyHandler>();  // derives from xc2::EventHandler
//     handler->attach(queue);
//     handler->postAsync(std::make_shared<xc2::Event>(7));
//     queue->stop();  // by now MyHandler::onEvent has run for event 7, on the queue's thread
#pragma once

#include <xc2/Event.h>

#include <atomic>
#include <cstddef>
#include <forward_list>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#pragma GCC visibility push(default)

namespace xc2 {

class EventHandler;

// EventQueue: a named queue with one thread, which delivers events one at a time, first in first
// out over all handlers that are attached to it.
//
// Life     created stopped -> [ start() -> stop() ]* -> released. A queue that is released while it
//          runs stops itself.
// Threads  start(), stop(): any, also several at once. The last release may come on the queue's own
//          thread. Posting threads may still be inside a post while the queue goes.
// Owns     its thread and the events in it, which in turn keep their handlers alive: until a waiter
//          goes on, more events come or the thread goes to sleep, whichever is first after the
//          last.
class EventQueue {
public:
    // The thread gets the name; the kernel keeps 15 characters of it.
    explicit EventQueue(const std::string& name);
    ~EventQueue();
    EventQueue(const EventQueue&) = delete;
    EventQueue& operator=(const EventQueue&) = delete;

    // Starts the thread; harmless on a running queue. `flags` is 0: none are defined. A process
    // that cannot have one more thread ends here. Called while another thread's stop() is at work
    // it waits for that first; from the queue's own thread it then does nothing.  [any thread]
    void start(unsigned int flags);

    // Refuses further posts, delivers what was posted before, and returns when the thread has
    // ended. Delays still pending are dropped. Harmless on a stopped queue.  [any thread]
    //
    // From the queue's own thread it returns at once: the thread leaves after the event in hand,
    // and what else was queued is dropped.
    void stop();

private:
    friend class EventHandler;
    class Core;
    class Reply;

    // One handler's place at this queue.
    struct Attachment {
        explicit Attachment(std::shared_ptr<Core> c) : core(std::move(c)) {}
        const std::shared_ptr<Core> core;
        // Both guarded by the core's lock. Counted there, not by references of the events: those
        // would be written by poster and queue in turns, each time on another core.
        size_t inFlight = 0;                    // events posted and not yet done with
        std::shared_ptr<EventHandler> handler;  // held while there are any
    };

    const std::shared_ptr<Core> mCore;  // shared with the thread and the handlers
};

// EventHandler: receives the events that are posted to it, on the thread of its queue.
//
// Life     made as a shared object; attach() -> posts. An event in flight keeps it alive.
// Threads  attach() and all posts: any. onEvent(): the queue's, never twice at once for one queue.
// Owns     a share of what its queue leaves behind, never the queue: that ends without it.
//
// The virtual operations stand in slot order.
class EventHandler : public std::enable_shared_from_this<EventHandler> {
public:
    EventHandler();
    virtual ~EventHandler();
    EventHandler(const EventHandler&) = delete;
    EventHandler& operator=(const EventHandler&) = delete;

    // Queues `event` for this handler and returns at once. A refused event is dropped at once.
    // [any thread]
    //   XC2_OK         queued; delivered unless the queue is stopped on its own thread first
    //   XC2_BAD_STATE  no queue, queue not running, or the handler is not held by a shared pointer
    //   XC2_BAD_VALUE  `event` is null
    virtual XC2Status postAsync(std::shared_ptr<Event> event);

    // As postAsync(), but delivered no earlier than `delay` milliseconds (steady clock) from now;
    // dropped when the queue is stopped before.  [any thread]
    virtual XC2Status postAsyncDelayed(std::shared_ptr<Event> event, unsigned int delay);

    // As postAsync(), and waits until onEvent() has returned for the event, `timeout` milliseconds
    // (steady clock) at most; 0 waits without limit.  [any thread but the queue's own]
    //   XC2_BAD_STATE  as postAsync(), and from the queue's own thread
    //   XC2_BAD_VALUE  `event` is null
    //   XC2_TIMED_OUT  not handled in time; the event is still delivered
    //   XC2_CANCELED   the queue ended before it came to the event
    //   any other      what onEvent() returned
    virtual XC2Status postSyncAndWait(std::shared_ptr<Event> event, unsigned int timeout);

    // The work itself. May post to any handler, stop its queue or drop the last reference to it,
    // and may take its time: only its own queue waits.  [event thread]
    virtual XC2Status onEvent(std::shared_ptr<Event> event) = 0;

    // From now on posts go to `queue`; null: are refused. What was posted before stays where it is.
    void attach(std::shared_ptr<EventQueue> queue);  // [any thread]

private:
    XC2Status post(std::shared_ptr<Event> event, std::shared_ptr<EventQueue::Reply> reply,
                   unsigned int delay);

    std::atomic<EventQueue::Attachment*> mAttachment{nullptr};  // where posts go; of mAttachments
    std::mutex mLock;                                           // attach() against attach()
    // Guarded by mLock. Everything ever attached to, until the handler dies: a post may still be
    // inside a former one, and to count such posts would cost each of them more than this.
    std::forward_list<EventQueue::Attachment> mAttachments;
};

}  // namespace xc2

#pragma GCC visibility pop
