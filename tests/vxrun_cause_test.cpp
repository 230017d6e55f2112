// What vxrun says about the cause of a failure: hints, access units, and the member "failure" of
// reports.
#include "support/Vxrun.h"

#include <FailureReport.h>
#include <WrongAreas.h>
#include <nlohmann/json.hpp>

#include <set>

namespace {

using namespace vxrun_test;
using nlohmann::json;
using vxkit::WrongFrame;
using vxrun::CodedPicture;
using vxrun::Hint;
using vxrun::StreamMap;
using vxrun::WrongAreas;

// A frame of 4x4 cells, of which those are wrong whose bits are set.
WrongFrame frameOf(uint64_t number, uint16_t cells) {
    WrongFrame frame;
    frame.number = number;
    frame.cellSize = 64;
    frame.columns = frame.rows = 4;
    for (int bit = 0; bit < 16; ++bit) frame.cells.push_back((cells >> bit & 1) != 0);
    return frame;
}

std::string hintOf(const std::vector<WrongFrame>& frames, const std::string& shape = "",
                   const std::string& finding = "") {
    WrongAreas areas;
    areas.frames = frames;
    areas.kind = "samples";
    areas.shape = shape;
    areas.finding = finding;
    areas.checked = 30;
    const std::optional<Hint> hint = vxrun::hintOf(areas);
    return hint ? hint->text : "";
}

// Catches: a cause that the cells do not show, and one that is not told where they do.
TEST(Hints, FollowFromTheCells) {
    expectHas(hintOf({frameOf(3, 0x20), frameOf(4, 0x60), frameOf(5, 0xf0)}),
              "grows from one cell");
    expectHas(hintOf({frameOf(3, 0x60), frameOf(4, 0xff), frameOf(5, 0xfff)}), "grows from a few");
    expectHas(hintOf({frameOf(3, 0xf), frameOf(4, 0xf), frameOf(5, 0xf)}), "fixed place");
    expectHas(hintOf({frameOf(3, 0xffff), frameOf(4, 0xff)}), "wrong reference");
    expectHas(hintOf({frameOf(3, 0xff)}), "no other one refers to");
    expectHas(hintOf({frameOf(3, 0xff)}, "shifted"), "crop");
    expectHas(hintOf({frameOf(3, 0xff)}, "", "frames 3 and 4 are swapped"), "wrong order");
    // Thin evidence: two frames, cells elsewhere in each, the end of the stream.
    EXPECT_EQ(hintOf({frameOf(3, 0x20), frameOf(4, 0x60)}), "");
    EXPECT_EQ(hintOf({frameOf(3, 0x20), frameOf(4, 0xc0), frameOf(5, 0xf00)}), "");
    EXPECT_EQ(hintOf({frameOf(29, 0xff)}), "");
}

// Catches: a picture that is taken for the first one because it is output first, hidden pictures
// that are kept quiet, and a map of another stream that is believed.
TEST(Traces, NameThePictureThatWasDecodedFirst) {
    StreamMap map;
    map.codec = "vp9";
    for (size_t i = 0; i < 5; ++i) {
        map.units.push_back(
            {100 * i, 100, static_cast<int64_t>(i), static_cast<int64_t>(i), i == 0});
        CodedPicture picture;
        picture.unit = i;
        map.pictures.push_back(picture);
    }
    map.pictures[3].refers = {2};  // hidden, and refers to 1, which is not
    map.pictures[2].refers = {1};
    map.frames = {0, 4, 3, 1};
    const json traced =
        json::parse(vxrun::traceOf(map, {frameOf(1, 1), frameOf(2, 1)}, 4, true).dump());
    EXPECT_EQ(traced["first_in_output_order"]["picture"], 4);
    EXPECT_EQ(traced["first_in_decoding_order"]["frame"], 2);
    EXPECT_EQ(traced["first_in_decoding_order"]["offset"], 300);
    ASSERT_EQ(traced["hidden_references"].size(), 1u);
    EXPECT_EQ(traced["hidden_references"][0]["unit"], 2);
    for (const auto& [frames, isComplete] : {std::pair(5, true), {5, false}, {3, true}}) {
        const auto other =
            vxrun::traceOf(map, {frameOf(1, 1)}, static_cast<uint64_t>(frames), isComplete);
        EXPECT_TRUE(other.contains("no_map"));
        EXPECT_FALSE(other.contains("first_in_decoding_order"));
    }
}

class Cause : public Vxrun {
protected:
    bool makeStreams() {
        const Words source = {
            "-f",       "lavfi",   "-i",   "testsrc=size=256x192:rate=25:duration=1",
            "-pix_fmt", "yuv420p", "-c:v", "libx264",
            "-bf",      "2"};
        writeFile(path("mine.json"), R"({"name": "mine", "command": ["ffmpeg", "-v", "error", "-y",
            "-skip_loop_filter", "nokey", "-i", "{input}", "-f", "rawvideo", "{output}"]})");
        writeFile(
            path("crash.json"),
            R"({"name": "crash", "command": ["sh", "-c", "kill -SEGV $$", "{input}", "{output}"]})");
        return ffmpeg(source + Words{path("clip.264")});
    }
    // What a JSON report states about the failures.
    json report(const std::string& name) const { return json::parse(contentOf(path(name))); }
};

void expectConsistent(const json& failure) {
    EXPECT_EQ(failure["type"], "CRC_MISMATCH");
    EXPECT_EQ(failure["kind"], "samples");
    const json& output = failure["first_in_output_order"];
    const json& decoding = failure["first_in_decoding_order"];
    EXPECT_EQ(output["frame"], failure["first"]["frame"]);
    EXPECT_LT(output["frame"], decoding["frame"]);
    EXPECT_GT(output["picture"], decoding["picture"]);
    EXPECT_EQ(decoding["type"], "P");
    ASSERT_GT(failure["frames"].size(), 3u);
    for (const json& frame : failure["frames"]) {
        EXPECT_GT(frame["psnr"], 20.0);
        EXPECT_NE(frame["cells"].get<std::string>().find_first_not_of('0'), std::string::npos);
    }
}

// Catches: members that are missing or contradict each other, pictures that are not there.
TEST_F(Cause, RunsSayWhereAWrongPictureComesFrom) {
    if (!makeStreams()) GTEST_SKIP() << "no ffmpeg";
    const Result result =
        vxrun({"decode", path("clip.264"), "--decoder", path("mine.json"), "--against",
               "libavcodec", "--json", path("r.json"), "--dump-bad", path("bad")});
    EXPECT_EQ(result.exit, 1) << result.err;
    expectMatch(result.err, "\n  first wrong in output order: frame [0-9]+, picture [0-9]+ \\(B");
    expectMatch(result.err,
                "\n  first wrong in decoding order: frame [0-9]+, picture [0-9]+ \\(P, ref");
    const json failure = report("r.json")["run"]["failure"];
    expectConsistent(failure);
    ASSERT_FALSE(failure["dumps"].empty());
    for (const char* const kind : {"actual", "expected", "diff"}) {
        EXPECT_TRUE(std::filesystem::exists(failure["dumps"][0][kind].get<std::string>())) << kind;
    }
}

// Catches: a vector whose list, trusted decoder or crash is not told, folders that mix vectors, and
// a command line that does not run the vector again, whatever its name.
TEST_F(Cause, SuitesSayItOfEachVector) {
    if (!makeStreams()) GTEST_SKIP() << "no ffmpeg";
    ASSERT_EQ(vxrun({"decode", path("clip.264"), "--record", path("clip.264.framemd5")}).exit, 0);
    const std::string names[] = {"a:b [*]", "-plain"};
    json vectors = json::array();
    for (const std::string& name : names) {
        std::filesystem::create_directories(path("r/S/" + name));
        std::filesystem::copy(path("clip.264"), path("r/S/" + name + "/clip.264"));
        std::filesystem::copy(path("clip.264.framemd5"), path("r/S/" + name + "/clip.framemd5"));
        vectors.push_back({{"name", name},
                           {"source", ""},
                           {"source_checksum", "__skip__"},
                           {"input_file", "clip.264"},
                           {"output_format", "yuv420p"},
                           {"frames", "clip.framemd5"},
                           {"result", std::string(32, '1')}});
    }
    const json suite = {
        {"name", "S"}, {"codec", "H.264"}, {"description", ""}, {"test_vectors", vectors}};
    writeFile(path("s.json"), suite.dump());
    const Words words = {"suite",   path("s.json"), "--resources",
                         path("r"), "--json",       path("r.json")};
    EXPECT_EQ(vxrun(words + Words{"--decoder", path("mine.json"), "--against", "libavcodec",
                                  "--dump-bad", path("bad")})
                  .exit,
              1);
    const json results = report("r.json")["test_suites"]["S"]["decoders"]["mine"]["vectors"];
    for (const std::string& name : names) {
        SCOPED_TRACE(name);
        const json& failure = results[name]["failure"];
        expectConsistent(failure);
        EXPECT_TRUE(std::filesystem::is_directory(path("bad/" + name)));
        const Words own = command({});
        std::string line;
        for (const std::string& word : own) line += word + " ";
        line += failure["command"].get<std::string>().substr(std::string("vxrun ").size());
        const Result again = run({"sh", "-c", line});
        expectHas(again.out, "passed=0 failed=1 errors=0");
        expectHas(again.err, "first wrong in decoding order: frame ");
    }
    // Only the list is left to compare with.
    EXPECT_EQ(vxrun(words + Words{"--decoder", path("mine.json")}).exit, 1);
    const json listed =
        report("r.json")["test_suites"]["S"]["decoders"]["mine"]["vectors"]["-plain"];
    EXPECT_EQ(listed["failure"]["kind"], "checksum");
    EXPECT_EQ(listed["failure"]["first_in_decoding_order"]["type"], "P");

    EXPECT_EQ(vxrun(words + Words{"--decoder", path("crash.json")}).exit, 1);
    const json crashed =
        report("r.json")["test_suites"]["S"]["decoders"]["crash"]["vectors"]["-plain"];
    EXPECT_FALSE(crashed["failure"]["text"].get<std::string>().empty());
    EXPECT_FALSE(crashed["failure"]["command"].get<std::string>().empty());
}

}  // namespace
