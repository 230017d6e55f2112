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
    const struct {
        const char* fields;
        int bytes;  // of a frame, worked out by hand
        bool deep = false;
    } cases[] = {
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
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fields);
        writeFile(path("clip.y4m"), y4m(c.fields, c.bytes, 3, c.deep));
        for (const std::string format : {"framemd5", "framecrc"}) {
            if (!makeList({"-i", path("clip.y4m")}, format)) GTEST_SKIP() << "no ffmpeg program";
            const Result result =
                vxrun({shipped, "reader.file=" + path("clip.y4m"), "check.expect=" + path(format),
                       "check.write=" + path("own"), "check.format=" + format});
            expectPass(result, "3");
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
        expectPass(vxrun({graphFile, "reader.file=" + path("data"), "reader.chunk=100",
                          "check.expect=" + path("framemd5"), "check.write=" + path("own")}),
                   std::to_string((size + 99) / 100));
        EXPECT_EQ(contentOf(path("own")), contentOf(path("framemd5")));
    }
}

// Catches: a sink that misses frames beside others, rows out of order in a written file, a file
// left under its temporary name; first frames that are lost since their node starts after the one
// that feeds it; FRAME parameters taken for the picture, or refused.
TEST_F(Vxrun, FansOutToThreeSinks) {
    makeClip();
    std::string pictures = contentOf(path("clip.y4m"));
    pictures.erase(0, pictures.find('\n') + 1);
    for (size_t frame = 0; frame < 4; ++frame) pictures.erase(frame * 36, 6);  // "FRAME\n"
    const std::string file = graph("fanout");
    for (const bool isReversed : {false, true}) {
        SCOPED_TRACE(isReversed);
        expectPass(vxrun({file}), "4");
        EXPECT_EQ(contentOf(path("clip.yuv")), pictures);
        EXPECT_FALSE(std::filesystem::exists(path("clip.yuv.part")));
        auto description = nlohmann::json::parse(contentOf(file));
        std::reverse(description["nodes"].begin(), description["nodes"].end());
        writeFile(file, description.dump());
        const std::string clip = contentOf(path("clip.y4m"));
        writeFile(path("clip.y4m"), replaced(clip, "FRAME\n", "FRAME Ip Xa\n"));
    }
}

// ---- Decoding ---------------------------------------------------------------------------------

class VxrunDecoding : public Vxrun {
protected:
    // Runs the shipped graph with `file` and `options`; it expects what the first one says.
    Result decode(const std::string& file, const Words& options = {}) const {
        const bool expects = !options.empty() && options[0].rfind("check.expect=", 0) == 0;
        return vxrun(Words{expects ? VXRUN_GRAPHS_DIR "/decode.json" : unchecked("decode"),
                           "--timeout", "50", "reader.file=" + file} +
                     options);
    }
};

// Catches: a wrong picture, order, crop, size change or number of frames in real streams; a decoder
// that waits forever, or fails, with few buffers or buffers of another allocator; false alarms.
TEST_F(VxrunDecoding, DecodesRealStreams) {
    std::error_code none;
    bool any = false;
    for (const auto& entry :
         std::filesystem::recursive_directory_iterator(VXRUN_STREAMS_DIR, none)) {
        const std::string file = entry.path();
        if (!std::filesystem::exists(file + ".framemd5")) continue;
        any = true;
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
    if (!any) GTEST_SKIP() << "no streams in " VXRUN_STREAMS_DIR;
}

// Catches: damage that the decoder conceals and does not report, a run that breaks off at it, and
// tolerance that is ignored. The list is of the damaged stream itself: only the decoder sees it.
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

// Catches: a plane that is lost, cut or in a wrong place for a format, layout, depth or odd size; wrong
// times in a list; frames lost at the end with one buffer, threads or reordering; a large access
// unit that does not fit into the source's buffers; a picture that the graph cannot carry and that
// passes or crashes.
TEST_F(VxrunDecoding, AgreesWithFfmpegOnEveryFormat) {
    enum Kind { TEST, GROWS, UNSUPPORTED };
    const struct {
        const char *name, *pixels, *codec;
        Kind kind = TEST;
        const char* planar = pixels;  // what the same samples are called, plane by plane
    } cases[] = {
        {"a.mkv", "yuv420p", "ffv1"},
        {"b.mkv", "yuv422p10le", "ffv1"},
        {"c.mkv", "yuv444p16le", "ffv1"},
        {"d.mkv", "gray", "ffv1"},
        {"e.mkv", "gray12le", "ffv1"},
        {"f.mkv", "gbrp10le", "ffv1"},
        {"g.mp4", "yuv420p", "mpeg4"},
        {"h.m2v", "yuv420p", "mpeg2video"},
        {"i.nut", "yuv411p", "rawvideo"},
        {"j.nut", "bgr24", "rawvideo", UNSUPPORTED},
        {"k.mkv", "yuva420p", "ffv1", UNSUPPORTED},
        {"l.mkv", "bgr0", "ffv1", UNSUPPORTED},
        {"m.mkv", "yuv444p", "ffv1", GROWS},
        {"n.nut", "nv12", "rawvideo", TEST, "yuv420p"},
        {"o.nut", "nv21", "rawvideo", TEST, "yuv420p"},
    };
    const std::string sources[] = {
        // GROWS: plain pictures, and after them noise
        "testsrc2=size=35x27:rate=30:duration=1",
        "color=size=256x256:rate=10:duration=3,noise=alls=100:allf=t:enable='gte(t,2)'"};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name + std::string(" ") + c.pixels);
        if (!makeVideo(c.name, c.pixels, c.codec, sources[c.kind == GROWS])) {
            GTEST_SKIP() << "no ffmpeg program";
        }
        if (c.kind == UNSUPPORTED) {
            expectFailure(decode(path(c.name)), 77, "NOT_SUPPORTED",
                          std::string("the pixel format ") + c.pixels + " is not supported");
            continue;
        }
        makeList({"-flags", "unaligned", "-i", path(c.name), "-fps_mode", "passthrough", "-pix_fmt",
                  c.planar},
                 "framemd5");
        for (const std::string slots : {"1", "8"}) {
            expectPass(decode(path(c.name), {"check.expect=" + path("framemd5"),
                                             "check.write=" + path("own"), "reader.slots=" + slots,
                                             "decoder.slots=" + slots, "decoder.threads=" + slots}),
                       "30");
            EXPECT_EQ(contentOf(path("own")), contentOf(path("framemd5")));
        }
    }
}

// Catches: a file cut short that passes; a file or config that is no good and crashes, hangs,
// passes or is not named.
TEST_F(VxrunDecoding, RefusesBadFilesAndConfigs) {
    if (!makeVideo("good.ivf", "yuv420p", "libvpx")) GTEST_SKIP() << "no ffmpeg with VP8";
    const std::string good = contentOf(path("good.ivf"));
    writeFile(path("cut.ivf"), good.substr(0, good.size() - 10));
    writeFile(path("empty.264"), "");
    for (const char* name : {"text.txt", "text.nfo"}) writeFile(path(name), "Not a video.\n");
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
    expectHas(cut.err, ": access unit 29 is damaged");
    EXPECT_TRUE(std::filesystem::exists(path("own"))) << "the sink did not finish";

    const std::string fatal = "NODE_FAIL_FATAL",
                      unread = ": not a video file that libavformat can read";
    const struct {
        std::string file, option, line, verdict = "NODE_FAIL_INIT";
        int exit = 3;
    } cases[] = {
        {"none.264", "", "none.264: No such file or directory"},
        {"", "", ": Is a directory"},
        {"empty.264", "", "empty.264: no access unit in the file"},
        {"text.txt", "", "text.txt" + unread},
        {"text.nfo", "", "text.nfo" + unread},
        {"noise", "", "noise" + unread},
        {"huge.ivf", "", "huge.ivf: access unit 0: Cannot allocate memory"},
        {"broken.ivf", "", "node 'decoder': no frame in the stream; ", "INFO_VALIDATION_FAIL", 1},
        {"good.ivf", "codec=nosuch", "no decoder 'nosuch'", "NOT_SUPPORTED", 77},
        {"good.ivf", "threads=0", "expected a number from 1 to 64, got '0'"},
        {"good.ivf", "tolerate_errors=1", "expected true or false, got '1'"},
        {"good.ivf", "options=nosuch=1", "has no option 'nosuch'", fatal},
        {"good.ivf", "options=nosuch", "expected key=value:key=value, got 'nosuch'", fatal},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        Words options = {"decoder." + c.option};
        if (c.option.empty()) options.clear();
        expectFailure(decode(path(c.file), options), c.exit, c.verdict, c.line);
    }
}

// Catches: files of a list that are lost, or whose size is taken for that of the first; a list that
// reads what is outside of its folder.
TEST_F(VxrunDecoding, DecodesFilesOneAfterAnother) {
    if (!makeVideo("a.ivf", "yuv420p", "libvpx") ||
        !makeVideo("b.ivf", "yuv420p", "libvpx", "testsrc2=size=64x48:rate=30:duration=1")) {
        GTEST_SKIP() << "no ffmpeg with VP8";
    }
    const std::string list = path("list.ffconcat"), head = "ffconcat version 1.0\nfile a.ivf\n";
    writeFile(list, head + "file b.ivf\n");
    makeList({"-flags", "unaligned", "-i", list, "-fps_mode", "passthrough", "-autoscale", "0"},
             "framemd5");
    const std::string expect = "check.expect=" + path("framemd5");
    expectPass(decode(list, {expect}), "60");
    writeFile(list, head + "file " + path("b.ivf") + "\n");
    expectFailure(decode(list, {expect}), 3, "NODE_FAIL_INIT", "list.ffconcat: Operation not perm");
    expectPass(decode(list, {expect, "reader.options=safe=0"}), "60");
}

// ---- Failing checks ---------------------------------------------------------------------------

// Catches: a difference that passes, is blamed on another frame, counted wrongly or not shown at
// once; a list of another length that passes since all common frames match.
TEST_F(Vxrun, NamesTheFirstFrameThatDiffers) {
    makeClip();
    const std::string clip = contentOf(path("clip.y4m"));
    const std::string list = contentOf(path("clip.framemd5"));
    const std::string lastRow = list.substr(list.rfind("\n0,") + 1);
    std::string damaged = clip;
    for (const size_t frame : {2, 3}) damaged[damaged.size() - (4 - frame) * 42 + 10] ^= 1;
    const std::string check = "vxrun: node 'check': ", has = path("clip.framemd5") + " has ";
    const struct {
        std::string clip, list, verdict, first, last;  // lines
    } cases[] = {
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
    for (const auto& c : cases) {
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

// ---- Bad input --------------------------------------------------------------------------------

// Catches: a bad file that hangs, crashes, reserves absurd memory, passes, or is not named with the
// place of the trouble.
TEST_F(Vxrun, RefusesBadY4mFiles) {
    makeClip();
    const std::string good = contentOf(path("clip.y4m"));
    struct Case {
        std::string content, line, verdict = "NODE_FAIL_INIT";
        int exit = 3;
    };
    // How many frames had reached the sink when the source failed is a matter of chance.
    const std::string fatal = "NODE_FAIL_FATAL frames=[0-4] checked=[0-4] first_bad=-";
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
        {header("W6 H4x"), "header field 'H4x': expected a number from 1 to 65535, got '4x'"},
        {header("W99999999999999999999 H4"), "expected a number from 1 to 65535, got '9999"},
        {header("W65535 H65535"), "a frame of 6442319873 bytes is larger than 1 GiB"},
        {header("W6 H4 F25"), "header field 'F25': expected N:M, got '25'"},
        {header("W6 H4 A1:x"), "header field 'A1:x': expected a number from 0 to "},
        {header("W6 H4 C420q"), "header field 'C420q': unknown color space"},
        {header("W6 H4 Z1"), "header field 'Z1': no such field"},
        {header("W6 H4 F25:1"), "clip.y4m: no frame in the file"},
        {header("W6 H4") + "FRAMES\n", "frame 0 at byte 16: expected 'FRAME', got 'FRAMES'"},
        {header("W6 H4") + "FRAME", "frame 0 at byte 16: the FRAME line is truncated or too long"},
        {header("W6 H4 C444alpha"), "field 'C444alpha': not supported", "NOT_SUPPORTED", 77},
        {good.substr(0, 40), "frame 0 at byte 28: truncated: expected 36 bytes, actual 12",
         "NODE_FAIL_FATAL"},
        {good.substr(0, good.size() - 1),
         "clip.y4m: frame 3 at byte 154: truncated: expected 36 bytes, actual 35", fatal},
        {good + "garbage", "frame 4 at byte 190: expected 'FRAME', got 'garbage'", fatal},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.line);
        writeFile(path("clip.y4m"), c.content);
        const Result result = vxrun({graph("linear"), "--timeout", "30"});
        expectFailure(result, c.exit, c.verdict, "vxrun: node 'reader': ");
        expectHas(result.err, c.line);
    }
}

// Catches: a source that stalls, fails or runs past its pool's limit instead of waiting for a
// buffer, a buffer that does not come back, padding that gets into a checksum.
TEST_F(Vxrun, PoolsPaceTheirSource) {
    makeClip();
    for (const std::string allocator : {"dmabuf", "xcodec2"}) {
        for (const std::string slots : {"1", "2", "8"}) {
            const Result result = vxrun({graph("fanout"), "--stats", "reader.slots=" + slots,
                                         "reader.allocator=" + allocator});
            expectPass(result, "4");
            expectHas(result.err, "pool of 'reader': made=");
            expectHas(result.err, " left_out=0\n");
            if (slots == "1") expectHas(result.err, "made=1 recycled=3 high_water=1");
        }
    }
}

// Catches: a frame that waits in its node while that makes the next ones, which takes it out of the
// flow control's sight.
TEST_F(Vxrun, FlowControlLimitsWhatIsUnderWay) {
    writeFile(path("clip.y4m"), y4m("W6 H4 F25:1", 36, 60));
    const Result result =
        vxrun({graph("linear", "\"expect\"", "\"write\""), "--stats", "reader.slots=60"});
    // Five works from the reader, whose total delay is 2, and from the copy three and all eleven at
    // once, eight of which the sink keeps; one that it is letting go of.
    const size_t at = result.err.find("high_water=");
    ASSERT_NE(at, std::string::npos) << result.err;
    const int most = std::stoi(result.err.substr(at + 11));
    EXPECT_TRUE(most >= 1 && most <= 5 + 3 + 11 + 1) << result.err;
}

// Catches: a graph file that is missing, not one, unreadable, empty or endless, or has a mistake
// and is built all the same; an error line without the place and what was expected.
TEST_F(Vxrun, RefusesBadGraphFiles) {
    makeClip();
    const std::string name = "\"linear\"", port = "\"copy.in\", \"format\": \"video/raw";
    const struct {
        std::string what, by, line, verdict = "CORRUPT_DESCR";
        int exit = 2;
    } cases[] = {
        {name + ",", name, ":3:9: syntax error"},
        {"  \"connections\": {", "  \"connections\": { \"a", ":12:24: syntax error"},
        {"{", "[", ":2:"},
        {name, std::string(100000, '['), "nested too deeply"},
        {name + ",", name + ", \"name\": \"b\",", ":2:29: name: key is given twice"},
        {"passthrough", "magic", ":6:31: nodes[1].type: unknown node type 'transform/magic'",
         "NODE_NOT_FOUND"},
        {port, port + " ",
         ":12:35: connections.reader.out[0]: an output of 'video/raw' cannot feed input port "
         "'copy.in' of 'video/raw '",
         "GRAPH_BUILD_FAIL", 3},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        const Result result = vxrun({graph("linear", c.what, c.by)});
        expectFailure(result, c.exit, c.verdict, c.line);
        EXPECT_EQ(result.err.rfind(path("graph.json:"), 0), 0u) << result.err;
    }
    const std::string video = path("clip.264");
    writeFile(video, std::string("\0\0\1\x67", 4));
    writeFile(path("empty"), "");
    std::string many = "7";
    for (int i = 0; i < 1000; ++i) many += ",7";
    for (const std::string& nodes : {std::string(), many}) {
        writeFile(path(nodes.empty() ? "few" : "many"),
                  "{\"name\":\"g\",\"nodes\":[" + nodes + "],\"connections\":{}}");
    }
    writeFile(path("locked"), "");
    chmod(path("locked").c_str(), 0);
    const bool root = geteuid() == 0;  // reads every file
    for (const auto& [file, line] : {
             std::pair(path("none"), ": No such file or directory"),
             {mFolder, ": Is a directory"},
             {path("empty"), ":1:1: syntax error"},
             {path("few"), ":1:21: nodes: expected 1 to 1000 nodes, got 0"},
             {path("many"), ":1:21: nodes: expected 1 to 1000 nodes, got 1001"},
             {path("locked"), root ? ":1:1: syntax error" : ": Permission denied"},
             {"/dev/zero", ": larger than 2097152 bytes"},
             {video, ":1:1: syntax error while parsing value - "},
         }) {
        expectFailure(vxrun({file}), 2, "CORRUPT_DESCR", file + line);
    }
    expectHas(vxrun({video}).err, "if it is a video: vxrun decode " + video);
}

// Catches: a bad option that is ignored, or noticed only after the run; a node that starts with a
// config it does not understand, a file that cannot be opened, or ports that its type does not
// have.
TEST_F(Vxrun, RefusesBadOptionsAndConfigs) {
    makeClip();
    ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
    const std::string
        noPort = moved(graph("linear", "transform/passthrough", "sink/null"), "no_port"),
        chunks = moved(graph("fanout", "source/y4m", "source/file"), "chunks"),
        linear = moved(graph("linear"), "linear"), file = graph("fanout"),
        number = "node 'reader': config 'chunk': expected a number from 1 to 1073741824, got '",
        noFile = "expected the name of a file, got ''", special = ": not a regular file";
    struct Table {
        int exit;
        std::string verdict;
        std::vector<std::pair<Words, std::string>> cases;  // arguments and line
    };
    const Table tables[] = {
        {2,
         "BAD_OPTION",
         {{{}, "no graph file"},
          {{"--nosuch"}, "--nosuch"},
          {{file, "second.json"}, "second.json"},
          {{file, "--timeout", "0"}, "--timeout"},
          {{file, "--timeout", "nan"}, "--timeout: expected a number from 0.001 to "},
          {{file, "--stall", "inf"}, "--stall: expected a number from 0 to "},
          {{file, "--stall", "-1"}, "--stall"},
          {{file, "--log", "xyz"}, "expected a hexadecimal mask, got 'xyz'"},
          {{file, "--set"}, "--set"},
          {{file, "--set", "reader"}, "--set: expected NODE.KEY=VALUE, got 'reader'"},
          {{file, "--set", "file=a.b"}, "--set: expected NODE.KEY=VALUE, got 'file=a.b'"},
          {{file, "nosuch.file=x"}, "--set: the graph has no node 'nosuch'"},
          {{file, "--progress", "99"}, "--progress: 99: Bad file descriptor"},
          {{file, "--progress", "/nonexistent/x"}, "--progress: /nonexistent/x: No such"},
          {{file, "--trace", "/nonexistent/x"}, "--trace: /nonexistent/x: No such"},
          {{file, "--dot", "/dev/null/x"}, "--dot: /dev/null/x: Not a directory"},
          {{file, "--color", "sometimes"}, "--color"}}},
        {3,
         "NODE_FAIL_INIT",
         {{{file, "reader.file=/nonexistent.y4m"},
           "node 'reader': /nonexistent.y4m: No such file or directory"},
          {{file, "reader.file=/tmp"}, "node 'reader': /tmp: Is a directory"},
          {{file, "reader.file="}, "node 'reader': config 'file': " + noFile},
          {{file, "check.expect="}, "node 'check': config 'expect': " + noFile},
          {{file, "reader.speed=7"}, "unknown config 'speed' = '7', a source/y4m accepts: file"},
          {{file, "drop.file=x"}, "unknown config 'file' = 'x', a sink/null accepts: allocator"},
          {{file, "check.expect=/nonexistent"}, "node 'check': /nonexistent: No such file"},
          {{file, "check.expect=/dev/zero"}, "/dev/zero: larger than 67108864 bytes"},
          {{file, "check.format=sha"},
           "config 'format': expected one of framecrc, framemd5, json, md5, md5-list, got 'sha'"},
          {{linear, "copy.allocator=heap"}, "expected dmabuf or xcodec2, got 'heap'"},
          {{chunks, "reader.chunk=-1"}, number + "-1'"},
          {{chunks, "reader.chunk=99999999999"}, number + "99999999999'"},
          {{noPort}, "'copy': a sink/null has 0 output port(s), the description has 1"}}},
        {3,
         "GRAPH_BUILD_FAIL",
         {{{linear, "reader.allocator=dmabuf", "check.allocator=xcodec2"},
           "allocator suits every node: reader requires dmabuf, check requires xcodec2"}}},
        // Detected when the graph starts; other nodes may have begun then.
        {3,
         "NODE_FAIL_START frames=[0-4] checked=[0-4] first_bad=-",
         {{{file, "writer.file=/nonexistent/x"}, "/nonexistent/x.part: No such file or directory"},
          {{file, "writer.file=/tmp"}, "/tmp" + special},
          {{file, "writer.file=" + path("pipe")}, path("pipe") + special},
          {{file, "writer.file=/dev/null"}, "/dev/null" + special}}}};
    for (const auto& [exit, verdict, cases] : tables) {
        for (const auto& [arguments, line] : cases) {
            SCOPED_TRACE(line);
            expectFailure(vxrun(arguments), exit, verdict, line);
        }
    }
    EXPECT_TRUE(std::filesystem::is_character_file("/dev/null"));
}

// ---- Options and endings ----------------------------------------------------------------------

// Catches: information options that need a graph, fail, or print a verdict.
TEST_F(Vxrun, PrintsInformation) {
    for (const auto& [option, text] : {std::pair("--help", "--timeout"),
                                       {"--version", "vxrun "},
                                       {"--list-nodes", "sink/null"}}) {
        const Result result = vxrun({option});
        EXPECT_EQ(result.exit, 0);
        expectHas(result.out, text);
        EXPECT_EQ(result.out.find("verdict:"), std::string::npos) << result.out;
    }
}

// Catches: a result that was not printed, or was printed into a file that the run has opened, and
// an exit code that does not show it.
TEST_F(Vxrun, ResultsReachWhereTheyShould) {
    makeClip();
    for (const Words& arguments : {Words{"--help"}, Words{"--list-nodes"},
                                   Words{"check", graph("linear")}, Words{graph("linear")}}) {
        SCOPED_TRACE(arguments.front());
        const Result full = vxrunIn("exec \"$@\" >/dev/full", arguments);
        EXPECT_EQ(full.exit, 3);
        EXPECT_EQ(full.err, "vxrun: standard output: No space left on device\n");
    }
    Words arguments = {graph("fanout"), "writer.file=" + path("own.yuv"), "check.print_md5=true",
                       "--log", "1f"};
    ASSERT_EQ(vxrun(arguments).exit, 0);
    const std::string pictures = contentOf(path("own.yuv"));
    for (const std::string closed : {"<&-", ">&-", "2>&-", "<&- >&- 2>&-"}) {
        SCOPED_TRACE(closed);
        EXPECT_EQ(vxrunIn("exec \"$@\" " + closed, arguments).exit, 0);
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
        expectFailure(result, 3, "NODE_FAIL_START",
                      "vxrun: a thread cannot be started: Resource temporarily unavailable");
    }
    EXPECT_TRUE(passed > 0 && passed < 10) << passed;
}

// Catches: errors or library messages that break the promise of --quiet; a log mask that is not
// heeded; a relative --set file that is not taken from the current folder.
TEST_F(Vxrun, QuietLogAndRelativeFiles) {
    makeClip();
    Process quiet(command({graph("linear"), "--quiet", "reader.file=clip.y4m"}));
    EXPECT_EQ(quiet.wait(), 3);
    EXPECT_EQ(quiet.out, "verdict: NODE_FAIL_INIT frames=0 checked=0 first_bad=-\n");
    EXPECT_EQ(quiet.err, "");

    const Result logged = vxrun({graph("linear"), "--log", "8"});
    EXPECT_EQ(logged.exit, 0);
    expectHas(logged.err, "Connect success");
    EXPECT_EQ(logged.err.find("frames/s"), std::string::npos) << "progress without a terminal";
}

// Catches: a node that blocks forever, in its set-up or in mid-stream, and keeps vxrun from ending
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
        Words arguments = {unchecked("linear"), "reader.file=" + path("pipe"), "--log", "8"};
        Process interrupted(command(arguments));
        ASSERT_TRUE(interrupted.waitFor(midStream ? "Wait for completion" : "Preferred allo"));
        interrupted.kill(SIGINT);
        ASSERT_TRUE(interrupted.waitFor("a second signal exits at once")) << interrupted.err;
        interrupted.kill(SIGINT);
        EXPECT_EQ(interrupted.wait(), 130) << interrupted.err;

        if (midStream) {
            ASSERT_EQ(write(writer, frame.data(), frame.size()), ssize_t(frame.size()));
        }
        const Result stalled =
            vxrun(arguments + Words{"--timeout", "3", "--progress", path("progress")});
        EXPECT_EQ(stalled.exit, 124);
        EXPECT_EQ(stalled.out.rfind("verdict: TIMEOUT frames=", 0), 0u) << stalled.out;
        expectHas(stalled.err, "out of time after 3 s; not finished: reader, copy, check");
        expectHas(stalled.err, "the graph does not stop");
        expectHas(contentOf(path("progress")), "\nprogress=end\n");
        close(writer);
    }
}

}  // namespace
