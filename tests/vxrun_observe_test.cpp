// How vxrun ends, and what it tells about a run on the way: snapshots, progress, traces, checks.
#include <Evidence.h>
#include <sys/stat.h>

#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "support/TestNodes.h"
#include "support/Vxrun.h"

namespace {

using namespace vxrun_test;
using Json = nlohmann::json;

class VxrunObserved : public Vxrun {
protected:
    // A pipe that holds `content` and never ends, as long as the test has it open.
    int makePipe(const std::string& content) const {
        EXPECT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
        const int writer = open(path("pipe").c_str(), O_RDWR | O_CLOEXEC);
        EXPECT_EQ(write(writer, content.data(), content.size()), ssize_t(content.size()));
        return writer;
    }
    // The first frame, and the start of another that never comes.
    static std::string frameAndAHalf() { return y4m("W6 H4", 36, 1) + "FRAME\n"; }

    // Asks `process` for snapshots until one says `text`; false when none ever does.
    static bool askUntil(Process& process, const std::string& text) {
        constexpr int kEnough = 20000;
        for (int i = 0; i < kEnough && process.err.find(text) == std::string::npos; ++i) {
            process.err.clear();
            process.kill(SIGUSR1);
            if (!process.waitForError("  pool of 'reader': ")) return false;
        }
        return process.err.find(text) != std::string::npos;
    }

    // The ends of the names of the pictures in `folder`, behind their time.
    static std::set<std::string> reasons(const std::string& folder) {
        std::set<std::string> found;
        for (const auto& entry : std::filesystem::directory_iterator(folder)) {
            const std::string name = entry.path().filename();
            EXPECT_EQ(name.rfind("0.00.", 0), 0u) << name;
            found.insert(name.substr(name.find('-')));
        }
        return found;
    }
};

// Catches: a way to end with a wrong exit code or verdict, one that hangs or crashes, one that passes
// without evidence; trouble without a snapshot; a signal or time-out that does not stop in order.
TEST_F(VxrunObserved, EveryWayToEnd) {
    makeClip();
    const std::string clip = contentOf(path("clip.y4m"));
    const std::string list = contentOf(path("clip.framemd5"));
    writeFile(path("cut.y4m"), clip.substr(0, clip.size() - 1));
    writeFile(path("bad.framemd5"), replaced(list, "36, ", "37, "));
    const std::string lastRow = list.substr(list.rfind("\n0,") + 1);
    writeFile(path("short.framemd5"), replaced(list, lastRow, ""));
    writeFile(path("long.framemd5"), list + lastRow);
    writeFile(path("alpha.y4m"), "YUV4MPEG2 W6 H4 C444alpha\n");
    const int writer = makePipe("");
    const std::string text = contentOf(endless());
    writeFile(path("endless.json"), text);
    struct Case {
        const char *what, *by;             // in the graph
        std::vector<std::string> configs;  // to set
        std::string verdict;
        int exit;
        std::vector<std::string> options = {};
        const char* snapshot = nullptr;  // the reason of one
        int signal = 0;
    };
    const char* const kEndless = nullptr;
    const Case cases[] = {
        {"", "", {}, "PASS", 0},
        {"", "", {"check.expect=" + path("bad.framemd5")}, "CRC_MISMATCH", 1},
        {"", "", {"check.expect=" + path("short.framemd5")}, "CRC_MISMATCH", 1},
        {"", "", {"check.expect=" + path("long.framemd5")}, "CRC_MISMATCH", 1},
        {"\"configs\": { \"expect\": \"clip.framemd5\" },", "", {}, "NOTHING_CHECKED", 4},
        {"", "", {"reader.file=" + path("cut.y4m")}, "NODE_FAIL_FATAL", 3, {}, "error"},
        {"", "", {"reader.file=" + path("none")}, "NODE_FAIL_INIT", 3},
        {"", "", {"check.write=" + path("none/list")}, "NODE_FAIL_START", 3},
        {"", "", {"reader.file=" + path("alpha.y4m")}, "NOT_SUPPORTED", 77},
        {"", "", {"copy.allocator=dmabuf", "check.allocator=xcodec2"}, "GRAPH_BUILD_FAIL", 3},
        {"[\"check.in\"]", "[]", {}, "CORRUPT_DESCR", 2},
        {"transform/passthrough", "transform/magic", {}, "NODE_NOT_FOUND", 2},
        {"", "", {}, "BAD_OPTION", 2, {"--nosuch"}},
        {"", "", {"reader.file=" + path("pipe")}, "STALL", 124, {"--stall", "0.3"}, "stall"},
        {"", "", {"reader.file=" + path("pipe")}, "TIMEOUT", 124, {"--timeout", "0.3"}, "timeout"},
        {kEndless, "", {}, "TIMEOUT", 124, {"--timeout", "0.3", "--stall", "0"}, "timeout"},
        {kEndless, "", {}, "SIGINT", 130, {}, nullptr, SIGINT},
        {kEndless, "", {}, "SIGTERM", 143, {}, nullptr, SIGTERM},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.verdict + " " + (c.configs.empty() ? "" : c.configs.front()));
        std::vector<std::string> command = {
            VXRUN_BINARY, c.what == kEndless ? path("endless.json") : graph("linear", c.what, c.by),
            "--log",      "8",
            "--dot",      path("dots" + std::to_string(&c - cases))};
        command.insert(command.end(), c.options.begin(), c.options.end());
        for (const std::string& config : c.configs) {
            command.insert(command.end(), {"--set", config});
        }
        Process process(command);
        if (c.signal != 0) {
            ASSERT_TRUE(process.waitForError("Wait for completion")) << process.err;
            process.kill(c.signal);
        }
        EXPECT_EQ(process.wait(), c.exit) << process.err;
        EXPECT_EQ(process.out.rfind("verdict: " + c.verdict + " frames=", 0), 0u) << process.out;
        if (c.what == kEndless) {
            EXPECT_NE(process.err.find("Handle Stop"), std::string::npos) << process.err;
            EXPECT_EQ(process.err.find("the graph does not stop"), std::string::npos);
        }
        if (c.snapshot == nullptr) continue;
        EXPECT_NE(process.err.find("\n  graph 'linear' at 0.00."), std::string::npos)
            << process.err;
        EXPECT_EQ(reasons(command[5]).count("-" + std::string(c.snapshot) + ".dot"), 1u);
    }
    close(writer);
}

// Catches: a run that counts as passed although a sink has not seen its last frame.
TEST(VxrunEvidence, NoPassBeforeTheLastFrame) {
    vxrun::Evidence evidence;
    ScriptedNode node("g.sink", describe("t", "sink", {"in"}, {}));
    vxrun::NodeRecord& record = evidence.addNode(node, "sink", "", true);
    record.checking = true;
    record.checked = 1;
    EXPECT_EQ(evidence.verdict(), "NO_END_OF_STREAM");
    EXPECT_EQ(evidence.printVerdict(), 1);
    record.endOfStream = true;
    EXPECT_EQ(evidence.verdict(), "PASS");
    EXPECT_EQ(evidence.fail("NODE_FAIL_ASYNC"), true);
    EXPECT_EQ(evidence.printVerdict(), 3);
    evidence.removeNode(record);
    EXPECT_TRUE(evidence.nodes().empty());
}

// Catches: a snapshot that waits for the node that blocks, shows it wrongly, ends the run or is no DOT.
TEST_F(VxrunObserved, SnapshotsOnRequest) {
    makeClip();
    const int writer = makePipe(frameAndAHalf());
    const std::string dots = path("new/dots");
    const std::string named = replaced(contentOf(unchecked("linear")), "\"name\": \"linear\"",
                                       R"("name": "a\"\\\u001b")");
    writeFile(path("graph.json"), replaced(named, "\"copy\"", R"("copy\nprogress=end\u009b")"));
    Process process({VXRUN_BINARY, path("graph.json"), "--stall", "0", "--dot", dots, "--progress",
                     path("progress"), "--set", "reader.file=" + path("pipe"), "--log", "8"});
    ASSERT_TRUE(process.waitForError("Wait for completion")) << process.err;
    ASSERT_TRUE(askUntil(process,
                         "  node 'check': running, 1 frames; pending 0, downstream 0 of 3; "
                         "port 'check.in' queued 0"))
        << process.err;
    ASSERT_TRUE(askUntil(process, "  node 'reader': running, processing, 1 frames; pending 0, "))
        << process.err;
    EXPECT_TRUE(askUntil(process, "  pool of 'reader': free 7, out 1, on the way 1\n"))
        << process.err;
    // A name that would end a line or control a terminal is shown, not obeyed.
    const std::string copy = R"(copy\nprogress=end\xc2\x9b)",
                      block = "\nnode." + copy + ".queued=0\n";
    EXPECT_TRUE(askUntil(process, "  node '" + copy + "': running, ")) << process.err;
    const auto hasBlock = [&] {
        return contentOf(path("progress")).find(block) != std::string::npos;
    };
    for (const auto end = Clock::now() + kLimit; Clock::now() < end && !hasBlock();) continue;
    EXPECT_TRUE(hasBlock());
    const std::string rest(36, 'x');
    EXPECT_EQ(write(writer, rest.data(), rest.size()), ssize_t(rest.size()));
    close(writer);
    EXPECT_EQ(process.wait(), 4) << process.err;
    EXPECT_EQ(process.out, "verdict: NOTHING_CHECKED frames=2 checked=0 first_bad=-\n");

    EXPECT_EQ(reasons(dots), (std::set<std::string>{"-start.dot", "-request.dot"}));
    for (const auto& entry : std::filesystem::directory_iterator(dots)) {
        if (entry.path().string().find("-start") == std::string::npos) continue;
        const Result drawn = run({"dot", "-Tsvg", entry.path()});
        if (drawn.exit == -1000 || drawn.exit == 127) GTEST_SKIP() << "no dot program";
        EXPECT_EQ(drawn.exit, 0);
        EXPECT_EQ(drawn.err, "");
        EXPECT_NE(drawn.out.find(">a&quot;\\"), std::string::npos) << drawn.out;
        EXPECT_NE(drawn.out.find(">check.in<"), std::string::npos) << drawn.out;
    }
}

// Catches: a request for a snapshot that ends vxrun when it comes before the run.
TEST_F(VxrunObserved, EarlyRequestsDoNoHarm) {
    makeClip();
    const std::string text = contentOf(graph("linear"));
    ASSERT_EQ(mkfifo(path("graph").c_str(), 0600), 0);
    Process process({VXRUN_BINARY, path("graph")});
    int file = -1;  // until vxrun reads it
    for (const auto end = Clock::now() + kLimit; file < 0 && Clock::now() < end;) {
        file = open(path("graph").c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    }
    process.kill(SIGUSR1);
    EXPECT_EQ(write(file, text.data(), text.size()), ssize_t(text.size()));
    close(file);
    EXPECT_EQ(process.wait(), 0) << process.err;
}

// A pipe that is full and is not read. Its ends are closed with the test program.
int fullPipe() {
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_NONBLOCK), 0);
    const std::string chunk(4096, 'x');
    while (write(ends[1], chunk.data(), chunk.size()) > 0) continue;
    EXPECT_EQ(fcntl(ends[1], F_SETFL, 0), 0);
    return ends[1];
}

// Catches: a pipe that is not read and holds up a run and its watchdog, so that neither limits nor signals
// end it.
TEST_F(VxrunObserved, UnreadPipesDoNotHoldUpTheEnd) {
    const std::string file = endless(), pipe = std::to_string(fullPipe());
    struct Case {
        std::string setup;
        std::vector<std::string> options;
        int exit;
    };
    const Case cases[] = {
        {"exec \"$@\"", {"--progress", pipe, "--timeout", "0.5"}, 124},
        {"exec \"$@\" 2>&" + pipe, {"--timeout", "0.5"}, 124},
        {"exec \"$@\" 2>&" + pipe, {"--timeout", "0.5", "--log", "1f"}, 124},
        {"exec \"$@\" >&" + pipe, {"--timeout", "0.5", "--set", "check.print_md5=true"}, 124},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(&c - cases);
        std::vector<std::string> arguments = {file};
        arguments.insert(arguments.end(), c.options.begin(), c.options.end());
        EXPECT_EQ(vxrunIn(c.setup, arguments).exit, c.exit);
    }
    Process stopped({"sh", "-c", "echo >&2; exec \"$@\" 2>&" + pipe, "sh", VXRUN_BINARY, file});
    ASSERT_TRUE(stopped.waitForError("\n"));
    for (const auto end = Clock::now() + kLimit; Clock::now() < end && !stopped.ended();) {
        stopped.kill(SIGTERM);
    }
    EXPECT_NE(stopped.wait(), -1000);
}

// Catches: a block without a key, with a wrong count or not at the end; output behind the verdict.
TEST_F(VxrunObserved, WritesProgress) {
    makeClip();
    writeFile(path("bad.framemd5"), replaced(contentOf(path("clip.framemd5")), "36, ", "37, "));
    for (const std::string& target : {path("progress"), std::string("1")}) {
        const Result result = vxrun({graph("linear"), "--progress", target, "--set",
                                     "check.expect=" + path("bad.framemd5")});
        std::string verdict = "verdict: CRC_MISMATCH frames=4 checked=4 first_bad=0\n";
        std::string blocks = contentOf(path("progress"));
        if (target == "1") {
            ASSERT_GE(result.out.size(), verdict.size());
            blocks = result.out.substr(0, result.out.size() - verdict.size());
            verdict = result.out.substr(blocks.size());
        }
        EXPECT_EQ(verdict, "verdict: CRC_MISMATCH frames=4 checked=4 first_bad=0\n");
        std::map<std::string, std::string> block;
        std::istringstream lines(blocks);
        for (std::string line; std::getline(lines, line);) {
            block[line.substr(0, line.find('='))] = line.substr(line.find('=') + 1);
            if (line != "progress=continue") continue;
            for (const char* key : {"frame", "fps", "frames_checked", "mismatches", "elapsed_us"}) {
                EXPECT_EQ(block.count(key), 1u) << key;
            }
            block.clear();
        }
        EXPECT_EQ(block["progress"], "end");
        EXPECT_EQ(block["frame"] + block["frames_checked"] + block["mismatches"], "441");
    }
}

// Catches: a trace that is no JSON, from its start, after a kill and on a full disk, which has to be told;
// events that are lost, have no counterpart, or overlap in one row.
TEST_F(VxrunObserved, WritesTraces) {
    makeClip();
    EXPECT_EQ(vxrun({graph("fanout"), "--trace", path("trace")}).exit, 0);
    std::map<std::string, int> counts;
    std::map<int, double> ends;  // by row, of its last span
    std::map<std::pair<std::string, int>, int> frames;
    for (const Json& event : Json::parse(contentOf(path("trace")), nullptr, false)) {
        const std::string phase = event["ph"];
        ++counts[phase + " " + event["name"].get<std::string>()];
        EXPECT_GE(event["ts"].get<double>(), 0.0);
        if (phase == "b" || phase == "e") {
            frames[{event["cat"], event["id"]}] += phase == "b" ? 1 : -1;
        } else if (phase == "X") {
            EXPECT_GE(event["ts"].get<double>(), ends[event["tid"]]);
            ends[event["tid"]] = event["ts"].get<double>() + event["dur"].get<double>();
        } else if (event["name"] == "pool.reader") {
            EXPECT_LE(event["args"]["free"], 8);
        }
    }
    EXPECT_EQ(frames.size(), 4u);
    for (const auto& [frame, open] : frames) EXPECT_EQ(open, 0);
    EXPECT_EQ(counts["i end of stream"], static_cast<int>(ends.size()));
    EXPECT_GE(counts["X process"], static_cast<int>(ends.size()));
    EXPECT_EQ(counts["M thread_name"], static_cast<int>(ends.size()));
    EXPECT_EQ(counts["C pool.reader"], 8);

    writeFile(path("long.y4m"), y4m("W6 H4", 36, 1000));
    ASSERT_EQ(vxrun({unchecked("linear"), "--set", "reader.file=" + path("long.y4m"), "--set",
                     "check.write=" + path("list")})
                  .exit,
              4);
    const Result full =
        vxrunIn("ulimit -f 128; exec \"$@\"",  // blocks of 512 bytes
                {graph("linear"), "--trace", path("full"), "--set",
                 "reader.file=" + path("long.y4m"), "--set", "check.expect=" + path("list")});
    EXPECT_EQ(full.exit, 3);
    EXPECT_EQ(full.out, "verdict: NOT_WRITTEN frames=1000 checked=1000 first_bad=-\n");
    EXPECT_EQ(full.err.rfind("vxrun: --trace: " + path("full") + ": ", 0), 0u) << full.err;
    EXPECT_GT(Json::parse(contentOf(path("full")), nullptr, false).size(), 100u);

    const int writer = makePipe("");
    Process early({VXRUN_BINARY, graph("linear"), "--trace", path("early"), "--set",
                   "reader.file=" + path("pipe"), "--log", "8"});
    ASSERT_TRUE(early.waitForError("Builder: Build graph")) << early.err;
    EXPECT_TRUE(Json::parse(contentOf(path("early")), nullptr, false).is_array());
    close(writer);

    Process killed({VXRUN_BINARY, endless(), "--trace", path("killed"), "--log", "8"});
    ASSERT_TRUE(killed.waitForError("mDownstreamWorksTracker.size(1)")) << killed.err;
    for (int i = 0; i < 2;
         ++i) {  // the second snapshot comes after the first one's events are written
        killed.err.clear();
        ASSERT_TRUE(askUntil(killed, "  node 'check': running, "));
    }
    killed.kill(SIGSTOP);  // no write is under way when it has stopped
    ASSERT_GT(waitpid(-1, nullptr, WUNTRACED), 0);
    killed.kill(SIGKILL);
    EXPECT_EQ(killed.wait(), -SIGKILL);
    const Json events = Json::parse(contentOf(path("killed")), nullptr, false);
    ASSERT_TRUE(events.is_array());
    EXPECT_GT(events.size(), 3u);
}

// Catches: a mistake that hides others, one without its place, a clean graph that is blamed.
TEST_F(VxrunObserved, ChecksTellEverything) {
    makeClip();
    for (const std::string name : {"linear", "fanout", "decode"}) {
        const Result result = vxrun({"check", VXRUN_GRAPHS_DIR "/" + name + ".json"});
        EXPECT_EQ(result.out + result.err, "check: mistakes=0\n");
        EXPECT_EQ(result.exit, 0);
    }
    writeFile(path("bad.json"), R"({ "name": "", "speed": 1,
"nodes": [
{ "name": "a", "type": "source/y4m", "configs": { "file": [1], "fyle": 1 },
  "outputs": [ { "name": "a.out", "format": "video/raw" }, { "name": "x" } ] },
{ "name": "a", "type": "transform/magic", "inputs": [ { "name": "b.in", "format": "x" } ],
  "entries": [ { "frame": -1 }, { "frame": 1, "kind": "x" } ] },
7,
{ "type": "transform/passthrough", "inputs": [ { "name": "c.in", "format": "video/raw" } ],
  "outputs": [ { "name": "c.out", "format": "video/raw" },
               { "name": "d.out", "format": "video/raw" } ] },
{ "name": "e", "type": "sink/checksum", "configs": { "allocator": "heap" },
  "inputs": [ { "name": "e.in", "format": "video/raw" } ] } ],
"connections": { "a.out": ["b.in", "f"], "c.out": ["c.in"], "g": [] } }
)");
    const char* const mistakes[] = {
        ":1:24: speed: unknown key",
        ":1:11: name: expected a name",
        ":3:59: nodes[0].configs.file: expected a string",
        ":4:60: nodes[0].outputs[1]: missing key 'format'",
        ":5:11: nodes[1].name: another node",
        ":5:24: nodes[1].type: unknown node type",
        ":6:27: nodes[1].entries[0].frame: expected a number",
        ":6:55: nodes[1].entries[1].kind: expected 'command'",
        ":7:1: nodes[2]: expected an object",
        ":8:1: nodes[3]: missing key 'name'",
        ":13:28: connections.a.out[0]: an output of 'video/raw' cannot feed",
        ":13:36: connections.a.out[1]: no input port",
        ":13:66: connections.g: no output port",
        ":10:16: nodes[3].outputs[1]: port 'd.out' is not connected",
        ":12:15: nodes[4].inputs[0]: port 'e.in' is not connected",
        ":13:16: connections: the nodes form a cycle",
        ":3:72: nodes[0].configs.fyle: unknown config",
        ":8:1: nodes[3]: a transform/passthrough has 1 output",
        ":11:67: nodes[4].configs.allocator: config 'allocator'",
        ":2:10: nodes: no sink checks anything",
    };
    const Result result = vxrun({"check", path("bad.json")});
    EXPECT_EQ(result.exit, 2);
    for (const char* mistake : mistakes) {
        EXPECT_NE(result.err.find("bad.json" + std::string(mistake)), std::string::npos) << mistake;
    }
    EXPECT_EQ(result.out, "check: mistakes=" + std::to_string(std::size(mistakes)) + "\n")
        << result.err;
    EXPECT_EQ(vxrun({"check", path("none")}).exit, 2);

    // What an option sets counts, and what could not fail does not.
    struct Case {
        const char *graph, *set, *line;
    };
    const Case cases[] = {
        {"compare", "compare.tolerance=65535", "expected a number from 0 to 65534, got '65535'"},
        {"compare", "compare.psnr=1e-300", "expected a number from 1 to 108, got '1e-300'"},
        {"compare", "compare.ssim=nan", "expected a number from 0.01 to 1, got 'nan'"},
        {"linear", "check.expect=", "config 'expect': expected the name of a file, got ''"},
        {"linear", "nosuch.key=1", "the graph has no node 'nosuch'"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.set);
        const std::string file = std::string(VXRUN_GRAPHS_DIR "/") + c.graph + ".json";
        const Result checked = vxrun({"check", file, "--set", c.set});
        EXPECT_EQ(checked.exit, 2);
        EXPECT_NE(checked.err.find(c.line), std::string::npos) << checked.err;
    }
    const std::string shipped = VXRUN_GRAPHS_DIR "/compare.json";
    EXPECT_EQ(vxrun({"check", shipped, "--set", "compare.psnr=30"}).exit, 0);
    const Result both =
        vxrun({"check", shipped, "--set", "compare.psnr=30", "--set", "compare.ssim=1"});
    EXPECT_NE(both.err.find("configs 'psnr' and 'ssim' exclude each other"), std::string::npos);
}

// Catches: a pool that is called too small and is not, or the other way round; a stalled run that does
// not tell who has the buffers.
TEST_F(VxrunObserved, ChecksKnowWhatCannotMove) {
    writeFile(path("clip.y4m"), y4m("W6 H4 F25:1", 36, 12));
    for (const bool moves : {true, false}) {
        SCOPED_TRACE(moves);
        const std::string file = graph("linear", "\"transform/passthrough\"",
                                       "\"transform/delay\", \"configs\": { \"frames\": " +
                                           std::string(moves ? "7" : "8") + " }");
        const std::string text = contentOf(file);
        const Result checked = vxrun({"check", file});
        ASSERT_EQ(vxrun({unchecked("linear"), "--set", "check.write=" + path("list")}).exit, 4);
        writeFile(path("graph.json"), text);
        const Result ran =
            vxrun({file, "--set", "check.expect=" + path("list"), "--stall", moves ? "0" : "1"});
        EXPECT_EQ(checked.out, moves ? "check: mistakes=0\n" : "check: mistakes=1\n");
        EXPECT_EQ(ran.exit, moves ? 0 : 124) << ran.err;
        if (moves) continue;
        EXPECT_NE(
            checked.err.find("graph.json:4:5: nodes[0]: a pool of 8 buffers, of which the nodes "
                             "behind it keep 8: the run could not move"),
            std::string::npos)
            << checked.err;
        EXPECT_NE(ran.err.find("\n  pool of 'reader': free 0, out 8, copy holds 8\n"),
                  std::string::npos)
            << ran.err;
    }
}

// Catches: colours in a file, or none where they are asked for.
TEST_F(VxrunObserved, Colors) {
    makeClip();
    struct Case {
        std::vector<std::string> environment;
        const char* option;
        bool painted;
    };
    const Case cases[] = {
        {{}, "auto", false},
        {{}, "always", true},
        {{"CLICOLOR_FORCE=1"}, "auto", true},
        {{"CLICOLOR_FORCE=0"}, "auto", false},
        {{"CLICOLOR_FORCE=1", "NO_COLOR=1"}, "auto", false},
        {{"CLICOLOR_FORCE=1"}, "never", false},
        {{"NO_COLOR=1"}, "always", true},
    };
    for (const Case& c : cases) {
        Process process({VXRUN_BINARY, graph("linear"), "--color", c.option}, c.environment);
        EXPECT_EQ(process.wait(), 0);
        EXPECT_EQ(process.out, std::string("verdict: ") +
                                   (c.painted ? "\033[32mPASS\033[m" : "PASS") +
                                   " frames=4 checked=4 first_bad=-\n");
    }
}

}  // namespace
