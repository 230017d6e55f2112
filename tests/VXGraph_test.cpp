#include <VXGraph.h>
#include <dirent.h>
#include <gtest/gtest.h>

#include <thread>

#include "support/LogCapture.h"
#include "support/Scale.h"
#include "support/TestNodes.h"

using namespace vexa;
using Works = ScriptedNode::Works;
using Outputs = ScriptedNode::Outputs;

static constexpr char kTag[] = "Vexa:VXGraph";

static int entriesOf(const char* path) {
    int entries = 0;
    DIR* dir = opendir(path);
    while (readdir(dir) != nullptr) ++entries;
    closedir(dir);
    return entries;
}

// Graphs of scripted nodes. Each test puts in what the nodes shall do, by node name.
class GraphTest : public testing::Test {
protected:
    void TearDown() override {
        graph.reset();
        EXPECT_EQ(ScriptedNode::sAlive, 0);
        EXPECT_EQ(Counted::sAlive, 0);
    }
    std::shared_ptr<VXGraph> build() {
        graph = VXGraph::BuildFromGraphInfo(info, listener);
        return graph;
    }
    // A node with ports "<name>.in" and "<name>.out", as many as told.
    void add(const std::string& name, int inputs = 1, int outputs = 1,
             const std::string& type = "test/node") {
        std::vector<std::string> in, out;
        for (int i = 0; i < inputs; ++i)
            in.push_back(name + ".in" + (i > 0 ? std::to_string(i) : ""));
        for (int i = 0; i < outputs; ++i) {
            out.push_back(name + ".out" + (i > 0 ? std::to_string(i) : ""));
        }
        info.nodes.push_back(describe(type, name, in, out));
    }
    void link(const std::string& from, const std::string& to) {
        info.connections[from + ".out"].push_back(to + ".in");
    }
    // source -> node... -> sink
    void addChain(int length) {
        add("n0", 0, 1, "test/source");
        for (int i = 1; i < length; ++i) {
            add("n" + std::to_string(i), 1, i + 1 < length ? 1 : 0);
            link("n" + std::to_string(i - 1), "n" + std::to_string(i));
        }
    }
    // Builds and runs to the end.
    void run() {
        ASSERT_NE(build(), nullptr);
        ASSERT_EQ(graph->runAsync(), VX_OK);
        ASSERT_TRUE(listener->tally.waitFor("complete", 1, std::chrono::seconds(300)));
        ASSERT_EQ(graph->stop(), VX_OK);
    }

    std::shared_ptr<GraphListener> listener = std::make_shared<GraphListener>();
    std::map<std::string, std::function<void(ScriptedNode&)>> scripts;
    uint64_t count = 10;
    std::mutex notesLock;
    std::vector<std::string> notes;
    void note(const std::string& what) {
        std::lock_guard<std::mutex> lock(notesLock);
        notes.push_back(what);
    }

    VXGraphInfo info = {"g", {}, {}};
    std::shared_ptr<VXGraph> graph;

private:
    void script(ScriptedNode& node) {
        const auto entry = scripts.find(node.name());
        if (entry != scripts.end()) entry->second(node);
    }
    TestFactory<ScriptedNode> mNodes{"test/node", [this](ScriptedNode& n) { script(n); }};
    TestFactory<ScriptedNode> mFences{"transform/fence", [this](ScriptedNode& n) { script(n); }};
    TestFactory<CountingSource> mSources{"test/source", [this](CountingSource& n) {
                                             n.count = count;
                                             script(n);
                                         }};
};

// ---- Construction -----------------------------------------------------------------------------

// Catches: nodes under wrong names, a wrong default allocator, a description that is changed beyond
// its descriptors.
TEST_F(GraphTest, BuildsFromADescription) {
    LogCapture log;
    std::vector<ScriptedNode*> made;
    for (const char* name : {"g.a", "g.b", "g.c"}) {
        scripts[name] = [&](ScriptedNode& node) { made.push_back(&node); };
    }
    add("a", 0);
    add("b", 1, 0);
    add("c", 1, 0);
    info.connections["a.out"] = {"b.in", "c.in"};
    ASSERT_NE(build(), nullptr);
    EXPECT_EQ(info.nodes.size(), 3u);
    EXPECT_EQ(info.nodes[0], nullptr);
    EXPECT_EQ(info.name, "g");
    EXPECT_EQ(info.connections.size(), 1u);
    ASSERT_EQ(made.size(), 3u);
    for (const auto* node : made) EXPECT_EQ(node->allocatorType(), "xcodec2");
    const auto& down = made[0]->outputPorts()[0]->downstreamPorts();
    ASSERT_EQ(down.size(), 2u);
    EXPECT_EQ(down.front()->name(), "b.in");
    EXPECT_EQ(graph->sort(), VX_OK);
    for (const char* text : {"Builder: Build graph 3", "Preferred allocator = any",
                             "connect a.out -> b.in", "connect a.out -> c.in"}) {
        EXPECT_LOGGED(DEBUG, text) << text;
    }
    EXPECT_EQ(log.count("Connect success"), 2);

    VXGraphInfo nothing = {"empty", {}, {}};
    const auto empty = VXGraph::BuildFromGraphInfo(nothing, listener);
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(empty->sort(), VX_NOT_FOUND);
}

// Catches: a failed build that yields a graph, a listener that hears nothing, too much, or a wrong
// name, nodes that stay behind.
TEST_F(GraphTest, FailedBuildsSayWhy) {
    struct Row {
        const char* what;
        std::function<void()> describe;
        const char* heard;  // by the listener
        const char* logged;
    };
    const Row rows[] = {
        {"unknown type", [&] { add("a", 0, 0, "test/nowhere"); }, "error NODE_NOT_FOUND",
         "Failed to create a node"},
        {"null descriptor", [&] { info.nodes.push_back(nullptr); }, "error NODE_NOT_FOUND",
         "Failed to create a node"},
        {"set-up fails",
         [&] {
             scripts["g.b"] = [](ScriptedNode& n) {
                 n.setupHook = [](bool) { return VX_NO_MEMORY; };
             };
             add("b");
         },
         "error NODE_FAIL_INIT", "Failed to setup node[g.b]"},
        {"no such port", [&] { info.connections["a.out"] = {"nobody.in"}; },
         "error GRAPH_BUILD_FAIL", "Connect failed"},
        {"formats differ",
         [&] {
             add("b");
             info.nodes.back()->inputPorts[0].format = "test/other";
             link("a", "b");
         },
         "error GRAPH_BUILD_FAIL", "Connect failed"},
        {"no allocators",
         [&] {
             scripts["g.b"] = [](ScriptedNode& n) { n.allocators = {}; };
             add("b");
         },
         nullptr, "Node: g.b does not list preferred allocators !"},
        {"allocators that exclude each other",
         [&] {
             scripts["g.b"] = [](ScriptedNode& n) { n.allocators = {"dmabuf"}; };
             scripts["g.c"] = [](ScriptedNode& n) { n.allocators = {"xcodec2"}; };
             add("b");
             add("c");
         },
         nullptr, "No compatible allocator found !"},
    };
    for (const Row& row : rows) {
        LogCapture log;
        listener = std::make_shared<GraphListener>();
        info = {"g", {}, {}};
        scripts.clear();
        add("a");
        row.describe();
        EXPECT_EQ(build(), nullptr) << row.what;
        EXPECT_LOGGED(ERROR, row.logged) << row.what;
        EXPECT_EQ(listener->order.size(), row.heard != nullptr ? 1u : 0u) << row.what;
        if (row.heard != nullptr) {
            EXPECT_EQ(listener->order.back(), row.heard) << row.what;
            EXPECT_EQ(log.count(std::string("Notifying Error: ") + (row.heard + 6)), 1) << row.what;
        }
        EXPECT_EQ(ScriptedNode::sAlive, 0) << row.what;
    }
    listener.reset();  // a listener that has gone silences only itself
    info = {"g", {}, {}};
    add("a", 0, 0, "test/nowhere");
    EXPECT_EQ(build(), nullptr);
}

// Catches: ranks that are summed, ties that go to the later one, a wrapped product that lets in a type
// which a node refuses.
TEST_F(GraphTest, AllocatorWithTheSmallestProductOfRanks) {
    using Lists = std::vector<std::vector<std::string>>;
    const std::vector<std::string> ten = {"1", "2", "3", "4", "5", "6", "7", "8", "9", "x"};
    Lists refusers(40, {"x"});  // their ranks for "y" wrap 64 bits
    refusers.insert(refusers.begin(), {"y"});
    const std::pair<Lists, std::string> rows[] = {
        {{}, "any"},
        {{{"any"}, {"dmabuf", "any"}}, "any"},
        {{{"dmabuf", "xcodec2"}, {"any"}, {"xcodec2", "dmabuf"}}, "dmabuf"},
        {{{"a", "b"}, {"b", "a"}, {"b", "a"}}, "b"},
        {{{"a", "b"}, {"c", "b"}}, "b"},
        {{{"a", "b", "c"}, {"c", "any"}}, "a"},                 // a 1x1 through "any", c 3x1
        {{{"a", "b"}, {"b", "c", "a"}, {"c", "b", "a"}}, "b"},  // sums 7 and 5, products 9 and 4
        {{{"a"}, {"b"}}, ""},
        {{{"any"}, {}}, ""},
        {{{"a"}, {}}, ""},
        {Lists(9, ten), "1"},
        {refusers, ""},
    };
    for (const auto& [lists, expected] : rows) {
        std::vector<std::unique_ptr<VXNode>> nodes;
        for (const auto& list : lists) {
            auto node = std::make_unique<ScriptedNode>("n", nullptr);
            node->allocators = list;
            nodes.push_back(std::move(node));
        }
        VXGraph::Builder builder(info, listener);
        EXPECT_EQ(builder.getPreferredAllocator(nodes), expected);
        nodes.insert(nodes.begin(), nullptr);
        EXPECT_EQ(builder.getPreferredAllocator(nodes), "");
    }
}

// Catches: the fence flag taken from the connections instead of the order of description.
TEST_F(GraphTest, FenceFlagLooksAtTheNextNodeDescribed) {
    for (const char* name : {"g.a", "g.b", "g.f", "g.c"}) {
        scripts[name] = [this](ScriptedNode& n) {
            n.setupHook = [this, &n](bool flag) {
                note(n.name() + (flag ? " true" : " false"));
                return VX_OK;
            };
        };
    }
    add("a");
    add("b");
    add("f", 1, 1, "transform/fence");
    add("c");
    link("a", "f");  // b, which comes before it, is not connected to it
    ASSERT_NE(build(), nullptr);
    EXPECT_EQ(notes, (std::vector<std::string>{"g.a false", "g.b true", "g.f false", "g.c false"}));
}

// ---- Execution --------------------------------------------------------------------------------

// Catches: nodes started or stopped in a wrong order, a run that ends before every sink is done, an
// end that is told late or twice.
TEST_F(GraphTest, RunsToTheEndOfEverySink) {
    LogCapture log;
    for (const char* name : {"g.n0", "g.n1", "g.n2"}) {
        scripts[name] = [this](ScriptedNode& n) {
            n.startHook = [this, &n] {
                note("start " + n.name());
                return VX_OK;
            };
            n.stopHook = [this, &n] {
                note("stop " + n.name());
                return VX_OK;
            };
        };
    }
    addChain(3);
    run();
    EXPECT_EQ(notes, (std::vector<std::string>{"start g.n2", "start g.n1", "start g.n0",
                                               "stop g.n0", "stop g.n1", "stop g.n2"}));
    EXPECT_EQ(listener->order, std::vector<std::string>{"complete"});
    EXPECT_EQ(log.count("Completion event received "), 1);
    EXPECT_EQ(log.count("Wait for completion. Done!!"), 1);
    EXPECT_EQ(log.count("Handle Stop"), 2);  // the run's end, and stop()
    EXPECT_EQ(log.count("Received Error") + log.count("Notifying Error"), 0);
}

// Catches: one completion that ends a run of two sinks, and errors that are told in a wrong order.
TEST_F(GraphTest, TwoSinksCompleteOneByOne) {
    VXNode* nodes[2] = {};
    scripts["g.a"] = [&](ScriptedNode& n) { nodes[0] = &n; };
    scripts["g.b"] = [&](ScriptedNode& n) { nodes[1] = &n; };
    add("a", 1, 0);
    add("b", 1, 0);
    ASSERT_NE(build(), nullptr);
    LogCapture log;
    ASSERT_EQ(graph->runAsync(), VX_OK);
    ASSERT_TRUE(log.waitFor("[g.a] Started.."));  // the last to start
    nodes[0]->signalError(VX_OK, "only told");
    nodes[0]->signalComplete();
    ASSERT_TRUE(log.waitFor("Completion event received "));
    EXPECT_EQ(listener->tally.count("complete"), 0);
    nodes[1]->signalComplete();
    ASSERT_TRUE(listener->tally.waitFor("complete"));
    EXPECT_EQ(graph->stop(), VX_OK);
    EXPECT_EQ(listener->order, (std::vector<std::string>{"error only told", "complete"}));
}

// Catches: an error that leaves the run waiting, or reaches the listener after the end.
TEST_F(GraphTest, ErrorsEndTheRun) {
    LogCapture log;
    scripts["g.n1"] = [](ScriptedNode& n) {
        n.processHook = [](Works, Outputs*) { return VX_INCOMPATIBLE; };
    };
    addChain(3);
    ASSERT_NE(build(), nullptr);
    ASSERT_EQ(graph->runAsync(), VX_OK);
    ASSERT_TRUE(listener->tally.waitFor("complete"));
    ASSERT_EQ(graph->stop(), VX_OK);
    EXPECT_EQ(listener->order.front(), "error Node [g.n1] failed to process !");
    EXPECT_GE(log.count("Received Error: Node [g.n1] failed to process !"), 1);
}

// Catches: a failed start that is lost because nobody waits yet, or that keeps other nodes from being
// started and stopped.
TEST_F(GraphTest, FailedStartsEndTheRun) {
    for (int round = 0; round < scaled(100); ++round) {
        info = {"g", {}, {}};
        listener = std::make_shared<GraphListener>();
        std::atomic<int> starts{0}, stops{0};
        for (const char* name : {"g.a", "g.b", "g.c"}) {
            const bool fails = name == std::string("g.b");
            scripts[name] = [&, fails](ScriptedNode& n) {
                n.startHook = [&, fails] {
                    ++starts;
                    return fails ? VX_ERROR : VX_OK;
                };
                n.stopHook = [&] {
                    ++stops;
                    return VX_OK;
                };
            };
        }
        add("a", 0);
        add("b");
        add("c", 1, 0);
        run();
        ASSERT_EQ(starts, 3);
        ASSERT_EQ(stops, 3);
        ASSERT_EQ(listener->order, (std::vector<std::string>{"error NODE_FAIL_ASYNC", "complete"}));
    }
}

// Catches: a graph without sinks that waits for ever, a wait for nothing that does.
TEST_F(GraphTest, NothingToWaitFor) {
    add("a");
    run();
    EXPECT_EQ(listener->order, std::vector<std::string>{"complete"});
    graph->waitForComplete(0);
    // Waiters of its own: each wake-up ends one, whoever waits.
    std::thread waiter([this] { graph->waitForComplete(2); });
    Tally done;
    std::thread waker([&] {
        while (done.count("over") == 0) graph->onComplete();
    });
    waiter.join();
    done.hit("over");
    waker.join();
}

// Catches: a stop lost because it comes before the run waits: 500 runs that nothing else would end.
TEST_F(GraphTest, StopRightAfterTheStartEndsTheRun) {
    for (int round = 0; round < scaled(500); ++round) {
        info = {"g", {}, {}};
        listener = std::make_shared<GraphListener>();
        add("a", 1, 0);
        add("b", 1, 0);
        ASSERT_NE(build(), nullptr);
        ASSERT_EQ(graph->runAsync(), VX_OK);
        ASSERT_EQ(graph->stop(), VX_OK);
        ASSERT_EQ(listener->order, std::vector<std::string>{"complete"}) << round;
    }
}

// Catches: a completion lost because it comes while nodes are still being started.
TEST_F(GraphTest, CompletionInsideStartEndsTheRun) {
    for (const char* name : {"g.a", "g.b", "g.c"}) {
        scripts[name] = [](ScriptedNode& n) { n.startHook = [&n] { return n.signalComplete(); }; };
    }
    for (int round = 0; round < scaled(500); ++round) {
        info = {"g", {}, {}};
        listener = std::make_shared<GraphListener>();
        for (const char* name : {"a", "b", "c"}) add(name, 1, 0);
        run();
        ASSERT_EQ(listener->order, std::vector<std::string>{"complete"}) << round;
    }
}

// Catches: a deadlock or a use after free when the application lets the graph go inside a call of the
// listener, on the graph's or a node's thread.
TEST_F(GraphTest, ListenerMayDropTheGraph) {
    for (const bool onError : {false, true}) {
        for (int round = 0; round < scaled(50); ++round) {
            info = {"g", {}, {}};
            listener = std::make_shared<GraphListener>();
            std::weak_ptr<VXGraph> watch;
            Tally gone;
            scripts["g.n1"] = [&](ScriptedNode& n) {
                if (!onError) return;
                n.processHook = [](Works, Outputs*) { return VX_ERROR; };
            };
            // The last node to be destroyed tells that the graph has gone.
            scripts["g.n0"] = [&](ScriptedNode& n) {
                std::shared_ptr<void> tell(nullptr, [&gone](void*) { gone.hit("gone"); });
                n.drainHook = [tell] {};
            };
            addChain(3);
            ASSERT_NE(build(), nullptr);
            watch = graph;
            auto drop = [&] { std::exchange(graph, nullptr); };
            (onError ? listener->onError : listener->onComplete) = drop;
            ASSERT_EQ(graph->runAsync(), VX_OK);
            ASSERT_TRUE(listener->tally.waitFor("complete"));
            ASSERT_TRUE(gone.waitFor("gone"));
            EXPECT_TRUE(watch.expired());
        }
    }
}

// ---- Load -------------------------------------------------------------------------------------

// What a sink saw: every index once, in order, with its own payload.
struct Sequence {
    std::atomic<uint64_t> seen{0};
    std::atomic<uint64_t> wrong{0};
    void check(const VXSharedWork& work) {
        const auto payload = work.payload<Counted>();
        const bool right =
            payload != nullptr && payload->value == seen && work.frameInfo().index == seen;
        if (!right) ++wrong;
        ++seen;
    }
    // Has `sink` check each work, and complete at the end of the stream.
    void watch(ScriptedNode& sink) {
        sink.processHook = [this, &sink](Works inputs, Outputs*) {
            for (const auto& input : inputs) {
                check(*input);
                if (input->frameInfo().flags & VXFrameInfo::FLAG_END_OF_STREAM)
                    sink.signalComplete();
            }
            return VX_OK;
        };
    }
};

// Catches: a work lost, doubled or out of order, and a payload that stays behind.
TEST_F(GraphTest, ChainOfFiveKeepsEveryWork) {
    count = scaled(100000);
    Sequence sequence;
    scripts["g.n4"] = [&](ScriptedNode& n) { sequence.watch(n); };
    addChain(5);
    run();
    EXPECT_EQ(sequence.seen, count);
    EXPECT_EQ(sequence.wrong, 0u);
}

// Catches: a branch of a fan-out that misses works or holds up the others.
TEST_F(GraphTest, FanOutReachesEveryBranch) {
    count = scaled(20000);
    Sequence sequences[3];
    add("n0", 0, 1, "test/source");
    for (int i = 0; i < 3; ++i) {
        const std::string name = "s" + std::to_string(i);
        scripts["g." + name] = [&sequences, i](ScriptedNode& n) { sequences[i].watch(n); };
        add(name, 1, 0);
        link("n0", name);
    }
    run();
    for (const Sequence& sequence : sequences) {
        EXPECT_EQ(sequence.seen, count);
        EXPECT_EQ(sequence.wrong, 0u);
    }
}

// Catches: a thread, descriptor, node or work left behind by a life from build to destruction.
TEST_F(GraphTest, LivesLeaveNothingBehind) {
    std::thread([] {}).join();  // ThreadSanitizer starts a thread of its own beside the first one
    const int threads = entriesOf("/proc/self/task");
    const int descriptors = entriesOf("/proc/self/fd");
    for (int round = 0; round < scaled(200); ++round) {
        info = {"g", {}, {}};
        listener = std::make_shared<GraphListener>();
        addChain(4);
        run();
        graph.reset();
        ASSERT_EQ(ScriptedNode::sAlive, 0);
        ASSERT_EQ(Counted::sAlive, 0);
        // A joined thread may stand in the list for a moment longer.
        const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (entriesOf("/proc/self/task") > threads && std::chrono::steady_clock::now() < limit) {
            std::this_thread::yield();
        }
        ASSERT_LE(entriesOf("/proc/self/task"), threads);
        ASSERT_EQ(entriesOf("/proc/self/fd"), descriptors);
    }
}

// Catches: a race between flowing works and what other threads throw in: flushes, delays, errors that
// are only told, finished works from outside, and at last a stop.
TEST_F(GraphTest, InterferenceFromManyThreads) {
    count = UINT64_MAX;  // flows until it is stopped
    std::map<std::string, ScriptedNode*> nodes;
    for (const char* name : {"g.n0", "g.n1", "g.n2", "g.n3"}) {
        scripts[name] = [&nodes](ScriptedNode& n) { nodes[n.name()] = &n; };
    }
    std::atomic<uint64_t> flowed{0};
    Tally tally;
    scripts["g.n3"] = [&](ScriptedNode& n) {
        nodes[n.name()] = &n;
        n.processHook = [&](Works inputs, Outputs*) {
            if ((flowed += inputs.size()) % 100 < inputs.size()) tally.hit("hundred");
            return VX_OK;
        };
    };
    addChain(4);
    ASSERT_NE(build(), nullptr);
    ASSERT_EQ(graph->runAsync(), VX_OK);
    ASSERT_TRUE(tally.waitFor("hundred"));

    const int rounds = scaled(300);
    std::vector<std::thread> throwers;
    throwers.emplace_back([&] {
        for (int i = 0; i < rounds; ++i) nodes["g.n1"]->inputPorts()[0]->flush();
    });
    throwers.emplace_back([&] {
        for (int i = 0; i < rounds; ++i) {
            nodes["g.n3"]->setTotalDelay(i % 7);
            nodes["g.n2"]->setInputDelay(i % 3);
        }
        nodes["g.n3"]->setTotalDelay(1);
    });
    throwers.emplace_back([&] {
        for (int i = 0; i < rounds; ++i) {
            nodes["g.n2"]->signalError(VX_OK, "thrown in");
            Outputs extra;
            extra.push_back(std::make_unique<VXWork>());
            nodes["g.n1"]->returnWorks(std::move(extra));
        }
    });
    for (auto& thrower : throwers) thrower.join();
    const int before = tally.count("hundred");
    EXPECT_TRUE(tally.waitFor("hundred", before + 3));  // works still flow after all of it
    EXPECT_TRUE(listener->tally.waitFor("error thrown in", rounds));
    EXPECT_EQ(graph->stop(), VX_OK);
    EXPECT_EQ(listener->tally.count("complete"), 1);
}
