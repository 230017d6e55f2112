// Goldens of every kind, vxrun decode, and vxrun suite with its reports.
#include "support/Vxrun.h"

#include <sys/inotify.h>
#include <sys/stat.h>

#include <map>
#include <nlohmann/json.hpp>
#include <pugixml.hpp>

namespace {

using namespace vxrun_test;

const char kNothingMd5[] = "d41d8cd98f00b204e9800998ecf8427e";

// ---- Goldens ----------------------------------------------------------------------------------

class VxrunGoldens : public Vxrun {
protected:
    Result check(const std::string& list) const {
        writeFile(path("list"), list);
        return vxrun({graph("linear"), "check.expect=" + path("list")});
    }
};

// Catches: a recorded list of any kind that does not pass afterwards or that passes for another
// stream; a kind that cannot be chosen; a list that is replaced without being asked, or made by a
// failed run.
TEST_F(VxrunGoldens, RecordsWhatItThenExpects) {
    makeClip();
    const std::string clip = contentOf(path("clip.y4m"));
    std::string damaged = clip;
    damaged[damaged.size() - 1] ^= 1;
    const std::string differs = "1 of 4 frames differ, first is frame 3\n";
    const struct {
        std::string file, format, holds, line;  // of a mismatch
    } cases[] = {
        {"a.framemd5", "", "#format: frame checksums", differs},
        {"a.framecrc", "", ", 0x", differs},
        {"a.md5", "", "  frame-6x4-0004\n", differs},
        {"a.json", "", "\"bit_depth\": 8,\n  \"frame_rate\": 25.0,\n  \"num_frames\": 4,", differs},
        {"a.txt", "md5", "MD5=", "the MD5 of all 4 frames differs: expected "},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file);
        writeFile(path("clip.y4m"), clip);
        Words command = {graph("linear"), "--record", path(c.file)};
        if (!c.format.empty()) command.push_back("check.format=" + c.format);
        const Result made = vxrun(command);
        EXPECT_EQ(made.out, "verdict: DONE frames=4 checked=0 first_bad=-\n") << made.err;
        EXPECT_EQ(made.exit, 0);
        const std::string list = contentOf(path(c.file));
        expectHas(list, c.holds);
        expectPass(check(list), "4");
        expectFailure(vxrun(command), 2, "BAD_OPTION", "--force");
        writeFile(path("clip.y4m"), damaged);
        const Result result = check(list);
        EXPECT_EQ(result.exit, 1);
        expectHas(result.err, c.line);
        command.push_back("--force");
        EXPECT_EQ(vxrun(command).exit, 0);
        EXPECT_EQ(check(contentOf(path(c.file))).exit, 0);
        writeFile(path("clip.y4m"), clip + "FRAME\ncut");
        std::filesystem::remove(path(c.file));
        EXPECT_EQ(vxrun(command).exit, 3);
        EXPECT_FALSE(std::filesystem::exists(path(c.file)));
        EXPECT_FALSE(std::filesystem::exists(path(c.file + ".new")));
    }
    const std::string two = graph("fanout", "\"sink/null\"", "\"sink/checksum\"");
    expectFailure(vxrun({two, "--record", "x"}), 2, "BAD_OPTION",
                  "2 sink/checksum nodes, expected 1");
}

// Catches: a list that replaces a pipe or lands in a folder, or another file that goes when one is
// recorded; a long one that cannot be read back.
TEST_F(VxrunGoldens, RecordsTouchNothingElse) {
    writeFile(path("clip.y4m"), y4m("W2 H2 Cmono", 4, 60000));
    writeFile(path("a.json.new"), "kept");
    std::filesystem::create_directory(path("folder"));
    ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
    for (const char* name : {"folder", "pipe"}) {
        expectFailure(vxrun({graph("linear"), "--record", path(name), "--force"}), 2, "BAD_OPTION",
                      "--record: " + path(name) + " is not a regular file");
    }
    ASSERT_EQ(vxrun({graph("linear"), "--record", path("a.json")}).exit, 0);
    EXPECT_EQ(vxrun({graph("linear"), "check.expect=" + path("a.json")}).exit, 0);
    EXPECT_EQ(contentOf(path("a.json.new")), "kept");
    const auto files = std::filesystem::directory_iterator(mFolder);
    EXPECT_EQ(std::distance(begin(files), end(files)), 6);  // with clip.y4m and graph.json
}

// Catches: a layout of published MD5s that is not understood, a bitstream's MD5 taken for the
// pictures', an expectation that everything or nothing matches.
TEST_F(VxrunGoldens, ReadsWhatOthersPublish) {
    makeClip();
    ASSERT_EQ(vxrun({graph("linear"), "--record", path("a.md5")}).exit, 0);
    ASSERT_EQ(vxrun({graph("linear"), "--record", path("b"), "check.format=md5"}).exit, 0);
    const std::string whole = contentOf(path("b")).substr(4, 32);
    std::string upper = whole, frames, json;
    for (char& c : upper) c = static_cast<char>(std::toupper(c));
    std::istringstream rows(contentOf(path("a.md5")));
    for (std::string row; std::getline(rows, row);) {
        frames += row.substr(0, 32) + "\r\n";
        json += (json.empty() ? "\"" : ",\"") + row.substr(0, 32) + "\"";
    }
    const std::string other(32, '0');
    const std::string none = "no row in the list", nothing = "the MD5 of no data",
                      hash = "expected an MD5 of 32 digits, got '",
                      row = "expected '0, dts, pts, dur";
    const std::pair<std::string, std::string> cases[] = {
        // list and line; none: it passes
        {whole, ""},
        {upper + "\r\n", ""},
        {"MD5=" + whole + "\n", ""},
        {whole + " *clip.yuv\n", ""},
        {"# " + other + "\n; remark\n" + whole + "  clip_352x288.yuv", ""},
        {"MD5 (clip.yuv) = " + whole, ""},
        {other + " *clip.bit\n" + whole + " *clip.yuv\n", ""},
        {"Checksums of the stream\n\n" + whole.substr(0, 9) + "e" + whole.substr(9) + " x", ""},
        {frames, ""},
        {"{\"md5_checksums\":[" + json + "],\"num_frames\":4,\"profile\":\"ANY\"}", ""},
        {other, "the MD5 of all 4 frames differs: expected " + other + ", actual " + whole},
        {whole.substr(1) + "x", ":1: " + hash},
        {frames.substr(0, 40) + frames.substr(41), ":2: " + hash},
        {frames.substr(0, 40) + "g" + frames.substr(41), ":2: " + hash},
        {frames.substr(0, 50) + " " + frames.substr(51), ":2: " + hash},
        {whole + "  a.yuv " + other, ":1: more than one MD5 in the line "},
        {"remark\r" + whole + "\r", ":1: a carriage return within a line"},
        {"Made on 20260131120000 as 1234567890123456789\n" + whole, ""},
        {frames + other, "the stream has 4 frames, " + path("list") + " has 5"},
        {"{\"md5_checksums\":[" + json + ",\"" + other + "\"]}", "the stream has 4 frames, "},
        {"{\"md5_checksums\":[" + json + "],\n\"num_frames\":5}", ":2:14: num_frames: md5_check"},
        {"{\"md5_checksums\":[]}", none},
        {"{\"md5_checksums\":[\"abc\"]}", "md5_checksums[0]: expected an MD5, got 'abc'"},
        {"{\"sums\":[]}", ":1:1: list: missing key 'md5_checksums'"},
        {std::string("MD5=") + kNothingMd5, nothing},
        {frames + kNothingMd5 + " x", ":5: " + nothing},
        {std::string("0,0,0,1,36,") + kNothingMd5, nothing},
        {std::string("0,0,0,1,0,") + kNothingMd5, ":1: " + row},
        {"0,0,0,1,36," + whole.substr(1), ":1: " + row},
        {"", none},
        {"#tb 0: 1/25\n0, 0, 0, 1, 36, 0x0123456g\n", ":2: " + row},
        {"\n0, 0, 0\n", ":2: " + row},
        {"1, 0, 0, 1, 36, 0x01234567\n", ":1: " + row},
        {"0,0,0,1,36,0x01234567\n0,1,1,1,36," + whole, ":2: MD5 and CRC rows in one list"},
        {std::string("{\"md5_checksums\":[\"") + kNothingMd5 + "\"]}", nothing},
    };
    for (const auto& [list, line] : cases) {
        SCOPED_TRACE(list);
        const Result result = check(list);
        const bool isPass = result.out == "verdict: PASS frames=4 checked=4 first_bad=-\n";
        EXPECT_EQ(isPass, line.empty()) << result.err;
        expectHas(result.err, line);
    }
}

// ---- Decoding and suites ----------------------------------------------------------------------

class VxrunSuite : public Vxrun {
protected:
    struct Entry {
        std::string name, file, format, profile, md5;
    };

    void SetUp() override {
        Vxrun::SetUp();
        for (const char* name : {"GTEST_FILTER", "GTEST_TOTAL_SHARDS", "GTEST_SHARD_INDEX",
                                 "GTEST_OUTPUT", "GTEST_SHARD_STATUS_FILE"}) {
            unsetenv(name);  // of this test's own run
        }
        if (!makeVideo("clip.m2v", "yuv420p", "mpeg2video")) GTEST_SKIP() << "no ffmpeg program";
        const Result made = run({"ffmpeg", "-v", "error", "-flags", "unaligned", "-i",
                                 path("clip.m2v"), "-fps_mode", "passthrough", "-f", "md5", "-"});
        ASSERT_EQ(made.out.rfind("MD5=", 0), 0u) << made.err;
        mMd5 = made.out.substr(4, 32);
        std::string clip = contentOf(path("clip.m2v"));
        writeFile(path("damaged.m2v"), clip.replace(3000, 50, std::string(50, '\x55')));
    }
    // What waits for the other end of the pipe waits no longer.
    void TearDown() override {
        close(open(path("S/stuck/pipe").c_str(), O_WRONLY | O_NONBLOCK));
        Vxrun::TearDown();
    }

    // A suite called S, in a file and with a copy of the clip that an entry asks for.
    void makeSuite(const std::vector<Entry>& entries, const std::string& more = "") const {
        std::string vectors;
        for (const Entry& e : entries) {
            vectors += (vectors.empty() ? "" : ",\n") +
                       ("{\"name\":\"" + e.name + "\",\"source\":\"http://x/y.zip\"," +
                        "\"source_checksum\":\"__skip__\",\"input_file\":\"" + e.file + "\"," +
                        (e.format.empty() ? "" : "\"output_format\":\"" + e.format + "\",") +
                        (e.profile.empty() ? "" : "\"profile\":\"" + e.profile + "\",") +
                        "\"result\":\"" + e.md5 + "\"}");
            const bool hasFolder = e.file.find('/') != std::string::npos;
            const std::filesystem::path file =
                path("S/") + (hasFolder ? "" : e.name + "/") + e.file;
            std::filesystem::create_directories(file.parent_path());
            const std::string made = path(file.filename());
            if (file.filename() == "pipe") mkfifo(file.c_str(), 0600);
            if (std::filesystem::exists(made)) writeFile(file, contentOf(made));
        }
        writeFile(path("s.json"),
                  "{\"name\":\"S\",\"codec\":\"MPEG2_VIDEO\",\"description\":\"\"," + more +
                      "\"failing_test_vectors\":[{}],\"test_vectors\":[" + vectors + "]}");
    }

    // One of the vectors `names`, all of the clip, but "stuck" of a pipe and "gone" of nothing.
    void makeSuite(const std::string& names) const {
        std::vector<Entry> entries;
        std::istringstream words(names);
        for (std::string name; words >> name;) entries.push_back({name, "clip.m2v", "", "", mMd5});
        for (Entry& e : entries) {
            if (e.name == "stuck" || e.name == "gone") e.file = e.name == "stuck" ? "pipe" : "none";
        }
        makeSuite(entries);
    }

    Words suite(const Words& options, const std::string& folder = ".") const {
        return Words{VXRUN_BINARY,  "suite",      path("s.json"),
                     "--resources", path(folder), "--junit",
                     path("j.xml"), "--jobs",     "2"} +
               options;
    }

    // "name state [log];..." of a report that is as strict readers want it.
    std::string junit() const {
        pugi::xml_document document;
        const auto parsed = document.load_file(path("j.xml").c_str());
        EXPECT_TRUE(parsed) << parsed.description() << "\n" << contentOf(path("j.xml"));
        const pugi::xml_node node = document.child("testsuites").child("testsuite");
        EXPECT_STREQ(node.child("properties").child("property").attribute("value").value(),
                     "libavcodec-mpeg2video");
        const auto timeOf = [](const pugi::xml_node& timed) {
            const std::string time = timed.attribute("time").value();
            expectMatch(time, "^[0-9]+\\.[0-9]{3}$");
            return std::strtod(time.c_str(), nullptr);
        };
        std::string states;
        std::map<std::string, int> counts;
        double seconds = 0;
        for (const pugi::xml_node test : node.children("testcase")) {
            const pugi::xml_node first = test.first_child(), log = test.child("system-err");
            const std::string kind = first.name(), type = first.attribute("type").value();
            states += std::string(test.attribute("classname").value()) + "/" +
                      test.attribute("name").value() + " " + kind + (type.empty() ? "" : " ") +
                      type + (log.empty() ? "" : " log") + ";";
            ++counts[kind];
            ++counts["test"];
            seconds += timeOf(test);
            if (kind == "failure" || kind == "error") {
                EXPECT_STREQ(first.attribute("message").value(), first.text().get());
                EXPECT_STRNE(first.text().get(), "");
            }
            EXPECT_EQ(log.empty(), log.text().empty());
            EXPECT_EQ(std::string(log.text().get()).find("verdict: "), std::string::npos);
        }
        for (const std::string kind : {"test", "failure", "error"}) {
            EXPECT_EQ(node.attribute((kind + "s").c_str()).as_int(), counts[kind]);
        }
        EXPECT_EQ(node.attribute("skipped").as_int(), counts["skipped"]);
        EXPECT_NEAR(timeOf(node), seconds, 0.001 * counts["test"]);
        return states;
    }

    // Until j.xml, which is replaced in the course of a run, holds `text`; false when it never
    // does.
    bool waitForReport(const std::string& text) const {
        pollfd folder = {inotify_init1(IN_CLOEXEC), POLLIN, 0};
        inotify_add_watch(folder.fd, mFolder.c_str(), IN_MOVED_TO);
        bool isThere, isLate = false;
        while (!(isThere = contentOf(path("j.xml")).find(text) != std::string::npos) && !isLate) {
            char events[4096];
            isLate = poll(&folder, 1, 20000) != 1 || read(folder.fd, events, sizeof events) < 0;
        }
        close(folder.fd);
        return isThere;
    }

    std::string mMd5;  // of clip.m2v
};

// Catches: an MD5 or file that differs from ffmpeg's, a conversion, an exit code or last line that
// those who call it cannot use.
TEST_F(VxrunSuite, DecodesInOneLine) {
    const std::string clip = path("clip.m2v");
    const std::string done = "verdict: DONE frames=30 checked=0 first_bad=-\n";
    const struct {
        Words options;
        int exit;
        std::string line;  // on standard error
    } cases[] = {
        {{clip}, 0, done},
        {{clip, "--md5", "-o", path("a.yuv"), "--codec", "mpeg2video", "decoder.threads=2"},
         0,
         done},
        {{clip, "--format", "yuv420p", "decoder.allocator=dmabuf"}, 0, done},
        {{clip, "--format", "None", "--codec", "MPEG-2"}, 69, "no decoder 'MPEG-2'"},
        {{clip, "--format", "yuv420p10le"}, 69, "the pictures are yuv420p, not 'yuv420p10le'"},
        {{clip, "--codec", "h266", "--unsupported-exit", "77"}, 77, "NOT_SUPPORTED"},
        {{clip, "--codec", "aac"}, 69, "no decoder 'aac'"},
        {{clip, "--format"}, 2, "verdict: BAD_OPTION"},
        {{clip, "another"}, 2, "unexpected 'another'"},
        {{path("none.m2v")}, 3, "none.m2v: No such file or directory"},
        {{"concat:" + clip}, 3, "clip.m2v: No such file or directory"},  // not a protocol
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        const Result result = vxrun(Words{"decode"} + c.options);
        EXPECT_EQ(result.exit, c.exit);
        EXPECT_EQ(result.out, c.exit == 0 ? mMd5 + "\n" : "");
        expectHas(result.err, c.line);
    }
    const Result again = vxrun({"decode", clip, "-o", path("b.yuv")});
    EXPECT_EQ(again.out, "");
    EXPECT_EQ(contentOf(path("a.yuv")).size(), 30u * 34 * 26 * 3 / 2);
    EXPECT_EQ(contentOf(path("a.yuv")), contentOf(path("b.yuv")));
    const Result damaged = vxrun({"decode", path("damaged.m2v")});
    EXPECT_EQ(damaged.exit, 1) << damaged.err;
    EXPECT_EQ(damaged.out.size(), 33u);
    const Result tolerant = vxrun({"decode", path("damaged.m2v"), "decoder.tolerate_errors=true"});
    EXPECT_EQ(tolerant.exit, 0) << tolerant.err;
    EXPECT_EQ(tolerant.out, damaged.out);
}

// Catches: a vector that passes by mistake, an outcome that is counted as another, a report that is
// not valid, hides a failure, or breaks at what names and logs contain.
TEST_F(VxrunSuite, ReportsEveryOutcome) {
    const std::string wrong(32, 'a');
    makeSuite({{"good", "clip.m2v", "yuv420p", "Main", mMd5},
               {"sub", "a/clip.m2v", "None", "Main", mMd5},
               {"wrong", "clip.m2v", "", "Main", wrong},
               {"deep", "clip.m2v", "yuv422p10le", "4:2:2", mMd5},
               {"gone", "gone\xC2\x80.m2v", "", "", mMd5},
               {"a<b>&\\\"c|d,\\u0001", "a/clip.m2v", "", "Main", mMd5},
               {"=a\\nb", "a/clip.m2v", "", "Main", mMd5},
               {"broken", "damaged.m2v", "", "", wrong},
               {"right", "damaged.m2v", "", "Main",
                vxrun({"decode", path("damaged.m2v")}).out.substr(0, 32)}});
    std::filesystem::create_symlink(".", path("\xFF"));  // not UTF-8
    Result result = run(suite({"--json", path("j.json"), "--csv", path("j.csv"), "--markdown",
                               path("j.md"), "--output", path("o")},
                              "\xFF"));
    EXPECT_EQ(result.exit, 1) << result.err;
    expectHas(result.out, "\nverdict: FAIL passed=5 failed=2 errors=1 skipped=1\n");
    expectHas(result.out, "Main            6         5         1         0         0");
    EXPECT_EQ(junit(),
              "S.mpeg2video.Main/good ;S.mpeg2video.Main/sub ;"
              "S.mpeg2video.Main/wrong failure CRC_MISMATCH;"
              "S.mpeg2video.4:2:2/deep skipped log;S.mpeg2video/gone error NODE_FAIL_INIT log;"
              "S.mpeg2video.Main/a<b>&\"c|d, ;S.mpeg2video.Main/=a\nb ;"
              "S.mpeg2video/broken failure CRC_MISMATCH log;S.mpeg2video.Main/right ;");
    const std::string xml = contentOf(path("j.xml"));
    expectHas(xml, "expected MD5 " + wrong + ", actual " + mMd5);
    expectHas(xml, "; node 'decoder': errors in decoding: ");
    EXPECT_EQ(xml.find('\xFF'), std::string::npos);
    for (const auto& [file, line] : {std::pair("j.csv", "\nwrong,Fail,"),
                                     {"j.csv", "\n\"a<b>&\"\"c|d,\\x01\",Success,"},
                                     {"j.csv", "\n'=a\\nb,Success,"},
                                     {"j.md", "\n|=a\\nb|Success|\n"},
                                     {"j.md", "\n|TOTAL|5/9|\n"},
                                     {"j.md", "c\\|d,"},
                                     {"j.json", "\"failed_error\": 3,"}}) {
        expectHas(contentOf(path(file)), line);
    }
    const std::string csv = contentOf(path("j.csv")), markdown = contentOf(path("j.md"));
    for (const auto& [text, pattern] :
         {std::pair(csv, "\nright,Success,[0-9]+\\.[0-9]{3},Main\n"),
          {markdown, "\n\\|TOTAL TIME\\|[0-9]+\\.[0-9]{3}s\\|\n"},
          {result.out, "\nall .* [0-9]+\\.[0-9]\nverdict"},
          {result.err, "\\[[1-9]/9\\] right: Success \\([0-9]+\\.[0-9] s\\)\n"}}) {
        expectMatch(text, pattern);
    }
    EXPECT_EQ(contentOf(path("o/S/good.out")).size(), 30u * 34 * 26 * 3 / 2);
}

// Catches: a suite that passes although nothing ran, and other codes that scripts cannot rely on; a
// bad suite file or option that is accepted.
TEST_F(VxrunSuite, EndsWithACode) {
    const std::string wrong(32, 'a'), pass = "verdict: PASS passed=1 failed=0 errors=0 skipped=0\n";
    const struct {
        std::string md5, more;
        Words options;
        int exit;
        std::string line;  // on either output
    } cases[] = {
        {mMd5, "", {}, 0, pass},
        {mMd5, "\"test_method\":\"md5\",\"time_taken\":1.5,", {}, 0, pass},
        {mMd5, "", {"--filter", "none*"}, 4, "verdict: NOTHING_CHECKED passed=0"},
        {mMd5, "", {"--shard", "2/2"}, 77, "verdict: SKIPPED passed=0"},
        {"", "\"test_method\":\"pixel\",", {}, 77, "verdict: SKIPPED passed=0"},
        {mMd5, "\"negative_test\":true,", {}, 1, "decoded without an error"},
        {"", "\"negative_test\":true,", {}, 1, "decoded without an error"},
        {wrong, "\"negative_test\":true,", {}, 0, pass},
        {mMd5, "\"test_vectors_success\":\"" + std::string(3 << 20, 'x') + "\",", {}, 0, pass},
        {mMd5, "\"speed\":1,", {}, 2, "s.json:1:60: speed: unknown key"},
        {mMd5, "\"test_method\":\"ear\",", {}, 2, "expected md5, pixel or sample, got 'ear'"},
        {mMd5, "", {"--shard", "0/2"}, 2, "--shard: expected a number from 1 to 2, got '0'"},
        {mMd5, "", {"--shard", "2"}, 2, "--shard: expected a number from 1 to 1000000, got ''"},
        {mMd5, "", {"--csv", "/nonexistent/a"}, 2, "/nonexistent/a.part: No such file"},
        {mMd5, "", {"--output", "/dev/null/a"}, 2, "/dev/null/a"},
        {mMd5, "", {"--trace", "a"}, 2, "suite excludes --trace"},
        {mMd5, "", {"--set", "decoder.threads=0"}, 1, "expected a number from 1 to 64, got '0'"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        makeSuite({{"a", "clip.m2v", "", "", c.md5}}, c.more);
        const Result result = run(suite(c.options));
        EXPECT_EQ(result.exit, c.exit) << result.err;
        expectHas(result.out + result.err, c.line);
    }
    for (const char* const command : {"suite", "decode"}) {
        expectHas(vxrun({command, "--help"}).out, "--stall SECONDS");
    }
}

// Catches: a mistake in one vector that keeps the others from running, or that no report has; two
// that one report calls by one name; a name that leads out of the folders.
TEST_F(VxrunSuite, RunsAllButBadVectors) {
    makeSuite({{"good", "clip.m2v", "", "Main", mMd5},
               {"none", "clip.m2v", "", "Main", ""},
               {"nothing", "clip.m2v", "", "Main", kNothingMd5},
               {"good", "clip.m2v", "", "Main", mMd5},
               {"file", "../clip.m2v", "", "Main", mMd5},
               {"../x", "clip.m2v", "", "Main", mMd5},
               {"x\\u0000", "y", "", "Main", mMd5},
               {"test_vectors[8]", "clip.m2v", "", "Main", mMd5},
               {"", "clip.m2v", "", "Main", mMd5},
               {"key", "clip.m2v\",\"speed\":\"1", "", "Main", mMd5}});
    const Result result = run(suite({}));
    EXPECT_EQ(result.exit, 1) << result.err;
    EXPECT_EQ(junit(),
              "S.mpeg2video.Main/good ;"
              "S.mpeg2video.Main/none error CORRUPT_DESCR;"
              "S.mpeg2video.Main/nothing error CORRUPT_DESCR;"
              "S.mpeg2video/test_vectors[3] error CORRUPT_DESCR;"
              "S.mpeg2video/file error CORRUPT_DESCR;"
              "S.mpeg2video/test_vectors[5] error CORRUPT_DESCR;"
              "S.mpeg2video/test_vectors[6] error CORRUPT_DESCR;"
              "S.mpeg2video.Main/test_vectors[8] ;"
              "S.mpeg2video/test_vectors[8]' error CORRUPT_DESCR;"
              "S.mpeg2video/key error CORRUPT_DESCR;");
    const std::string xml = contentOf(path("j.xml"));
    for (const char* const line :
         {"s.json:2:121: test_vectors[1].result: expected an MD5, got ''",
          "test_vectors[2].result: the MD5 of no data",
          "s.json:4:9: test_vectors[3].name: another vector is named 'good'",
          "test_vectors[4].input_file: expected a name without '..' or NUL, got '../clip.m2v'",
          "s.json:10:102: test_vectors[9].speed: unknown key"}) {
        expectHas(xml, line);
    }
}

// Catches: a suite that ends, or leaves an older report, when processes, descriptors or the reader
// of its output run out; a result that goes nowhere and is taken for delivered.
TEST_F(VxrunSuite, GoesOnWhereThingsRunOut) {
    std::string names = "gone";
    for (int i = 0; i < 24; ++i) names += " v" + std::to_string(i);
    makeSuite(names);
    struct Case {
        std::string shell, jobs;
        Words options;
        int exit;
        std::string line;  // on either output
        int passed, errors;
    };
    const std::string full = "vxrun: standard output: No space left";
    const std::string two = "exec 3>&- 4>&-; ulimit -n 5; exec \"$@\"";  // that can be opened
    const std::string unread = "mkfifo $0; exec 3<>$0 4>$0 3<&-; exec \"$@\" >&4 2>&1";
    const Case cases[] = {
        {"ulimit -n 40; exec \"$@\"", "25", {}, 1, "] gone: Error", 24, 1},
        {two, "2", {}, 1, ": cannot start: Too many open files", 0, 25},
        {unread, "2", {"--filter", "v?"}, 3, "", 10, 0},
        {"exec \"$@\" >/dev/full", "2", {"--filter", "v1"}, 3, full, 1, 0},
        {"exec \"$@\" >/dev/full", "2", {"--list"}, 3, full, 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.shell);
        writeFile(path("j.xml"), "<testsuites/>");
        Words command = suite(c.options);
        std::replace(command.begin(), command.end(), std::string("2"), c.jobs);
        const Result result = run(Words{"bash", "-c", c.shell, path("unread")} + command);
        EXPECT_EQ(result.exit, c.exit) << result.err;
        expectHas(result.out + result.err, c.line);
        pugi::xml_document document;
        document.load_file(path("j.xml").c_str());
        const pugi::xml_node counts = document.child("testsuites").child("testsuite");
        EXPECT_EQ(counts.attribute("tests").as_int(), c.passed + c.errors);
        EXPECT_EQ(counts.attribute("errors").as_int(), c.errors);
        EXPECT_EQ(counts.attribute("skipped").as_int() + counts.attribute("failures").as_int(), 0);
    }
}

// Catches: a report whose place is lost or taken that ends a run early, is said to be there, or is
// written where a link leads.
TEST_F(VxrunSuite, KeepsReportsWhereTheyBelong) {
    makeSuite("stuck v0 v1 v2 v3 v4 v5 v6 v7");
    std::filesystem::create_directory(path("r"));
    Process process(suite({"--csv", path("r/j.csv")}));
    ASSERT_TRUE(process.waitFor("v0: Success")) << process.err;
    std::filesystem::rename(path("r"), path("lost"));
    EXPECT_TRUE(process.waitFor("[8/9] v7: Success")) << process.err;
    writeFile(path("S/stuck/pipe"), contentOf(path("clip.m2v")));
    EXPECT_EQ(process.wait(), 3) << process.err;
    expectHas(process.out, "verdict: NOT_WRITTEN passed=9");
    expectHas(process.err, "vxrun: --csv: " + path("r/j.csv.part: No such file"));
    EXPECT_EQ(junit().rfind("S.mpeg2video/stuck ;S.mpeg2video/v0 ;", 0), 0u);

    const std::string part = path("j.xml.part"), kept = path("kept");
    const struct {
        std::string name;
        std::function<void()> make;
        int exit;
    } cases[] = {
        {"a file", [&] { writeFile(part, "old"); }, 0},
        {"a pipe", [&] { mkfifo(part.c_str(), 0600); }, 2},
        {"a link", [&] { std::filesystem::create_symlink(kept, part); }, 2},
        {"a second name", [&] { std::filesystem::create_hard_link(kept, part); }, 0},
    };
    writeFile(kept, "kept");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::filesystem::remove(part);
        c.make();
        const Result result = run(suite({"--filter", "v0"}));
        EXPECT_EQ(result.exit, c.exit) << result.err;
        EXPECT_EQ(contentOf(kept), "kept");
        EXPECT_EQ(result.err.find(part + ": in the way") != std::string::npos, c.exit == 2);
    }
}

// Catches: a vector that no shard runs, or two do; a filter or variable that is ignored.
TEST_F(VxrunSuite, SelectsVectors) {
    makeSuite("a-1 a-2 b-1 b-2 c");
    const struct {
        Words options, variables;
        std::string names;
    } cases[] = {
        {{}, {}, "a-1 a-2 b-1 b-2 c "},
        {{"--filter", "a-*:S.c"}, {}, "a-1 a-2 c "},
        {{"--filter", "?-*:-*-2"}, {}, "a-1 b-1 "},
        {{"--filter", "-a*:c"}, {}, "b-1 b-2 "},
        {{"--shard", "1/3"}, {}, "a-1 b-2 "},
        {{"--shard", "3/3", "--filter", "-a-1"}, {}, "b-2 "},
        {{}, {"GTEST_FILTER=S.b*"}, "b-1 b-2 "},
        {{"--filter", "c"}, {"GTEST_FILTER=S.b*"}, "c "},
        {{}, {"GTEST_TOTAL_SHARDS=2", "GTEST_SHARD_INDEX=1"}, "a-2 b-2 "},
        {{"--shard", "1/1"}, {"GTEST_TOTAL_SHARDS=2", "GTEST_SHARD_INDEX=2"}, "a-1 a-2 b-1 b-2 c "},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.names);
        Process process(suite(Words{"--list"} + c.options), c.variables);
        EXPECT_EQ(process.wait(), 0) << process.err;
        std::replace(process.out.begin(), process.out.end(), '\n', ' ');
        EXPECT_EQ(process.out, c.names);
    }
    Words command = suite({});
    const auto junitOption = std::find(command.begin(), command.end(), "--junit");
    command.erase(junitOption, junitOption + 2);
    Process process(command, {"GTEST_OUTPUT=xml:" + path("j.xml"), "GTEST_FILTER=c",
                              "GTEST_SHARD_STATUS_FILE=" + path("status")});
    EXPECT_EQ(process.wait(), 0) << process.err;
    EXPECT_EQ(junit(), "S.mpeg2video/c ;");
    EXPECT_TRUE(std::filesystem::exists(path("status")));
}

// Catches: a vector that never ends, or holds up the others; processes that outlive their suite; a
// report that is damaged, or silent about what ran, when the run is cut off.
TEST_F(VxrunSuite, EndsWhatDoesNotEnd) {
    makeSuite("stuck good next");
    const Result late = run(suite({"--timeout", "0.5", "--filter", "stuck"}));
    EXPECT_EQ(late.exit, 1) << late.err;
    expectMatch(late.out, "^profile [^\n]*\nall [^\n]*\nverdict: FAIL");  // of no profile
    EXPECT_EQ(junit(), "S.mpeg2video/stuck error TIMEOUT log;");
    // One that cannot end itself: it is stopped.
    std::filesystem::remove(path("j.xml"));
    Process frozen(suite({"--timeout", "2", "--filter", "stuck"}));
    ASSERT_TRUE(waitForReport("errors=\"1\"")) << "it has not begun";
    const std::string id = std::to_string(frozen.id());
    pid_t child = 0;
    for (const auto end = Clock::now() + kLimit; child == 0 && Clock::now() < end;) {
        child = std::atoi(contentOf("/proc/" + id + "/task/" + id + "/children").c_str());
    }
    ASSERT_TRUE(child > 0 && ::kill(child, SIGSTOP) == 0);
    EXPECT_EQ(frozen.wait(), 1) << frozen.err;
    expectHas(frozen.err, "stuck: Timeout");
    expectMatch(junit(), "^S.mpeg2video/stuck error TIMEOUT;$");
    expectMatch(contentOf(path("j.xml")), "ended after [0-9]+\\.[0-9] s");
    for (const auto& [signal, exit] :
         {std::pair(SIGTERM, 143), {SIGINT, 130}, {SIGKILL, -SIGKILL}}) {
        SCOPED_TRACE(signal);
        Process process(suite({"--timeout", "40"}));
        ASSERT_TRUE(process.waitFor("[2/3] next: Success")) << process.err;
        ASSERT_TRUE(waitForReport("errors=\"1\""));  // soon after that
        process.kill(signal);
        EXPECT_EQ(process.wait(), exit) << process.err;
        const std::string rest = junit();
        EXPECT_EQ(rest.rfind("S.mpeg2video/stuck error DID_NOT_FINISH;S.mpeg2video/good ;", 0), 0u)
            << rest;
        EXPECT_EQ(process.out.find("verdict: ") != std::string::npos, signal != SIGKILL);
        // Readers of the pipe: none any more, or soon.
        pollfd readers = {open(path("S/stuck/pipe").c_str(), O_WRONLY | O_NONBLOCK), 0, 0};
        EXPECT_TRUE(readers.fd < 0 || poll(&readers, 1, 20000) == 1) << "its processes live on";
        close(readers.fd);
    }
}

// Catches: a reference that is of other pictures, of none or of a failed decoder; a result that was
// there and goes.
TEST_F(VxrunSuite, ReferenceFillsInWhatIsMissing) {
    std::vector<Entry> entries = {
        {"avc", "h264/Static.264", "yuv420p", "", ""},
        {"deep", "av1/av1-176x144-main-basic-10.ivf", "yuv420p10le", "", ""},
        {"sizes", "av1/av1-sizeup-fluster.ivf", "None", "", ""},
        {"gray", "h264/Static.264", "gray", "", ""},
        {"kept", "h264/Static.264", "", "", std::string(32, '1')}};
    const std::filesystem::path streams = VXRUN_STREAMS_DIR;
    if (!std::filesystem::exists(streams)) GTEST_SKIP() << "no " << streams;
    const auto written = [&] {
        makeSuite(entries);
        const std::string text = replaced(contentOf(path("s.json")), "MPEG2_VIDEO", "None");
        writeFile(path("s.json"),
                  replaced(text, ":\"S\"", ":\"" + streams.filename().string() + "\""));
        return contentOf(path("s.json"));
    };
    const std::string before = written();
    const Words command = {"reference", path("s.json"), "--resources", streams.parent_path(),
                           "--decoder"};
    writeFile(path("bad.json"),
              R"({"name":"bad","command":["sh","-c","head -c 99999 {input}; exit 3"]})");
    EXPECT_EQ(vxrun(command + Words{path("bad.json")}).exit, 1);
    EXPECT_EQ(contentOf(path("s.json")), before);
    const Result result = vxrun(command + Words{"libavcodec"});
    EXPECT_EQ(result.out, "verdict: PASS passed=3 failed=0 errors=0 skipped=1\n") << result.err;
    const auto filled = nlohmann::json::parse(contentOf(path("s.json")));
    for (size_t i = 0; i < 3; ++i) {
        entries[i].md5 =
            run({"ffmpeg", "-v", "error", "-flags", "unaligned", "-i", streams / entries[i].file,
                 "-fps_mode", "passthrough", "-autoscale", "0", "-f", "md5", "-"})
                .out.substr(4, 32);
    }
    EXPECT_EQ(filled, nlohmann::json::parse(written()));
}

// Catches: a class that Fluster cannot load or run, and an outcome that becomes another.
TEST_F(VxrunSuite, RunsWithinFluster) {
    const std::string fluster = VXRUN_STREAMS_DIR "/../fluster";
    if (!std::filesystem::exists(fluster)) GTEST_SKIP() << "no " << fluster;
    makeSuite({{"good", "clip.m2v", "yuv420p", "", mMd5},
               {"any", "clip.m2v", "None", "", mMd5},
               {"wrong", "clip.m2v", "yuv420p", "", std::string(32, '1')},
               {"gray", "clip.m2v", "gray", "", mMd5}});
    std::filesystem::create_directory(path("suites"));
    writeFile(path("suites/s.json"),
              replaced(contentOf(path("s.json")), "\"failing_test_vectors\":[{}],", ""));
    std::string program = "#!/bin/sh\nexec";
    for (const std::string& word : Words{VXRUN_BINARY}) program += " '" + word + "'";
    writeFile(path("vxrun"), program + " \"$@\"\n");
    std::filesystem::permissions(path("vxrun"), std::filesystem::perms::owner_all);
    const auto flusterRun = [&](const std::string& options) {
        return run({"sh", "-c",
                    "PYTHONDONTWRITEBYTECODE=1 VXRUN=" + path("vxrun") +
                        " python3 " VXRUN_GRAPHS_DIR "/../../../integrations/fluster/vxrun.py " +
                        fluster + " -ne -r " + mFolder + " -o " + path("out") + " -tsd " +
                        path("suites") + " run -ts S -d vxrun-MPEG2_VIDEO -f csv -so " +
                        path("summary") + options});
    };
    const Result passed = flusterRun(" -tv good any");
    EXPECT_EQ(passed.exit, 0) << passed.err;
    expectHas(passed.out, "Ran 2/2 tests successfully");
    EXPECT_EQ(flusterRun("").exit, 1);
    const std::string summary = contentOf(path("summary"));
    for (const char* const row :
         {"good,Success,", "any,Success,", "wrong,Fail,", "gray,Not supp"}) {
        expectHas(summary, row);
    }
}

}  // namespace
