// VXNode: the processing node, its ports, its flow control and the registry of node types.
//
// The thread tags: [event thread] is the thread of the node's own event queue, [any thread] is any,
// [application thread] is the one that builds, starts, stops and destroys.
#pragma once

#include <VXUtils.h>
#include <VXWork.h>

#include <xc2/Event.h>
#include <xc2/EventQueue.h>

#include <atomic>
#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace vexa {

class VXNode;

// ---- Ports ------------------------------------------------------------------------------------

// VXPort: a named connection point of a node, which carries one format.
//
// Life     made by its node during set-up, lives as long as the node or a connected port holds it.
// Threads  see each operation. Lock order: output port, then input port.
// Owns     a share of its node's event handler.
class VX_EXPORT VXPort : public VXObject {
public:
    // Format: what a port carries. A plain value. Two ports match when the types are equal byte for
    // byte.
    struct Format {
        std::string type;
    };
    enum Direction : uint32_t { INPUT = 0, OUTPUT = 1 };

    ~VXPort() override;

    // True when the port has a connection.  [any thread]
    virtual bool connected() = 0;

    const Format& format() const { return mFormat; }
    uint32_t direction() const { return mDirection; }

protected:
    VXPort(const std::string& name, Direction direction, const Format& format,
           std::shared_ptr<xc2::EventHandler> handler);

    const std::shared_ptr<xc2::EventHandler> mHandler;  // the owning node's
    VXRecursiveMutex mLock;                             // guards the connection of this port
    const uint32_t mDirection;
    const Format mFormat;
};

// VXInputPort: receives works from at most one output port.
//
// Life     as VXPort. It goes from unconnected to connected once and never back.
// Threads  as tagged. The upstream node queues works, the owning node takes them.
// Owns     as VXPort; the upstream port is held weakly, the works queued here belong to their
//          events.
class VX_EXPORT VXInputPort : public VXPort {
public:
    // DelayObserver: the upstream end of a connection as the input port sees it.
    //
    // Life     held weakly; nothing is reported to one that is gone.
    // Threads  called on the thread that sets the delay, with no lock of the input port held.
    class VX_EXPORT DelayObserver {
    public:
        virtual void onInputDelayChanged(const std::string& inputPortName, unsigned long delay) = 0;
        virtual void onTotalDelayChanged(const std::string& inputPortName, unsigned long delay) = 0;
        virtual ~DelayObserver();
    };

    // WorkInfo: the batch that one EVENT_DO_WORK carries, under the key "works", in the order sent.
    //
    // Life     that of its event.
    // Threads  the sender's until it is posted, then the node's.
    // Owns     a share of each work, until the node takes them.
    struct VX_EXPORT WorkInfo : public xc2::Bundle::Storable {
        ~WorkInfo() override;
        std::list<std::shared_ptr<VXSharedWork>> works;
        // Where it was queued. Only an identity: the port may be gone when the event is handled.
        const VXInputPort* port = nullptr;
    };

    VXInputPort(const std::string& name, const Format& format,
                std::shared_ptr<xc2::EventHandler> handler);
    ~VXInputPort() override;

    bool connected() override;

    // The downstream half of a connection; VXOutputPort::connectTo calls it.  [application thread]
    //   VX_OK            connected; the observer is kept weakly
    //   VX_INCOMPATIBLE  connected already, or the formats differ
    //   VX_BAD_VALUE     the observer is null or gone
    VXError acceptConnection(const Format& format, std::weak_ptr<DelayObserver> observer);

    // Posts `works` to the owning node as one EVENT_DO_WORK.  [any thread]
    //   VX_OK       posted (a node that no longer runs drops them)
    //   VX_NO_INIT  the port has no handler
    VXError queueWorks(std::list<std::shared_ptr<VXSharedWork>> works);

    // Makes the owning node flush and returns when it and all nodes downstream of it have done so.
    // The library passes a flush down the graph itself; an application calls this on a first port.
    //
    // It waits for the event threads of the owning node and of every node downstream, so none of
    // these may call it, directly or by way of another: a node that flushes a port upstream of its
    // own from a hook, and flushes that go in a circle, wait forever.  [any other thread]
    //   VX_OK       done, or the node does not run
    //   VX_NO_INIT  the port has no handler
    VXError flush();

    // The delay that this port's node adds, in works. A new value is reported upstream at
    // once, on the caller's thread. Both start at 1.  [any thread]
    void setInputDelay(unsigned long delay);
    void setTotalDelay(unsigned long delay);
    uint64_t inputDelay();
    uint64_t totalDelay();

    // Works that were queued here and that the node has not taken yet.  [any thread]
    uint64_t queuedWorks() const {
        const uint64_t taken = mTaken.load(std::memory_order_acquire);
        return mQueued.load(std::memory_order_relaxed) - taken;
    }
    // The node has taken `works` works that were queued here.  [the node's event thread]
    void noteTaken(size_t works) { mTaken.fetch_add(works, std::memory_order_release); }

private:
    using DelayReport = void (DelayObserver::*)(const std::string&, unsigned long);
    void setDelay(uint64_t VXInputPort::*member, unsigned long delay, DelayReport report);

    bool mConnected VX_GUARDED_BY(mLock) = false;
    std::weak_ptr<DelayObserver> mObserver VX_GUARDED_BY(mLock);  // the upstream output port
    uint64_t mInputDelay = 1;                                     // both guarded by mLock
    uint64_t mTotalDelay = 1;
    // All that were ever queued, and taken. Two counts on cache lines of their own: the sender
    // writes one, the node the other.
    alignas(64) std::atomic<uint64_t> mQueued{0};
    alignas(64) std::atomic<uint64_t> mTaken{0};
};

// VXOutputPort: sends works to any number of input ports, and combines their delays by maximum.
//
// Life     as VXPort. Always held by a shared pointer. Connections are made before the run and
//          stay.
// Threads  as tagged. Delay reports come from the threads of all downstream nodes.
// Owns     as VXPort, and a share of the input ports that it feeds.
class VX_EXPORT VXOutputPort : public VXPort,
                               public VXInputPort::DelayObserver,
                               public std::enable_shared_from_this<VXOutputPort> {
public:
    VXOutputPort(const std::string& name, const Format& format,
                 std::shared_ptr<xc2::EventHandler> handler);

    // Virtual operations stand in slot order.
    ~VXOutputPort() override;
    bool connected() override;

    // A downstream port's new delay. When the maximum over all downstream ports (at least 1)
    // changes, it is posted to the owning node as event 256 or 257.  [any thread]
    void onInputDelayChanged(const std::string& inputPortName, unsigned long delay) override;
    void onTotalDelayChanged(const std::string& inputPortName, unsigned long delay) override;

    // Connects to `downstream`. A failure leaves both ports as they were.  [application thread]
    //   VX_OK         connected
    //   VX_BAD_VALUE  `downstream` is null
    //   other         the refusal of acceptConnection()
    VXError connectTo(std::shared_ptr<VXInputPort> downstream);

    // Sends every downstream port a copy of the list, in order of connection; the works themselves
    // are shared. Without a downstream port the works are released at once.  [event thread]
    //   VX_OK  sent
    //   other  the first refusal of queueWorks(); later ports received nothing
    VXError sendWorks(std::list<std::shared_ptr<VXSharedWork>> works);

    // The connected input ports, in order of connection. Fixed once the graph is built.
    const std::list<std::shared_ptr<VXInputPort>>& downstreamPorts() const {
        return mDownstreamPorts;
    }

    // The largest total delay over the downstream ports, at least 1.  [any thread]
    uint64_t totalDelay();
    // Posts that delay to the owning node as event 257 unless it is `known`.  [any thread]
    void reportTotalDelay(uint64_t known);

private:
    using DelayMap = std::unordered_map<std::string, uint64_t>;  // by input port name
    static uint64_t largest(const DelayMap& delays);
    void updateDelay(DelayMap* delays, uint32_t eventId, const char* kind,
                     const std::string& inputPortName, unsigned long delay);
    void postDelay(uint32_t eventId, uint64_t delay);

    // Written under mLock while the graph is built, read without it afterwards.
    std::list<std::shared_ptr<VXInputPort>> mDownstreamPorts;
    // Written by the threads of all downstream nodes, so the lock is their own. Only the post is
    // done while it is held, which keeps the posted maxima in order.
    VXMutex mDelayLock;
    DelayMap mInputDelays;
    DelayMap mTotalDelays;
};

// ---- Description ------------------------------------------------------------------------------

// VXNodeDescriptor: one node of a graph description. A plain record, which owns its values and
// belongs to one holder at a time; the node's constructor moves out what it needs.
struct VX_EXPORT VXNodeDescriptor {
    // ConfigEntry: a configuration value that applies at one frame. A plain value.
    struct ConfigEntry {
        enum Kind : uint32_t { TUNING = 0, COMMAND = 1 };  // any other kind is invalid

        std::string key;
        std::string value;
        uint32_t kind = TUNING;
        uint8_t alternate = 0;  // 1: goes to the second map of its kind
        uint32_t reserved = 0;  // the application's; not read by the library
        uint32_t frameIndex = 0;
    };
    // PortInfo: a port to create, its name and what it carries. A plain value; the library only
    // stores it.
    struct PortInfo {
        std::string name;
        std::string format;
    };

    std::string type;  // the registry finds the node's factory by it
    std::string name;  // the instance name within its graph
    std::unordered_map<std::string, std::string> configs;
    std::vector<ConfigEntry> entries;
    std::vector<PortInfo> inputPorts;
    std::vector<PortInfo> outputPorts;
};

// VXListener: how a node reports to its graph.
//
// Life     held weakly by the node; nothing is reported to one that is gone.
// Threads  called on the event threads of several nodes, with no node lock held.
class VX_EXPORT VXListener {
public:
    virtual void onComplete() = 0;
    virtual void onError(VXError error, std::string detail) = 0;
    virtual ~VXListener();
};

// ---- Node -------------------------------------------------------------------------------------

// VXNode: the abstract processing node. Derive from it, implement the hooks, register a factory.
//
// Life     constructor -> setup() -> start() -> stop() -> teardown() -> destructor. stop() is
//          allowed from set-up on, teardown() always (it stops first when needed). A node author
//          calls teardown() in the destructor of the most derived class: hooks can no longer be
//          called when this base class is destroyed. Without it what is still queued is dropped,
//          and a hook that runs at that moment is undefined behavior.
// Threads  works, commands and reports are handled on the node's own event thread, one event at a
//          time. Hooks run there, but for onSetup, onStart and onStop, which run on the caller's.
//          Events are handled from just before onStart() until just before onStop().
// Owns     its ports, event queue, handler and regulator. The graph owns the node.
class VX_EXPORT VXNode : public VXObject {
public:
    class Handler;
    class Regulator;
    class DownstreamWorkTracker;

    // Events of a node. 1 is unused.
    enum EventId : uint32_t {
        EVENT_START = 0,          // first scheduling pass
        EVENT_SCHEDULE = 2,       // a further scheduling pass
        EVENT_WORKS_DONE = 3,     // "works": CompletedWorkInfo
        EVENT_WORK_RELEASED = 4,  // "res-id": uint64
        EVENT_ERROR = 5,          // "errorCode": uint32, "errorDetail": string
        EVENT_COMPLETE = 6,
        EVENT_INPUT_DELAY = 256,  // "portId": string, "delay": uint64; ignored on purpose
        EVENT_TOTAL_DELAY = 257,  // "portId": string, "delay": uint64
        EVENT_DO_WORK = 512,      // "works": VXInputPort::WorkInfo
        EVENT_FLUSH = 513,
        EVENT_DRAIN = 514,  // posted by node implementations
        EVENT_FENCE = 515,  // posted by node implementations; "fd": int32
    };

    // CREATED -> SETTING_UP -> SET_UP -> RUNNING -> STOPPED -> TORN_DOWN; a failed onSetup() goes
    // back to CREATED, stop() leads to STOPPED from everywhere but CREATED and STOPPED.
    enum State : uint32_t {
        CREATED = 0,
        SETTING_UP = 1,
        SET_UP = 2,
        RUNNING = 3,
        STOPPED = 4,
        TORN_DOWN = 5,
    };

    // Status: what a node has in hand at one moment, for an observer from outside. A plain value.
    struct VX_EXPORT Status {
        // One input port. A plain value.
        struct Port {
            std::string name;
            uint64_t queuedWorks;  // see VXInputPort::queuedWorks()
        };
        State state = CREATED;
        uint64_t pendingInputs = 0;     // arrived and not yet taken; none of a source's own making
        uint64_t outstandingWorks = 0;  // sent downstream and not yet released
        uint64_t capacity = 0;          // how many may be outstanding; 0 without a regulator
        std::vector<Port> inputPorts;   // in order of creation
    };

    // CompletedWorkInfo: the finished works that one EVENT_WORKS_DONE carries.
    //
    // Life     that of its event.
    // Threads  the caller's of returnWorks() until it is posted, then the node's.
    // Owns     the works, until the regulator takes them.
    struct VX_EXPORT CompletedWorkInfo : public xc2::Bundle::Storable {
        ~CompletedWorkInfo() override;
        std::list<std::unique_ptr<VXWork>> works;
    };

    // ConfigStore: a node's configuration in three views: initial values by key, commands by frame
    // (handed out once) and tunings by frame (read as often as needed). The alternate maps hold the
    // entries marked so; what they are for is up to the node type.
    //
    // Life     part of its node, filled once, in the node's constructor.
    // Threads  the node's: it has no lock. configs() never changes and may be read on any.
    // Owns     all values.
    class VX_EXPORT ConfigStore {
    public:
        using Pairs = std::vector<std::pair<std::string, std::string>>;  // key, value
        using Map = std::unordered_map<std::string, std::string>;

        // Fills the store; a null descriptor changes nothing. An entry of an invalid kind is
        // dropped with a warning.
        void init(std::unique_ptr<VXNodeDescriptor> descriptor);

        // The commands of `frame`, in the order described; they are removed.
        Pairs commandsAt(unsigned long frame);
        Pairs alternateCommandsAt(unsigned long frame);
        // The tunings of `frame`; the first of equal keys wins.
        Map tuningsAt(unsigned long frame) const;
        Map alternateTuningsAt(unsigned long frame) const;
        const Map& configs() const { return mConfigs; }

    private:
        using FrameMap = std::unordered_map<uint64_t, Pairs>;
        static Pairs take(FrameMap* map, uint64_t frame);
        static Map read(const FrameMap& map, uint64_t frame);

        Map mConfigs;
        FrameMap mCommands;
        FrameMap mAlternateCommands;
        FrameMap mTunings;
        FrameMap mAlternateTunings;
    };

    VXNode(const std::string& name, std::unique_ptr<VXNodeDescriptor> descriptor);

    // Virtual operations, here and below, stand in slot order.
    ~VXNode() override;

    // The buffer allocators that the node can work with, best first; "any" accepts every one. Asked
    // before set-up.  [application thread]
    virtual std::vector<std::string> getPreferredAllocatorTypes();

protected:
    // ---- Hooks. A failing hook returns a VXError other than VX_OK. ----

    // Creates the ports (addInputPort, addOutputPort) and whatever the node needs. `beforeFence` is
    // true when the next node of the description is of type "transform/fence".
    virtual VXError onSetup(bool beforeFence) = 0;
    // The node starts. Its event queue runs already: a downstream node's delay report schedules, so
    // the other hooks, onProcess() among them, may be called before onStart() has returned, at the
    // same time and also when it fails. What they need is made in onSetup(), or the node offers no
    // inputs before.
    virtual VXError onStart() = 0;
    // The event queue has stopped; no more events come, unless a hook stops the node on its own
    // thread: then that hook has yet to return.
    virtual VXError onStop() = 0;
    // Processes `inputs`. Leaves one output per input in `*outputs`, or none; works that finish
    // later go to returnWorks(). An error is reported to the listener and does not stop later
    // calls.
    virtual VXError onProcess(std::list<std::shared_ptr<VXSharedWork>> inputs,
                              std::list<std::unique_ptr<VXWork>>* outputs) = 0;
    // EVENT_DRAIN: finish what is held back.
    virtual void onDrain() = 0;
    // EVENT_FENCE with its "fd", or -1.
    virtual VXError onBufferFilled(int fd);
    // EVENT_FLUSH, after the pending inputs are gone: forget what is held back.
    virtual void onFlush() = 0;

public:
    // ---- Pending inputs: works that have arrived and wait to be processed. A source overrides the
    // three to offer inputs of its own making.  [any thread] ----

    // Counts pending works, up to `maxCount` and not beyond one that ends the stream; `*hasEOS`
    // reports whether the last one counted does.
    //   VX_OK           counted
    //   VX_BAD_VALUE    a pointer is null, or `maxCount` is 0
    //   VX_BAD_ADDRESS  met a null work; `*actualCount` keeps the count up to it
    virtual VXError countAvailablePendingInputWorks(unsigned long maxCount,
                                                    unsigned long* actualCount, bool* hasEOS);
    // Moves every pending work to `*works`, which is emptied first. `requestedCount` is only a
    // lower bound, on purpose: the whole list is handed out.
    //   VX_OK                 moved
    //   VX_BAD_VALUE          `works` is null
    //   VX_INVALID_OPERATION  fewer are pending; they stay
    virtual VXError getPendingInputWorks(unsigned long requestedCount,
                                         std::list<std::shared_ptr<VXSharedWork>>* works);
    // Releases every pending work.
    virtual void erasePendingInputWorks();

    // Reports that the node has finished its part of the test. Posts; the listener is called on the
    // node's event thread. Always VX_OK.  [any thread]
    virtual VXError signalComplete();

    // Reports an error; as signalComplete().  [any thread]
    VXError signalError(VXError error, std::string detail);

    // Hands works that were finished outside onProcess() to the regulator, which sends them on from
    // the node's event thread.  [any thread]
    //   VX_OK       posted
    //   VX_NO_INIT  the node has shut down; the works are destroyed
    VXError returnWorks(std::list<std::unique_ptr<VXWork>> works);

    // Publish on every input port the delay that this node adds, in works: the upstream node may
    // have that many more outstanding.  [any thread]
    void setInputDelay(unsigned long delay);
    void setTotalDelay(unsigned long delay);

    // ---- Life cycle.  [application thread] ----

    // Calls onSetup(). VX_INVALID_OPERATION unless the node is new or its last set-up failed.
    VXError setup(bool beforeFence);
    // Starts the event queue and calls onStart(). The listener is held weakly.
    //   VX_OK                 running
    //   VX_INVALID_OPERATION  the node is not set up
    //   VX_NO_MEMORY, VX_NO_INIT  the regulator or the event queue is missing
    //   other                 the failure of onStart(); the node can be started again
    VXError start(std::weak_ptr<VXListener> listener);
    // Stops the event queue after everything posted before, calls onStop(), and shuts down for
    // good. From a hook of the node itself it does not wait for the event in hand, and drops what
    // else is queued. VX_INVALID_OPERATION when the node was never set up or is stopped; else
    // onStop()'s result.
    VXError stop();
    // Stops the event queue and drops handler and regulator. stop() does it.
    void shutDown();
    // Ends the node's life; see the class comment. No hook runs any more when it has returned.
    void teardown();

    // Handles one event.  [event thread]
    //   VX_BAD_VALUE          `event` is null
    //   VX_ERROR              its payload is missing
    //   VX_NO_INIT            it needs the regulator, and the node has not started or has shut down
    //   VX_INVALID_OPERATION  unknown id
    VXError handleMessage(std::shared_ptr<xc2::Event> event);

    // ---- Ports and configuration ----

    // Create a port. addInputPort is for onSetup() only (else VX_INVALID_OPERATION); addOutputPort
    // takes no lock and checks no state, on purpose. VX_ALREADY_EXISTS when the name is taken.
    VXError addInputPort(const std::string& name, const VXPort::Format& format);
    VXError addOutputPort(const std::string& name, const VXPort::Format& format);
    // Find a port by name. VX_BAD_VALUE for a null pointer, VX_ERROR when there is none.
    VXError findInputPort(const std::string& name, std::shared_ptr<VXInputPort>* inputPort);
    VXError findOutputPort(const std::string& name, std::shared_ptr<VXOutputPort>* outPort);
    // In order of creation. Fixed once the node is set up.
    const std::vector<std::shared_ptr<VXInputPort>>& inputPorts() const { return mInputPorts; }
    const std::vector<std::shared_ptr<VXOutputPort>>& outputPorts() const { return mOutputPorts; }

    // Copies the initial configuration value of `key`. VX_BAD_VALUE for a null pointer,
    // VX_NOT_FOUND (and `*value` untouched) when there is none.  [any thread]
    VXError getInitConfig(const std::string& key, std::string* value);

    // A snapshot of the node. The figures are read one after another while it keeps running. Not
    // virtual, so it may be called until this base class is destroyed.  [any thread]
    Status status();

    const std::string& type() const { return mType; }
    // The buffer allocator chosen for the whole graph; "any" until the graph builder sets it.
    const std::string& allocatorType() const { return mAllocatorType; }
    void setAllocatorType(std::string allocatorType) { mAllocatorType = std::move(allocatorType); }

protected:
    ConfigStore& configStore() { return mConfigStore; }
    const std::vector<VXNodeDescriptor::PortInfo>& inputPortInfos() const {
        return mInputPortInfos;
    }
    const std::vector<VXNodeDescriptor::PortInfo>& outputPortInfos() const {
        return mOutputPortInfos;
    }
    // To post EVENT_DRAIN and EVENT_FENCE to the node itself; empty after shut-down.  [any thread]
    std::shared_ptr<Handler> handler();

private:
    // Not called flush, post, listener and the like: a class derived from this one could no longer
    // call a free function of that name.
    std::weak_ptr<Handler> weakHandler();
    std::shared_ptr<VXListener> lockListener();
    std::shared_ptr<Regulator> lockRegulator();
    VXError postToHandler(std::shared_ptr<xc2::Event> event);
    VXError handleFlush();

    // Destroyed from the last to the first.
    ConfigStore mConfigStore;
    std::vector<VXNodeDescriptor::PortInfo> mInputPortInfos;
    std::vector<VXNodeDescriptor::PortInfo> mOutputPortInfos;
    std::weak_ptr<VXListener> mListener VX_GUARDED_BY(mLock);
    std::shared_ptr<xc2::EventQueue> mEventQueue;
    std::shared_ptr<Handler> mHandler VX_GUARDED_BY(mLock);
    std::shared_ptr<Regulator> mRegulator VX_GUARDED_BY(mLock);
    VXMutex mLock;
    std::atomic<State> mState{CREATED};  // written under mLock, read without it in two places
    std::atomic<bool> mDying{false};     // the hooks are gone: ~VXNode() is at work
    std::vector<std::shared_ptr<VXInputPort>> mInputPorts;
    std::vector<std::shared_ptr<VXOutputPort>> mOutputPorts;
    std::string mAllocatorType = "any";

protected:
    VXMutex mPendingInputLock;
    std::list<std::shared_ptr<VXSharedWork>> mPendingInputWorks VX_GUARDED_BY(mPendingInputLock);

private:
    std::string mType;
};

// Handler: hands the events of a node's queue to the node.
//
// Life     made with the node. Ports may hold it for longer, but the queue delivers nothing any
//          more.
// Threads  posts: any. onEvent(): [event thread].
// Owns     nothing; it refers to its node.
class VX_EXPORT VXNode::Handler : public virtual xc2::EventHandler {
public:
    explicit Handler(VXNode& node) : mNode(node) {}
    ~Handler() override;
    xc2::XC2Status onEvent(std::shared_ptr<xc2::Event> event) override;

private:
    VXNode& mNode;
};

// DownstreamWorkTracker: the release hook of a work that was sent downstream. It reports the work's
// id to the producer and deletes the work.
//
// Life     stored in the work's shared pointer, from the sending to the last release.
// Threads  runs on whatever thread drops the last reference, and only posts.
// Owns     nothing: the producer's handler is held weakly.
class VX_EXPORT VXNode::DownstreamWorkTracker {
public:
    explicit DownstreamWorkTracker(std::weak_ptr<Handler> handler) : mHandler(std::move(handler)) {}
    DownstreamWorkTracker(const DownstreamWorkTracker&) = default;
    DownstreamWorkTracker(DownstreamWorkTracker&&) = default;
    DownstreamWorkTracker& operator=(const DownstreamWorkTracker&) = default;

    virtual ~DownstreamWorkTracker();
    // A work that carries no id is deliberately left undeleted.
    virtual void onRelease(VXSharedWork* work);

private:
    std::weak_ptr<Handler> mHandler;  // the producer's
};

// Regulator: the flow control of a running node. It lets the node process a batch while it has a
// full batch of inputs (or the stream has ended) and while fewer works are out downstream than
// capacity = largest downstream total delay + batch size + 2 allows (at most 2^64 - 1).
//
// Life     made by VXNode::start(), dropped by VXNode::shutDown(). Always held by a shared pointer.
// Threads  [event thread], so it needs no lock; outstandingWorks() and capacity(): any.
// Owns     the ids of the works sent downstream and not yet released; never the works.
class VX_EXPORT VXNode::Regulator : public VXObject,
                                    public std::enable_shared_from_this<Regulator> {
public:
    // `portDelays`: the downstream total delay of each output port; a repeated name keeps its
    // first.
    Regulator(VXNode& node, unsigned long batchSize,
              std::vector<std::pair<std::string, unsigned long>> portDelays);
    ~Regulator() override;

    // Keeps a weak reference to itself. A regulator that no shared pointer holds is a fatal error.
    VXError init();

    // One scheduling pass: at most one batch. A further event drives the rest, so that
    // other events are handled between batches.
    //   VX_OK                 processed, or nothing to do; also when onProcess() failed
    //   VX_INVALID_OPERATION  the node handed out fewer inputs than it had counted
    //   VX_ERROR              a wrong number of outputs, or they could not be sent
    //   other                 the failure of getPendingInputWorks()
    VXError schedule();

    // Whether a batch can be processed now, and of how many inputs.
    bool canScheduleWorks(unsigned long* nWorksReady);
    unsigned long maxDownstreamCapacity() const;
    unsigned long freeDownstreamCapacity() const;
    // The works that are outstanding downstream, and how many may be.  [any thread]
    uint64_t outstandingWorks() const { return mOutstanding.load(std::memory_order_relaxed); }
    uint64_t capacity() const { return mMaxDownstreamWorks.load(std::memory_order_relaxed); }

    // Numbers finished works, tracks them and sends them through the first output port; further
    // output ports carry none. Without output ports the works are released at once.
    //   VX_OK         sent
    //   VX_NO_MEMORY  a work could not be shared (a null one, for instance); none is sent
    //   VX_ERROR      the first output port is null
    //   other         the failure of VXOutputPort::sendWorks()
    VXError notifyCompletedWorks(std::list<std::unique_ptr<VXWork>> works);

    // Gives one work its id and release hook. VX_BAD_VALUE for a null argument.
    VXError registerDownstreamWork(std::unique_ptr<VXWork> processedWork,
                                   std::shared_ptr<VXSharedWork>* workToDispatch);
    // Copies the input to `*trackedInputWork`: inputs are not tracked. VX_BAD_VALUE for a null one.
    VXError registerInputWork(std::shared_ptr<VXSharedWork> inputWork,
                              std::shared_ptr<VXSharedWork>* trackedInputWork);
    // Forgets a released id. VX_NOT_FOUND, with a warning, for one that is not out.
    VXError releaseDownstreamWork(unsigned long id);
    // A new downstream total delay: changes the capacity and schedules. VX_NOT_FOUND for a port
    // that was not given at construction.
    VXError notifyDownstreamTotalDelay(const std::string& portId, unsigned long delay);

private:
    VXNode& mNode;
    std::weak_ptr<Regulator> mSelf;
    const uint64_t mBatchSize;
    std::unordered_map<std::string, uint64_t> mPortDelays;
    std::atomic<uint64_t> mWorkIdCounter{0};
    std::vector<uint64_t> mDownstreamWorksTracker;  // in order, and short: cheaper than a set
    std::atomic<uint64_t> mOutstanding{0};          // the tracker's size, for other threads
    std::atomic<uint64_t> mMaxDownstreamWorks{2};
    uint64_t mFrameCounter = 0;
};

// ---- Registry ---------------------------------------------------------------------------------

// VXNodeBaseFactory: makes the nodes of one type.
//
// Life     normally a static object of the application, one per type, so that every type is known
//          before main. It must outlive every graph build, and its destruction does not take its
//          type back.
// Threads  createNode(): [application thread].
// Owns     nothing; a node belongs to the caller of createNode().
class VX_EXPORT VXNodeBaseFactory {
public:
    // Registers the factory under `type`, in place of an earlier one.
    explicit VXNodeBaseFactory(const std::string& type);
    VXNodeBaseFactory(const VXNodeBaseFactory&) = delete;
    VXNodeBaseFactory& operator=(const VXNodeBaseFactory&) = delete;

    // Virtual operations stand in slot order.

    // Makes a node with the full name `name` and stores it in `*node`; leaving it empty is a
    // failure.
    virtual void createNode(const std::string& name, std::unique_ptr<VXNodeDescriptor> descriptor,
                            std::unique_ptr<VXNode>* node) = 0;
    virtual ~VXNodeBaseFactory();
};

// VXNodeRegistry: the node types of this process.
//
// Life     static, from the loading of the library to the end of the process.
// Threads  registrations: any, locked against each other only. They are over, and graphs are built
//          on one thread at a time, when it is read.
// Owns     no factory.
class VX_EXPORT VXNodeRegistry {
public:
    // Sets the factory of `type`. VX_ERROR for a null one.
    static VXError RegisterFactory(const std::string& type, VXNodeBaseFactory* factory);
    // Makes a node of the descriptor's type.
    //   VX_OK         `*node` holds a node
    //   VX_BAD_VALUE  a pointer is null
    //   VX_ERROR      no such type, or its factory made nothing. An unknown type is listed from
    //                 then on, with a null factory.
    static VXError Create(const std::string& name, std::unique_ptr<VXNodeDescriptor> descriptor,
                          std::unique_ptr<VXNode>* node);
    // Appends every known type to `*list`, in no particular order. VX_ERROR for a null pointer.
    static VXError ListRegisteredNodeTypes(std::vector<std::string>* list);

private:
    friend class VXNodeBaseFactory;

    static std::unordered_map<std::string, VXNodeBaseFactory*> sFactories;
    static VXMutex sLock;  // serializes registration
};

}  // namespace vexa
