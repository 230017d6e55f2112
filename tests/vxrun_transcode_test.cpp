// Encoding, converting and writing with vxrun, and what entries of a frame do. What comes out is
// judged by the ffmpeg program.
#include "support/Vxrun.h"

#include <map>
#include <nlohmann/json.hpp>
#include <numeric>

namespace {

using namespace vxrun_test;
using Json = nlohmann::json;

// The rows of a list without the columns up to the duration: size, checksum and, in framecrc,
// flags.
Words rowsOf(const std::string& list) {
    Words rows;
    std::istringstream lines(contentOf(list));
    for (std::string line; std::getline(lines, line);) {
        if (line[0] != '#') rows.push_back(line.substr(line.find(',', 35) + 1));
    }
    return rows;
}

class VxrunTranscode : public Vxrun {
protected:
    void SetUp() override {
        Vxrun::SetUp();
        makeGroups("clip.264", "64x48");
    }

    // 25 frames in three closed groups with B frames.
    void makeGroups(const std::string& name, const std::string& size) {
        if (!ffmpeg({"-f", "lavfi", "-i", "testsrc2=size=" + size + ":rate=25:duration=1",
                     "-pix_fmt", "yuv420p", "-c:v", "libx264", "-threads", "1", "-g", "10",
                     path(name)})) {
            GTEST_SKIP() << "no ffmpeg program";
        }
    }

    // The rows of ffmpeg's list of the pictures (or, with "copy", the packets) of a file.
    Words listOf(const std::string& file, const std::string& codec = "rawvideo") {
        EXPECT_TRUE(
            makeList({"-i", path(file), "-fps_mode", "passthrough", "-c:v", codec}, "framecrc"))
            << file;
        return rowsOf(path("framecrc"));
    }

    // Runs the graph of `nodes`, in which a node is fed by the last one before it that is not a
    // sink, with 4 buffers per pool. `settings`: node.key=value configs, node@frame.key=value
    // commands, node~frame.key=value tunings.
    Result runGraph(const std::string& nodes, const std::string& settings) const {
        const std::map<std::string, std::string> types = {
            {"reader", "source/bitstream"},  {"decoder", "codec/decoder"},
            {"again", "codec/decoder"},      {"encoder", "codec/encoder"},
            {"check", "sink/checksum"},      {"file", "sink/file"},
            {"convert", "transform/convert"}};
        Json graph = {{"name", "g"}, {"nodes", Json::array()}, {"connections", Json::object()}};
        std::string last;
        std::istringstream names(nodes);
        for (std::string name; names >> name;) {
            Json node = {{"name", name}, {"type", types.at(name)}, {"configs", Json::object()}};
            const auto port = [](const std::string& end, const std::string& maker) {
                const bool units = maker == "reader" || maker == "encoder";
                return Json{{"name", end}, {"format", units ? "video/bitstream" : "video/raw"}};
            };
            if (!last.empty()) {
                node["inputs"].push_back(port(name + ".in", last));
                graph["connections"][last + ".out"].push_back(name + ".in");
            }
            if (types.at(name).rfind("sink/", 0) != 0) {
                node["outputs"].push_back(port(name + ".out", name));
                node["configs"]["slots"] = 4;
                last = name;
            }
            graph["nodes"].push_back(node);
        }
        std::istringstream words(settings);
        for (std::string word; words >> word;) {
            const size_t dot = word.find('.'), equals = word.find('=');
            const size_t mark = word.find_first_of(".@~");
            const std::string key = word.substr(dot + 1, equals - dot - 1);
            const std::string value = word.substr(equals + 1);
            for (Json& node : graph["nodes"]) {
                if (node["name"] != word.substr(0, mark)) continue;
                if (mark == dot) {
                    node["configs"][key] = value;
                    continue;
                }
                node["entries"].push_back({{"frame", std::stoi(word.substr(mark + 1))},
                                           {"kind", word[mark] == '@' ? "command" : "tuning"},
                                           {"key", key},
                                           {"value", value}});
            }
        }
        writeFile(path("transcode.json"), graph.dump());
        return vxrun({path("transcode.json"), "--timeout", "50"});
    }
};

// Catches: an encoder that loses, repeats, reorders or waits for pictures with few buffers; headers
// or times that a container or the next decoder lacks; lossless coding that is not; a file left
// unfinished.
TEST_F(VxrunTranscode, DecodesWhatItEncodes) {
    makeList({"-i", path("clip.264"), "-fps_mode", "passthrough"}, "framemd5");
    bool dmabuf = false;
    for (const auto& [codec, file] : {std::pair("libx264", "a.264"),
                                      {"libx264", "a.mp4"},
                                      {"libx265", "b.265"},
                                      {"libx265", "b.mp4"},
                                      {"libvpx-vp9", "c.ivf"},
                                      {"libvpx-vp9", "c.mkv"},
                                      {"mpeg2video", "d.m2v file.container=mpeg2video"},
                                      {"mpeg2video", "d.mkv"},
                                      {"ffv1", "e.mkv check.expect=framemd5"},
                                      {"ffv1", "f.mkv check.expect=framemd5"}}) {
        SCOPED_TRACE(file);
        dmabuf = !dmabuf;
        const Result result =
            runGraph("reader decoder encoder file again check",
                     std::string("reader.file=clip.264 check.write=list check.format=framecrc ") +
                         "check.allocator=" + (dmabuf ? "dmabuf" : "xcodec2") +
                         " encoder.codec=" + codec + " file.file=" + file);
        EXPECT_EQ(result.exit, codec == std::string("ffv1") ? 0 : 4) << result.err;
        EXPECT_EQ(result.err, "");
        EXPECT_EQ(rowsOf(path("list")).size(), 25u);
        EXPECT_EQ(rowsOf(path("list")), listOf(std::string(file).substr(0, 5)));
        std::filesystem::remove(path("list"));
    }
    // From one container to another, without a codec.
    EXPECT_EQ(runGraph("reader file", "reader.file=a.mp4 file.file=g.264").exit, 4);
    EXPECT_EQ(listOf("g.264"), listOf("a.mp4"));
}

// Catches: a drain that loses or repeats pictures or ends the stream, a flush that drops others
// than those that the decoder keeps back (two, for these B frames), either at another access unit.
TEST_F(VxrunTranscode, DecoderFlushesAndDrains) {
    ASSERT_TRUE(makeVideo("intra.mkv", "yuv420p", "ffv1"));
    const struct {
        std::string file, settings;
        std::vector<int> dropped = {};
    } cases[] = {{"clip.264", "decoder@10.drain=1 decoder@20.drain=1"},
                 {"clip.264", "decoder@10.flush=1", {8, 9}},
                 {"clip.264", "decoder@10.drain=1 decoder@10.flush=1"},
                 {"clip.264", "decoder@10.flush=1 decoder@10.drain=1", {8, 9}},
                 {"clip.264", "decoder@20.flush=1 decoder@10.flush=1", {8, 9, 18, 19}},
                 {"clip.264", "decoder@0.flush=1 decoder@0.drain=1"},
                 {"intra.mkv", "decoder@10.flush=1 decoder@15.drain=1"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.settings);
        auto expected = listOf(c.file);
        for (auto i = c.dropped.rbegin(); i != c.dropped.rend(); ++i) {
            expected.erase(expected.begin() + *i);
        }
        const Result result = runGraph(
            "reader decoder check",
            "check.format=framecrc check.write=list reader.file=" + c.file + " " + c.settings);
        EXPECT_EQ(result.exit, 4) << result.err;
        EXPECT_EQ(rowsOf(path("list")), expected);
    }
}

// Catches: a command or tuning that reaches another picture, or none.
TEST_F(VxrunTranscode, EncoderObeysEntries) {
    ASSERT_TRUE(makeVideo("noise.mkv", "yuv420p", "ffv1",
                          "nullsrc=size=64x48:rate=25:duration=1,geq=random(1)*255:128:128"));
    std::string quality = " encoder.options=flags=+qscale:global_quality=236";
    for (int i = 12; i < 25; ++i) quality += " encoder~" + std::to_string(i) + ".quality=31";
    const std::string key = " encoder@7.force_key_frame=1";
    const std::string bitrate =
        " encoder.options=maxrate=900000:bufsize=100000 encoder@12.bitrate=20000";
    for (const std::string& settings :
         {"libx264" + key, "libx265" + key, "libvpx-vp9" + key, "mpeg2video" + key,
          "mpeg2video" + quality, "mpeg4" + quality, "libx264" + bitrate}) {
        SCOPED_TRACE(settings);
        const bool forcesKey = settings.find(key) != std::string::npos;
        const Result result =
            runGraph("reader decoder encoder file",
                     std::string(forcesKey ? "reader.file=clip.264" : "reader.file=noise.mkv") +
                         " file.file=out.mkv encoder.gop=12 encoder.bitrate=900000 encoder.codec=" +
                         settings);
        EXPECT_EQ(result.exit, 4) << result.err;
        const auto rows = listOf("out.mkv", "copy");
        ASSERT_EQ(rows.size(), 25u);
        if (forcesKey) {
            EXPECT_EQ(rows[7].find("F=0x0"), std::string::npos) << rows[7];
            EXPECT_NE(rows[6].find("F=0x0"), std::string::npos) << rows[6];
            continue;
        }
        const auto add = [](int sum, const std::string& row) { return sum + std::stoi(row); };
        const int before = std::accumulate(rows.begin(), rows.begin() + 12, 0, add);
        EXPECT_LT(std::accumulate(rows.begin() + 13, rows.end(), 0, add) * 2, before);
    }
}

// Catches: a conversion that differs from ffmpeg's own; Y4M that is no Y4M, for odd sizes and
// depths above all; raw video that libavformat reads and vxrun does not.
TEST_F(VxrunTranscode, ConvertsAndWritesY4m) {
    const struct {
        std::string from, to, width, height;
    } cases[] = {{"yuv420p", "yuv444p10le", "35", "27"},
                 {"yuv422p10le", "yuv420p10le", "35", "27"},
                 {"yuv420p", "gray", "20", "18"},
                 {"gray", "yuv411p", "33", "9"},
                 {"yuv444p12le", "yuv422p12le", "41", "29"},
                 {"yuvj420p", "yuvj420p", "35", "27"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.from + " " + c.to);
        ASSERT_TRUE(
            makeVideo("in.nut", c.from, "rawvideo", "testsrc2=size=35x27:rate=30:duration=0.3"));
        makeList({"-i", path("in.nut"), "-vf",
                  "scale=" + c.width + ":" + c.height +
                      ":flags=bicubic+accurate_rnd+bitexact:sws_dither=none,format=" + c.to},
                 "framemd5");
        Result result =
            runGraph("reader decoder convert check file",
                     "reader.file=in.nut check.expect=framemd5 file.file=out.y4m "
                     "convert.format=" +
                         c.to + " convert.width=" + c.width + " convert.height=" + c.height);
        expectPass(result, "9");
        const std::string y4m = contentOf(path("out.y4m"));
        EXPECT_EQ(y4m.find(" XCOLORRANGE=FULL\n") < y4m.find("FRAME"), c.to == "yuvj420p");
        result = runGraph("reader decoder check", "reader.file=out.y4m check.expect=framemd5");
        expectPass(result, "9");
        expectPass(vxrun({graph("linear"), "reader.file=" + path("out.y4m"),
                          "check.expect=" + path("framemd5")}),
                   "9");
    }
    // Without a header only the options say what it is.
    writeFile(path("raw.yuv"), y4m("W6 H4", 36, 4).substr(32, 4 * 36));
    const Result raw = runGraph("reader decoder check",
                                "reader.file=raw.yuv check.write=list "
                                "reader.options=video_size=6x4:pixel_format=yuv420p");
    EXPECT_EQ(raw.out, "verdict: NOTHING_CHECKED frames=4 checked=0 first_bad=-\n") << raw.err;
}

// Catches: an entry, config or stream that cannot be obeyed and is passed over in silence, or whose
// error does not name it; a file that is left behind by a run that failed.
TEST_F(VxrunTranscode, RefusesWhatItCannotDo) {
    makeGroups("other.264", "80x64");
    writeFile(path("change.264"), contentOf(path("clip.264")) + contentOf(path("other.264")));
    const std::string decode = "reader decoder file", convert = "reader decoder convert file";
    const std::string encode = "reader decoder encoder file", change = "reader.file=change.264 ";
    const std::string x264 = "encoder.codec=libx264 ", ffv1 = "encoder.codec=ffv1 ";
    const struct {
        std::string nodes, settings;
        int exit;
        std::string line;
    } cases[] = {
        {encode, "", 3, "config 'codec' is missing"},
        {encode, "encoder.codec=nosuch", 77, "no video encoder 'nosuch'"},
        {encode, x264 + "encoder.preset=nosuch", 3, "Error setting preset/tune nosuch"},
        {encode, ffv1 + "encoder.preset=fast", 3, "the encoder ffv1 has no option 'preset'"},
        {encode, x264 + "encoder.bitrate=1k", 3, "config 'bitrate': expected a number"},
        {encode, "encoder.codec=mjpeg", 3, "Non full-range YUV is non-standard"},
        {encode, x264 + "file.container=ivf", 3, "the container ivf does not accept h264"},
        {encode, x264 + "file.container=y4m", 77, "Y4M does not accept h264"},
        {encode, x264 + "file.container=nosuch", 3, "config 'container': expected raw, y4m or"},
        {encode, ffv1 + change, 3, "frame 25 is 80x64 yuv420p after 64x48 yuv420p: an encoder"},
        {decode, "decoder@3.flush=2", 3, "command 'flush' at frame 3: expected a number from 1 to"},
        {decode, "decoder~3.flush=1", 3,
         "tuning 'flush' at frame 3: a codec/decoder accepts command"},
        {decode, "decoder@25.flush=1", 1, "an entry 'flush' is for frame 25, there are 25"},
        {encode, x264 + "encoder@3.bitrate=9", 77,
         "entry 'bitrate': the encoder libx264, as it is"},
        {encode, x264 + "encoder~3.quality=32", 3, "expected a number from 1 to 31, got '32'"},
        {encode, x264 + "encoder~3.quality=9", 77,
         "entry 'quality': the encoder libx264, as it is"},
        {encode, ffv1 + "encoder@3.force_key_frame=1", 1, "ffv1 made no key frame of the picture"},
        {decode, change + "file.container=y4m", 3, "a frame of 80x64 yuv420p after 64x48 yuv420p"},
        {decode, "file.container=mp4", 3, "a work without an access unit"},
        {convert, "convert.format=bgr24", 77, "the pixel format bgr24 is not supported"},
        {convert, "convert.format=nosuch", 3, "config 'format': no pixel format 'nosuch'"},
        {convert, "convert.flags=nosuch", 3, "config 'flags': libswscale does not know all of"},
        {convert, "convert.format=gbrp file.container=y4m", 77,
         "Y4M does not accept rawvideo 'gbrp'"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        const bool changes = c.settings.find(change) != std::string::npos;
        const Result result = runGraph(
            c.nodes, (changes ? "" : "reader.file=clip.264 ") + ("file.file=out " + c.settings));
        EXPECT_EQ(result.exit, c.exit) << result.out;
        expectHas(result.err, c.line);
        EXPECT_EQ(std::filesystem::exists(path("out")), c.exit == 1);
        EXPECT_FALSE(std::filesystem::exists(path("out.part")));
        std::filesystem::remove(path("out"));
    }
}

}  // namespace
