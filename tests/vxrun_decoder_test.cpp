// Decoders that are not libavcodec: programs, descriptions, node libraries.
#include "support/Vxrun.h"

#include <map>

namespace {

using namespace vxrun_test;

class VxrunDecoders : public Vxrun {
protected:
    // clip.y4m and clip.framemd5, of 4 pictures, and clip.yuv, the same as raw video.
    void SetUp() override {
        Vxrun::SetUp();
        makeClip();
        const std::string clip = contentOf(path("clip.y4m"));
        std::string raw;
        for (size_t at = 0; (at = clip.find("FRAME\n", at)) < clip.size();) {
            raw += clip.substr(at += 6, 36);
        }
        writeFile(path("clip.yuv"), raw);
        writeFile(path("graph.json"), R"({ "name": "g", "nodes": [
            { "name": "decoder", "type": "codec/command", "configs": { "file": "clip.y4m" },
              "outputs": [ { "name": "out", "format": "video/raw" } ] },
            { "name": "check", "type": "sink/checksum", "configs": { "expect": "clip.framemd5" },
              "inputs": [ { "name": "in", "format": "video/raw" } ] } ],
            "connections": { "out": ["in"] } })");
    }

    // The graph with `command`, where "sh: ..." stands for a script, and more configs of the node.
    Result decode(const std::string& command, const Words& configs = {}) const {
        const bool isScript = command.rfind("sh: ", 0) == 0;
        Words words = {
            path("graph.json"), "--stall", "2", "--set",
            "decoder.command=" + (isScript ? "sh -c '" + command.substr(4) + "'" : command)};
        for (const std::string& config : configs) {
            words.push_back("--set");
            words.push_back("decoder." + config);
        }
        return vxrun(words);
    }
};

// Catches: a way in or out that loses or adds bytes, pictures that are taken for others, a process
// that is left behind.
TEST_F(VxrunDecoders, ProgramsReadAndWriteInEveryWay) {
    const Words raw = {"file=" + path("clip.yuv"), "width=6", "height=4", "format=yuv420p"};
    const std::pair<std::string, Words> cases[] = {
        {"cat {input}", {}},
        {"cat", {}},
        {"cp {input} {output}", {}},
        {"cp {input} {output}", {"output=file"}},
        {"sh: for i in 1 2 3 4 5 6 7; do head -c 30; done >{output}", {"output=file"}},
        {"cat {input}", raw},
        {"sh: test {width}x{height}.{format}.{codec}.{threads} = 6x4.yuv420p.x.3 && cat {input}",
         raw + Words{"codec=x", "threads=3"}},
        {"env A=b sh -c \"test $A$B = bc && cat {input}\"", {"environment=B=c"}},
        {"sh: sleep 1000 & echo $! >&2; cat {input}; exit 5", {"tolerate_errors=true"}},
    };
    for (const auto& [command, configs] : cases) {
        SCOPED_TRACE(command);
        expectPass(decode(command, configs), "4");
    }
    const Result left = decode("sh: sleep 1000 & echo $! >&2; cat {input}; exit 5");
    const std::string words = "decoder': sh: exit code 5; its last words: '";
    const size_t at = left.err.find(words);
    ASSERT_NE(at, std::string::npos) << left.err;
    const pid_t sleeper = std::atoi(left.err.c_str() + at + words.size());
    EXPECT_EQ(contentOf("/proc/" + std::to_string(sleeper) + "/cmdline"), "");
}

// Catches: a program's failure that passes, hangs or is not named with what is known about it.
TEST_F(VxrunDecoders, ProgramsFailInEveryWay) {
    const std::string fatal = "NODE_FAIL_FATAL", init = "NODE_FAIL_INIT";
    const struct {
        std::string command, verdict, line;
        int exit = 3;
        Words configs = {};
    } cases[] = {
        {"nosuch {input}", init, "decoder': nosuch: No such file or directory"},
        {"cat {input", fatal, "cat: exit code 1; its last words: "},
        {"cat {bits}", init, "config 'command': unknown placeholder {bits}"},
        {"cat \"", init, "config 'command': a quote \" that does not end"},
        {"true", fatal, "decoder': true: no picture"},
        {"sh: cat {input}; exit 3", fatal, "sh: exit code 3"},
        {"sh: cat {input}; echo a; kill -SEGV $$", fatal, "frame 4: expected 'FRAME', got 'a'"},
        {"sh: cat {input}; kill -SEGV $$", fatal, "decoder': sh: ended by Segmentation fault"},
        {"sleep 1000", "STALL", "not finished: decoder (waits for sleep), check", 124},
        {"sh: cat {input}; exec sleep 1000", "STALL", "not finished: decoder", 124},
        {"sh: yes >&2", "STALL", "not finished: decoder (waits for sh), check", 124},
        {"sh: head -c 99 {input}", fatal, "frame 1: truncated: expected 36 bytes, actual 29"},
        {"sh: cat {input}; echo FRAME; head -c 36 /dev/zero", "CRC_MISMATCH", "this is one more",
         1},
        {"cat {input}",
         "NOT_SUPPORTED",
         "the pictures are yuv420p, not 'gray'",
         77,
         {"format=gray"}},
        {"cat {input}",
         "CRC_MISMATCH",
         "frame 0 ",
         1,
         {"file=" + path("clip.yuv"), "width=12", "height=4", "format=yuv420p"}},
        {"cat /dev/zero",
         fatal,
         "/dev/zero: not a video file that libavformat can read",
         3,
         {"file=/dev/zero"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.command);
        const Result result = decode(c.command, c.configs);
        EXPECT_EQ(result.exit, c.exit) << result.err;
        expectHas(result.out, "verdict: " + c.verdict + " ");
        expectHas(result.err, c.line);
    }
}

// Catches: pictures that are lost or waited for in a pipe, half a picture that passes, a size that
// is not known and is assumed.
TEST_F(VxrunDecoders, PicturesComeFromFilesAndPipes) {
    const Words size = {"decoder.width=6", "decoder.height=4", "decoder.format=yuv420p"};
    const std::string clip = path("clip.yuv"), in = "/dev/stdin", fifo = path("fifo");
    const std::string big = "decoder.width=65535", bad = "decoder.format=nv13";
    const struct {
        std::string type, setup, file;
        Words configs;
        std::string line;  // of the error
    } cases[] = {
        {"y4m", "cat " + path("clip.y4m") + " | ", in, {}, ""},
        {"rawvideo", "", clip, size, ""},
        {"rawvideo", "mkfifo " + fifo + "; cat " + clip + " >" + fifo + " & ", fifo, size, ""},
        {"rawvideo", "head -c 107 " + clip + " | ", in, size, in + ": frame 2 at byte 72: trunc"},
        {"rawvideo", "", clip, {"decoder.width=6"}, "config 'format' is missing"},
        {"rawvideo", "", clip, size + Words{bad}, "config 'format': unknown format 'nv13'"},
        {"rawvideo", "", clip, size + Words{big, "decoder.height=65535"}, "larger than 1 GiB"},
    };
    const std::string text = contentOf(path("graph.json"));
    for (const auto& c : cases) {
        SCOPED_TRACE(c.setup + c.line);
        writeFile(path("graph.json"), replaced(text, "codec/command", "source/" + c.type));
        const Result result = vxrunIn(
            c.setup + "\"$@\"", Words{path("graph.json"), "decoder.file=" + c.file} + c.configs);
        EXPECT_EQ(result.exit, c.line.empty() ? 0 : 3);
        expectHas(c.line.empty() ? result.out : result.err,
                  c.line.empty() ? "verdict: PASS frames=4 checked=4 " : c.line);
    }
}

// Catches: a description that is misread, or whose mistake is not named; a decoder that cannot run
// here and fails the vectors; columns that are mixed up.
TEST_F(VxrunDecoders, DescriptionsAreDecoders) {
    const Result made = vxrun({"decode", path("clip.y4m")});
    const std::string md5 = made.out.substr(0, 32);
    const auto describe = [&](const std::string& name, const std::string& text) {
        writeFile(path(name + ".json"), R"({"name":")" + name + "\"," + text + "}");
        return path(name + ".json");
    };
    const std::string good = describe(
        "good", R"("probe":["echo","good 1.2.3"],"environment":["A=b"],"codecs":["rawvideo"],)"
                R"("command":["sh","-c","test $A = b && cat {input}"])");
    const std::string wrong = describe("wrong", R"("command":["head","-c","150","{input}"])");
    const std::string missing =
        describe("missing", R"("probe":["nosuch"],"command":["cat","{input}"])");
    const std::string absent = describe("absent", R"("command":["nosuch","{input}"])");
    const std::string other = describe("other", R"("codecs":["h264"],"command":["cat"])");
    const std::string node = describe(
        "node", R"("node":"codec/decoder","configs":{"threads":2,"tolerate_errors":true})");
    writeFile(path("template.json"), R"({ "name": "t", "nodes": [
        { "name": "reader", "type": "source/y4m", "configs": { "file": "{input}" },
          "outputs": [ { "name": "out", "format": "video/raw" } ] },
        { "name": "md5", "type": "sink/checksum", "configs": { "print_md5": true },
          "inputs": [ { "name": "in", "format": "video/raw" } ] } ],
        "connections": { "out": ["in"] } })");
    const std::string graph = describe("graph", R"("graph":"template.json")");
    const struct {
        std::string option, name;
        int exit;
        std::string line;
    } cases[] = {
        {"--decoder", good, 0, ""},
        {"--decoder", node, 0, ""},
        {"--decoder", graph, 0, ""},
        {"--graph", path("template.json"), 0, ""},
        {"--decoder", "codec/decoder", 0, ""},
        {"--decoder", "libavcodec", 0, ""},
        {"--decoder", wrong, 3, "frame 3: truncated"},
        {"--decoder", missing, 69, "vxrun: nosuch: No such file or directory"},
        {"--decoder", other, 69, "vxrun: other does not decode rawvideo"},
        {"--decoder", "nosuch", 2, "--decoder: no decoder 'nosuch'"},
        {"--decoder", "sink/null", 2, "--decoder: no decoder 'sink/null'"},
        {"--decoder", path("none.json"), 2, "none.json: No such file or directory"},
        {"--decoder", describe("two", R"("node":"a","command":["b"])"), 2,
         "two.json:1:1: decoder: expected one of 'node', 'command' and 'graph'"},
        {"--decoder", describe("type", R"("node":"a/b")"), 2, "unknown node type 'a/b'"},
        {"--decoder", describe("key", R"("speed":1)"), 2, "key.json:1:23: speed: unknown key"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const Result result =
            vxrun({"decode", path("clip.y4m"), "--codec", "rawvideo", c.option, c.name});
        EXPECT_EQ(result.exit, c.exit) << result.err;
        EXPECT_EQ(result.out, c.exit == 0 ? md5 + "\n" : "");
        expectHas(result.err, c.line);
    }

    std::filesystem::create_directories(path("S/v"));
    std::filesystem::copy(path("clip.y4m"), path("S/v/clip.y4m"));
    writeFile(path("s.json"), R"({"name":"S","codec":"rawvideo","test_vectors":[{"name":"v",)"
                              R"("source":"","source_checksum":"__skip__","input_file":)"
                              R"("clip.y4m","result":")" +
                                  md5 + "\"}]}");
    Words command = {"suite",   path("s.json"), "--resources", path("."), "--json",
                     path("r"), "--markdown",   path("m"),     "--junit", path("j")};
    for (const std::string& decoder :
         {good, wrong, missing, absent, other, std::string("libavcodec")}) {
        command.insert(command.end(), {"--decoder", decoder});
    }
    const Result suite = vxrun(command);
    EXPECT_EQ(suite.exit, 1) << suite.err;
    expectHas(suite.out,
              "\nthe decoders disagree on v\n"
              "verdict: FAIL passed=2 failed=0 errors=1 skipped=3\n");
    expectHas(contentOf(path("m")),
              "|v|Success|Error|Not supported|Not supported|Not supported|Success|\n");
    expectHas(contentOf(path("m")), "\n- good: good 1.2.3\n- vxrun: 1.");
    expectHas(contentOf(path("r")), "\"decoder_version\": \"good 1.2.3\"");
    expectHas(contentOf(path("j")), "classname=\"S.good.rawvideo\" name=\"v\"");
    command.resize(10);
    command.insert(command.end(), {"--decoder", missing});
    EXPECT_EQ(vxrun(command).exit, 77);
}

// Catches: a device that is not there, and fails every vector.
TEST_F(VxrunDecoders, MissingDevicesFailNoVector) {
    const std::string vector = R"("source":"","source_checksum":"","input_file":"a","result":""})";
    writeFile(path("s.json"), R"({"name":"S","codec":"H.264","test_vectors":[{"name":"v",)" +
                                  vector + R"(,{"name":"w",)" + vector + "]}");
    const struct {
        std::string decoder, setting, line;
    } cases[] = {
        {"libavcodec", "hwaccel=vdpau:nosuch:9", "no device 'vdpau:nosuch:9': "},
        {"libavcodec", "hwaccel=warp", "config 'hwaccel': no kind 'warp', libavutil has "},
        {"codec/v4l2", "device=nosuch", "no V4L2 decoder of h264"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        const Words device = {"--decoder", c.decoder, "--set", "decoder." + c.setting};
        Words suite = {"suite", path("s.json"), "--resources", path(".")};
        suite.insert(suite.end(), device.begin(), device.end());
        const Result result = vxrun(suite);
        EXPECT_EQ(result.exit, 77);
        expectHas(result.out, "verdict: SKIPPED passed=0 failed=0 errors=0 skipped=2\n");
        expectHas(result.err, "v: Not supported (0.0 s): " + c.line);
        if (c.decoder != "libavcodec") continue;
        const Result decoded = vxrun({"decode", path("clip.y4m"), "--set", device.back()});
        EXPECT_EQ(decoded.exit, 69);
        expectHas(decoded.err, "vxrun: node 'decoder': " + c.line);
    }
}

// Catches: a shipped description whose program does not do what it says.
TEST_F(VxrunDecoders, ShippedOnesAgreeOnRealStreams) {
    const std::string streams = VXRUN_STREAMS_DIR "/";
    if (!std::filesystem::exists(streams)) GTEST_SKIP() << "no " << streams;
    const std::string listed = vxrun({"--list-decoders"}).out;
    const std::string any = "ffmpeg gstreamer ", av1 = any + "dav1d aomdec", vpx = any + "vpxdec";
    const std::pair<std::string, std::string> cases[] = {
        {"h264/Static.264", any},
        {"h264/clip-c.h264", any},
        {"hevc/bear.h265", any + "dec265"},
        {"vp8/test-25fps.vp8", vpx},
        {"vp9/vp90-2-10-show-existing-frame2.vp9.ivf", vpx},
        {"av1/av1-176x144-main-basic-10.ivf", av1},
        {"av1/av1-sizeup-fluster.ivf", av1},
    };
    for (const auto& [stream, names] : cases) {
        const std::string expected = vxrun({"decode", streams + stream}).out;
        EXPECT_EQ(expected.size(), 33u);
        std::istringstream decoders(names);
        for (std::string name; decoders >> name;) {
            SCOPED_TRACE(name + " " + stream);
            const size_t at = listed.find("\n" + name + " ") + 1;
            ASSERT_LT(listed.find(name + " "), listed.size());
            const size_t next = listed.find('\n', at) + 1;
            if (listed.find("not here: ", next) < listed.find('\n', next)) continue;
            const Result result = vxrun({"decode", streams + stream, "--decoder", name});
            EXPECT_EQ(result.out, expected) << result.err;
        }
    }
}

// Catches: a library that cannot be used and is, or whose reason is not named; a crash that is not
// its node's.
TEST_F(VxrunDecoders, NodesComeFromLibraries) {
    const std::string crash = NODES_DIR "/libcrash.so", file = path("clip.y4m");
    const std::pair<std::string, std::string> bad[] = {
        {path("none.so"), "none.so: cannot open shared object file: No such file or directory\n"},
        {file, "clip.y4m: invalid ELF header\n"},
        {"libz.so.1", "libz.so.1: not a node library: it is not linked with vxkit\n"},
        {NODES_DIR "/libother_version.so", ": built against vxkit 2, this is vxkit 1\n"},
        {NODES_DIR "/libsecond.so", ": the node type 'sink/null' is registered already\n"},
    };
    for (const auto& [library, line] : bad) {
        SCOPED_TRACE(library);
        const Result result = vxrun({"--nodes", library, "--list-nodes"});
        EXPECT_EQ(result.exit, 2);
        expectHas(result.err, line);
        const std::string entry = R"({ "nodes_from": [")" + library + R"("], "name": )";
        writeFile(path("from.json"),
                  replaced(contentOf(path("graph.json")), R"({ "name": )", entry));
        expectHas(vxrun({path("from.json")}).err, "from.json:1:18: nodes_from[0]: ");
    }
    expectHas(vxrun({"--nodes", crash, "--nodes", crash, "--list-nodes"}).out, "\ntest/crash ");
    Process listed({VXRUN_BINARY, "--list-nodes"}, {"VXRUN_NODES=:" + crash});
    EXPECT_EQ(listed.wait(), 0) << listed.err;
    expectHas(listed.out, "\ntest/crash ");
    const struct {
        std::string how, line;
        int signal;
    } ways[] = {
        {"signal", "SIGSEGV in node 'decoder'", SIGSEGV},
        {"abort", "SIGABRT in node 'decoder'", SIGABRT},
        // The source may read ahead at that moment.
        {"thread", "SIGSEGV in no node's thread; at work: ('reader', )?'decoder'", SIGSEGV}};
    for (const auto& c : ways) {
        const Result result = vxrun(
            {"decode", file, "--nodes", crash, "--decoder", "test/crash", "decoder.how=" + c.how});
        EXPECT_EQ(result.exit, -c.signal);
        expectMatch(result.err, "vxrun: crashed: " + c.line + "\n");
    }
}

}  // namespace
