// How vxrun ends, and what it shows of a run on the way: snapshots, progress, traces, checks.
#include "support/Vxrun.h"

#include <sys/socket.h>
#include <sys/stat.h>

#include <map>
#include <nlohmann/json.hpp>
#include <set>

namespace {

using namespace vxrun_test;
using Json = nlohmann::json;

class VxrunObserved : public Vxrun {
protected:
    // Asks `process` for snapshots until one contains `text`; false when none ever does.
    static bool askUntil(Process& process, const std::string& text) {
        constexpr int kEnough = 20000;
        for (int i = 0; i < kEnough && process.err.find(text) == std::string::npos; ++i) {
            process.err.clear();
            process.kill(SIGUSR1);
            if (!process.waitFor("  pool of 'reader': ")) return false;
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

// Catches: an end in mid-stream without a verdict, exit code or snapshot of its own, or not in
// order; a difference that was found before it and is lost, or dumps that cannot be written and
// hide it.
TEST_F(VxrunObserved, EndsInOrder) {
    makeClip();
    const std::string clip = contentOf(path("clip.y4m")),
                      endlessFile = moved(endless(), "endless.json"), linear = graph("linear");
    const Words cut = {linear, "reader.file=" + path("cut.y4m"), "--dump-bad", path("dump")},
                pipe = {linear, "reader.file=" + path("pipe")}, never = {endlessFile};
    // It exists, and nothing can be written there.
    std::filesystem::create_directories(path("dump/check.frame000001.actual.raw"));
    const struct {
        Words arguments;
        std::string verdict;
        int exit;
        std::string snapshot;  // the reason of one
        int signal = 0;
    } cases[] = {
        {cut, "NODE_FAIL_FATAL", 3, "error"},
        {pipe + Words{"--stall", "2"}, "STALL", 124, "stall"},
        {pipe + Words{"--timeout", "2"}, "TIMEOUT", 124, "timeout"},
        {pipe, "SIGINT", 130, "", SIGINT},
        {never + Words{"--timeout", "0.3", "--stall", "0"}, "TIMEOUT", 124, "timeout"},
        {never, "SIGINT", 130, "", SIGINT},
        {never, "SIGTERM", 143, "", SIGTERM},
    };
    for (const auto& c : cases) {
        const bool isEndless = c.arguments[0] == endlessFile, isPipe = !isEndless && c.exit != 3;
        for (const bool differs : {false, true}) {
            if (isEndless && differs) break;
            SCOPED_TRACE(c.verdict + (differs ? " after a difference" : ""));
            std::string data = clip.substr(0, clip.size() - 1);
            if (differs) data[data.size() - 100] ^= 1;
            writeFile(path("cut.y4m"), data);
            const int writer = makePipe(data);
            const std::string dots = path("dots" + std::to_string(&c - cases) + c.verdict);
            Process process(command(c.arguments + Words{"--log", "8", "--dot", dots}));
            EXPECT_TRUE(process.waitFor(differs ? "'check': frame 1 (timestamp 1): expected "
                                                : "Wait for completion"));
            if (c.signal != 0) process.kill(c.signal);
            EXPECT_EQ(process.wait(), differs ? 1 : c.exit) << process.err;
            const std::string verdict = differs ? "CRC_MISMATCH" : c.verdict;
            EXPECT_EQ(process.out.rfind("verdict: " + verdict + " frames=", 0), 0u) << process.out;
            expectHas(process.out, differs ? " first_bad=1\n" : " first_bad=-\n");
            const auto isThere = [&](const char* line) {
                return process.err.find(line) < process.err.size();
            };
            EXPECT_EQ(isThere("no more frames are dumped: "), differs && c.exit == 3);
            EXPECT_FALSE(!isPipe && isThere("the graph does not stop")) << process.err;
            if (isEndless) expectHas(process.err, "Handle Stop");
            close(writer);
            std::filesystem::remove(path("pipe"));
            if (c.snapshot.empty() || differs) continue;
            expectHas(process.err, "\n  graph 'linear' at 0.00.");
            EXPECT_EQ(reasons(dots).count("-" + c.snapshot + ".dot"), 1u);
        }
    }
}

// Catches: a snapshot that waits for the node that blocks, shows it wrongly, ends the run or is no
// DOT.
TEST_F(VxrunObserved, SnapshotsOnRequest) {
    makeClip();
    const int writer = makePipe(y4m("W6 H4", 36, 1) + "FRAME\n");  // a second one never comes
    const std::string dots = path("new/dots");
    const std::string named = replaced(contentOf(unchecked("linear")), "\"name\": \"linear\"",
                                       R"("name": "a\"\\\u001b")");
    writeFile(path("graph.json"),
              replaced(named, "\"copy\"", R"("copy\nprogress=end\u009b\u00a0")"));
    Process process(command({path("graph.json"), "--stall", "0", "--dot", dots, "--progress",
                             path("progress"), "reader.file=" + path("pipe"), "--log", "8"}));
    ASSERT_TRUE(process.waitFor("Wait for completion")) << process.err;
    // A name that would end a line or control a terminal is shown, not obeyed.
    const std::string copy = R"(copy\nprogress=end\xc2\x9b)"
                             "\u00a0",
                      block = "\nnode." + copy + ".queued=0\n";
    for (const std::string& line :
         {std::string("  node 'check': running, 1 frames; pending 0, downstream 0 of 3; port "
                      "'check.in' queued 0"),
          std::string("  node 'reader': running, processing, 1 frames; pending 0, "),
          std::string("  pool of 'reader': free 15, out 1, on the way 1\n"),
          "  node '" + copy + "': running, "}) {
        ASSERT_TRUE(askUntil(process, line)) << process.err;
    }
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
        if (drawn.exit == 127) GTEST_SKIP() << "no dot program";
        EXPECT_EQ(drawn.exit, 0);
        EXPECT_EQ(drawn.err, "");
        expectHas(drawn.out, ">a&quot;\\");
        expectHas(drawn.out, ">check.in<");
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

// A pipe or a socket that is full and is not read. Its ends are closed with the test program.
int fullPipe(bool isSocket = false) {
    int ends[2];
    EXPECT_EQ(isSocket ? socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends)
                       : pipe2(ends, O_NONBLOCK),
              0);
    const std::string chunk(4096, 'x');
    while (write(ends[1], chunk.data(), chunk.size()) > 0) continue;
    EXPECT_EQ(fcntl(ends[1], F_SETFL, 0), 0);
    return ends[1];
}

// Catches: a pipe that is not read and holds up a run and its watchdog, so that neither limits nor
// signals end it.
TEST_F(VxrunObserved, UnreadPipesDoNotHoldUpTheEnd) {
    const std::string file = endless(), pipe = std::to_string(fullPipe());
    const std::pair<std::string, Words> cases[] = {
        {"exec \"$@\"", {"--progress", pipe}},
        {"exec \"$@\" 2>&" + pipe, {}},
        {"exec \"$@\" 2>&" + pipe, {"--log", "1f"}},
        {"exec \"$@\" >&" + pipe, {"check.print_md5=true"}},
        {"exec \"$@\" 2>&" + std::to_string(fullPipe(true)), {}},
    };
    for (const auto& [setup, options] : cases) {
        SCOPED_TRACE(setup);
        EXPECT_EQ(vxrunIn(setup, Words{file, "--timeout", "0.5"} + options).exit, 124);
    }
    Process stopped(
        {"sh", "-c", "exec \"$@\" 2>&" + pipe, "sh", VXRUN_BINARY, file, "--progress", "1"});
    ASSERT_TRUE(stopped.waitFor("progress=continue"));
    stopped.kill(SIGTERM);
    EXPECT_EQ(stopped.wait(), 143);
}

// Catches: a block without a key, with a wrong count or not at the end; output behind the verdict.
TEST_F(VxrunObserved, WritesProgress) {
    makeClip();
    writeFile(path("bad.framemd5"), replaced(contentOf(path("clip.framemd5")), "36, ", "37, "));
    writeFile(path("progress"), std::string(9999, 'x') + "\nprogress=of an earlier run\n");
    for (const std::string& target : {path("progress"), std::string("1")}) {
        const std::string verdict = "verdict: CRC_MISMATCH frames=4 checked=4 first_bad=0\n";
        const std::string all =
            vxrun({graph("linear"), "--progress", target, "check.expect=" + path("bad.framemd5")})
                .out;
        EXPECT_EQ(all.find(verdict) + verdict.size(), all.size()) << all;
        std::map<std::string, std::string> block;
        std::istringstream lines(target == "1" ? all : contentOf(target));
        for (std::string line; std::getline(lines, line) && line + "\n" != verdict;) {
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

// Catches: no progress on a terminal, one without the time that is left or with one that cannot be
// known, or its rest left on the screen.
TEST_F(VxrunObserved, ShowsProgressOnATerminal) {
    makeClip();
    const std::pair<Words, std::string> cases[] = {
        {{moved(graph("linear"), "checked.json")}, "1 checked, 0 mismatches, [0-9]+ s left, "},
        {{unchecked("linear"), "--timeout", "600"}, "0 checked, 0 mismatches, [0-9]+ s left, "},
        {{unchecked("linear")}, "0 checked, 0 mismatches, [0-9]+\\.[0-9] frames/s\033\\[K"},
    };
    for (const auto& [arguments, line] : cases) {
        const int writer = makePipe(y4m("W6 H4", 36, 1) + "FRAME\n");
        Process process(command(arguments + Words{"reader.file=" + path("pipe")}), {}, true);
        EXPECT_TRUE(process.waitFor("\r1 frames, ")) << process.err;
        const std::string rest(36, 'x');
        EXPECT_EQ(write(writer, rest.data(), rest.size()), ssize_t(rest.size()));
        close(writer);
        process.wait();
        expectMatch(process.err, "\r1 frames, " + line);
        EXPECT_EQ(process.err.substr(process.err.size() - 4), "\r\033[K");
        std::filesystem::remove(path("pipe"));
    }
}

// Catches: a trace that is not valid JSON, from its start, after a kill and on a full disk, which
// has to be reported; events that are lost, have no counterpart, or overlap in one row.
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
        } else if (phase == "i") {
            EXPECT_EQ(event["s"], "t");  // a node's, not the whole graph's
        } else if (event["name"] == "pool.reader") {
            EXPECT_LE(event["args"]["free"], 16);
        }
    }
    EXPECT_EQ(frames.size(), 4u);
    for (const auto& [frame, open] : frames) EXPECT_EQ(open, 0);
    EXPECT_EQ(counts["i end of stream"], static_cast<int>(ends.size()));
    EXPECT_GE(counts["X process"], static_cast<int>(ends.size()));
    EXPECT_EQ(counts["M thread_name"], static_cast<int>(ends.size()));
    EXPECT_EQ(counts["C pool.reader"], 8);

    writeFile(path("long.y4m"), y4m("W6 H4", 36, 1000));
    const std::string reads = "reader.file=" + path("long.y4m");
    ASSERT_EQ(vxrun({unchecked("linear"), reads, "check.write=" + path("list")}).exit, 4);
    const Result full =
        vxrunIn("ulimit -f 128; exec \"$@\"",  // blocks of 512 bytes
                {graph("linear"), "--trace", path("full"), reads, "check.expect=" + path("list")});
    EXPECT_EQ(full.exit, 3);
    EXPECT_EQ(full.out, "verdict: NOT_WRITTEN frames=1000 checked=1000 first_bad=-\n");
    EXPECT_EQ(full.err.rfind("vxrun: --trace: " + path("full") + ": ", 0), 0u) << full.err;
    EXPECT_GT(Json::parse(contentOf(path("full")), nullptr, false).size(), 100u);

    const int writer = makePipe("");
    Process early(command(
        {graph("linear"), "--trace", path("early"), "reader.file=" + path("pipe"), "--log", "8"}));
    ASSERT_TRUE(early.waitFor("Builder: Build graph")) << early.err;
    EXPECT_TRUE(Json::parse(contentOf(path("early")), nullptr, false).is_array());
    close(writer);

    Process killed({VXRUN_BINARY, endless(), "--trace", path("killed"), "--log", "8"});
    ASSERT_TRUE(killed.waitFor("mDownstreamWorksTracker.size(1)")) << killed.err;
    // The second snapshot comes after the first one's events are written.
    for (int i = 0; i < 2; ++i) {
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

// Catches: a mistake that hides others, one without its place or what was expected, a clean graph
// that is blamed.
TEST_F(VxrunObserved, ChecksFindEverything) {
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
  "entries": [ { "frame": -1 }, { "frame": 1, "kind": "x" }, {}, { "frame": 1, "speed": 1 },
    { "frame": 1, "kind": "tuning", "key": "a", "value": 1, "alternate": 1 } ] },
7, {},
{ "name": "c", "type": "transform/passthrough", "inputs": [ { "name": "c.in", "format": "video/raw" } ],
  "outputs": [ { "name": "c.out", "format": "video/raw" },
               { "name": "d.out", "format": "video/raw" } ] },
{ "name": "e", "type": "sink/checksum", "configs": { "allocator": "heap" },
  "inputs": [ { "name": "e.in", "format": "video/raw" }, { "name": "c.in", "format": "x" } ] },
{ "name": "f", "type": 7, "config": {}, "configs": null, "outputs": 7,
  "inputs": [ { "name": "f.in", "fmt": "x" } ] } ],
"connections": { "a.out": ["b.in", "f"], "c.out": ["c.in", "b.in"], "g": [], "d.out": "e.in" } }
)");
    const char* const mistakes[] = {
        ":1:24: speed: unknown key, expected one of name, nodes_from, limits, nodes, connections",
        ":1:11: name: expected a name, got ''",
        ":3:59: nodes[0].configs.file: expected a string, a number or a boolean, got an array",
        ":4:60: nodes[0].outputs[1]: missing key 'format'",
        ":5:11: nodes[1].name: another node is named 'a'",
        ":5:24: nodes[1].type: unknown node type 'transform/magic'",
        ":6:27: nodes[1].entries[0].frame: expected a number from 0 to 4294967295, got '-1'",
        ":6:55: nodes[1].entries[1].kind: expected 'command' or 'tuning', got 'x'",
        ":6:62: nodes[1].entries[2]: missing key 'frame'",
        ":6:89: nodes[1].entries[3].speed: unknown key, expected one of frame, kind, key, value,",
        ":7:74: nodes[1].entries[4].alternate: expected a boolean, got a number",
        ":8:1: nodes[2]: expected an object, got a number",
        ":8:4: nodes[3]: missing key 'name'",
        ":8:4: nodes[3]: missing key 'type'",
        ":13:68: nodes[5].inputs[1].name: nodes[4].inputs[0] is named 'c.in', too",
        ":14:37: nodes[6].config: unknown key, expected one of name, type, configs, inputs,",
        ":14:24: nodes[6].type: expected a string, got a number",
        ":14:52: nodes[6].configs: expected an object, got null",
        ":15:40: nodes[6].inputs[0].fmt: unknown key, expected one of name, format",
        ":14:69: nodes[6].outputs: expected an array, got a number",
        ":16:28: connections.a.out[0]: an output of 'video/raw' cannot feed",
        ":16:36: connections.a.out[1]: no input port is named 'f'",
        ":16:60: connections.c.out[1]: input port 'b.in' is connected already",
        ":16:74: connections.g: no output port is named 'g'",
        ":16:87: connections.d.out: expected an array, got a string",
        ":11:16: nodes[4].outputs[1]: port 'd.out' is not connected",
        ":13:15: nodes[5].inputs[0]: port 'e.in' is not connected",
        ":16:16: connections: the nodes form a cycle: c -> c",
        ":3:72: nodes[0].configs.fyle: unknown config 'fyle' = '1', a source/y4m accepts: file",
        ":9:1: nodes[4]: a transform/passthrough has 1 output port(s), the description has 2",
        ":12:67: nodes[5].configs.allocator: config 'allocator'",
        ":2:10: nodes: no sink checks anything",
    };
    const Result result = vxrun({"check", path("bad.json")});
    EXPECT_EQ(result.exit, 2);
    for (const char* mistake : mistakes) expectHas(result.err, "bad.json" + std::string(mistake));
    EXPECT_EQ(result.out, "check: mistakes=" + std::to_string(std::size(mistakes)) + "\n");
    EXPECT_EQ(vxrun({"check", path("none")}).exit, 2);

    std::string ring;
    for (const std::string name : {"a", "b", "c"}) {
        ring += (ring.empty() ? "" : ",") + (R"({"name":")" + name) +
                R"(","type":"transform/passthrough","inputs":[{"name":")" + name +
                R"(.in","format":"f"}],"outputs":[{"name":")" + name + R"(.out","format":"f"}]})";
    }
    writeFile(path("ring.json"),
              R"({"name":"ring","nodes":[)" + ring +
                  R"(],"connections":{"a.out":["b.in"],"b.out":["c.in"],"c.out":["a.in"]}})");
    expectHas(vxrun({path("ring.json")}).err, "the nodes form a cycle: a -> b -> c -> a\n");

    // What an option sets counts, and what could not fail does not.
    const struct {
        std::string graph;
        Words configs;
        std::string line;  // empty: no mistake
    } cases[] = {
        {"compare", {"compare.tolerance=65535"}, "expected a number from 0 to 65534, got '65535'"},
        {"compare", {"compare.psnr=1e-300"}, "expected a number from 1 to 108, got '1e-300'"},
        {"compare", {"compare.ssim=nan"}, "expected a number from 0.01 to 1, got 'nan'"},
        {"compare", {"compare.psnr=30"}, ""},
        {"compare", {"compare.psnr=30", "compare.ssim=1", "compare.measure=true"}, ""},
        {"compare",
         {"compare.psnr=30", "compare.ssim=1", "compare.tolerance=1"},
         "'ssim' and 'tolerance' exclude each other"},
        {"linear", {"check.expect="}, "config 'expect': expected the name of a file, got ''"},
        {"linear", {"nosuch.key=1"}, "the graph has no node 'nosuch'"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        const Result checked =
            vxrun(Words{"check", VXRUN_GRAPHS_DIR "/" + c.graph + ".json"} + c.configs);
        EXPECT_EQ(checked.exit, c.line.empty() ? 0 : 2);
        expectHas(checked.err, c.line);
    }
}

// Catches: a node's frames, waits or queue that are counted wrongly, or at another node.
TEST_F(VxrunObserved, MeasuresNodes) {
    constexpr int kFrames = 20;
    writeFile(path("clip.y4m"), y4m("W6 H4", 36, kFrames));
    const std::string slow = replaced(contentOf(unchecked("linear")), "passthrough\"",
                                      R"(delay", "configs": { "ms": 10 })");
    writeFile(path("slow.json"), slow);
    const Result result = vxrun({path("slow.json"), "--json", path("json"), "--stats"});
    expectHas(result.err, "vxrun: node 'copy': frames=20 busy=");
    const Json run = Json::parse(contentOf(path("json")))["run"];
    // The delay's clock alone takes this long; as long as it runs, up to 4 works are out.
    EXPECT_GE(run["seconds"], 0.2);
    EXPECT_LE(run["frames_per_second"], 100);
    const Json &reader = run["nodes"][0], &copy = run["nodes"][1], &check = run["nodes"][2];
    for (const Json& node : run["nodes"]) {
        const Json& waits = node["waiting_seconds"];
        EXPECT_EQ(node["frames"], kFrames);
        EXPECT_LE(node["busy_seconds"].get<double>() + waits["input"].get<double>() +
                      waits["room"].get<double>() + waits["buffer"].get<double>(),
                  run["seconds"].get<double>() + 0.1);
    }
    EXPECT_EQ(copy["type"], "transform/delay");
    EXPECT_GT(reader["waiting_seconds"]["room"], 0.02);
    EXPECT_EQ(reader["waiting_seconds"]["buffer"], 0);
    EXPECT_GT(check["waiting_seconds"]["input"], 0.02);
    EXPECT_EQ(reader["queue_high_water"], 0);
    EXPECT_GE(copy["queue_high_water"], 1);
    EXPECT_LE(copy["queue_high_water"], 4);
    EXPECT_EQ(run["pools"][0]["left_out"], 0);
    // With a single buffer it is that which the source waits for.
    vxrun({path("slow.json"), "--json", path("json"), "reader.slots=1"});
    const Json one = Json::parse(contentOf(path("json")))["run"]["nodes"][0];
    EXPECT_GT(one["waiting_seconds"]["buffer"], 0.02);
}

// Catches: a limit that is not applied, hides a wrong picture or passes unmeasured, one of a graph
// file that is not read or not overruled; pictures that are not matched with their access units.
TEST_F(VxrunObserved, AppliesLimits) {
    makeClip();
    const std::string linear = moved(graph("linear"), "linear.json"), text = contentOf(linear),
                      limits = R"("limits": { "min_fps": 1e9, "max_rss": "1k" }, "nodes")";
    writeFile(path("limited.json"), replaced(text, "\"nodes\"", limits));
    writeFile(path("wrong.json"),
              replaced(text, "\"nodes\"", R"("limits": { "fps": 1 }, "nodes")"));
    const Words limited = {path("limited.json")}, met = {"--min-fps", "0.001", "--max-rss", "4G"};
    writeFile(path("bad"), replaced(contentOf(path("clip.framemd5")), "36, ", "37, "));
    const std::string slow = " frames/s, at least 1e+09 asked for\n";
    const struct {
        Words arguments;
        int exit;
        std::string verdict, line;
    } cases[] = {
        {Words{linear} + met, 0, "PASS", ""},
        {limited + met, 0, "PASS", ""},
        {limited, 1, "PERFORMANCE", slow},
        {limited, 1, "PERFORMANCE", " bytes of memory, at most 1024 asked for\n"},
        {limited + Words{"check.expect=" + path("bad")}, 1, "CRC_MISMATCH", ""},
        {{linear, "--max-latency-p99", "1e9"}, 4, "NOTHING_CHECKED", "max_latency_p99 cannot be"},
        {{linear, "--min-fps", "0"}, 2, "BAD_OPTION", "--min-fps: expected a number from 0.001"},
        {{linear, "--max-rss", "1T"}, 2, "BAD_OPTION", "--max-rss: expected a number from 1"},
        {{path("wrong.json")}, 2, "CORRUPT_DESCR", "limits.fps: unknown key, expected one of min_"},
    };
    for (const auto& c : cases) {
        const Result result = vxrun(c.arguments);
        EXPECT_EQ(result.exit, c.exit) << result.err;
        expectHas(result.out, "verdict: " + c.verdict + " ");
        expectHas(result.err, c.line);
    }
    expectHas(vxrun({"check", path("wrong.json")}).err, "limits.fps: unknown key");
    if (!makeVideo("clip.mkv", "yuv420p", "libx264")) GTEST_SKIP() << "no ffmpeg program";
    const Words decode = {"decode", path("clip.mkv"), "--json", path("json"), "--max-latency-p99"};
    const Result late = vxrun(decode + Words{"0.001"});
    EXPECT_EQ(late.exit, 1);
    expectHas(late.err, " ms of latency (p99), at most 0.001 asked for\n");
    EXPECT_EQ(vxrun(decode + Words{"1e9"}).exit, 0);
    const Json run = Json::parse(contentOf(path("json")))["run"];
    EXPECT_EQ(run["latency_ms"]["frames"], 30);
    EXPECT_LE(run["latency_ms"]["p50"], run["latency_ms"]["max"]);
    EXPECT_EQ(run["limits"][0]["met"], true);
}

// Catches: a run that ends without its reports, or with invalid ones, however it ends.
TEST_F(VxrunObserved, WritesReportsOfRuns) {
    makeClip();
    const std::string linear = moved(graph("linear"), "linear.json");
    writeFile(path("bad"), replaced(contentOf(path("clip.framemd5")), "36, ", "37, "));
    const Words reports = {"--json", path("json"), "--junit", path("junit"), "--log", "8"},
                pipe = {"reader.file=" + path("pipe")};
    const struct {
        Words arguments;
        std::string verdict;
        int exit;
        std::string junit;
        int signal = 0;
    } cases[] = {
        {{}, "PASS", 0, "failures=\"0\" errors=\"0\""},
        {{"check.expect=" + path("bad")}, "CRC_MISMATCH", 1, "<failure type=\"CRC_MISMATCH\""},
        {pipe + Words{"--stall", "1"}, "STALL", 124, "<error type=\"STALL\""},
        {pipe, "SIGINT", 130, "<error type=\"SIGINT\"", SIGINT},
        {pipe, "DID_NOT_FINISH", -SIGKILL, "<error type=\"DID_NOT_FINISH\"", SIGKILL},
        {{"reader.speed=1"}, "NODE_FAIL_INIT", 3, "unknown config 'speed'"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.verdict);
        const int writer = makePipe(contentOf(path("clip.y4m")) + "FRAME\n");
        Process process(command(Words{linear} + reports + c.arguments));
        if (c.signal != 0) {
            EXPECT_TRUE(process.waitFor("Wait for completion"));
            process.kill(c.signal);
        }
        EXPECT_EQ(process.wait(), c.exit);
        const Json document = Json::parse(contentOf(path("json")));
        const Json& run = document["run"];
        EXPECT_EQ(run["verdict"], c.verdict);
        EXPECT_EQ(run.value("exit_code", c.exit), c.exit);
        EXPECT_EQ(run["error"] == "", c.exit <= 0);
        EXPECT_EQ(run["first_bad"].is_null(), c.exit != 1);
        expectHas(document["system_info"]["command_line"], "--junit");
        expectHas(contentOf(path("junit")), c.junit);
        expectHas(contentOf(path("junit")), "classname=\"linear\"");
        EXPECT_FALSE(std::filesystem::exists(path("json.part")));
        close(writer);
        std::filesystem::remove(path("pipe"));
    }
    const Result nowhere = vxrun({linear, "--json", path("none/json")});
    EXPECT_EQ(nowhere.exit, 2);
    expectHas(nowhere.err, "vxrun: --json: " + path("none/json"));
}

// Catches: colors in a file, or none where they are asked for.
TEST_F(VxrunObserved, Colors) {
    makeClip();
    const struct {
        Words environment;
        const char* option;
        bool isPainted;
    } cases[] = {
        {{}, "auto", false},
        {{}, "always", true},
        {{"CLICOLOR_FORCE=1"}, "auto", true},
        {{"CLICOLOR_FORCE=0"}, "auto", false},
        {{"CLICOLOR_FORCE=1", "NO_COLOR=1"}, "auto", false},
        {{"CLICOLOR_FORCE=1"}, "never", false},
        {{"NO_COLOR=1"}, "always", true},
    };
    for (const auto& c : cases) {
        Process process(command({graph("linear"), "--color", c.option}), c.environment);
        EXPECT_EQ(process.wait(), 0);
        const std::string word = c.isPainted ? "\033[32mPASS\033[m" : "PASS";
        EXPECT_EQ(process.out, "verdict: " + word + " frames=4 checked=4 first_bad=-\n");
    }
}

}  // namespace
