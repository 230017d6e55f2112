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
    using Script = std::function<void(ScriptedNode&)>;

    ~GraphTest() override { expectNothingLeft(); }

    // Lets the graph go, and begins another description.
    void expectNothingLeft() {
        graph.reset();
        EXPECT_EQ(ScriptedNode::sAlive, 0);
        EXPECT_EQ(Counted::sAlive, 0);
        info = {"g", {}, {}};
        listener = std::make_shared<GraphListener>();
    }
    std::shared_ptr<VXGraph> build() { return graph = VXGraph::BuildFromGraphInfo(info, listener); }
    // A node with ports "<name>.in" and "<name>.out", or without one or the other.
    void add(const std::string& name, bool input = true, bool output = true,
             const std::string& type = "test/node") {
        std::vector<std::string> in, out;
        if (input) in.push_back(name + ".in");
        if (output) out.push_back(name + ".out");
        info.nodes.push_back(describe(type, name, in, out));
    }
    void link(const std::string& from, const std::string& to) {
        info.connections[from + ".out"].push_back(to + ".in");
    }
    // source -> node... -> sink, called "n0", "n1"...
    void addChain(int length) {
        add("n0", false, true, "test/source");
        for (int i = 1; i < length; ++i) {
            add("n" + std::to_string(i), true, i + 1 < length);
            link("n" + std::to_string(i - 1), "n" + std::to_string(i));
        }
    }
    void script(const std::vector<std::string>& names, const Script& script) {
        for (const std::string& name : names) scripts["g." + name] = script;
    }
    void buildAndStart() {
        ASSERT_TRUE(graph != nullptr || build() != nullptr);
        ASSERT_EQ(graph->runAsync(), VX_OK);
    }
    // Builds, unless there is a graph, and runs to the end.
    void run() {
        ASSERT_NO_FATAL_FAILURE(buildAndStart());
        ASSERT_TRUE(listener->tally.waitFor("complete", 1, std::chrono::seconds(300)));
        ASSERT_EQ(graph->stop(), VX_OK);
    }
    using Texts = std::vector<std::string>;
    void expectHeard(const Texts& texts) { EXPECT_EQ(listener->tally.order(), texts); }

    std::shared_ptr<GraphListener> listener = std::make_shared<GraphListener>();
    std::map<std::string, Script> scripts;  // by full name
    uint64_t count = 10;
    Texts notes;  // of hooks that run on one thread
    VXGraphInfo info = {"g", {}, {}};
    std::shared_ptr<VXGraph> graph;

private:
    const Script mScript = [this](ScriptedNode& node) {
        const auto entry = scripts.find(node.name());
        if (entry != scripts.end()) entry->second(node);
    };
    TestFactory<ScriptedNode> mNodes{"test/node", mScript};
    TestFactory<ScriptedNode> mFences{"transform/fence", mScript};
    TestFactory<CountingSource> mSources{"test/source", [this](CountingSource& node) {
                                             node.count = count;
                                             mScript(node);
                                         }};
};

// ---- Construction -----------------------------------------------------------------------------

// Catches: nodes under wrong names, a wrong default allocator, a description that is changed beyond
// its descriptors, the fence flag taken from the connections instead of the order of description.
TEST_F(GraphTest, BuildsFromADescription) {
    LogCapture log;
    std::vector<ScriptedNode*> made;
    script({"a", "b", "f", "c"}, [&](ScriptedNode& node) {
        made.push_back(&node);
        node.setupHook = [&](bool beforeFence) {
            notes.push_back(node.name() + (beforeFence ? " before a fence" : ""));
            return VX_OK;
        };
    });
    add("a", false);
    add("b", true, false);
    add("f", true, false, "transform/fence");  // b, which comes before it, is not connected to it
    add("c", true, false);
    info.connections["a.out"] = {"f.in", "c.in"};
    ASSERT_NE(build(), nullptr);
    EXPECT_EQ(info.nodes.size(), 4u);
    EXPECT_EQ(info.nodes[0], nullptr);
    EXPECT_EQ(info.name, "g");
    EXPECT_EQ(info.connections.size(), 1u);
    EXPECT_EQ(notes, (Texts{"g.a", "g.b before a fence", "g.f", "g.c"}));
    for (const auto* node : made) EXPECT_EQ(node->allocatorType(), "xcodec2");
    const auto& down = made[0]->outputPorts()[0]->downstreamPorts();
    ASSERT_EQ(down.size(), 2u);
    EXPECT_EQ(down.front()->name(), "f.in");
    EXPECT_EQ(graph->sort(), VX_OK);
    EXPECT_EQ(graph->onEvent(nullptr), VX_BAD_VALUE);
    for (const char* text : {"Builder: Build graph 4", "Preferred allocator = any",
                             "connect a.out -> f.in", "connect a.out -> c.in"}) {
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
    const auto allocators = [](const std::vector<std::string>& types) {
        return [types](ScriptedNode& node) { node.allocators = types; };
    };
    const struct {
        std::function<void()> describe;
        std::string heard;  // by the listener
        std::string logged;
    } rows[] = {
        {[&] { add("b", true, true, "test/nowhere"); }, "NODE_NOT_FOUND",
         "Failed to create a node"},
        {[&] { info.nodes.push_back(nullptr); }, "NODE_NOT_FOUND", "Failed to create a node"},
        {[&] {
             script({"b"}, [](ScriptedNode& n) { n.setupHook = [](bool) { return VX_ERROR; }; });
             add("b");
         },
         "NODE_FAIL_INIT", "Failed to setup node[g.b]"},
        {[&] { link("a", "nowhere"); }, "GRAPH_BUILD_FAIL", "Connect failed"},
        {[&] {
             add("b");
             info.nodes.back()->inputPorts[0].format = "test/other";
             link("a", "b");
         },
         "GRAPH_BUILD_FAIL", "Connect failed"},
        {[&] {
             script({"b"}, allocators({}));
             add("b");
         },
         "", "Node: g.b does not list preferred allocators !"},
        {[&] {
             script({"b"}, allocators({"dmabuf"}));
             script({"c"}, allocators({"xcodec2"}));
             add("b");
             add("c");
         },
         "", "No compatible allocator found !"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.logged);
        LogCapture log;
        scripts.clear();
        add("a");
        row.describe();
        EXPECT_EQ(build(), nullptr);
        EXPECT_LOGGED(ERROR, row.logged);
        expectHeard(row.heard.empty() ? Texts() : Texts{"error " + row.heard});
        EXPECT_EQ(log.count("Notifying Error: " + row.heard), row.heard.empty() ? 0 : 1);
        expectNothingLeft();
    }
    listener.reset();  // a listener that has gone silences only itself
    add("a", true, true, "test/nowhere");
    EXPECT_EQ(build(), nullptr);
}

// Catches: ranks that are summed, ties that go to the later one, a wrapped product that lets in a
// type which a node refuses.
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

// ---- Execution --------------------------------------------------------------------------------

// Catches: nodes started or stopped in a wrong order, a run that ends before every sink is done, an
// end that is reported late or twice, a stop of a graph that does not run that ends a later run.
TEST_F(GraphTest, RunsToTheEndOfEverySink) {
    LogCapture log;
    script({"n0", "n1", "n2"}, [this](ScriptedNode& n) {
        n.startHook = [this, &n] { return notes.push_back("start " + n.name()), VX_OK; };
        n.stopHook = [this, &n] { return notes.push_back("stop " + n.name()), VX_OK; };
    });
    count = 1000;  // so that a run which ends too soon has not come to the last one
    addChain(3);
    ASSERT_NE(build(), nullptr);
    EXPECT_EQ(graph->stop(), VX_OK);
    run();
    EXPECT_EQ(notes, (Texts{"start g.n2", "start g.n1", "start g.n0", "stop g.n0", "stop g.n1",
                            "stop g.n2"}));
    expectHeard({"complete"});
    EXPECT_LOGS("Completion event received ", "Wait for completion. Done!!");
    EXPECT_EQ(log.count("Handle Stop"), 2);  // the run's end, and stop()
    EXPECT_EQ(log.count("Received Error") + log.count("Notifying Error"), 0);
}

// Catches: one completion that ends a run of two sinks, and errors that are reported in a wrong
// order.
TEST_F(GraphTest, TwoSinksCompleteOneByOne) {
    std::map<std::string, ScriptedNode*> nodes;
    script({"a", "b"}, [&](ScriptedNode& n) { nodes[n.name()] = &n; });
    add("a", true, false);
    add("b", true, false);
    LogCapture log;
    buildAndStart();
    ASSERT_TRUE(log.waitFor("[g.a] Started.."));  // the last to start
    nodes["g.a"]->signalError(VX_OK, "only reported");
    nodes["g.a"]->signalComplete();
    ASSERT_TRUE(log.waitFor("Completion event received "));
    EXPECT_EQ(listener->tally.count("complete"), 0);
    nodes["g.b"]->signalComplete();
    ASSERT_TRUE(listener->tally.waitFor("complete"));
    EXPECT_EQ(graph->stop(), VX_OK);
    expectHeard({"error only reported", "complete"});
}

// Catches: a failed start, a completion or a stop that is lost because it comes before the run
// waits, or a failed start that keeps other nodes from being started and stopped.
TEST_F(GraphTest, WhatComesDuringTheStartEndsTheRun) {
    for (int round = 0; round < scaled(1500); ++round) {
        const bool fails = round % 3 == 0, completes = round % 3 == 1;  // else it is stopped
        std::atomic<int> starts{0}, stops{0};
        script({"a", "b", "c"}, [&](ScriptedNode& n) {
            n.startHook = [&] {
                ++starts;
                if (completes) n.signalComplete();
                return fails && n.name() == "g.b" ? VX_ERROR : VX_OK;
            };
            n.stopHook = [&] { return ++stops, VX_OK; };
        });
        for (const char* name : {"a", "b", "c"}) add(name, true, fails && *name == 'b');
        buildAndStart();
        ASSERT_TRUE(!(fails || completes) || listener->tally.waitFor("complete"));
        ASSERT_EQ(graph->stop(), VX_OK);
        ASSERT_EQ(starts, 3);
        ASSERT_EQ(stops, 3);
        ASSERT_EQ(listener->tally.order(),
                  fails ? Texts({"error NODE_FAIL_ASYNC", "complete"}) : Texts{"complete"})
            << round;
        expectNothingLeft();
    }
}

// Catches: a graph without sinks that waits forever, a wait for nothing that does.
TEST_F(GraphTest, NothingToWaitFor) {
    add("a");
    run();
    expectHeard({"complete"});
    graph->waitForComplete(0);
    // Waiters of its own: each wake-up ends one of them.
    std::thread waiter([this] { graph->waitForComplete(2); });
    std::atomic<bool> over{false};
    std::thread waker([&] {
        while (!over) graph->onComplete();
    });
    waiter.join();
    over = true;
    waker.join();
}

// Catches: an error that leaves the run waiting, or reaches the listener after the end; a deadlock
// or a use after free when the application lets the graph go inside a call of the listener, on the
// graph's or a node's thread.
TEST_F(GraphTest, ListenerMayDropTheGraph) {
    LogCapture log;
    const std::string failure = "Node [g.n1] failed to process !";
    for (int round = 0; round < scaled(100); ++round) {
        const bool onError = round % 2 == 0;
        Tally gone;
        script({"n1"}, [&](ScriptedNode& n) {
            if (onError) n.processHook = [](Works, Outputs*) { return VX_ERROR; };
        });
        // The last node to be destroyed shows that the graph has gone.
        script({"n0"}, [&](ScriptedNode& n) {
            n.drainHook =
                [last = std::shared_ptr<void>(nullptr, [&gone](void*) { gone.hit("gone"); })] {};
        });
        addChain(3);
        ASSERT_NE(build(), nullptr);
        const std::weak_ptr<VXGraph> watch = graph;
        const auto drop = [&] { std::exchange(graph, nullptr); };
        (onError ? listener->onError : listener->onComplete) = drop;
        ASSERT_EQ(graph->runAsync(), VX_OK);
        ASSERT_TRUE(listener->tally.waitFor("complete"));
        ASSERT_TRUE(gone.waitFor("gone"));
        EXPECT_EQ(listener->tally.order().front(), onError ? "error " + failure : "complete");
        EXPECT_TRUE(watch.expired());
        expectNothingLeft();
    }
    EXPECT_GE(log.count("Received Error: " + failure), 1);
}

// ---- Load -------------------------------------------------------------------------------------

// Catches: a work lost, doubled, out of order or with another's payload, a branch of a fan-out that
// misses works or holds up the others.
TEST_F(GraphTest, EveryBranchGetsEveryWorkInOrder) {
    count = scaled(100000);
    std::atomic<uint64_t> seen[3] = {}, wrong{0};
    const auto sink = [&](int branch) {
        return [&, branch](ScriptedNode& n) {
            n.processHook = [&, branch](Works inputs, Outputs*) {
                for (const auto& input : inputs) {
                    const auto payload = input->payload<Counted>();
                    const uint64_t expected = seen[branch]++;
                    wrong += payload == nullptr || payload->value != expected ||
                             input->frameInfo().index != expected;
                    if (input->frameInfo().flags & VXFrameInfo::FLAG_END_OF_STREAM) {
                        n.signalComplete();
                    }
                }
                return VX_OK;
            };
        };
    };
    addChain(5);
    add("s1", true, false);
    add("s2", true, false);
    link("n0", "s1");
    link("n0", "s2");
    script({"n4"}, sink(0));
    script({"s1"}, sink(1));
    script({"s2"}, sink(2));
    run();
    for (const auto& works : seen) EXPECT_EQ(works, count);
    EXPECT_EQ(wrong, 0u);
}

// Catches: a thread, descriptor, node or work left behind by a life from build to destruction.
TEST_F(GraphTest, LivesLeaveNothingBehind) {
    std::thread([] {}).join();  // ThreadSanitizer starts a thread of its own beside the first one
    const int threads = entriesOf("/proc/self/task");
    const int descriptors = entriesOf("/proc/self/fd");
    for (int round = 0; round < scaled(200); ++round) {
        addChain(4);
        run();
        expectNothingLeft();
        // A joined thread may stand in the list for a moment longer.
        const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (entriesOf("/proc/self/task") > threads && std::chrono::steady_clock::now() < limit) {
            std::this_thread::yield();
        }
        ASSERT_LE(entriesOf("/proc/self/task"), threads);
        ASSERT_EQ(entriesOf("/proc/self/fd"), descriptors);
    }
}

// Catches: a race between flowing works and what other threads throw in: flushes, delays, errors
// that are only reported, finished works from outside, and at last a stop.
TEST_F(GraphTest, InterferenceFromManyThreads) {
    count = UINT64_MAX;  // flows until it is stopped
    std::map<std::string, ScriptedNode*> nodes;
    std::atomic<uint64_t> flowed{0};
    Tally tally;
    script({"n1", "n2", "n3"}, [&](ScriptedNode& n) {
        nodes[n.name()] = &n;
        if (n.name() != "g.n3") return;
        n.processHook = [&](Works inputs, Outputs*) {
            if ((flowed += inputs.size()) % 100 < inputs.size()) tally.hit("hundred");
            return VX_OK;
        };
    });
    addChain(4);
    buildAndStart();
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
