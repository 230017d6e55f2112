// What vxrun does with graph files, files and signals, as its users see it.
#include "support/Vxrun.h"

#include <sys/stat.h>

#include <nlohmann/json.hpp>

namespace {

using namespace vxrun_test;

// ---- Passing ----------------------------------------------------------------------------------

// Catches: a wrong plane size, row order, hash start value or list column for any sampling, depth,
// odd size, frame rate or aspect ratio; every one is compared with another program's list.
TEST_F(Vxrun, AgreesWithFfmpegOnEveryFormat) {
    struct Case {
        const char* fields;
        int bytes;  // of a frame, worked out by hand
        bool deep = false;
    };
    const Case cases[] = {
        {"W8 H6 F25:1", 48 + 2 * 12},
        {"W7 H5 F30000:1001 C420jpeg", 35 + 2 * 12},
        {"W35 H27 F50:2 It A4:2 C420mpeg2 Xcomment XYSCSS=420MPEG2", 945 + 2 * 252},
        {"C420paldv A128:117 F1000:33 H2 W3", 6 + 2 * 2},
        {"W7 H5 F0:0 A0:0 C422", 35 + 2 * 20},
        {"W7 H5 F1:2 C444", 35 * 3},
        {"W9 H5 F24:1 C411", 45 + 2 * 15},
        {"W7 H5 Cmono", 35},
        {"W7 H5 F25:1 C420p10", 2 * (35 + 2 * 12), true},
        {"W7 H5 F24000:1001 C422p10", 2 * (35 + 2 * 20), true},
        {"W7 H5 F25:1 C444p12", 2 * 35 * 3, true},
        {"W7 H5 F25:1 C420p16", 2 * (35 + 2 * 12), true},
        {"W7 H5 F25:1 Cmono10", 2 * 35, true},
        {"W1 H1 F25:1 C420p9", 2 * 3, true},
    };
    const std::string shipped = VXRUN_GRAPHS_DIR "/linear.json";
    for (const Case& c : cases) {
        SCOPED_TRACE(c.fields);
        writeFile(path("clip.y4m"), y4m(c.fields, c.bytes, 3, c.deep));
        for (const std::string format : {"framemd5", "framecrc"}) {
            if (!makeList({"-i", path("clip.y4m")}, format)) GTEST_SKIP() << "no ffmpeg program";
            const Result result = vxrun({shipped, "--set", "reader.file=" + path("clip.y4m"),  //
                                         "--set", "check.expect=" + path(format),              //
                                         "--set", "check.write=" + path("own"),                //
                                         "--set", "check.format=" + format});
            EXPECT_EQ(result.out, "verdict: PASS frames=3 checked=3 first_bad=-\n");
            EXPECT_EQ(result.exit, 0) << result.err;
            EXPECT_EQ(result.err, "");
            EXPECT_EQ(contentOf(path("own")), contentOf(path(format)));
        }
    }
}

// Catches: chunks of a wrong size, a lost last chunk, a list that differs from ffmpeg's for data.
TEST_F(Vxrun, ReadsAnyFileInChunks) {
    const std::string graphFile = graph("linear", "source/y4m", "source/file");
    for (const int size : {1, 99, 100, 101, 250}) {
        SCOPED_TRACE(size);
        writeFile(path("data"), y4m("", size, 1).substr(0, static_cast<size_t>(size)));
        if (!makeList({"-f", "data", "-raw_packet_size", "100", "-i", path("data"), "-map", "0",
                       "-c", "copy"},
                      "framemd5")) {
            GTEST_SKIP() << "no ffmpeg program";
        }
        const Result result = vxrun({graphFile, "--set", "reader.file=" + path("data"),  //
                                     "--set", "reader.chunk=100",                        //
                                     "--set", "check.expect=" + path("framemd5"),        //
                                     "--set", "check.write=" + path("own")});
        std::ostringstream verdict;
        verdict << "verdict: PASS frames=" << (size + 99) / 100 << " checked=" << (size + 99) / 100
                << " first_bad=-\n";
        EXPECT_EQ(result.out, verdict.str()) << result.err;
        EXPECT_EQ(contentOf(path("own")), contentOf(path("framemd5")));
    }
}

// Catches: first frames that are lost since their node starts after the one that feeds it.
TEST_F(Vxrun, NodesMayStandInAnyOrder) {
    makeClip();
    const std::string text = contentOf(VXRUN_GRAPHS_DIR "/linear.json");
    auto description = nlohmann::json::parse(text);
    std::reverse(description["nodes"].begin(), description["nodes"].end());
    writeFile(path("graph.json"), description.dump());
    const Result result = vxrun({path("graph.json"), "--timeout", "50"});
    EXPECT_EQ(result.out, "verdict: PASS frames=4 checked=4 first_bad=-\n") << result.err;
}

// Catches: a sink that misses frames beside others, rows out of order in a written file, a file left
// under its temporary name.
TEST_F(Vxrun, FansOutToThreeSinks) {
    makeClip();
    const Result result = vxrun({graph("fanout")});
    EXPECT_EQ(result.out, "verdict: PASS frames=4 checked=4 first_bad=-\n") << result.err;
    std::string pictures = contentOf(path("clip.y4m"));
    pictures.erase(0, pictures.find('\n') + 1);
    for (size_t frame = 0; frame < 4; ++frame) pictures.erase(frame * 36, 6);  // "FRAME\n"
    EXPECT_EQ(contentOf(path("clip.yuv")), pictures);
    EXPECT_FALSE(std::filesystem::exists(path("clip.yuv.part")));
}

// ---- Decoding ---------------------------------------------------------------------------------

class VxrunDecoding : public Vxrun {
protected:
    // Runs the shipped graph with `file` and `options` ("node.key=value"); it expects what they say.
    Result decode(const std::string& file, const std::vector<std::string>& options = {}) const {
        const auto expects = [](const std::string& o) { return o.rfind("check.expect=", 0) == 0; };
        std::vector<std::string> arguments = {std::any_of(options.begin(), options.end(), expects)
                                                  ? VXRUN_GRAPHS_DIR "/decode.json"
                                                  : unchecked("decode"),
                                              "--timeout", "50", "--set", "reader.file=" + file};
        for (const std::string& option : options) {
            arguments.insert(arguments.end(), {"--set", option});
        }
        return vxrun(arguments);
    }

    // The streams that have a list.
    static std::vector<std::string> streams() {
        std::vector<std::string> files;
        std::error_code none;
        for (auto entry = std::filesystem::recursive_directory_iterator(VXRUN_STREAMS_DIR, none);
             !none && entry != std::filesystem::recursive_directory_iterator(); ++entry) {
            const std::string file = entry->path();
            if (std::filesystem::exists(file + ".framemd5")) files.push_back(file);
        }
        return files;
    }
};

// Catches: a wrong picture, order, crop, size change or number of frames in real streams; a decoder
// that waits for ever, or fails, with few buffers or buffers of another allocator; false alarms.
TEST_F(VxrunDecoding, DecodesRealStreams) {
    const auto files = streams();
    if (files.empty()) GTEST_SKIP() << "no streams in " VXRUN_STREAMS_DIR;
    for (const std::string& file : files) {
        for (const std::string allocator : {"dmabuf", "xcodec2"}) {
            SCOPED_TRACE(file + " " + allocator);
            const Result result =
                decode(file, {"check.expect=" + file + ".framemd5", "reader.slots=4",
                              "decoder.slots=4", "check.allocator=" + allocator});
            EXPECT_EQ(result.exit, 0) << result.err;
            EXPECT_EQ(result.out.rfind("verdict: PASS frames=", 0), 0u) << result.out;
            EXPECT_EQ(result.err, "");
        }
    }
}

// Catches: damage that the decoder conceals and nobody reports, a run that breaks off at it, and
// tolerance that is not heeded. The list is of the damaged stream itself: only the decoder's evidence
// tells.
TEST_F(VxrunDecoding, ReportsConcealedDamage) {
    const std::string file = VXRUN_STREAMS_DIR "/malformed/h264/Error_I_P.264";
    if (!std::filesystem::exists(file)) GTEST_SKIP() << "no " << file;
    if (!makeList({"-i", file, "-fps_mode", "passthrough", "-autoscale", "0"}, "framemd5")) {
        GTEST_SKIP() << "no ffmpeg program";
    }
    const std::string expect = "check.expect=" + path("framemd5");
    expectFailure(decode(file, {expect}), 1, "INFO_VALIDATION_FAIL frames=6 checked=6 first_bad=-",
                  "vxrun: node 'decoder': errors in decoding: 5, first at frame 0: ");
    EXPECT_EQ(decode(file, {expect, "decoder.tolerate_errors=true"}).exit, 0);
}

// Catches: a plane that is lost, cut or in a wrong place for a format, depth or odd size; wrong times
// in a list; frames lost at the end with one buffer, threads or reordering; a picture that the graph
// cannot carry and that passes or crashes.
TEST_F(VxrunDecoding, AgreesWithFfmpegOnEveryFormat) {
    struct Case {
        const char *name, *pixels, *codec, *unsupported;
    };
    const Case cases[] = {
        {"a.mkv", "yuv420p", "ffv1", nullptr},     {"b.mkv", "yuv422p10le", "ffv1", nullptr},
        {"c.mkv", "yuv444p16le", "ffv1", nullptr}, {"d.mkv", "gray", "ffv1", nullptr},
        {"e.mkv", "gray12le", "ffv1", nullptr},    {"f.mkv", "gbrp10le", "ffv1", nullptr},
        {"g.mp4", "yuv420p", "mpeg4", nullptr},    {"h.m2v", "yuv420p", "mpeg2video", nullptr},
        {"i.nut", "yuv411p", "rawvideo", nullptr}, {"j.nut", "nv12", "rawvideo", "nv12"},
        {"k.mkv", "yuva420p", "ffv1", "yuva420p"}, {"l.mkv", "bgr0", "ffv1", "bgr0"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name + std::string(" ") + c.pixels);
        if (!makeVideo(c.name, c.pixels, c.codec)) GTEST_SKIP() << "no ffmpeg program";
        if (c.unsupported != nullptr) {
            expectFailure(decode(path(c.name)), 77, std::string("NOT_SUPPORTED") + kNothing,
                          std::string("the pixel format ") + c.unsupported + " is not supported");
            continue;
        }
        makeList({"-flags", "unaligned", "-i", path(c.name), "-fps_mode", "passthrough"},
                 "framemd5");
        for (const std::string slots : {"1", "8"}) {
            const Result result =
                decode(path(c.name), {"check.expect=" + path("framemd5"),
                                      "check.write=" + path("own"), "reader.slots=" + slots,
                                      "decoder.slots=" + slots, "decoder.threads=" + slots});
            EXPECT_EQ(result.exit, 0);
            EXPECT_EQ(result.out, "verdict: PASS frames=30 checked=30 first_bad=-\n") << result.err;
            EXPECT_EQ(contentOf(path("own")), contentOf(path("framemd5")));
        }
    }
}

// Catches: a large access unit that does not fit into the source's buffers.
TEST_F(VxrunDecoding, AccessUnitsMayGrow) {
    // The picture is plain in the first seconds, and noise after them.
    const std::string source =
        "color=size=256x256:rate=10:duration=2,noise=alls=100:allf=t:enable='gte(t,1)'";
    if (!makeVideo("clip.mkv", "yuv444p", "ffv1", source)) GTEST_SKIP() << "no ffmpeg program";
    makeList({"-i", path("clip.mkv")}, "framemd5");
    const Result result = decode(path("clip.mkv"), {"check.expect=" + path("framemd5")});
    EXPECT_EQ(result.out, "verdict: PASS frames=20 checked=20 first_bad=-\n") << result.err;
}

// Catches: a file cut short that passes; a file or config that is no good and crashes, hangs, passes
// or is not named.
TEST_F(VxrunDecoding, RefusesBadFilesAndConfigs) {
    if (!makeVideo("good.ivf", "yuv420p", "libvpx")) GTEST_SKIP() << "no ffmpeg with VP8";
    const std::string good = contentOf(path("good.ivf"));
    writeFile(path("cut.ivf"), good.substr(0, good.size() - 10));
    writeFile(path("empty.264"), "");
    writeFile(path("text.txt"), "This is no video.\n");
    const std::string noise = y4m("", 100000, 1);
    writeFile(path("noise"), noise);
    const size_t first = static_cast<uint8_t>(good[32]) + (static_cast<uint8_t>(good[33]) << 8u);
    writeFile(path("broken.ivf"), good.substr(0, 32 + 12) + noise.substr(20, first));
    // The size of the first access unit: more than there is memory for.
    std::string huge = good;
    huge.replace(32, 4, "\xff\xff\xff\xff");
    writeFile(path("huge.ivf"), huge);
    const Result cut = decode(path("cut.ivf"), {"check.write=" + path("own")});
    EXPECT_EQ(cut.exit, 1);
    EXPECT_EQ(cut.out.rfind("verdict: INFO_VALIDATION_FAIL", 0), 0u) << cut.out;
    EXPECT_NE(cut.err.find("first at frame 29: "), std::string::npos) << cut.err;
    EXPECT_TRUE(std::filesystem::exists(path("own"))) << "the sink did not finish";

    struct Case {
        std::string file;
        std::vector<std::string> options;
        int exit;
        const char *verdict, *line;
    };
    const Case cases[] = {
        {"none.264", {}, 3, "NODE_FAIL_INIT", "none.264: No such file or directory"},
        {"", {}, 3, "NODE_FAIL_INIT", ": Is a directory"},
        {"empty.264", {}, 3, "NODE_FAIL_INIT", "empty.264: no access unit in the file"},
        {"text.txt", {}, 3, "NODE_FAIL_INIT", "text.txt: no video file that libavformat can read"},
        {"noise", {}, 3, "NODE_FAIL_INIT", "noise: no video file that libavformat can read"},
        {"huge.ivf", {}, 3, "NODE_FAIL_INIT", "huge.ivf: access unit 0: Cannot allocate memory"},
        {"broken.ivf", {}, 1, "INFO_VALIDATION_FAIL", "node 'decoder': no frame in the stream; "},
        {"good.ivf", {"codec=nosuch"}, 77, "NOT_SUPPORTED", "no decoder 'nosuch'"},
        {"good.ivf", {"threads=0"}, 3, "NODE_FAIL_INIT", "expected a number from 1 to 64, got '0'"},
        {"good.ivf", {"tolerate_errors=1"}, 3, "NODE_FAIL_INIT", "expected true or false, got '1'"},
        {"good.ivf", {"options=nosuch=1"}, 3, "NODE_FAIL_FATAL", "has no option 'nosuch'"},
        {"good.ivf",
         {"options=nosuch"},
         3,
         "NODE_FAIL_FATAL",
         "expected key=value:key=value, got 'nosuch'"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.line);
        std::vector<std::string> options;
        for (const std::string& option : c.options) options.push_back("decoder." + option);
        expectFailure(decode(path(c.file), options), c.exit, c.verdict + std::string(kNothing),
                      c.line);
    }
}

// ---- Failing checks ---------------------------------------------------------------------------

// Catches: a difference that passes, is blamed on another frame, counted wrongly or not shown at once; a
// list of another length that passes since all common frames match.
TEST_F(Vxrun, NamesTheFirstFrameThatDiffers) {
    makeClip();
    const std::string clip = contentOf(path("clip.y4m"));
    const std::string list = contentOf(path("clip.framemd5"));
    const std::string lastRow = list.substr(list.rfind("\n0,") + 1);
    std::string damaged = clip;
    for (const size_t frame : {2, 3}) damaged[damaged.size() - (4 - frame) * 42 + 10] ^= 1;
    struct Case {
        std::string clip, list, verdict, first, last;  // lines
    };
    const std::string check = "vxrun: node 'check': ", has = path("clip.framemd5") + " has ";
    const Case cases[] = {
        {damaged, list, "frames=4 checked=4 first_bad=2", "frame 2 (timestamp 2): expected ",
         "2 of 4 frames differ, first is frame 2\n"},
        {clip, replaced(list, lastRow, ""), "frames=4 checked=3 first_bad=3",
         "frame 3 (timestamp 3): " + has + "3 frames, this is one more\n",
         "the stream has 4 frames, " + has + "3\n"},
        {clip, list + lastRow, "frames=4 checked=4 first_bad=4", "the stream has 4 frames, ",
         has + "5\n"},
        {damaged, list + lastRow, "frames=4 checked=4 first_bad=2", "frame 2 (timestamp 2): ",
         "2 of 4 frames differ, first is frame 2; the stream has 4 frames, " + has + "5\n"},
        {clip, replaced(list, "36, ", "37, "), "frames=4 checked=4 first_bad=0",
         "frame 0 (timestamp 0): expected 37 bytes ", "1 of 4 frames differ, first is frame 0\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.first);
        writeFile(path("clip.y4m"), c.clip);
        writeFile(path("clip.framemd5"), c.list);
        const Result result = vxrun({graph("fanout")});
        EXPECT_EQ(result.out, "verdict: CRC_MISMATCH " + c.verdict + "\n");
        EXPECT_EQ(result.exit, 1);
        EXPECT_EQ(result.err.rfind(check + c.first, 0), 0u) << result.err;
        const size_t end = result.err.size() - std::min(c.last.size(), result.err.size());
        EXPECT_EQ(result.err.substr(end), c.last) << result.err;
        EXPECT_EQ(contentOf(path("clip.yuv")).size(), 4 * 36u);  // the other sinks finished
    }
}

// Catches: a difference that was found and is lost when the run ends early, however that comes about.
TEST_F(Vxrun, ADifferenceStaysTheVerdict) {
    makeClip();
    const std::string clip = contentOf(path("clip.y4m"));
    std::string damaged = clip.substr(0, clip.size() - 1);
    damaged[damaged.size() - 100] ^= 1;
    writeFile(path("cut.y4m"), damaged);
    ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
    const int writer = open(path("pipe").c_str(), O_RDWR | O_CLOEXEC);
    struct Case {
        std::string file;
        std::vector<std::string> options;
        int signal = 0;
    };
    const Case cases[] = {
        {"cut.y4m", {}},
        {"cut.y4m", {"--dump-bad", path("dump")}},
        {"pipe", {"--timeout", "0.5"}},
        {"pipe", {"--stall", "0.5"}},
        {"pipe", {}, SIGINT},
    };
    // It exists, and nothing can be written there.
    std::filesystem::create_directories(path("dump/check.frame000001.got.raw"));
    for (const Case& c : cases) {
        SCOPED_TRACE(&c - cases);
        if (c.file == "pipe") {
            ASSERT_EQ(write(writer, damaged.data(), damaged.size()), ssize_t(damaged.size()));
        }
        std::vector<std::string> command = {VXRUN_BINARY, graph("linear"), "--set",
                                            "reader.file=" + path(c.file)};
        command.insert(command.end(), c.options.begin(), c.options.end());
        Process process(command);
        EXPECT_TRUE(process.waitForError("vxrun: node 'check': frame 1 (timestamp 1): expected "));
        if (c.signal != 0) process.kill(c.signal);
        EXPECT_EQ(process.wait(), 1) << process.err;
        EXPECT_EQ(process.out.rfind("verdict: CRC_MISMATCH frames=", 0), 0u) << process.out;
        EXPECT_NE(process.out.find(" first_bad=1\n"), std::string::npos) << process.out;
        EXPECT_EQ(process.err.find("no more frames are dumped: ") != std::string::npos,
                  c.options.size() == 2 && c.options[0] == "--dump-bad")
            << process.err;
    }
    close(writer);
}

// ---- Bad input --------------------------------------------------------------------------------

// Catches: a bad file that hangs, crashes, reserves absurd memory, passes, or is not named with the
// place of the trouble.
TEST_F(Vxrun, RefusesBadY4mFiles) {
    makeClip();
    const std::string good = contentOf(path("clip.y4m"));
    const std::string init = std::string("NODE_FAIL_INIT") + kNothing;
    struct Case {
        std::string content, line;
        std::string verdict = std::string("NODE_FAIL_INIT") + kNothing;
        int exit = 3;
    };
    const auto header = [](const std::string& fields) { return "YUV4MPEG2 " + fields + "\n"; };
    const Case cases[] = {
        {"", "empty file"},
        {"RIFF....AVI \n", "expected 'YUV4MPEG2', got 'RIFF....AVI '"},
        {std::string(10000, '\0'), "expected 'YUV4MPEG2', got '\\x00\\x00"},
        {"YUV4MPEG2 W6 H", "header line ends with the file"},
        {"YUV4MPEG2 X" + std::string(10000, 'x'), "header line longer than 4096 bytes"},
        {header("H4"), "header has no width (W)"},
        {header("W6"), "header has no height (H)"},
        {header("W0 H4"), "header field 'W0': expected a number from 1 to 65535, got '0'"},
        {header("W-6 H4"), "header field 'W-6': expected a number from 1 to 65535, got '-6'"},
        {header("W6 H4x"), "header field 'H4x': expected a number from 1 to 65535, got '4x'"},
        {header("W99999999999999999999 H4"), "expected a number from 1 to 65535, got '9999"},
        {header("W65535 H65535"), "a frame of 6442319873 bytes is larger than 1 GiB"},
        {header("W6 H4 F25"), "header field 'F25': expected N:M, got '25'"},
        {header("W6 H4 A1:x"), "header field 'A1:x': expected a number from 0 to "},
        {header("W6 H4 C420q"), "header field 'C420q': unknown colour space"},
        {header("W6 H4 Z1"), "header field 'Z1': no such field"},
        {header("W6 H4 F25:1"), "clip.y4m: no frame in the file"},
        {header("W6 H4") + "FRAMES\n", "frame 0 at byte 16: expected 'FRAME', got 'FRAMES'"},
        {header("W6 H4") + "FRAME", "frame 0 at byte 16: the file ends, or goes on too long"},
        {header("W6 H4 C444alpha"), "header field 'C444alpha': not supported",
         std::string("NOT_SUPPORTED") + kNothing, 77},
        {good.substr(0, 40), "frame 0 at byte 28: truncated: expected 36 bytes, got 12",
         std::string("NODE_FAIL_FATAL") + kNothing},
        {good.substr(0, good.size() - 1),
         "clip.y4m: frame 3 at byte 154: truncated: expected 36 bytes, got 35",
         "NODE_FAIL_FATAL frames=? checked=? first_bad=-"},
        {good + "garbage", "frame 4 at byte 190: expected 'FRAME', got 'garbage'",
         "NODE_FAIL_FATAL frames=? checked=? first_bad=-"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.line);
        writeFile(path("clip.y4m"), c.content);
        Result result = vxrun({graph("linear"), "--timeout", "30"});
        // How many frames had reached the sink when the source failed is a matter of chance.
        if (c.verdict.find('?') != std::string::npos) {
            for (const std::string key : {"frames=", "checked="}) {
                const size_t at = result.out.find(key);
                if (at != std::string::npos) result.out[at + key.size()] = '?';
            }
        }
        expectFailure(result, c.exit, c.verdict, "vxrun: node 'reader': ");
        EXPECT_NE(result.err.find(c.line), std::string::npos) << result.err;
    }
}

// Catches: FRAME parameters taken for the picture, or refused.
TEST_F(Vxrun, ToleratesFrameParameters) {
    makeClip();
    writeFile(path("clip.y4m"), replaced(contentOf(path("clip.y4m")), "FRAME\n", "FRAME Ip Xa\n"));
    EXPECT_EQ(vxrun({graph("linear")}).exit, 0);
}

// Catches: a node that starts with a config it does not understand, a file that cannot be opened, or
// ports that its type does not have.
TEST_F(Vxrun, RefusesBadConfigs) {
    makeClip();
    writeFile(path("empty"), "");
    writeFile(path("garbage"), "#tb 0: 1/25\n0, 0, 0, 1, 36, 0x0123456g\n");
    writeFile(path("short"), "\n0, 0, 0\n");
    writeFile(path("audio"), "1, 0, 0, 1, 36, 0x01234567\n");
    writeFile(path("mixed"),
              "0,0,0,1,36,0x01234567\n0,1,1,1,36,d41d8cd98f00b204e9800998ecf8427e\n");
    writeFile(path("nothing"), "0, 0, 0, 1, 0, d41d8cd98f00b204e9800998ecf8427e\n");
    ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
    struct Case {
        std::string set, line;
    };
    const Case cases[] = {
        {"reader.file=/nonexistent.y4m",
         "node 'reader': /nonexistent.y4m: No such file or directory"},
        {"reader.file=/tmp", "node 'reader': /tmp: Is a directory"},
        {"reader.file=", "node 'reader': config 'file': expected the name of a file, got ''"},
        {"check.expect=", "node 'check': config 'expect': expected the name of a file, got ''"},
        {"reader.speed=7", "unknown config 'speed' = '7', a source/y4m knows: file"},
        {"drop.file=x", "unknown config 'file' = 'x', a sink/null knows: allocator"},
        {"check.expect=/nonexistent", "node 'check': /nonexistent: No such file"},
        {"check.expect=" + path("empty"), path("empty") + ": no row in the list"},
        {"check.expect=" + path("garbage"), path("garbage") + ":2: expected '0, dts, pts, dur"},
        {"check.expect=" + path("short"), path("short") + ":2: expected '0, dts, pts, dur"},
        {"check.expect=" + path("audio"), path("audio") + ":1: expected '0, dts, pts, dur"},
        {"check.expect=" + path("nothing"), path("nothing") + ":1: expected '0, dts, pts, dur"},
        {"check.expect=" + path("mixed"), path("mixed") + ":2: MD5 and CRC rows in one list"},
        {"check.expect=/dev/zero", "/dev/zero: larger than 67108864 bytes"},
        {"check.format=sha",
         "config 'format': expected framemd5, framecrc, md5, md5-list or json, got 'sha'"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.set);
        expectFailure(vxrun({graph("fanout"), "--set", c.set}), 3,
                      std::string("NODE_FAIL_INIT") + kNothing, c.line);
    }
    // Found out when the graph starts; other nodes may have begun then.
    const Case outputs[] = {
        {"/nonexistent/x", "/nonexistent/x.part: No such file or directory"},
        {"/tmp", "/tmp: not a regular file"},
        {path("pipe"), path("pipe") + ": not a regular file"},
        {"/dev/null", "/dev/null: not a regular file"},
    };
    for (const Case& c : outputs) {
        const Result result = vxrun({graph("fanout"), "--set", "writer.file=" + c.set});
        EXPECT_EQ(result.exit, 3);
        EXPECT_EQ(result.out.rfind("verdict: NODE_FAIL_START ", 0), 0u) << result.out;
        EXPECT_NE(result.err.find(c.line), std::string::npos) << result.err;
    }
    EXPECT_TRUE(std::filesystem::is_character_file("/dev/null"));

    const std::string chunks = graph("fanout", "source/y4m", "source/file");
    for (const std::string text : {"abc", "0", "-1", "1x", "99999999999"}) {
        expectFailure(
            vxrun({chunks, "--set", "reader.chunk=" + text}), 3,
            std::string("NODE_FAIL_INIT") + kNothing,
            "node 'reader': config 'chunk': expected a number from 1 to 1073741824, got '" + text +
                "'");
    }
    expectFailure(vxrun({graph("linear", "transform/passthrough", "sink/null")}), 3,
                  std::string("NODE_FAIL_INIT") + kNothing,
                  "node 'copy': a sink/null has 0 output port(s), the description gives it 1");
}

// Catches: a source that stalls, fails or runs past its pool's limit instead of waiting for a buffer,
// a buffer that does not come back, padding that gets into a checksum.
TEST_F(Vxrun, PoolsPaceTheirSource) {
    makeClip();
    for (const std::string allocator : {"dmabuf", "xcodec2"}) {
        for (const std::string slots : {"1", "2", "8"}) {
            const Result result =
                vxrun({graph("fanout"), "--stats", "--set", "reader.slots=" + slots, "--set",
                       "reader.allocator=" + allocator});
            EXPECT_EQ(result.out, "verdict: PASS frames=4 checked=4 first_bad=-\n") << result.err;
            EXPECT_NE(result.err.find("pool of 'reader': made="), std::string::npos) << result.err;
            EXPECT_NE(result.err.find(" left_out=0\n"), std::string::npos) << result.err;
            if (slots != "1") continue;
            EXPECT_NE(result.err.find("made=1 recycled=3 high_water=1"), std::string::npos)
                << result.err;
        }
    }
    expectFailure(vxrun({graph("linear"), "--set", "reader.allocator=dmabuf", "--set",
                         "check.allocator=xcodec2"}),
                  3, std::string("GRAPH_BUILD_FAIL") + kNothing,
                  "no buffer allocator suits every node: reader wants dmabuf, check wants xcodec2");
    expectFailure(vxrun({graph("linear"), "--set", "copy.allocator=heap"}), 3,
                  std::string("NODE_FAIL_INIT") + kNothing,
                  "node 'copy': config 'allocator': expected dmabuf or xcodec2, got 'heap'");
}

// Catches: a frame that waits in its node while that makes the next ones, which takes it out of the flow
// control's sight.
TEST_F(Vxrun, FlowControlLimitsWhatIsUnderWay) {
    writeFile(path("clip.y4m"), y4m("W6 H4 F25:1", 36, 60));
    const Result result =
        vxrun({graph("linear", "\"expect\"", "\"write\""), "--stats", "--set", "reader.slots=60"});
    // Five works from the reader, whose total delay is 2, and from the copy three and all five at once; one
    // that the sink is letting go of.
    const size_t at = result.err.find("high_water=");
    ASSERT_NE(at, std::string::npos) << result.err;
    const int most = std::stoi(result.err.substr(at + 11));
    EXPECT_TRUE(most >= 1 && most <= 5 + 3 + 5 + 1) << result.err;
}

// Catches: a description with a mistake that is built all the same, or an error line without the
// place and what was expected.
TEST_F(Vxrun, RefusesBadDescriptions) {
    makeClip();
    struct Case {
        const char *what, *by;
        std::string line;
        const char* verdict = "CORRUPT_DESCR";
        int exit = 2;
    };
    const std::string deep(100000, '[');
    const Case cases[] = {
        // no JSON, or not ours
        {"\"name\": \"linear\",", "\"name\": \"linear\"", "3:9: syntax error"},
        {"  \"connections\": {", "  \"connections\": { \"a", ":12:24: syntax error"},
        {"{", "[", "graph.json:2:"},
        {"[", "[7,7,", "3:13: nodes[0]: expected an object, got a number"},
        {"[ { \"name\": \"copy.in\", \"format\": \"video/raw\" } ]", "7",
         "7:18: nodes[1].inputs: expected an array, got a number"},
        {"\"linear\"", deep.c_str(), "nested too deeply"},
        {"\"linear\"", "\"\"", "2:11: name: expected a name, got ''"},
        {"\"linear\",", "\"linear\", \"speed\": 7,", "2:30: speed: unknown key, expected one of"},
        {"\"linear\",", "\"linear\", \"name\": \"b\",", "2:29: name: key is given twice"},
        // nodes
        {"\"name\": \"copy\", ", "", "6:5: nodes[1]: missing key 'name'"},
        {"\"copy\"", "\"reader\"", "6:15: nodes[1].name: another node is named 'reader'"},
        {"\"transform/passthrough\"", "7", "6:31: nodes[1].type: expected a string, got a number"},
        {"transform/passthrough", "transform/magic",
         "6:31: nodes[1].type: unknown node type 'transform/magic'", "NODE_NOT_FOUND"},
        {"\"configs\"", "\"config\"", "4:57: nodes[0].config: unknown key, expected one of name, "},
        {"\"clip.y4m\"", "[1]",
         "4:68: nodes[0].configs.file: expected a string, a number or a boolean, got an array"},
        {"{ \"file\": \"clip.y4m\" }", "null",
         "4:58: nodes[0].configs: expected an object, got null"},
        {"\"copy.in\", \"format\"", "\"copy.in\", \"fmt\"",
         "7:48: nodes[1].inputs[0].fmt: unknown"},
        {"\"check.in\"", "\"copy.in\"",
         "10:30: nodes[2].inputs[0].name: nodes[1].inputs[0] is named 'copy.in', too"},
        // entries
        {"\"outputs\"", "\"entries\": [{}], \"outputs\"",
         "nodes[0].entries[0]: missing key 'frame'"},
        {"\"outputs\"", "\"entries\": [{\"frame\": -1}], \"outputs\"",
         "nodes[0].entries[0].frame: expected a number from 0 to 4294967295, got '-1'"},
        {"\"outputs\"", "\"entries\": [{\"frame\": 1, \"kind\": \"x\"}], \"outputs\"",
         "nodes[0].entries[0].kind: expected 'command' or 'tuning', got 'x'"},
        {"\"outputs\"",
         "\"entries\": [{\"frame\": 1, \"kind\": \"tuning\", \"key\": \"a\", \"value\": 1, "
         "\"alternate\": 1}], \"outputs\"",
         "nodes[0].entries[0].alternate: expected a boolean, got a number"},
        // connections
        {"\"reader.out\":", "\"copy.in\":",
         "12:31: connections.copy.in: no output port is named 'copy.in'"},
        {"[\"copy.in\"]", "[\"copy.inn\"]",
         "12:35: connections.reader.out[0]: no input port is named 'copy.inn'"},
        {"[\"copy.in\"]", "\"copy.in\"",
         "12:34: connections.reader.out: expected an array, got a string"},
        {"[\"copy.in\"]", "[\"copy.in\", \"check.in\"]", "'check.in' is connected already"},
        {"\"reader.out\": [\"copy.in\"], ", "", "7:20: nodes[1].inputs[0]: port 'copy.in' is not"},
        {"[\"check.in\"]", "[]", "10:20: nodes[2].inputs[0]: port 'check.in' is not connected"},
        {"\"reader.out\": [\"copy.in\"], \"copy.out\": [\"check.in\"]",
         "\"reader.out\": [\"check.in\"], \"copy.out\": [\"copy.in\"]",
         "12:18: connections: the nodes form a cycle: copy -> copy"},
        {"\"copy.in\", \"format\": \"video/raw\"", "\"copy.in\", \"format\": \"video/raw \"",
         "an output of 'video/raw' cannot feed input port 'copy.in' of 'video/raw '",
         "GRAPH_BUILD_FAIL", 3},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.line);
        const Result result = vxrun({graph("linear", c.what, c.by)});
        expectFailure(result, c.exit, c.verdict + std::string(kNothing), c.line);
        EXPECT_EQ(result.err.rfind(path("graph.json:"), 0), 0u) << result.err;
    }
}

// Catches: a graph file that is missing, no file, unreadable, empty or endless and yields no clear line.
TEST_F(Vxrun, RefusesWhatIsNoGraphFile) {
    writeFile(path("empty"), "");
    writeFile(path("locked"), "");
    chmod(path("locked").c_str(), 0);
    const bool root = geteuid() == 0;  // who reads every file
    const std::pair<std::string, std::string> cases[] = {
        {path("none"), ": No such file or directory"},
        {mFolder, ": Is a directory"},
        {path("empty"), ":1:1: syntax error"},
        {path("locked"), root ? ":1:1: syntax error" : ": Permission denied"},
        {"/dev/zero", ": larger than 2097152 bytes"},
        {path("clip.264"), ":1:1: syntax error while parsing value - "},
    };
    writeFile(path("clip.264"), std::string("\0\0\1\x67", 4));
    EXPECT_NE(
        vxrun({path("clip.264")}).err.find("if it is a video: vxrun decode " + path("clip.264")),
        std::string::npos);
    for (const auto& [file, line] : cases) {
        expectFailure(vxrun({file}), 2, std::string("CORRUPT_DESCR") + kNothing, file + line);
    }
}

// Catches: a bad option that is ignored, or noticed only after the run.
TEST_F(Vxrun, RefusesBadOptions) {
    makeClip();
    struct Case {
        std::vector<std::string> options;
        std::string line;
    };
    const Case cases[] = {
        {{}, "no graph file"},
        {{"--nosuch"}, "--nosuch"},
        {{graph("linear"), "second.json"}, "second.json"},
        {{graph("linear"), "--timeout", "abc"}, "--timeout"},
        {{graph("linear"), "--timeout", "0"}, "--timeout"},
        {{graph("linear"), "--timeout", "nan"}, "--timeout: expected a number from 0.001 to "},
        {{graph("linear"), "--stall", "inf"}, "--stall: expected a number from 0 to "},
        {{graph("linear"), "--log", "xyz"}, "expected a hexadecimal mask, got 'xyz'"},
        {{graph("linear"), "--set"}, "--set"},
        {{graph("linear"), "--set", "reader"}, "--set: expected NODE.KEY=VALUE, got 'reader'"},
        {{graph("linear"), "--set", "file=a.b"}, "--set: expected NODE.KEY=VALUE, got 'file=a.b'"},
        {{graph("linear"), "--set", "nosuch.file=x"}, "--set: the graph has no node 'nosuch'"},
        {{graph("linear"), "--progress", "99"}, "--progress: 99: Bad file descriptor"},
        {{graph("linear"), "--progress", "/nonexistent/x"}, "--progress: /nonexistent/x: No such"},
        {{graph("linear"), "--trace", "/nonexistent/x"}, "--trace: /nonexistent/x: No such"},
        {{graph("linear"), "--dot", "/dev/null/x"}, "--dot: /dev/null/x: Not a directory"},
        {{graph("linear"), "--stall", "-1"}, "--stall"},
        {{graph("linear"), "--color", "sometimes"}, "--color"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.line);
        expectFailure(vxrun(c.options), 2, std::string("BAD_OPTION") + kNothing, c.line);
    }
}

// ---- Options and endings ----------------------------------------------------------------------

// Catches: information options that need a graph, fail, or print a verdict.
TEST_F(Vxrun, TellsAboutItself) {
    for (const auto& [option, text] : {std::pair("--help", "--timeout"),
                                       {"--version", "vxrun "},
                                       {"--list-nodes", "sink/null"}}) {
        const Result result = vxrun({option});
        EXPECT_EQ(result.exit, 0);
        EXPECT_NE(result.out.find(text), std::string::npos) << result.out;
        EXPECT_EQ(result.out.find("verdict:"), std::string::npos) << result.out;
    }
}

// Catches: a result that was not printed, or was printed into a file that the run has opened, and an exit
// code that says nothing of it.
TEST_F(Vxrun, ResultsReachWhereTheyShould) {
    makeClip();
    const std::vector<std::string> results[] = {
        {"--help"}, {"--list-nodes"}, {"check", graph("linear")}, {graph("linear")}};
    for (const auto& arguments : results) {
        SCOPED_TRACE(arguments.front());
        const Result full = vxrunIn("exec \"$@\" >/dev/full", arguments);
        EXPECT_EQ(full.exit, 3);
        EXPECT_EQ(full.err, "vxrun: standard output: No space left on device\n");
    }
    const std::string writes = "writer.file=" + path("own.yuv");
    ASSERT_EQ(vxrun({graph("fanout"), "--set", writes}).exit, 0);
    const std::string pictures = contentOf(path("own.yuv"));
    for (const char* closed : {"<&-", ">&-", "2>&-", "<&- >&- 2>&-"}) {
        SCOPED_TRACE(closed);
        const Result result = vxrunIn(
            std::string("exec \"$@\" ") + closed,
            {graph("fanout"), "--set", writes, "--set", "check.print_md5=true", "--log", "1f"});
        EXPECT_EQ(result.exit, 0);
        EXPECT_EQ(contentOf(path("own.yuv")), pictures);
    }
}

// Catches: a thread that cannot be started, whichever that is, and takes the verdict with it.
TEST_F(Vxrun, AVerdictWithoutThreads) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "address space cannot be limited";
#endif
    makeClip();
    const std::string file = graph("linear");
    int passed = 0;
    // Stacks of 4 GiB each, beside 3 GiB for everything else.
    for (uint64_t stacks = 0; stacks < 12; ++stacks) {
        std::ostringstream limits;
        limits << "ulimit -s 4194304; ulimit -v " << (stacks * 4 + 3) * 1024 * 1024
               << "; exec \"$@\"";
        const Result result = vxrunIn(limits.str(), {file});
        passed += result.exit == 0;
        if (result.exit == 0) continue;
        expectFailure(result, 3, std::string("NODE_FAIL_START") + kNothing,
                      "vxrun: a thread cannot be started: Resource temporarily unavailable");
    }
    EXPECT_TRUE(passed > 0 && passed < 10) << passed;
}

// Catches: errors or library messages that break the promise of --quiet; a log mask that is not
// heeded; a relative --set file that is not taken from the current folder.
TEST_F(Vxrun, QuietLogAndRelativeFiles) {
    makeClip();
    Process quiet({VXRUN_BINARY, graph("linear"), "--quiet", "--set", "reader.file=clip.y4m"});
    EXPECT_EQ(quiet.wait(), 3);
    EXPECT_EQ(quiet.out, std::string("verdict: NODE_FAIL_INIT") + kNothing + "\n");
    EXPECT_EQ(quiet.err, "");

    const Result logged = vxrun({graph("linear"), "--log", "8"});
    EXPECT_EQ(logged.exit, 0);
    EXPECT_NE(logged.err.find("Connect success"), std::string::npos) << logged.err;
    EXPECT_EQ(logged.err.find("frames/s"), std::string::npos) << "progress without a terminal";
}

// Catches: a node that blocks for ever, in its set-up or in mid-stream, and keeps vxrun from ending
// at the second signal or when time is out.
TEST_F(Vxrun, BlockedNodeDoesNotHoldUpTheEnd) {
    ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
    for (const bool midStream : {false, true}) {
        SCOPED_TRACE(midStream);
        const int writer = open(path("pipe").c_str(), O_RDWR | O_CLOEXEC);
        const std::string frame = y4m("W6 H4", 36, 1) + "FRAME\n";
        if (midStream) {
            ASSERT_EQ(write(writer, frame.data(), frame.size()), ssize_t(frame.size()));
        }
        std::vector<std::string> command = {VXRUN_BINARY, unchecked("linear"),
                                            "--set",      "reader.file=" + path("pipe"),
                                            "--log",      "8"};
        Process interrupted(command);
        ASSERT_TRUE(interrupted.waitForError(midStream ? "Wait for completion" : "Preferred allo"));
        interrupted.kill(SIGINT);
        ASSERT_TRUE(interrupted.waitForError("once more leaves at once")) << interrupted.err;
        interrupted.kill(SIGINT);
        EXPECT_EQ(interrupted.wait(), 130) << interrupted.err;

        if (midStream) {
            ASSERT_EQ(write(writer, frame.data(), frame.size()), ssize_t(frame.size()));
        }
        command.insert(command.end(), {"--timeout", "3"});
        Process stalled(command);
        EXPECT_EQ(stalled.wait(), 124) << stalled.err;
        EXPECT_EQ(stalled.out.rfind("verdict: TIMEOUT frames=", 0), 0u) << stalled.out;
        EXPECT_NE(stalled.err.find("out of time after 3 s; not finished: reader, copy, check"),
                  std::string::npos)
            << stalled.err;
        EXPECT_NE(stalled.err.find("the graph does not stop"), std::string::npos) << stalled.err;
        close(writer);
    }
}

// Catches: no progress on a terminal, or its rest left on the screen.
TEST_F(Vxrun, ShowsProgressOnATerminal) {
    Process process({VXRUN_BINARY, endless()}, {}, true);
    ASSERT_TRUE(process.waitForError(" frames/s\033[K")) << process.err;
    process.kill(SIGINT);
    EXPECT_EQ(process.wait(), 130);
    EXPECT_EQ(process.err.substr(process.err.size() - 4), "\r\033[K");
}

}  // namespace
