// vxrun without FFmpeg's libraries: what it still does, and how it says what it does not.
#include "support/Vxrun.h"

namespace {

using namespace vxrun_test;

// Catches: what is missing in this build and is offered, crashes or gives no reason.
TEST_F(Vxrun, SaysWhatItLacks) {
    makeClip();
    writeFile(path("clip.raw"), "pictures");
    const std::string command = path("command.json");
    writeFile(command, R"({"name":"raw","command":["cat","{input}"]})");
    const struct {
        Words arguments;
        int exit;
        const char* line;
    } cases[] = {
        {{"decode", path("clip.y4m")}, 2, "--decoder: missing; this vxrun is built without libav"},
        {{"decode", path("clip.y4m"), "--decoder", "libavcodec"}, 2, "no decoder 'libavcodec'"},
        {{VXRUN_GRAPHS_DIR "/decode.json"}, 2, "unknown node type 'source/bitstream', see --list"},
        {{"decode", path("clip.y4m"), "--decoder", command, "-o", path("clip.mp4")},
         3,
         "expected raw or y4m, since this vxrun is built without libavformat, got 'mp4'"},
        {{"decode", path("clip.raw"), "--decoder", command},
         3,
         "of raw video are not known; set 'width', 'height' and 'format'"},
        {{"decode", path("clip.y4m"), "--decoder", "codec/v4l2"}, 3, "clip.y4m: not an IVF file"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        const Result result = vxrun(c.arguments);
        EXPECT_EQ(result.exit, c.exit);
        expectHas(result.err, c.line);
    }
    EXPECT_EQ(vxrun({"decode", "--help"}).out.find("default libavcodec"), std::string::npos);
}

// Catches: a program's pictures that cannot be checked, as Y4M or, with size and format given, as
// raw video.
TEST_F(Vxrun, ChecksDecodersThatArePrograms) {
    const std::string stream = VXRUN_STREAMS_DIR "/av1/av1-176x144-main-basic-10.ivf";
    if (!std::filesystem::exists(stream)) GTEST_SKIP() << "no " << stream;
    if (run({"dav1d", "--version"}).exit != 0) GTEST_SKIP() << "no dav1d program";
    writeFile(path("y4m.json"),
              R"({"name":"y4m","command":["dav1d","-q","-i","{input}","--muxer","yuv4mpeg2",)"
              R"("-o","-"]})");
    writeFile(path("graph.json"), R"({ "name": "g", "nodes": [
        { "name": "decoder", "type": "codec/command", "configs": { "file": ")" +
                                      stream + R"(",
          "command": "dav1d -q -i {input} --muxer yuv4mpeg2 -o -" },
          "outputs": [ { "name": "out", "format": "video/raw" } ] },
        { "name": "check", "type": "sink/checksum",
          "configs": { "print_md5": true, "expect": ")" +
                                      stream + R"(.framemd5" },
          "inputs": [ { "name": "in", "format": "video/raw" } ] } ],
        "connections": { "out": ["in"] } })");
    const Result checked = vxrun({path("graph.json")});
    EXPECT_EQ(checked.exit, 0) << checked.err;
    const std::string md5 = checked.out.substr(0, checked.out.find('\n') + 1);
    EXPECT_EQ(vxrun({"decode", stream, "--decoder", path("y4m.json")}).out, md5);
    const Result raw = vxrun({"decode", stream, "--decoder", "dav1d", "--format", "yuv420p10le",
                              "decoder.width=176", "decoder.height=144"});
    EXPECT_EQ(raw.out, md5) << raw.err;
}

}  // namespace
