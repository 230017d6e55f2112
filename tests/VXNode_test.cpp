#include <VXNode.h>
#include <gtest/gtest.h>

#include <thread>

#include "support/LogCapture.h"
#include "support/Scale.h"
#include "support/TestNodes.h"

using namespace vexa;
using Works = ScriptedNode::Works;
using Outputs = ScriptedNode::Outputs;

static constexpr char kTag[] = "Vexa:VXNode";
static constexpr uint32_t kEos = VXFrameInfo::FLAG_END_OF_STREAM;

// A handler that keeps what is posted to it, without a queue.
class RecordingHandler : public virtual xc2::EventHandler {
public:
    xc2::XC2Status postAsync(std::shared_ptr<xc2::Event> event) override {
        events.push_back(std::move(event));
        return xc2::XC2_OK;
    }
    xc2::XC2Status onEvent(std::shared_ptr<xc2::Event>) override { return xc2::XC2_OK; }
    std::vector<std::shared_ptr<xc2::Event>> events;
};

static std::shared_ptr<VXSharedWork> makeInput(uint64_t index, uint32_t flags = 0) {
    VXFrameInfo info;
    info.index = index;
    info.flags = flags;
    auto work = std::make_shared<VXSharedWork>(VXAuxInfo(), info);
    return work;
}

// An event of `id` with items: a key, its value, a key, its value...
template <typename... Items>
static std::shared_ptr<xc2::Event> makeEvent(uint32_t id, Items... items) {
    auto event = std::make_shared<xc2::Event>(id);
    const auto put = [&](auto&& self, const char* key, auto value, auto... more) -> void {
        event->info().put(key, std::move(value));
        if constexpr (sizeof...(more) > 0) self(self, more...);
    };
    if constexpr (sizeof...(items) > 0) put(put, items...);
    return event;
}

static std::shared_ptr<xc2::Event> doWork(Works works) {
    auto info = std::make_shared<VXInputPort::WorkInfo>();
    info->works = std::move(works);
    return makeEvent(VXNode::EVENT_DO_WORK, "works", info);
}

// One node, driven without a graph; a recorder stands downstream of its output ports.
class NodeTest : public testing::Test {
protected:
    std::unique_ptr<ScriptedNode> make(const std::vector<std::string>& inputs = {"n.in"},
                                       const std::vector<std::string>& outputs = {"n.out"}) {
        return std::make_unique<ScriptedNode>("g.n", describe("test/n", "n", inputs, outputs));
    }
    // Connects the first output port to a recording input port called `name`.
    void recordOutput(VXNode& node, const std::string& name = "down.in") {
        auto port = std::make_shared<VXInputPort>(name, VXPort::Format{"test/count"}, downstream);
        ASSERT_EQ(node.outputPorts().front()->connectTo(port), VX_OK);
        ports.push_back(port);
    }
    Works received() const {
        Works all;
        for (const auto& event : downstream->events) {
            std::shared_ptr<VXInputPort::WorkInfo> info;
            if (event->info().get("works", &info) == xc2::XC2_OK) {
                all.insert(all.end(), info->works.begin(), info->works.end());
            }
        }
        return all;
    }

    std::shared_ptr<NodeListener> listener = std::make_shared<NodeListener>();
    std::shared_ptr<RecordingHandler> downstream = std::make_shared<RecordingHandler>();
    std::vector<std::shared_ptr<VXInputPort>> ports;
};

// ---- Ports ------------------------------------------------------------------------------------

// Catches: a second upstream, a match by anything but equal texts, a refused connection that leaves a
// trace on either side.
TEST(Ports, ConnectOnceAndOnlyEqualFormats) {
    LogCapture log;
    auto handler = std::make_shared<RecordingHandler>();
    auto out = std::make_shared<VXOutputPort>("out", VXPort::Format{"video/raw"}, handler);
    auto other = std::make_shared<VXOutputPort>("other", VXPort::Format{"video/raw"}, handler);
    auto in = std::make_shared<VXInputPort>("in", VXPort::Format{"video/raw"}, handler);
    auto blank = std::make_shared<VXInputPort>("blank", VXPort::Format{"video/raw "}, handler);
    EXPECT_LOGGED(DEBUG, "Create I port in");
    EXPECT_LOGGED(DEBUG, "Create O port out");
    EXPECT_EQ(in->direction(), 0u);
    EXPECT_EQ(out->direction(), 1u);
    EXPECT_EQ(out->format().type, "video/raw");

    EXPECT_EQ(out->connectTo(blank), VX_INCOMPATIBLE);
    EXPECT_EQ(out->connectTo(nullptr), VX_BAD_VALUE);
    EXPECT_EQ(log.messages().back().tag, "Vexa:VXGraph");
    EXPECT_GUARD("downstream == nullptr");
    EXPECT_EQ(in->acceptConnection({"video/raw"}, {}), VX_BAD_VALUE);
    const std::shared_ptr<VXInputPort::DelayObserver> hollow(handler, nullptr);
    EXPECT_EQ(in->acceptConnection({"video/raw"}, hollow), VX_BAD_VALUE);
    EXPECT_FALSE(out->connected() || in->connected() || blank->connected());

    EXPECT_EQ(out->connectTo(in), VX_OK);
    EXPECT_EQ(out->connectTo(in), VX_INCOMPATIBLE);
    EXPECT_EQ(other->connectTo(in), VX_INCOMPATIBLE);
    EXPECT_TRUE(out->connected() && in->connected());
    EXPECT_FALSE(other->connected());
    EXPECT_EQ(out->downstreamPorts().size(), 1u);
}

// Catches: a combined delay that is not the maximum with floor 1, an event without a change, a report
// for a port that was never connected.
TEST(Ports, DelaysCombineByMaximum) {
    LogCapture log;
    auto handler = std::make_shared<RecordingHandler>();
    auto out = std::make_shared<VXOutputPort>("out", VXPort::Format{"f"}, handler);
    std::vector<std::shared_ptr<VXInputPort>> in;
    const unsigned long delays[] = {1, 3, 2};
    for (int i = 0; i < 3; ++i) {
        in.push_back(
            std::make_shared<VXInputPort>("in" + std::to_string(i), VXPort::Format{"f"}, handler));
        in[i]->setTotalDelay(delays[i]);
        ASSERT_EQ(out->connectTo(in[i]), VX_OK);
    }
    EXPECT_EQ(out->totalDelay(), 3u);
    EXPECT_TRUE(handler->events.empty());

    in[1]->setTotalDelay(2);
    ASSERT_EQ(handler->events.size(), 1u);
    std::string port;
    uint64_t delay = 0;
    EXPECT_EQ(handler->events[0]->id(), 257u);
    EXPECT_EQ(handler->events[0]->info().get("portId", &port), xc2::XC2_OK);
    EXPECT_EQ(handler->events[0]->info().get("delay", &delay), xc2::XC2_OK);
    EXPECT_EQ(port, "out");
    EXPECT_EQ(delay, 2u);
    EXPECT_LOGGED(DEBUG, "[out] Notifying total delay change 3 -> 2");

    in[1]->setTotalDelay(1);  // the third port still holds 2
    EXPECT_EQ(handler->events.size(), 1u);
    in[0]->setInputDelay(0);  // counts as 1
    EXPECT_EQ(handler->events.size(), 1u);
    in[0]->setInputDelay(9);
    ASSERT_EQ(handler->events.size(), 2u);
    EXPECT_EQ(handler->events[1]->id(), 256u);
    EXPECT_EQ(log.count("[out] Notifying input delay change 1 -> 9"), 1);

    out->onTotalDelayChanged("nobody", 50);
    EXPECT_EQ(handler->events.size(), 2u);
    EXPECT_LOGGED(ERROR, "[out] Unrecognized input port : nobody");
}

// Catches: works copied instead of shared on a fan-out, an early release, a list lost without a
// downstream port, a missing handler that crashes.
TEST(Ports, SendSharesWorksWithEveryBranch) {
    auto first = std::make_shared<RecordingHandler>();
    auto second = std::make_shared<RecordingHandler>();
    auto out = std::make_shared<VXOutputPort>("out", VXPort::Format{"f"}, first);
    auto work = makeInput(7);
    std::weak_ptr<VXSharedWork> watch = work;
    EXPECT_EQ(out->sendWorks({work}), VX_OK);
    EXPECT_EQ(watch.use_count(), 1);  // unconnected: let go at once

    std::list<std::shared_ptr<VXInputPort>> in;
    for (const auto& handler : {first, second, std::shared_ptr<RecordingHandler>(), first}) {
        in.push_back(std::make_shared<VXInputPort>("in", VXPort::Format{"f"}, handler));
        ASSERT_EQ(out->connectTo(in.back()), VX_OK);
    }
    EXPECT_EQ(out->sendWorks({std::move(work)}), VX_NO_INIT);  // the third has no handler
    EXPECT_EQ(first->events.size(), 1u);                       // and nothing goes beyond it
    EXPECT_EQ(second->events.size(), 1u);
    EXPECT_EQ(first->events[0]->id(), 512u);
    EXPECT_EQ(watch.use_count(), 2);
    first->events.clear();
    EXPECT_FALSE(watch.expired());
    second->events.clear();
    EXPECT_TRUE(watch.expired());
    EXPECT_EQ(in.front()->queueWorks({}), VX_OK);  // an empty list is posted too
    EXPECT_EQ(first->events.size(), 1u);

    const auto deaf = std::make_shared<VXInputPort>("deaf", VXPort::Format{"f"}, nullptr);
    EXPECT_EQ(deaf->queueWorks({}), VX_NO_INIT);
    EXPECT_EQ(deaf->flush(), VX_NO_INIT);
}

// ---- Configuration ----------------------------------------------------------------------------

// Catches: an entry in the wrong view, commands handed out twice, tunings consumed, the wrong winner
// among equal keys, an invalid entry that stops the rest.
TEST(Config, StoreSplitsTheDescription) {
    LogCapture log;
    auto descriptor = describe("t", "n", {}, {});
    descriptor->configs = {{"file", "clip"}};
    using Entry = VXNodeDescriptor::ConfigEntry;
    descriptor->entries = {
        {"flush", "1", Entry::COMMAND, 0, 0, 30}, {"bad", "x", 2, 0, 0, 30},
        {"flush", "2", Entry::COMMAND, 0, 0, 30}, {"a", "1", Entry::COMMAND, 1, 0, 30},
        {"qp", "20", Entry::TUNING, 0, 0, 5},     {"qp", "30", Entry::TUNING, 0, 0, 5},
        {"alt", "1", Entry::TUNING, 1, 0, 5},     {"c", "3", Entry::COMMAND, 2, 0, 30}};
    ScriptedNode node("n", std::move(descriptor));
    EXPECT_EQ(node.type(), "t");
    EXPECT_LOGGED(WARN, "Invalid e type for e : bad");

    auto& store = node.configStore();
    using Pairs = VXNode::ConfigStore::Pairs;
    EXPECT_EQ(store.commandsAt(30), (Pairs{{"flush", "1"}, {"flush", "2"}, {"c", "3"}}));
    EXPECT_EQ(store.commandsAt(30), Pairs());
    EXPECT_EQ(store.commandsAt(31), Pairs());
    EXPECT_EQ(store.alternateCommandsAt(30), (Pairs{{"a", "1"}}));
    for (int again = 0; again < 2; ++again) {
        EXPECT_EQ(store.tuningsAt(5), (VXNode::ConfigStore::Map{{"qp", "20"}}));
        EXPECT_EQ(store.alternateTuningsAt(5), (VXNode::ConfigStore::Map{{"alt", "1"}}));
    }
    EXPECT_TRUE(store.tuningsAt(6).empty());

    std::string value = "kept";
    EXPECT_EQ(node.getInitConfig("missing", &value), VX_NOT_FOUND);
    EXPECT_EQ(value, "kept");
    EXPECT_EQ(node.getInitConfig("file", &value), VX_OK);
    EXPECT_EQ(value, "clip");
    EXPECT_LOGGED(DEBUG, "n: Config file = clip");
    EXPECT_EQ(node.getInitConfig("file", nullptr), VX_BAD_VALUE);
    EXPECT_GUARD("value == nullptr");
}

// ---- Life cycle -------------------------------------------------------------------------------

// Catches: an operation let through in a state where it is not legal, a hook's failure lost, ports
// added outside set-up.
TEST_F(NodeTest, LifeCycleAllowsOnlyWhatIsLegal) {
    LogCapture log;
    int hooks = 0;
    auto node = make();
    auto counted = [&hooks](VXError result) {
        return [&hooks, result](auto...) {
            ++hooks;
            return result;
        };
    };
    node->setupHook = counted(VX_NO_MEMORY);
    node->startHook = counted(VX_ERROR);
    node->stopHook = counted(VX_NOT_FOUND);

    EXPECT_EQ(node->start(listener), VX_INVALID_OPERATION);
    EXPECT_EQ(node->stop(), VX_INVALID_OPERATION);
    EXPECT_EQ(node->addInputPort("x", {"f"}), VX_INVALID_OPERATION);
    EXPECT_EQ(hooks, 0);
    EXPECT_EQ(node->setup(false), VX_NO_MEMORY);
    EXPECT_EQ(log.count("[g.n] Setup Failed! .."), 1);
    node->setupHook = {};
    EXPECT_EQ(node->setup(true), VX_OK);  // after a failure it may be tried again
    EXPECT_EQ(node->setup(true), VX_INVALID_OPERATION);
    EXPECT_EQ(node->inputPorts().size(), 1u);  // the names of the failed attempt are taken
    EXPECT_EQ(node->addInputPort("x", {"f"}), VX_INVALID_OPERATION);
    EXPECT_EQ(node->addOutputPort("n.out", {"f"}), VX_ALREADY_EXISTS);
    EXPECT_EQ(node->addOutputPort("late", {"f"}), VX_OK);

    EXPECT_EQ(node->start(listener), VX_ERROR);
    EXPECT_GUARD("ret != VX_OK");
    node->startHook = {};
    EXPECT_EQ(node->start(listener), VX_OK);  // a failed start leaves it set up
    EXPECT_EQ(node->start(listener), VX_INVALID_OPERATION);
    EXPECT_EQ(node->stop(), VX_NOT_FOUND);  // the hook's own result
    EXPECT_EQ(node->stop(), VX_INVALID_OPERATION);
    EXPECT_EQ(node->setup(false), VX_INVALID_OPERATION);

    log.clear();
    EXPECT_EQ(node->signalError(VX_ERROR, "late"), VX_OK);
    EXPECT_LOGGED(ERROR, "Handler is gone !!!!");
    EXPECT_EQ(node->returnWorks({}), VX_NO_INIT);
    EXPECT_GUARD("mHandler == nullptr");
    node.reset();
    EXPECT_EQ(log.count("safely terminated") + log.count("without stopping"), 0);
}

// Catches: ports that are found in the wrong list, created twice under one name, or crash on null.
TEST_F(NodeTest, PortsByName) {
    LogCapture log;
    auto node = make({"a", "b", "a"}, {"a"});
    std::vector<VXError> added;
    node->setupHook = [&](bool) {
        added = {node->addInputPort("b", {"f"}), node->addInputPort("c", {"f"})};
        return VX_OK;
    };
    ASSERT_EQ(node->setup(false), VX_OK);
    EXPECT_EQ(added, (std::vector<VXError>{VX_ALREADY_EXISTS, VX_OK}));
    EXPECT_EQ(node->inputPorts().size(), 3u);
    std::shared_ptr<VXInputPort> in;
    std::shared_ptr<VXOutputPort> out;
    EXPECT_EQ(node->findInputPort("c", &in), VX_OK);
    EXPECT_EQ(in, node->inputPorts()[2]);
    EXPECT_EQ(node->findOutputPort("c", &out), VX_ERROR);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(node->findInputPort("a", nullptr), VX_BAD_VALUE);
    EXPECT_EQ(node->findOutputPort("a", nullptr), VX_BAD_VALUE);
    EXPECT_EQ(log.count("inputPort == nullptr : Line# ") + log.count("outPort == nullptr : Line# "),
              2);
}

// Names that VXNode must not capture.
static VXError flush() {
    return VX_OK;
}
static VXError post() {
    return VX_OK;
}
static VXError listener() {
    return VX_OK;
}
static VXError regulator() {
    return VX_OK;
}

// Catches: a node that dies with its thread running, or says nothing about its author's mistake; hooks
// that are called when they are gone.
TEST_F(NodeTest, TeardownAndDestructor) {
    struct Careless : VXNode {
        Careless() : VXNode("g.careless", nullptr) {}
        using VXNode::handler;
        VXError onSetup(bool) override { return addInputPort("in", {"test/count"}); }
        VXError onStart() override { return post(); }
        VXError onStop() override { return flush(); }
        VXError onProcess(Works, Outputs*) override { return regulator(); }
        VXError onBufferFilled(int) override { return ::listener(); }
        void onDrain() override {}
        void onFlush() override {}
    };
    LogCapture log;
    {
        Careless node;
        ASSERT_EQ(node.setup(false), VX_OK);
        ASSERT_EQ(node.start(listener), VX_OK);
        EXPECT_EQ(node.allocatorType(), "any");
        EXPECT_EQ(node.getPreferredAllocatorTypes(), std::vector<std::string>{"any"});
        // Its thread is idle, not gone: a node must not die while its hooks are being called.
        EXPECT_EQ(node.handler()->postSyncAndWait(makeEvent(VXNode::EVENT_SCHEDULE), 0), VX_OK);
    }
    EXPECT_LOGGED(ERROR, "[g.careless] Node was not safely terminated !!");
    log.clear();
    struct Busy final : VXListener {  // keeps the node's thread, in no hook, until the node dies
        void onComplete() override {
            while (log->count("safely terminated") == 0) std::this_thread::yield();
        }
        void onError(VXError, std::string) override {}
        LogCapture* log;
    };
    const auto busy = std::make_shared<Busy>();
    busy->log = &log;
    {
        Careless node;
        ASSERT_EQ(node.setup(false), VX_OK);
        ASSERT_EQ(node.start(busy), VX_OK);
        EXPECT_EQ(node.handler()->postSyncAndWait(makeEvent(VXNode::EVENT_SCHEDULE), 0), VX_OK);
        node.signalComplete();
        for (const uint32_t id : {VXNode::EVENT_FLUSH, VXNode::EVENT_DRAIN, VXNode::EVENT_START}) {
            node.handler()->postAsync(makeEvent(id));
        }
        node.inputPorts().front()->queueWorks({makeInput(0, kEos)});
    }
    EXPECT_EQ(log.count("Flushing Node") + log.count("Draining Node"), 0);
    log.clear();
    {
        Careless node;
        node.teardown();  // never set up: nothing to stop
        EXPECT_EQ(log.count(ANDROID_LOG_WARN, kTag, "attempting stop"), 0);
    }
    EXPECT_EQ(log.count("safely terminated"), 0);
    int stops = 0;
    auto node = make();
    node->stopHook = [&] {
        ++stops;
        return VX_OK;
    };
    ASSERT_EQ(node->setup(false), VX_OK);
    ASSERT_EQ(node->start(listener), VX_OK);
    node->teardown();
    EXPECT_EQ(stops, 1);
    EXPECT_LOGGED(WARN, "[g.n] Node being destroyed without stopping.. attempting stop");
}

// Catches: a teardown that leaves the thread running when a hook has stopped its own node.
TEST_F(NodeTest, TeardownWaitsForTheHookThatStoppedTheNode) {
    Tally tally;
    std::atomic<bool> hookRuns{false};
    auto node = make();
    node->drainHook = [&, raw = node.get()] {
        hookRuns = true;
        EXPECT_EQ(raw->stop(), VX_OK);
        tally.hit("stopped");
        EXPECT_TRUE(tally.waitFor("tearing down"));
        for (int i = 0; i < 1000; ++i) std::this_thread::yield();
        hookRuns = false;
    };
    ASSERT_EQ(node->setup(false), VX_OK);
    ASSERT_EQ(node->start(listener), VX_OK);
    node->handler()->postAsync(makeEvent(VXNode::EVENT_DRAIN));
    ASSERT_TRUE(tally.waitFor("stopped"));
    tally.hit("tearing down");
    node->teardown();
    EXPECT_FALSE(hookRuns);
}

// Catches: a delay that a downstream node reports while this one starts and that is lost for good, so
// that the run stalls.
TEST_F(NodeTest, DelayReportedDuringTheStartIsKept) {
    for (int round = 0; round < scaled(3000); ++round) {
        auto node = make();
        ASSERT_EQ(node->setup(false), VX_OK);
        recordOutput(*node);
        std::atomic<bool> go{false};
        std::thread reporter([&] {
            while (!go) std::this_thread::yield();
            ports.back()->setTotalDelay(7);
        });
        go = true;
        ASSERT_EQ(node->start(listener), VX_OK);
        reporter.join();
        node->handler()->postSyncAndWait(makeEvent(VXNode::EVENT_INPUT_DELAY), 0);
        ASSERT_EQ(node->status().capacity, 7u + 1 + 2) << "in round " << round;
        node->stop();
        ports.clear();
    }
}

// ---- Events -----------------------------------------------------------------------------------

// Catches: an event that crashes or answers wrongly before start and after shut-down, payloads of
// another type or class that are taken for present, unknown ids.
TEST_F(NodeTest, EventsWithoutPayloadOrRegulator) {
    auto node = make();
    ASSERT_EQ(node->setup(false), VX_OK);
    const uint64_t one = 1;
    const auto done = std::make_shared<VXNode::CompletedWorkInfo>();
    const auto works = std::make_shared<VXInputPort::WorkInfo>();
    const auto noWorks = std::shared_ptr<VXInputPort::WorkInfo>();
    const auto noDone = std::shared_ptr<VXNode::CompletedWorkInfo>();
    const std::string needsRegulator = "regulator == nullptr";
    const std::string noCompleted =
        "event->info().get(\"works\", &completedWorkInfo) != xc2::XC2_OK";
    struct Row {
        std::shared_ptr<xc2::Event> event;
        VXError result;
        std::string guard;
    };
    for (int round = 0; round < 2; ++round) {  // before start, and after shut-down
        LogCapture log;
        const Row rows[] = {
            {nullptr, VX_BAD_VALUE, "event == nullptr"},
            {makeEvent(3), VX_ERROR, noCompleted},
            {makeEvent(3, "works", works), VX_ERROR, noCompleted},
            {makeEvent(3, "works", noDone), VX_ERROR, "completedWorkInfo == nullptr"},
            {makeEvent(4), VX_ERROR, "event->info().get(\"res-id\", &resId) != xc2::XC2_OK"},
            {makeEvent(257), VX_ERROR, "event->info().get(\"portId\", &portId) != xc2::XC2_OK"},
            {makeEvent(257, "portId", "n.out", "delay", 1u), VX_ERROR,
             "event->info().get(\"delay\", &delay) != xc2::XC2_OK"},
            {makeEvent(512), VX_ERROR, "event->info().get(\"works\", &workInfo) != xc2::XC2_OK"},
            {makeEvent(512, "works", noWorks), VX_ERROR, "workInfo == nullptr"},
            {makeEvent(0), VX_NO_INIT, needsRegulator},
            {makeEvent(2), VX_NO_INIT, needsRegulator},
            {makeEvent(3, "works", done), VX_NO_INIT, needsRegulator},
            {makeEvent(4, "res-id", one), VX_NO_INIT, needsRegulator},
            {makeEvent(257, "portId", "n.out", "delay", one), VX_NO_INIT, needsRegulator},
            {doWork({makeInput(0)}), VX_NO_INIT, ""},  // appended before the regulator is missed
            {doWork({}), VX_OK, ""},
            {makeEvent(5), VX_OK, ""},
            {makeEvent(6), VX_OK, ""},
            {makeEvent(256), VX_OK, ""},
            {makeEvent(1), VX_INVALID_OPERATION, ""},
            {makeEvent(0xabcd), VX_INVALID_OPERATION, ""},
        };
        for (const Row& row : rows) {
            log.clear();
            EXPECT_EQ(node->handleMessage(row.event), row.result);
            if (row.guard.empty()) continue;
            EXPECT_EQ(log.count(row.guard + " : Line# "), 1) << row.guard;
        }
        EXPECT_LOGGED(ERROR, "[g.n] Unhandled Event abcd");
        node->shutDown();
    }
}

// Catches: a report that is lost, or a listener that is used after it has gone; a drain or fence event
// that misses its hook, a wrong fence value.
TEST_F(NodeTest, ReportsAndHooks) {
    auto node = make();
    std::vector<int> hooked;
    node->drainHook = [&] { hooked.push_back(0); };
    node->bufferHook = [&](int fd) {
        hooked.push_back(fd);
        return VX_NO_MEMORY;
    };
    EXPECT_EQ(node->handleMessage(makeEvent(VXNode::EVENT_DRAIN)), VX_OK);
    EXPECT_EQ(node->handleMessage(makeEvent(VXNode::EVENT_FENCE)), VX_NO_MEMORY);
    EXPECT_EQ(node->handleMessage(makeEvent(VXNode::EVENT_FENCE, "fd", 9u)), VX_NO_MEMORY);
    EXPECT_EQ(node->handleMessage(makeEvent(VXNode::EVENT_FENCE, "fd", 9)), VX_NO_MEMORY);
    EXPECT_EQ(hooked, (std::vector<int>{0, -1, -1, 9}));

    ASSERT_EQ(node->setup(false), VX_OK);
    ASSERT_EQ(node->start(listener), VX_OK);
    node->signalError(VX_INCOMPATIBLE, "no good");
    node->signalComplete();
    EXPECT_TRUE(listener->tally.waitFor("error 13 no good"));
    EXPECT_TRUE(listener->tally.waitFor("complete"));
    EXPECT_EQ(node->handleMessage(makeEvent(VXNode::EVENT_ERROR)), VX_OK);
    EXPECT_EQ(listener->tally.count("error 0 "), 1);
    listener.reset();
    EXPECT_EQ(node->handleMessage(makeEvent(VXNode::EVENT_ERROR)), VX_OK);
    EXPECT_EQ(node->handleMessage(makeEvent(VXNode::EVENT_COMPLETE)), VX_OK);
}

// ---- Pending inputs ---------------------------------------------------------------------------

// Catches: counting beyond end of stream or the maximum, a batch cut short when handed out, works
// lost by a refused request.
TEST_F(NodeTest, PendingInputs) {
    LogCapture log;
    auto node = make();
    unsigned long count = 99;
    bool eos = true;
    EXPECT_EQ(node->countAvailablePendingInputWorks(1, nullptr, &eos), VX_BAD_VALUE);
    EXPECT_EQ(node->countAvailablePendingInputWorks(1, &count, nullptr), VX_BAD_VALUE);
    EXPECT_EQ(node->countAvailablePendingInputWorks(0, &count, &eos), VX_BAD_VALUE);
    for (const char* text : {"actualCount == nullptr", "hasEOS == nullptr", "maxCount == 0"}) {
        EXPECT_EQ(log.count(std::string(text) + " : Line# "), 1) << text;
    }
    node->handleMessage(doWork({makeInput(1), makeInput(2, kEos), makeInput(3)}));

    EXPECT_EQ(node->countAvailablePendingInputWorks(5, &count, &eos), VX_OK);
    EXPECT_EQ(count, 2u);
    EXPECT_TRUE(eos);
    EXPECT_LOGGED(DEBUG, "[g.n] available-inputs: 2 (requested=5) has-EOS");
    EXPECT_EQ(node->countAvailablePendingInputWorks(1, &count, &eos), VX_OK);
    EXPECT_EQ(count, 1u);
    EXPECT_FALSE(eos);
    EXPECT_EQ(log.count("[g.n] available-inputs: 1 (requested=1) "), 1);

    Works works = {makeInput(77)};
    EXPECT_EQ(node->getPendingInputWorks(1, nullptr), VX_BAD_VALUE);
    EXPECT_EQ(node->getPendingInputWorks(4, &works), VX_INVALID_OPERATION);
    EXPECT_TRUE(works.empty());
    EXPECT_GUARD("requestedCount > mPendingInputWorks.size()");
    EXPECT_EQ(node->getPendingInputWorks(2, &works), VX_OK);
    ASSERT_EQ(works.size(), 3u);
    EXPECT_EQ(works.back()->frameInfo().index, 3u);
    EXPECT_EQ(node->getPendingInputWorks(1, &works), VX_INVALID_OPERATION);

    node->handleMessage(doWork({makeInput(1), nullptr}));
    EXPECT_EQ(node->countAvailablePendingInputWorks(5, &count, &eos), VX_BAD_ADDRESS);
    EXPECT_EQ(count, 1u);
    node->erasePendingInputWorks();
    EXPECT_EQ(node->countAvailablePendingInputWorks(5, &count, &eos), VX_OK);
    EXPECT_EQ(count, 0u);
}

// Catches: a status that waits for a busy node, loses works between port and pending list, forgets one
// that is out or released, or counts works that a stopped node has refused.
TEST_F(NodeTest, StatusTellsWhereWorksAre) {
    const auto expectStatus = [](VXNode& node, VXNode::State state, uint64_t queued,
                                 uint64_t pending, uint64_t outstanding, uint64_t capacity) {
        const VXNode::Status status = node.status();
        EXPECT_EQ(status.state, state);
        ASSERT_EQ(status.inputPorts.size(), state == VXNode::CREATED ? 0u : 1u);
        if (!status.inputPorts.empty()) {
            EXPECT_EQ(status.inputPorts[0].name, "n.in");
            EXPECT_EQ(status.inputPorts[0].queuedWorks, queued);
        }
        EXPECT_EQ(status.pendingInputs, pending);
        EXPECT_EQ(status.outstandingWorks, outstanding);
        EXPECT_EQ(status.capacity, capacity);
    };
    Tally tally;
    auto node = make();
    expectStatus(*node, VXNode::CREATED, 0, 0, 0, 0);
    ASSERT_EQ(node->setup(false), VX_OK);
    recordOutput(*node);
    const auto input = node->inputPorts().front();
    node->processHook = [&](Works inputs, Outputs* outputs) {
        tally.hit("processing");
        EXPECT_TRUE(tally.waitFor("go on"));
        for (const auto& work : inputs) outputs->push_back(ScriptedNode::copyOf(*work));
        return VX_OK;
    };
    node->drainHook = [&] { tally.hit("drained"); };
    ASSERT_EQ(node->start(listener), VX_OK);
    for (uint64_t i = 0; i < 10; ++i) EXPECT_EQ(input->queueWorks({makeInput(i)}), VX_OK);
    ASSERT_TRUE(tally.waitFor("processing"));
    expectStatus(*node, VXNode::RUNNING, 9, 0, 0, 4);
    const auto drain = [&](int times) {
        node->handler()->postAsync(makeEvent(VXNode::EVENT_DRAIN));
        return tally.waitFor("drained", times);
    };
    tally.hit("go on");
    ASSERT_TRUE(drain(1));
    ASSERT_TRUE(drain(2));  // the last batch's event is gone, too
    expectStatus(*node, VXNode::RUNNING, 0, 6, 4, 4);
    std::vector<std::shared_ptr<xc2::Event>>().swap(downstream->events);  // releases all four
    ASSERT_TRUE(drain(3));
    expectStatus(*node, VXNode::RUNNING, 0, 0, 6, 4);  // the whole pending list made one batch
    // A port that only shares the node's handler is not counted here, and may go before its works come.
    node->bufferHook = [&](int) { return tally.waitFor("port gone") ? VX_OK : VX_ERROR; };
    node->handler()->postAsync(makeEvent(VXNode::EVENT_FENCE));
    std::make_shared<VXInputPort>("other", VXPort::Format{}, node->handler())
        ->queueWorks({makeInput(10)});
    tally.hit("port gone");
    ASSERT_TRUE(drain(4));
    EXPECT_EQ(node->status().inputPorts[0].queuedWorks, 0u);
    node->erasePendingInputWorks();
    EXPECT_EQ(node->stop(), VX_OK);
    expectStatus(*node, VXNode::STOPPED, 0, 0, 0, 0);
    EXPECT_EQ(input->queueWorks({makeInput(10)}), VX_OK);
    expectStatus(*node, VXNode::STOPPED, 0, 0, 0, 0);
}

// Catches: a flush that keeps inputs, skips a node, or goes on past a failing port.
TEST_F(NodeTest, FlushGoesDownTheGraph) {
    auto up = make({"up.in"}, {"up.a", "up.b"});
    auto down = make({"down.in"}, {});
    std::vector<std::string> order;
    up->flushHook = [&] { order.push_back("up"); };
    down->flushHook = [&] { order.push_back("down"); };
    ASSERT_EQ(up->setup(false), VX_OK);
    ASSERT_EQ(down->setup(false), VX_OK);
    const auto deaf = std::make_shared<VXInputPort>("deaf", VXPort::Format{"test/count"}, nullptr);
    ASSERT_EQ(up->outputPorts()[0]->connectTo(down->inputPorts()[0]), VX_OK);
    ASSERT_EQ(up->outputPorts()[0]->connectTo(deaf), VX_OK);
    recordOutput(*up);
    ASSERT_EQ(down->start(listener), VX_OK);

    auto pending = makeInput(0);
    std::weak_ptr<VXSharedWork> watch = pending;
    up->handleMessage(doWork({std::move(pending)}));
    EXPECT_EQ(up->handleMessage(makeEvent(VXNode::EVENT_FLUSH)), VX_NO_INIT);
    EXPECT_TRUE(watch.expired());
    EXPECT_EQ(order, (std::vector<std::string>{"up", "down"}));  // waited for, in order
    EXPECT_TRUE(downstream->events.empty());
}

// ---- Regulator --------------------------------------------------------------------------------

class RegulatorTest : public NodeTest {
protected:
    // A started-like node whose regulator is driven by hand.
    void build(unsigned long batch, std::vector<std::pair<std::string, unsigned long>> delays,
               const std::vector<std::string>& outputs = {"n.out"}) {
        node = make({"n.in"}, outputs);
        ASSERT_EQ(node->setup(false), VX_OK);
        if (!outputs.empty()) recordOutput(*node);
        regulator = std::make_shared<VXNode::Regulator>(*node, batch, std::move(delays));
        ASSERT_EQ(regulator->init(), VX_OK);
    }
    void give(Works works) {
        VXLocker lock(node->mPendingInputLock);
        node->mPendingInputWorks.splice(node->mPendingInputWorks.end(), works);
    }
    std::unique_ptr<ScriptedNode> node;
    std::shared_ptr<VXNode::Regulator> regulator;
};

// Catches: a wrong capacity, or one that cannot shrink below what is out.
TEST_F(RegulatorTest, CapacityFollowsTheLargestDelay) {
    LogCapture log;
    build(1, {{"a", 4}, {"a", 9}, {"b", 4}});
    EXPECT_EQ(regulator->name(), "g.n.Regulator");
    EXPECT_EQ(regulator->maxDownstreamCapacity(), 7u);
    EXPECT_EQ(log.count("[g.n.Regulator] Created with downstream-capacity = 7"), 1);
    EXPECT_EQ(
        log.count(
            ANDROID_LOG_DEBUG, kTag,
            "[g.n.Regulator] Downstream-capacity=7 [Port 'a' has max delay = 4. batchsize = 1") +
            log.count(
                ANDROID_LOG_DEBUG, kTag,
                "[g.n.Regulator] Downstream-capacity=7 [Port 'b' has max delay = 4. batchsize = 1"),
        2);
    for (int i = 0; i < 7; ++i) {
        std::list<std::unique_ptr<VXWork>> works;
        works.push_back(std::make_unique<VXWork>());
        EXPECT_EQ(regulator->notifyCompletedWorks(std::move(works)), VX_OK);
    }
    unsigned long ready = 9;
    EXPECT_FALSE(regulator->canScheduleWorks(&ready));
    EXPECT_EQ(ready, 0u);
    EXPECT_EQ(log.count("[g.n.Regulator] Free-DownstreamCapacity(0) < batch-size(1)"), 1);
    EXPECT_EQ(regulator->notifyDownstreamTotalDelay("a", 1), VX_OK);
    EXPECT_EQ(regulator->notifyDownstreamTotalDelay("b", 1), VX_OK);
    EXPECT_EQ(regulator->maxDownstreamCapacity(), 4u);
    EXPECT_EQ(regulator->freeDownstreamCapacity(), 0u);
    EXPECT_EQ(regulator->notifyDownstreamTotalDelay("c", 8), VX_NOT_FOUND);
    EXPECT_GUARD("mPortDelays.count(portId) == 0");
    for (unsigned long id = 1; id <= 4; ++id)
        EXPECT_EQ(regulator->releaseDownstreamWork(id), VX_OK);
    EXPECT_EQ(regulator->freeDownstreamCapacity(), 1u);
    EXPECT_EQ(regulator->notifyDownstreamTotalDelay("a", UINT64_MAX - 1), VX_OK);
    EXPECT_EQ(regulator->maxDownstreamCapacity(), UINT64_MAX);
    EXPECT_EQ(regulator->releaseDownstreamWork(4), VX_NOT_FOUND);
    EXPECT_LOGGED(WARN, "[g.n.Regulator] Downstream released untracked work (id: 4)");
}

// Catches: a short batch before end of stream, none at it, outputs that do not match inputs let
// through, an error of the hook that loses its outputs or is not reported.
TEST_F(RegulatorTest, BatchesAndTheirOutputs) {
    LogCapture log;
    build(4, {{"n.out", 1}});
    size_t given = 0;
    VXError result = VX_OK;
    size_t leave = 0;
    node->processHook = [&](Works inputs, Outputs* outputs) {
        given = inputs.size();
        while (outputs->size() < leave) {
            outputs->push_back(std::make_unique<VXWork>());
            outputs->back()->setPayload(std::make_shared<Counted>(0));
        }
        return result;
    };
    give({makeInput(0)});
    EXPECT_EQ(regulator->schedule(), VX_OK);
    EXPECT_EQ(given, 0u);
    EXPECT_EQ(log.count("[g.n.Regulator] Inputs(1) < BatchSize(4)"), 1);
    give({makeInput(1), makeInput(2, kEos)});
    EXPECT_EQ(regulator->schedule(), VX_OK);
    EXPECT_EQ(given, 3u);

    give({makeInput(0, kEos), makeInput(1),
          makeInput(2)});  // all are handed out, beyond end of stream
    leave = 2;
    EXPECT_EQ(regulator->schedule(), VX_ERROR);
    EXPECT_EQ(given, 3u);
    EXPECT_LOGGED(ERROR, "[g.n.Regulator] onProcess returned only 2 works out of 3 !");
    EXPECT_EQ(received().size(), 0u);
    EXPECT_EQ(Counted::sAlive, 0);

    give({makeInput(0, kEos)});
    leave = 1;
    result = VX_NOT_FOUND;
    EXPECT_EQ(regulator->schedule(), VX_OK);
    EXPECT_EQ(received().size(), 1u);
    EXPECT_LOGGED(ERROR, "[g.n.Regulator] Error: Node [g.n] failed to process !: 2");
    unsigned long ready = 0;
    EXPECT_FALSE(regulator->canScheduleWorks(nullptr));
    EXPECT_GUARD("nWorksReady == nullptr");
    give({nullptr});
    EXPECT_FALSE(regulator->canScheduleWorks(&ready));
    EXPECT_EQ(log.count("canScheduleWorks: countAvailablePendingInputWorks returned error"), 1);
}

// Catches: index and id that do not count up, a null work that is numbered or sent, works on a second
// output port, a registration that takes null.
TEST_F(RegulatorTest, FinishedWorksAreNumberedAndTracked) {
    LogCapture log;
    build(1, {{"n.out", 1}, {"n.second", 1}}, {"n.out", "n.second"});
    const auto second = std::make_shared<RecordingHandler>();
    ASSERT_EQ(node->outputPorts()[1]->connectTo(
                  std::make_shared<VXInputPort>("second.in", VXPort::Format{"test/count"}, second)),
              VX_OK);
    std::list<std::unique_ptr<VXWork>> works;
    for (int i = 0; i < 2; ++i) {
        works.push_back(std::make_unique<VXWork>());
        works.back()->frameInfo().index = 50;
    }
    EXPECT_EQ(regulator->notifyCompletedWorks(std::move(works)), VX_OK);
    EXPECT_TRUE(second->events.empty());
    uint64_t expected = 0;
    for (const auto& work : received()) {
        uint64_t id = 0;
        EXPECT_EQ(work->frameInfo().index, expected++);
        EXPECT_EQ(work->get("_res_id", &id), VX_OK);
        EXPECT_EQ(id, expected);
    }
    EXPECT_EQ(expected, 2u);
    EXPECT_EQ(regulator->freeDownstreamCapacity(), 2u);

    works.clear();
    works.push_back(std::make_unique<VXWork>());
    works.push_back(nullptr);
    EXPECT_EQ(regulator->notifyCompletedWorks(std::move(works)), VX_NO_MEMORY);
    EXPECT_EQ(received().size(), 2u);
    for (const char* text : {"processedWork == nullptr : Line# ", "sharedWork == nullptr : Line# ",
                             "[g.n.Regulator] Failed to register completed work !"}) {
        EXPECT_EQ(log.count(text), 1) << text;
    }
    std::shared_ptr<VXSharedWork> tracked;
    EXPECT_EQ(regulator->registerDownstreamWork(std::make_unique<VXWork>(), nullptr), VX_BAD_VALUE);
    EXPECT_EQ(regulator->registerInputWork(nullptr, &tracked), VX_BAD_VALUE);
    auto input = makeInput(0);
    EXPECT_EQ(regulator->registerInputWork(input, nullptr), VX_BAD_VALUE);
    EXPECT_EQ(regulator->registerInputWork(input, &tracked), VX_OK);
    EXPECT_EQ(tracked, input);
    for (const char* text : {"workToDispatch == nullptr : Line# ", "inputWork == nullptr : Line# ",
                             "trackedInputWork == nullptr : Line# "}) {
        EXPECT_EQ(log.count(text), 1) << text;
    }
}

// Catches: a release after the producer has gone that touches it or leaks the work, and an untracked
// work that is deleted.
TEST_F(RegulatorTest, ReleasesAfterTheProducerHasGone) {
    LogCapture log;
    build(1, {{"n.out", 1}});
    std::list<std::unique_ptr<VXWork>> works;
    works.push_back(std::make_unique<VXWork>());
    works.back()->setPayload(std::make_shared<Counted>(0));
    ASSERT_EQ(regulator->notifyCompletedWorks(std::move(works)), VX_OK);
    regulator.reset();
    node.reset();
    EXPECT_EQ(Counted::sAlive, 1);
    downstream->events.clear();
    EXPECT_EQ(Counted::sAlive, 0);
    EXPECT_LOGGED(ERROR, "Handler is gone !!!!");

    VXNode::DownstreamWorkTracker tracker({});
    tracker.onRelease(nullptr);
    const auto untracked = std::make_unique<VXSharedWork>(VXAuxInfo(), VXFrameInfo());
    tracker.onRelease(untracked.get());  // left alive on purpose: still ours to delete
    EXPECT_EQ(log.count(ANDROID_LOG_WARN, kTag, "Invalid work released !"), 2);
}

// ---- Registry ---------------------------------------------------------------------------------

// Catches: an earlier factory that wins, an unknown type that is not listed afterwards, nulls that
// change the map.
TEST(Registry, FindsFactoriesByType) {
    LogCapture log;
    TestFactory<ScriptedNode> first("test/registry",
                                    [](auto& node) { node.allocators = {"first"}; });
    TestFactory<ScriptedNode> second("test/registry",
                                     [](auto& node) { node.allocators = {"second"}; });
    EXPECT_EQ(log.count(ANDROID_LOG_ERROR, kTag, "Register factory test/registry"), 2);
    EXPECT_EQ(VXNodeRegistry::RegisterFactory("test/other", nullptr), VX_ERROR);
    EXPECT_EQ(VXNodeRegistry::RegisterFactory("test/other", &first), VX_OK);

    std::unique_ptr<VXNode> node;
    EXPECT_EQ(VXNodeRegistry::Create("g.a", describe("test/registry", "a", {}, {}), &node), VX_OK);
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(node->name(), "g.a");
    EXPECT_EQ(node->getPreferredAllocatorTypes(), std::vector<std::string>{"second"});

    std::vector<std::string> before;
    EXPECT_EQ(VXNodeRegistry::ListRegisteredNodeTypes(&before), VX_OK);
    EXPECT_EQ(VXNodeRegistry::ListRegisteredNodeTypes(nullptr), VX_ERROR);
    EXPECT_EQ(VXNodeRegistry::Create("g.a", nullptr, &node), VX_BAD_VALUE);
    EXPECT_EQ(VXNodeRegistry::Create("g.a", describe("test/x", "a", {}, {}), nullptr),
              VX_BAD_VALUE);
    static int runs = 0;  // an unknown type stays in the registry
    const std::string unknown = "test/unknown" + std::to_string(++runs);
    log.clear();
    node.reset();
    EXPECT_EQ(VXNodeRegistry::Create("g.a", describe(unknown, "a", {}, {}), &node), VX_ERROR);
    EXPECT_LOGGED(
        ERROR, "No factory available for " + unknown + " in " + std::to_string(before.size() + 1));
    std::vector<std::string> after = {"kept"};
    EXPECT_EQ(VXNodeRegistry::ListRegisteredNodeTypes(&after), VX_OK);
    EXPECT_EQ(after.size(), before.size() + 2);
    EXPECT_EQ(after.front(), "kept");
    EXPECT_EQ(std::count(after.begin(), after.end(), unknown), 1);

    struct Empty : VXNodeBaseFactory {
        Empty() : VXNodeBaseFactory("test/empty") {}
        void createNode(const std::string&, std::unique_ptr<VXNodeDescriptor>,
                        std::unique_ptr<VXNode>*) override {}
    } empty;
    EXPECT_EQ(VXNodeRegistry::Create("g.a", describe("test/empty", "a", {}, {}), &node), VX_ERROR);
}
