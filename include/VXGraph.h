// VXGraph: a graph of nodes built from a description, and one run of it.
#pragma once

#include <VXNode.h>

#include <condition_variable>
#include <mutex>

namespace vexa {

// VXGraphInfo: the description of a graph. A plain record, which owns its values and belongs to one
// holder at a time; a build moves the node descriptors out.
struct VX_EXPORT VXGraphInfo {
    std::string name;  // prefix of every node's name
    // In the order in which nodes are created, set up and stopped; they start in reverse order.
    std::vector<std::unique_ptr<VXNodeDescriptor>> nodes;
    // Output port name -> the input ports that it feeds. Port names are unique within a graph.
    std::unordered_map<std::string, std::vector<std::string>> connections;
};

// VXGraph: owns the nodes of a test and runs them.
//
// Life     BuildFromGraphInfo() -> runAsync() -> onGraphComplete -> stop() -> last release, with an
//          onGraphError for each error from the start of the build to the end of stop(). stop()
//          before the last release is the application's duty; it ends a run from outside as well.
//          Each graph runs once.
// Threads  the application builds, runs, stops and releases. The run has the graph's own event
//          thread, a completion thread and one waiter thread per sink node; each node has its event
//          thread.
// Owns     its nodes; the listener is held weakly. The listener may drop the application's last
//          reference inside its calls.
class VX_EXPORT VXGraph : public VXObject,
                          public VXListener,
                          public std::enable_shared_from_this<VXGraph> {
public:
    // Listener: what is reported to the application.
    //
    // Life     the application's; the graph holds it weakly, and never destroys it.
    // Threads  called on a graph or node thread (and, while a graph is built, on the building
    //          thread), with no lock held, perhaps on several at once. Neither call may call stop()
    //          on the graph.
    class VX_EXPORT Listener {
    public:
        // An error: the name of a VexaError, or the message of a node's error. It may also come
        // after onGraphComplete(), since nodes deliver what is queued when they stop: a run is
        // judged once stop() has returned.
        virtual void onGraphError(std::string message) = 0;
        // The run is over, also after errors; the nodes are being stopped. Once per run.
        virtual void onGraphComplete() = 0;

    protected:
        ~Listener() = default;
    };

    class Builder;
    class EventHandler;

    // Events of a graph. Other ids are ignored.
    enum EventId : uint32_t { EVENT_RUN = 0, EVENT_STOP = 1 };

    // Builds a graph: creates the nodes through the registry, chooses one buffer allocator for all,
    // sets them up and connects their ports. Moves the descriptors out of `info`, leaves the rest.
    // Empty on failure; NODE_NOT_FOUND, NODE_FAIL_INIT or GRAPH_BUILD_FAIL is then reported to the
    // listener, but a failed allocator choice is only logged.  [application thread]
    static std::shared_ptr<VXGraph> BuildFromGraphInfo(VXGraphInfo& info,
                                                       std::weak_ptr<Listener> listener);

    // A graph of nodes that are set up. It is held by a shared pointer before it runs.
    VXGraph(const std::string& name, std::vector<std::unique_ptr<VXNode>> nodes,
            std::weak_ptr<Listener> listener);

    // Virtual operations stand in slot order.
    ~VXGraph() override;
    // A node's error: reported to the listener. Unless it is VX_OK, the run ends.
    // [a node's event thread]
    void onError(VXError error, std::string message) override;
    // A sink's completion. The run ends with one for each sink.  [a node's event thread]
    void onComplete() override;

    // Connects the first output port and the first input port of these names.  [application thread]
    // VX_ERROR when one is missing or the connection is refused.
    VXError connect(const std::string& outPort, const std::string& inPort);
    // Does not sort: nodes run in description order. VX_NOT_FOUND when there are none.
    VXError sort();

    // Starts the run and returns at once. A graph that no shared pointer holds is a fatal error.
    // VX_NO_INIT when the graph has no queue or handler.  [application thread]
    VXError runAsync();
    // Ends a run in progress, wherever it is, stops every node, and returns when that is done. A
    // graph that was never run has no event thread to stop its nodes on: they end with the graph.
    // VX_NO_INIT when the graph has no queue or handler.  [application thread]
    VXError stop();

    // Returns after `count` wake-ups: a completion wakes one waiter, an error or a stop all of
    // them, and a wake-up without a waiter is lost. A run waits in the same way, so a caller
    // competes with it for completions: use onGraphComplete() for the end of a run.
    // [any thread but a node's]
    void waitForComplete(unsigned int count);

    // Handles one event. VX_BAD_VALUE for a null one.  [the graph's event thread]
    VXError onEvent(std::shared_ptr<xc2::Event> event);

    // Reports to the listener, if it is alive.  [any thread]
    void notifyError(std::string message);

private:
    void run();
    void stopNodes();
    void waitForWakeUps(unsigned int count, unsigned int* waiting);

    std::shared_ptr<EventHandler> mHandler;
    std::shared_ptr<xc2::EventQueue> mEventQueue;
    std::weak_ptr<Listener> mListener;
    std::vector<std::unique_ptr<VXNode>> mNodes;
    std::condition_variable mCompletion;
    std::mutex mCompletionLock;           // guards only the waits and what follows
    std::condition_variable mNowWaiting;  // a waiter has begun to wait
    unsigned int mStopping = 0;           // calls of stop() in progress
};

// Builder: one build of a graph.
//
// Life     one BuildFromGraphInfo().
// Threads  [application thread].
// Owns     the descriptors until their nodes are made; the listener is held weakly.
class VX_EXPORT VXGraph::Builder {
public:
    // Moves the descriptors out of `info` and copies the rest.
    Builder(VXGraphInfo& info, std::weak_ptr<VXGraph::Listener> listener);

    // See VXGraph::BuildFromGraphInfo().
    std::shared_ptr<VXGraph> build();

    // The allocator type with the smallest product of the nodes' ranks for it: "any" when every
    // node accepts everything, empty when no type suits all. Candidates are those of the first node
    // that names some; of equal products the earlier one wins.
    std::string getPreferredAllocator(const std::vector<std::unique_ptr<VXNode>>& nodes);

    // Reports to the listener, if it is alive.
    void notifyError(std::string name);

private:
    std::vector<std::unique_ptr<VXNodeDescriptor>> mNodes;
    std::unordered_map<std::string, std::vector<std::string>> mConnections;
    std::string mName;
    std::weak_ptr<VXGraph::Listener> mListener;
};

}  // namespace vexa
