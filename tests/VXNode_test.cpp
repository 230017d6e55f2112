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
    return std::make_shared<VXSharedWork>(VXAuxInfo(), info);
}

// `count` finished works, each with a payload that is counted.
static Outputs makeOutputs(size_t count) {
    Outputs works;
    while (works.size() < count) {
        works.push_back(std::make_unique<VXWork>());
        works.back()->setPayload(std::make_shared<Counted>(0));
    }
    return works;
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

static std::shared_ptr<VXInputPort> inputPort(
    const std::string& name, const std::shared_ptr<RecordingHandler>& handler = nullptr,
    const std::string& format = "test/count") {
    return std::make_shared<VXInputPort>(name, VXPort::Format{format}, handler);
}

static std::shared_ptr<VXOutputPort> outputPort(const std::string& name,
                                                const std::shared_ptr<RecordingHandler>& handler) {
    return std::make_shared<VXOutputPort>(name, VXPort::Format{"test/count"}, handler);
}

// One node, driven without a graph; a recorder stands downstream of its output ports.
class NodeTest : public testing::Test {
protected:
    // A node that is set up, its first output port connected to the recorder.
    template <class Node = ScriptedNode>
    std::unique_ptr<Node> setUp(const std::vector<std::string>& outputs = {"n.out"}) {
        auto node = std::make_unique<Node>("g.n", describe("test/n", "n", {"n.in"}, outputs));
        EXPECT_EQ(node->setup(false), VX_OK);
        port = inputPort("down.in", downstream);
        EXPECT_EQ(node->outputPorts().front()->connectTo(port), VX_OK);
        return node;
    }
    // Returns when `node` has handled what was posted to it before.
    static void await(ScriptedNode& node) {
        EXPECT_EQ(node.handler()->postSyncAndWait(makeEvent(VXNode::EVENT_INPUT_DELAY), 0), VX_OK);
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
    std::shared_ptr<VXInputPort> port;
};

// ---- Ports ------------------------------------------------------------------------------------

// Catches: a second upstream, a match by anything but equal texts, a refused connection that leaves
// a trace on either side.
TEST(Ports, ConnectOnceAndOnlyEqualFormats) {
    LogCapture log;
    const auto handler = std::make_shared<RecordingHandler>();
    const auto out = outputPort("out", handler), other = outputPort("other", handler);
    const auto in = inputPort("in", handler), blank = inputPort("blank", handler, "test/count ");
    EXPECT_LOGGED(DEBUG, "Create I port in");
    EXPECT_LOGGED(DEBUG, "Create O port out");
    EXPECT_EQ(in->direction(), 0u);
    EXPECT_EQ(out->direction(), 1u);
    EXPECT_EQ(out->format().type, "test/count");

    EXPECT_EQ(out->connectTo(blank), VX_INCOMPATIBLE);
    EXPECT_EQ(out->connectTo(nullptr), VX_BAD_VALUE);
    EXPECT_EQ(log.messages().back().tag, "Vexa:VXGraph");
    EXPECT_GUARD("downstream == nullptr");
    EXPECT_EQ(in->acceptConnection({"test/count"}, {}), VX_BAD_VALUE);
    const std::shared_ptr<VXInputPort::DelayObserver> hollow(handler, nullptr);
    EXPECT_EQ(in->acceptConnection({"test/count"}, hollow), VX_BAD_VALUE);
    EXPECT_FALSE(out->connected() || in->connected() || blank->connected());

    EXPECT_EQ(out->connectTo(in), VX_OK);
    EXPECT_EQ(out->connectTo(in), VX_INCOMPATIBLE);
    EXPECT_EQ(other->connectTo(in), VX_INCOMPATIBLE);
    EXPECT_TRUE(out->connected() && in->connected());
    EXPECT_FALSE(other->connected());
    EXPECT_EQ(out->downstreamPorts().size(), 1u);
}

// Catches: a combined delay that is not the maximum with floor 1, an event without a change, a
// report for a port that was never connected.
TEST(Ports, DelaysCombineByMaximum) {
    LogCapture log;
    const auto handler = std::make_shared<RecordingHandler>();
    const auto out = outputPort("out", handler);
    const std::shared_ptr<VXInputPort> in[] = {inputPort("a"), inputPort("b"), inputPort("c")};
    for (const auto& [i, delay] : {std::pair<int, unsigned long>{0, 1}, {1, 3}, {2, 2}}) {
        in[i]->setTotalDelay(delay);
        ASSERT_EQ(out->connectTo(in[i]), VX_OK);
    }
    EXPECT_EQ(out->totalDelay(), 3u);
    in[1]->setTotalDelay(2);  // posted
    in[1]->setTotalDelay(1);  // the third port still holds 2
    in[0]->setInputDelay(0);  // counts as 1
    in[0]->setInputDelay(9);  // posted
    out->onTotalDelayChanged("unknown", 50);
    std::string posted;
    for (const auto& event : handler->events) {
        std::string name;
        uint64_t delay = 0;
        EXPECT_EQ(event->info().get("portId", &name), xc2::XC2_OK);
        EXPECT_EQ(event->info().get("delay", &delay), xc2::XC2_OK);
        posted += std::to_string(event->id()) + " " + name + " " + std::to_string(delay) + ", ";
    }
    EXPECT_EQ(posted, "257 out 2, 256 out 9, ");
    EXPECT_LOGS("[out] Notifying total delay change 3 -> 2",
                "[out] Notifying input delay change 1 -> 9");
    EXPECT_LOGGED(ERROR, "[out] Unrecognized input port : unknown");
}

// Catches: works copied instead of shared on a fan-out, an early release, a list lost without a
// downstream port, a missing handler that crashes.
TEST(Ports, SendSharesWorksWithEveryBranch) {
    const auto first = std::make_shared<RecordingHandler>();
    const auto second = std::make_shared<RecordingHandler>();
    const auto out = outputPort("out", first);
    auto work = makeInput(7);
    const std::weak_ptr<VXSharedWork> watch = work;
    EXPECT_EQ(out->sendWorks({work}), VX_OK);
    EXPECT_EQ(watch.use_count(), 1);  // unconnected: let go at once

    const auto deaf = inputPort("deaf");
    for (const auto& in :
         {inputPort("in", first), inputPort("in", second), deaf, inputPort("in", first)}) {
        ASSERT_EQ(out->connectTo(in), VX_OK);
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
    EXPECT_EQ(out->downstreamPorts().front()->queueWorks({}), VX_OK);  // posted, too
    EXPECT_EQ(first->events.size(), 1u);
    EXPECT_EQ(deaf->queueWorks({}), VX_NO_INIT);
    EXPECT_EQ(deaf->flush(), VX_NO_INIT);
}

// ---- Configuration ----------------------------------------------------------------------------

// Catches: an entry in the wrong view, commands handed out twice, tunings consumed, the wrong
// winner among equal keys, an invalid entry that stops the rest.
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
// added outside set-up, created twice under one name, found in the wrong list, or without the
// node's delays, a crash on null.
TEST_F(NodeTest, LifeCycleAllowsOnlyWhatIsLegal) {
    LogCapture log;
    auto node = std::make_unique<ScriptedNode>("g.n", describe("t", "n", {"a", "a"}, {"a"}));
    node->setupHook = [](bool) { return VX_NO_MEMORY; };
    node->startHook = [] { return VX_ERROR; };
    node->stopHook = [] { return VX_NOT_FOUND; };
    EXPECT_EQ(node->start(listener), VX_INVALID_OPERATION);
    EXPECT_EQ(node->stop(), VX_INVALID_OPERATION);
    EXPECT_EQ(node->addInputPort("x", {"f"}), VX_INVALID_OPERATION);
    EXPECT_EQ(node->setup(false), VX_NO_MEMORY);
    EXPECT_LOGS("[g.n] Setup Failed! ..");
    node->setupHook = [&](bool beforeFence) {
        EXPECT_TRUE(beforeFence);
        EXPECT_EQ(node->addInputPort("a", {"f"}), VX_ALREADY_EXISTS);
        return node->addInputPort("b", {"f"});
    };
    EXPECT_EQ(node->setup(true), VX_OK);  // after a failure it may be tried again
    EXPECT_EQ(node->setup(true), VX_INVALID_OPERATION);
    EXPECT_EQ(node->inputPorts().size(), 2u);  // the names of the failed attempt are taken
    EXPECT_EQ(node->addInputPort("x", {"f"}), VX_INVALID_OPERATION);
    EXPECT_EQ(node->addOutputPort("a", {"f"}), VX_ALREADY_EXISTS);
    EXPECT_EQ(node->addOutputPort("late", {"f"}), VX_OK);
    std::shared_ptr<VXInputPort> in;
    std::shared_ptr<VXOutputPort> out;
    EXPECT_EQ(node->findInputPort("b", &in), VX_OK);
    EXPECT_EQ(in, node->inputPorts()[1]);
    EXPECT_EQ(node->findInputPort("late", &in), VX_ERROR);
    EXPECT_EQ(node->findOutputPort("b", &out), VX_ERROR);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(node->findOutputPort("late", &out), VX_OK);
    EXPECT_EQ(out, node->outputPorts()[1]);
    EXPECT_EQ(node->findInputPort("a", nullptr), VX_BAD_VALUE);
    EXPECT_EQ(node->findOutputPort("a", nullptr), VX_BAD_VALUE);
    EXPECT_GUARD("inputPort == nullptr", "outPort == nullptr");
    node->setInputDelay(3);
    node->setTotalDelay(5);
    for (const auto& port : node->inputPorts()) {
        EXPECT_EQ(port->inputDelay(), 3u);
        EXPECT_EQ(port->totalDelay(), 5u);
    }

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

// Names that VXNode must not capture.
static const auto flush = [] { return VX_OK; };
static const auto post = flush, listener = flush, regulator = flush;

// Catches: a node that dies with its thread running, or is silent about its author's mistake; hooks
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
        EXPECT_EQ(node.allocatorType(), "any");
        EXPECT_EQ(node.getPreferredAllocatorTypes(), std::vector<std::string>{"any"});
        ASSERT_EQ(node.setup(false), VX_OK);
        ASSERT_EQ(node.start(busy), VX_OK);
        EXPECT_EQ(node.handler()->postSyncAndWait(makeEvent(VXNode::EVENT_SCHEDULE), 0), VX_OK);
        node.signalComplete();
        for (const uint32_t id : {VXNode::EVENT_FLUSH, VXNode::EVENT_DRAIN, VXNode::EVENT_START}) {
            node.handler()->postAsync(makeEvent(id));
        }
        node.inputPorts().front()->queueWorks({makeInput(0, kEos)});
    }
    EXPECT_LOGGED(ERROR, "[g.careless] Node was not safely terminated !!");
    EXPECT_EQ(log.count("Flushing Node") + log.count("Draining Node"), 0);
    log.clear();
    Careless().teardown();  // never set up: nothing to stop
    EXPECT_EQ(log.count("attempting stop") + log.count("safely terminated"), 0);
    int stops = 0;
    auto node = setUp();
    node->stopHook = [&] { return ++stops, VX_OK; };
    ASSERT_EQ(node->start(NodeTest::listener), VX_OK);
    node->teardown();
    EXPECT_EQ(stops, 1);
    EXPECT_LOGGED(WARN, "[g.n] Node being destroyed without stopping.. attempting stop");
}

// Catches: a teardown that leaves the thread running when a hook has stopped its own node.
TEST_F(NodeTest, TeardownWaitsForTheHookThatStoppedTheNode) {
    Tally tally;
    std::atomic<bool> hookRuns{false};
    auto node = setUp();
    node->drainHook = [&, raw = node.get()] {
        hookRuns = true;
        EXPECT_EQ(raw->stop(), VX_OK);
        tally.hit("stopped");
        EXPECT_TRUE(tally.waitFor("tearing down"));
        for (int i = 0; i < 1000; ++i) std::this_thread::yield();
        hookRuns = false;
    };
    ASSERT_EQ(node->start(listener), VX_OK);
    node->handler()->postAsync(makeEvent(VXNode::EVENT_DRAIN));
    ASSERT_TRUE(tally.waitFor("stopped"));
    tally.hit("tearing down");
    node->teardown();
    EXPECT_FALSE(hookRuns);
}

// Catches: a delay that a downstream node reports while this one starts and that is lost for good,
// so that the run stalls.
TEST_F(NodeTest, DelayReportedDuringTheStartIsKept) {
    for (int round = 0; round < scaled(3000); ++round) {
        auto node = setUp();
        std::atomic<bool> go{false};
        std::thread reporter([&] {
            while (!go) std::this_thread::yield();
            port->setTotalDelay(7);
        });
        go = true;
        ASSERT_EQ(node->start(listener), VX_OK);
        reporter.join();
        await(*node);
        ASSERT_EQ(node->status().capacity, 7u + 1 + 2) << "in round " << round;
    }
}

// ---- Events -----------------------------------------------------------------------------------

// Catches: an event that crashes or answers wrongly before start and after shut-down, payloads of
// another type or class that are taken for present, unknown ids.
TEST_F(NodeTest, EventsWithoutPayloadOrRegulator) {
    const auto node = setUp();
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
            {doWork({makeInput(0)}), VX_NO_INIT, needsRegulator},  // appended all the same
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
            EXPECT_EQ(log.count(row.guard + " : Line# "), row.guard.empty() ? 0 : 1) << row.guard;
        }
        EXPECT_LOGGED(ERROR, "[g.n] Unhandled Event abcd");
        node->shutDown();
    }
}

// Catches: a report that is lost, or a listener that is used after it has gone; a drain or fence
// event that misses its hook, a wrong fence value.
TEST_F(NodeTest, ReportsAndHooks) {
    const auto node = setUp();
    std::vector<int> hooked;
    node->drainHook = [&] { hooked.push_back(0); };
    node->bufferHook = [&](int fd) {
        hooked.push_back(fd);
        return VX_NO_MEMORY;
    };
    EXPECT_EQ(node->handleMessage(makeEvent(VXNode::EVENT_DRAIN)), VX_OK);
    for (const auto& event :
         {makeEvent(VXNode::EVENT_FENCE), makeEvent(VXNode::EVENT_FENCE, "fd", 9u),
          makeEvent(VXNode::EVENT_FENCE, "fd", 9)}) {
        EXPECT_EQ(node->handleMessage(event), VX_NO_MEMORY);
    }
    EXPECT_EQ(hooked, (std::vector<int>{0, -1, -1, 9}));

    ASSERT_EQ(node->start(listener), VX_OK);
    EXPECT_EQ(node->signalError(VX_INCOMPATIBLE, "no good"), VX_OK);
    EXPECT_EQ(node->signalComplete(), VX_OK);
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
    const auto node = setUp();
    unsigned long count = 99;
    bool eos = true;
    const auto expectCount = [&](unsigned long most, VXError result, unsigned long expected,
                                 bool expectedEos) {
        EXPECT_EQ(node->countAvailablePendingInputWorks(most, &count, &eos), result);
        EXPECT_EQ(count, expected);
        EXPECT_EQ(eos, expectedEos);
    };
    EXPECT_EQ(node->countAvailablePendingInputWorks(1, nullptr, &eos), VX_BAD_VALUE);
    EXPECT_EQ(node->countAvailablePendingInputWorks(1, &count, nullptr), VX_BAD_VALUE);
    expectCount(0, VX_BAD_VALUE, 99, true);
    EXPECT_GUARD("actualCount == nullptr", "hasEOS == nullptr", "maxCount == 0");
    node->handleMessage(doWork({makeInput(1), makeInput(2, kEos), makeInput(3)}));
    expectCount(5, VX_OK, 2, true);
    expectCount(1, VX_OK, 1, false);
    EXPECT_LOGGED(DEBUG, "[g.n] available-inputs: 2 (requested=5) has-EOS");
    EXPECT_LOGS("[g.n] available-inputs: 1 (requested=1) ");

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
    expectCount(5, VX_BAD_ADDRESS, 1, false);
    node->erasePendingInputWorks();
    expectCount(5, VX_OK, 0, false);
}

// Catches: a status that waits for a busy node, loses works between port and pending list, forgets
// one that is out or released, or counts works that a stopped node has refused.
TEST_F(NodeTest, StatusTellsWhereWorksAre) {
    Tally tally;
    const auto node = setUp();
    const auto expectStatus = [&](VXNode::State state, uint64_t queued, uint64_t pending,
                                  uint64_t outstanding, uint64_t capacity) {
        const VXNode::Status status = node->status();
        EXPECT_EQ(status.state, state);
        ASSERT_EQ(status.inputPorts.size(), 1u);
        EXPECT_EQ(status.inputPorts[0].name, "n.in");
        EXPECT_EQ(status.inputPorts[0].queuedWorks, queued);
        EXPECT_EQ(status.pendingInputs, pending);
        EXPECT_EQ(status.outstandingWorks, outstanding);
        EXPECT_EQ(status.capacity, capacity);
    };
    EXPECT_EQ(ScriptedNode("new", nullptr).status().state, VXNode::CREATED);
    expectStatus(VXNode::SET_UP, 0, 0, 0, 0);
    const auto input = node->inputPorts().front();
    node->processHook = [&](Works inputs, Outputs* outputs) {
        tally.hit("processing");
        EXPECT_TRUE(tally.waitFor("go on"));
        for (const auto& work : inputs) outputs->push_back(ScriptedNode::copyOf(*work));
        return VX_OK;
    };
    ASSERT_EQ(node->start(listener), VX_OK);
    for (uint64_t i = 0; i < 10; ++i) EXPECT_EQ(input->queueWorks({makeInput(i)}), VX_OK);
    ASSERT_TRUE(tally.waitFor("processing"));
    expectStatus(VXNode::RUNNING, 9, 0, 0, 4);
    tally.hit("go on");
    await(*node);
    await(*node);  // the last batch's event is gone, too
    expectStatus(VXNode::RUNNING, 0, 6, 4, 4);
    std::vector<std::shared_ptr<xc2::Event>>().swap(downstream->events);  // releases all four
    await(*node);
    expectStatus(VXNode::RUNNING, 0, 0, 6, 4);  // the whole pending list made one batch
    // A port that only shares the node's handler is not counted here, and may go before its works
    // come.
    node->bufferHook = [&](int) { return tally.waitFor("port gone") ? VX_OK : VX_ERROR; };
    node->handler()->postAsync(makeEvent(VXNode::EVENT_FENCE));
    std::make_shared<VXInputPort>("other", VXPort::Format{}, node->handler())
        ->queueWorks({makeInput(10)});
    tally.hit("port gone");
    await(*node);
    expectStatus(VXNode::RUNNING, 0, 1, 6, 4);
    node->erasePendingInputWorks();
    EXPECT_EQ(node->stop(), VX_OK);
    EXPECT_EQ(input->queueWorks({makeInput(10)}), VX_OK);
    expectStatus(VXNode::STOPPED, 0, 0, 0, 0);
}

// Catches: a source that only releases drive on, one that goes beyond its capacity, works finished
// outside that are lost.
TEST_F(NodeTest, ASourceFillsItsCapacityByItself) {
    const auto source = setUp<CountingSource>();
    ASSERT_EQ(source->start(listener), VX_OK);
    for (int pass = 0; pass < 6; ++pass) await(*source);  // each pass posts the next one
    EXPECT_EQ(received().size(), 4u);
    EXPECT_EQ(source->returnWorks(makeOutputs(2)), VX_OK);
    await(*source);
    ASSERT_EQ(received().size(), 6u);
    EXPECT_EQ(received().back()->frameInfo().index, 5u);
}

// Catches: a flush that keeps inputs, skips a node, or goes on past a failing port.
TEST_F(NodeTest, FlushGoesDownTheGraph) {
    const auto up = std::make_unique<ScriptedNode>("up", describe("t", "n", {}, {"up.a", "up.b"}));
    const auto down = std::make_unique<ScriptedNode>("down", describe("t", "n", {"down.in"}, {}));
    std::vector<std::string> order;
    up->flushHook = [&] { order.push_back("up"); };
    down->flushHook = [&] { order.push_back("down"); };
    ASSERT_EQ(up->setup(false), VX_OK);
    ASSERT_EQ(down->setup(false), VX_OK);
    for (const auto& in : {down->inputPorts()[0], inputPort("deaf"), inputPort("in", downstream)}) {
        ASSERT_EQ(up->outputPorts()[0]->connectTo(in), VX_OK);
    }
    ASSERT_EQ(down->start(listener), VX_OK);

    auto pending = makeInput(0);
    const std::weak_ptr<VXSharedWork> watch = pending;
    up->handleMessage(doWork({std::move(pending)}));
    EXPECT_EQ(up->handleMessage(makeEvent(VXNode::EVENT_FLUSH)), VX_NO_INIT);
    EXPECT_TRUE(watch.expired());
    EXPECT_EQ(order, (std::vector<std::string>{"up", "down"}));  // waited for, in order
    EXPECT_TRUE(downstream->events.empty());
    EXPECT_EQ(down->handleMessage(makeEvent(VXNode::EVENT_FLUSH)), VX_OK);
}

// ---- Regulator --------------------------------------------------------------------------------

class RegulatorTest : public NodeTest {
protected:
    // A node that is set up, and a regulator of it that is driven by hand.
    void build(unsigned long batch, std::vector<std::pair<std::string, unsigned long>> delays,
               const std::vector<std::string>& outputs = {"n.out"}) {
        node = setUp(outputs);
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
    build(1, {{"a", 4}, {"a", 9}, {"b", 3}});
    EXPECT_EQ(regulator->name(), "g.n.Regulator");
    EXPECT_EQ(regulator->maxDownstreamCapacity(), 7u);
    EXPECT_LOGS("[g.n.Regulator] Created with downstream-capacity = 7");
    EXPECT_EQ(log.count(ANDROID_LOG_DEBUG, kTag,
                        "[g.n.Regulator] Downstream-capacity=7 [Port 'a' has max delay = 4. "
                        "batchsize = 1"),
              2);
    EXPECT_EQ(VXNode::Regulator(*node, 1, {}).maxDownstreamCapacity(), 3u);
    EXPECT_EQ(regulator->notifyCompletedWorks(makeOutputs(7)), VX_OK);
    unsigned long ready = 9;
    EXPECT_FALSE(regulator->canScheduleWorks(&ready));
    EXPECT_EQ(ready, 0u);
    EXPECT_LOGS("[g.n.Regulator] Free-DownstreamCapacity(0) < batch-size(1)");
    EXPECT_EQ(regulator->notifyDownstreamTotalDelay("a", 1), VX_OK);
    EXPECT_EQ(regulator->notifyDownstreamTotalDelay("b", 1), VX_OK);
    EXPECT_EQ(regulator->maxDownstreamCapacity(), 4u);
    EXPECT_EQ(regulator->freeDownstreamCapacity(), 0u);
    EXPECT_EQ(regulator->notifyDownstreamTotalDelay("c", 8), VX_NOT_FOUND);
    EXPECT_GUARD("mPortDelays.count(portId) == 0");
    for (const unsigned long id : {1, 2, 3, 4}) {
        EXPECT_EQ(regulator->releaseDownstreamWork(id), VX_OK);
    }
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
    size_t given = 0, leave = 0;
    VXError result = VX_OK;
    node->processHook = [&](Works inputs, Outputs* outputs) {
        given = inputs.size();
        *outputs = makeOutputs(leave);
        if (leave == 1 && result == VX_OK) outputs->front() = nullptr;
        return result;
    };
    const auto schedule = [&](Works works) {
        given = 0;
        give(std::move(works));
        return regulator->schedule();
    };
    EXPECT_EQ(schedule({makeInput(0)}), VX_OK);
    EXPECT_EQ(given, 0u);
    EXPECT_LOGS("[g.n.Regulator] Inputs(1) < BatchSize(4)");
    EXPECT_EQ(schedule({makeInput(1), makeInput(2, kEos)}), VX_OK);
    EXPECT_EQ(given, 3u);
    leave = 2;  // all three are handed out, beyond end of stream
    EXPECT_EQ(schedule({makeInput(0, kEos), makeInput(1), makeInput(2)}), VX_ERROR);
    EXPECT_EQ(given, 3u);
    EXPECT_LOGGED(ERROR, "[g.n.Regulator] onProcess returned only 2 works out of 3 !");
    EXPECT_EQ(received().size(), 0u);
    EXPECT_EQ(Counted::sAlive, 0);
    leave = 1;
    EXPECT_EQ(schedule({makeInput(0, kEos)}), VX_ERROR);
    EXPECT_LOGGED(ERROR, "[g.n.Regulator] Failed to notify completed works");
    result = VX_NOT_FOUND;
    EXPECT_EQ(schedule({makeInput(0, kEos)}), VX_OK);
    EXPECT_EQ(received().size(), 1u);
    EXPECT_LOGGED(ERROR, "[g.n.Regulator] Error: Node [g.n] failed to process !: 2");
    unsigned long ready = 0;
    EXPECT_FALSE(regulator->canScheduleWorks(nullptr));
    EXPECT_GUARD("nWorksReady == nullptr");
    give({nullptr});
    EXPECT_FALSE(regulator->canScheduleWorks(&ready));
    EXPECT_LOGS("canScheduleWorks: countAvailablePendingInputWorks returned error");
}

// Catches: index and id that do not count up, a null work that is numbered or sent, works on a
// second output port, a registration that accepts null; a release after the producer has gone that
// touches it or leaks the work, and an untracked work that is deleted.
TEST_F(RegulatorTest, FinishedWorksAreNumberedAndTrackedUntilTheirRelease) {
    LogCapture log;
    build(1, {{"n.out", 1}, {"n.second", 1}}, {"n.out", "n.second"});
    const auto second = std::make_shared<RecordingHandler>();
    ASSERT_EQ(node->outputPorts()[1]->connectTo(inputPort("second.in", second)), VX_OK);
    Outputs works = makeOutputs(2);
    for (const auto& work : works) work->frameInfo().index = 50;
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

    works = makeOutputs(1);
    works.push_back(nullptr);
    EXPECT_EQ(regulator->notifyCompletedWorks(std::move(works)), VX_NO_MEMORY);
    EXPECT_EQ(received().size(), 2u);
    EXPECT_LOGS("[g.n.Regulator] Failed to register completed work !");
    std::shared_ptr<VXSharedWork> tracked;
    const auto input = makeInput(0);
    EXPECT_EQ(regulator->registerDownstreamWork(std::make_unique<VXWork>(), nullptr), VX_BAD_VALUE);
    EXPECT_EQ(regulator->registerInputWork(nullptr, &tracked), VX_BAD_VALUE);
    EXPECT_EQ(regulator->registerInputWork(input, nullptr), VX_BAD_VALUE);
    EXPECT_EQ(regulator->registerInputWork(input, &tracked), VX_OK);
    EXPECT_EQ(tracked, input);
    EXPECT_GUARD("processedWork == nullptr", "sharedWork == nullptr", "workToDispatch == nullptr",
                 "inputWork == nullptr", "trackedInputWork == nullptr");

    regulator.reset();
    node.reset();
    EXPECT_EQ(Counted::sAlive, 2);
    log.clear();
    downstream->events.clear();
    EXPECT_EQ(Counted::sAlive, 0);
    EXPECT_EQ(log.count(ANDROID_LOG_ERROR, kTag, "Handler is gone !!!!"), 2);
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
    TestFactory<ScriptedNode> first("test/registry");
    TestFactory<CountingSource> second("test/registry");
    EXPECT_EQ(log.count(ANDROID_LOG_ERROR, kTag, "Register factory test/registry"), 2);
    EXPECT_EQ(VXNodeRegistry::RegisterFactory("test/other", nullptr), VX_ERROR);
    EXPECT_EQ(VXNodeRegistry::RegisterFactory("test/other", &first), VX_OK);
    std::vector<std::string> before, after = {"kept"};
    EXPECT_EQ(VXNodeRegistry::ListRegisteredNodeTypes(&before), VX_OK);
    EXPECT_EQ(VXNodeRegistry::ListRegisteredNodeTypes(nullptr), VX_ERROR);

    std::unique_ptr<VXNode> node;
    const auto create = [&](const std::string& type) {
        node.reset();
        return VXNodeRegistry::Create("g.a", describe(type, "a", {}, {}), &node);
    };
    EXPECT_EQ(create("test/registry"), VX_OK);
    EXPECT_NE(dynamic_cast<CountingSource*>(node.get()), nullptr);
    EXPECT_EQ(node->name(), "g.a");
    EXPECT_EQ(VXNodeRegistry::Create("g.a", nullptr, &node), VX_BAD_VALUE);
    EXPECT_EQ(VXNodeRegistry::Create("g.a", describe("test/x", "a", {}, {}), nullptr),
              VX_BAD_VALUE);
    static int runs = 0;  // an unknown type stays in the registry
    const std::string unknown = "test/unknown" + std::to_string(++runs);
    EXPECT_EQ(create(unknown), VX_ERROR);
    EXPECT_LOGGED(
        ERROR, "No factory available for " + unknown + " in " + std::to_string(before.size() + 1));
    EXPECT_EQ(VXNodeRegistry::ListRegisteredNodeTypes(&after), VX_OK);
    EXPECT_EQ(after.size(), before.size() + 2);
    EXPECT_EQ(after.front(), "kept");
    EXPECT_EQ(std::count(after.begin(), after.end(), unknown), 1);
    struct Empty : VXNodeBaseFactory {
        using VXNodeBaseFactory::VXNodeBaseFactory;
        void createNode(const std::string&, std::unique_ptr<VXNodeDescriptor>,
                        std::unique_ptr<VXNode>*) override {}
    } makesNone("test/empty");
    EXPECT_EQ(create("test/empty"), VX_ERROR);
}
