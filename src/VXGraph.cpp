#include <VXGraph.h>

#include <algorithm>
#include <limits>
#include <thread>
#include <utility>

namespace vexa {

static constexpr char kLogTag[] = "Vexa:VXGraph";

// Hands the events of the graph's queue to the graph. The graph owns it and stops the queue before
// it goes, so the reference holds whenever the queue delivers.
class VXGraph::EventHandler : public virtual xc2::EventHandler {
public:
    explicit EventHandler(VXGraph& graph) : mGraph(graph) {}
    ~EventHandler() override = default;

    xc2::XC2Status onEvent(std::shared_ptr<xc2::Event> event) override {
        // Held while the event is handled, for a listener may drop the last other reference. A
        // graph that is being destroyed handles nothing any more.
        const std::shared_ptr<VXGraph> graph = mGraph.weak_from_this().lock();
        if (graph == nullptr) return xc2::XC2_OK;
        return static_cast<xc2::XC2Status>(graph->onEvent(std::move(event)));
    }

private:
    VXGraph& mGraph;
};

static void notifyListener(const std::weak_ptr<VXGraph::Listener>& weakListener,
                           std::string message) {
    // A listener that has gone silences the report and nothing else: the run goes on.
    const std::shared_ptr<VXGraph::Listener> listener = weakListener.lock();
    if (listener == nullptr) return;
    VX_LOGE("Notifying Error: %s", message.c_str());
    listener->onGraphError(std::move(message));
}

// ---- Construction -----------------------------------------------------------------------------

VXGraph::Builder::Builder(VXGraphInfo& info, std::weak_ptr<VXGraph::Listener> listener)
    : mConnections(info.connections), mName(info.name), mListener(std::move(listener)) {
    // One by one: the description keeps its length, with empty entries.
    for (auto& descriptor : info.nodes) mNodes.push_back(std::move(descriptor));
}

std::shared_ptr<VXGraph> VXGraph::BuildFromGraphInfo(VXGraphInfo& info,
                                                     std::weak_ptr<Listener> listener) {
    return Builder(info, std::move(listener)).build();
}

std::shared_ptr<VXGraph> VXGraph::Builder::build() {
    VX_LOGD("Builder: Build graph %zu", mNodes.size());

    // All nodes exist before the first is set up: the allocator is one for all, chosen from what
    // each can work with, and a node needs it in onSetup(). Ports come with set-up, so connections
    // come last.
    std::vector<std::unique_ptr<VXNode>> nodes;
    for (auto& descriptor : mNodes) {
        // The graph's name in front, so that nodes of two graphs differ in the log.
        const std::string nodeName = mName + "." + (descriptor != nullptr ? descriptor->name : "");
        std::unique_ptr<VXNode> node;
        VXNodeRegistry::Create(nodeName, std::move(descriptor), &node);
        if (node == nullptr) {
            VX_LOGE("Failed to create a node");
            notifyError(errorName(NODE_NOT_FOUND));
            return nullptr;
        }
        nodes.push_back(std::move(node));
    }

    std::string allocator = getPreferredAllocator(nodes);
    VX_LOGD("Preferred allocator = %s", allocator.c_str());
    // No node restricts the choice, and pools are made by a concrete name.
    if (allocator == "any") allocator = "xcodec2";
    if (allocator.empty()) {
        // Logged only, on purpose: the caller sees the empty result.
        VX_LOGE("No compatible allocator found !");
        return nullptr;
    }

    for (size_t i = 0; i < nodes.size(); ++i) {
        VXNode* const node = nodes[i].get();
        VX_FAIL_IF(node == nullptr, nullptr);
        node->setAllocatorType(allocator);
        // The next node of the description, whether it is connected to this one or not.
        const bool beforeFence = i + 1 < nodes.size() && nodes[i + 1]->type() == "transform/fence";
        if (node->setup(beforeFence) != VX_OK) {
            VX_LOGE("Failed to setup node[%s]", node->name().c_str());
            notifyError(errorName(NODE_FAIL_INIT));
            return nullptr;
        }
    }

    auto graph = std::make_shared<VXGraph>(mName, std::move(nodes), mListener);
    for (const auto& [outPort, inPorts] : mConnections) {
        for (const std::string& inPort : inPorts) {
            if (graph->connect(outPort, inPort) != VX_OK) {
                graph.reset();
                notifyError(errorName(GRAPH_BUILD_FAIL));
                return nullptr;
            }
        }
    }
    return graph;
}

static constexpr int64_t kRefused = std::numeric_limits<int32_t>::max();

// The position of `allocator` in the node's list, from 1; an "any" before it ranks 1.
static int64_t rankOf(const std::string& allocator, VXNode& node) {
    int64_t position = 0;
    for (const std::string& preferred : node.getPreferredAllocatorTypes()) {
        ++position;
        if (preferred == "any") return 1;
        if (preferred == allocator) return position;
    }
    return kRefused;
}

std::string VXGraph::Builder::getPreferredAllocator(
    const std::vector<std::unique_ptr<VXNode>>& nodes) {
    std::vector<std::string> candidates;
    for (const auto& node : nodes) {
        VX_FAIL_IF(node == nullptr, "");
        std::vector<std::string> preferred = node->getPreferredAllocatorTypes();
        if (preferred.empty()) {
            VX_LOGE("Node: %s does not list preferred allocators !", node->name().c_str());
            return "";
        }
        if (std::find(preferred.begin(), preferred.end(), "any") != preferred.end()) continue;
        // The first list is enough: what it does not name, this node refuses.
        candidates = std::move(preferred);
        break;
    }
    if (candidates.empty()) return "any";

    std::string best;
    int64_t bestScore = kRefused;
    for (const std::string& candidate : candidates) {
        // A product, not a sum: it rewards a name that every node ranks first. Unsigned, for it may
        // wrap, and a refusal is kept apart from it, for a wrapped score may look small.
        uint64_t score = 1;
        bool refused = false;
        for (const auto& node : nodes) {
            VX_FAIL_IF(node == nullptr, "");
            const int64_t rank = rankOf(candidate, *node);
            refused = refused || rank == kRefused;
            score *= static_cast<uint64_t>(rank);
        }
        // Strictly less: of equal scores the first node's order decides.
        if (!refused && static_cast<int64_t>(score) < bestScore) {
            best = candidate;
            bestScore = static_cast<int64_t>(score);
        }
    }
    return best;
}

void VXGraph::Builder::notifyError(std::string name) {
    notifyListener(mListener, std::move(name));
}

VXGraph::VXGraph(const std::string& name, std::vector<std::unique_ptr<VXNode>> nodes,
                 std::weak_ptr<Listener> listener)
    : VXObject(name),
      mHandler(std::make_shared<EventHandler>(*this)),
      mEventQueue(std::make_shared<xc2::EventQueue>(name)),
      mListener(std::move(listener)),
      mNodes(std::move(nodes)) {}

VXGraph::~VXGraph() {
    mEventQueue->stop();  // before anything that the handler reaches goes
    // From the last to the first: a vector leaves the order open.
    while (!mNodes.empty()) mNodes.pop_back();
}

VXError VXGraph::connect(const std::string& outPort, const std::string& inPort) {
    VX_LOGD("connect %s -> %s", outPort.c_str(), inPort.c_str());
    std::shared_ptr<VXOutputPort> output;
    std::shared_ptr<VXInputPort> input;
    for (const auto& node : mNodes) {
        // The first node with the name supplies the port. Names are unique in a graph by agreement.
        if (input == nullptr) node->findInputPort(inPort, &input);
        if (output == nullptr) node->findOutputPort(outPort, &output);
        if (input != nullptr && output != nullptr) break;
    }
    if (input != nullptr && output != nullptr && output->connectTo(input) == VX_OK) {
        VX_LOGD("Connect success");
        return VX_OK;
    }
    VX_LOGE("Connect failed");
    return VX_ERROR;
}

VXError VXGraph::sort() {
    return mNodes.empty() ? VX_NOT_FOUND : VX_OK;
}

// ---- Execution --------------------------------------------------------------------------------

VXError VXGraph::runAsync() {
    VX_FAIL_IF(mEventQueue == nullptr, VX_NO_INIT);
    VX_FAIL_IF(mHandler == nullptr, VX_NO_INIT);
    const std::shared_ptr<VXGraph> self = shared_from_this();  // the handler finds it from now on
    mEventQueue->start(0);
    mHandler->attach(mEventQueue);
    // The run holds the graph's thread until it is over, so that stop events wait for its end.
    mHandler->postAsync(std::make_shared<xc2::Event>(EVENT_RUN));
    return VX_OK;
}

VXError VXGraph::stop() {
    VX_FAIL_IF(mEventQueue == nullptr, VX_NO_INIT);
    VX_FAIL_IF(mHandler == nullptr, VX_NO_INIT);
    // The listener is called at the end of the run, and may drop the reference that the caller
    // relies on.
    const std::shared_ptr<VXGraph> self = weak_from_this().lock();
    // Counted first, then the wake-up: a run that has no waiters yet does not get the wake-up, and
    // reads the count once it has them.
    {
        std::lock_guard<std::mutex> lock(mCompletionLock);
        ++mStopping;
    }
    mCompletion.notify_all();
    // Handled behind the run. When it returns, every node has stopped.
    mHandler->postSyncAndWait(std::make_shared<xc2::Event>(EVENT_STOP), 0);
    mEventQueue->stop();
    std::lock_guard<std::mutex> lock(mCompletionLock);
    --mStopping;
    return VX_OK;
}

VXError VXGraph::onEvent(std::shared_ptr<xc2::Event> event) {
    if (event == nullptr) return VX_BAD_VALUE;
    // A run ends with its nodes stopped. The stop event that may follow stops them again, which
    // they refuse without harm.
    if (event->id() == EVENT_RUN) run();
    if (event->id() == EVENT_RUN || event->id() == EVENT_STOP) stopNodes();
    return VX_OK;
}

void VXGraph::run() {
    // A node without output ports ends a stream, so each of them completes the test for its branch.
    const auto sinks =
        static_cast<unsigned int>(std::count_if(mNodes.begin(), mNodes.end(), [](const auto& node) {
            return node->outputPorts().empty();
        }));

    unsigned int waiting = 0;
    // A thread of its own, since this one starts the nodes while the waiters wait.
    std::thread completion([this, sinks, &waiting] { waitForWakeUps(sinks, &waiting); });
    bool stopping = false;
    {
        // A wake-up is not remembered, so no node starts before every waiter waits. A stop() until
        // now has woken no waiter; it is made good.
        std::unique_lock<std::mutex> lock(mCompletionLock);
        mNowWaiting.wait(lock, [&] { return waiting == sinks; });
        stopping = mStopping > 0;
    }
    if (stopping) mCompletion.notify_all();

    // In reverse, so that consumers run before their producers: a node that does not run drops what
    // it is sent.
    for (auto node = mNodes.rbegin(); node != mNodes.rend(); ++node) {
        if ((*node)->start(shared_from_this()) != VX_OK) {
            // Ends the wait, not the loop, on purpose: the other nodes are still started, and all
            // are stopped at the end of the run.
            notifyError(errorName(NODE_FAIL_ASYNC));
            mCompletion.notify_all();
        }
    }

    VX_LOGD("Wait for completion");
    completion.join();
    VX_LOGD("Wait for completion. Done!!");
    // Before the nodes stop, and after errors as well: the listener judges by the errors that came.
    if (const std::shared_ptr<Listener> listener = mListener.lock()) listener->onGraphComplete();
}

void VXGraph::stopNodes() {
    VX_LOGD("Handle Stop");
    // In description order, which normally has the producers first: what they still deliver while
    // they stop finds consumers that run. A node that is not running refuses without harm.
    for (const auto& node : mNodes) node->stop();
}

void VXGraph::waitForComplete(unsigned int count) {
    unsigned int waiting = 0;
    waitForWakeUps(count, &waiting);
}

// One thread per wake-up: each ends at its first, whatever woke it. `*waiting` counts those that
// have begun to wait, under mCompletionLock. There is no condition to check on purpose: the number
// of wake-ups is the whole bookkeeping, so that one notify_all() ends every wait.
void VXGraph::waitForWakeUps(unsigned int count, unsigned int* waiting) {
    std::vector<std::thread> waiters;
    waiters.reserve(count);
    for (unsigned int i = 0; i < count; ++i) {
        waiters.emplace_back([this, waiting] {
            std::unique_lock<std::mutex> lock(mCompletionLock);
            ++*waiting;
            mNowWaiting.notify_all();
            mCompletion.wait(lock);
        });
    }
    VX_LOGD("Wait for completion or error events from Nodes");
    for (std::thread& waiter : waiters) waiter.join();
}

void VXGraph::onComplete() {
    VX_LOGD("Completion event received ");
    // One completion, one waiter: the run ends with the last sink.
    mCompletion.notify_one();
}

void VXGraph::onError(VXError error, std::string message) {
    VX_LOGE("Received Error: %s", message.c_str());
    // The listener first: woken waiters end the run, and the error has to come before
    // onGraphComplete().
    notifyError(std::move(message));
    if (error == VX_OK) return;
    mCompletion.notify_all();
    // Posted, since a node's thread must not wait for the graph's, which waits for the nodes to
    // stop.
    mHandler->postAsync(std::make_shared<xc2::Event>(EVENT_STOP));
}

void VXGraph::notifyError(std::string message) {
    notifyListener(mListener, std::move(message));
}

}  // namespace vexa
