// vxrun minimize: what is cut out of a stream, and that the failure is still there.
#include "support/Vxrun.h"

#include <DeltaDebugging.h>

#include <numeric>

namespace {

using namespace vxrun_test;
using vxrun::Items;

// Catches: an item that is left out although it is needed, one that stays although it is not, and a
// search that does not end.
TEST(DeltaDebugging, LeavesWhatIsNeeded) {
    const auto has = [](const Items& items, size_t item) {
        return std::find(items.begin(), items.end(), item) != items.end();
    };
    const std::function<bool(const Items&)> oracles[] = {
        [&](const Items& items) { return has(items, 7); },
        [&](const Items& items) { return has(items, 0) && has(items, 31) && has(items, 99); },
        [&](const Items& items) { return items.size() % 3 == 1; },  // more may show less
        [](const Items& items) { return items.size() == 100; }};
    for (const auto& shows : oracles) {
        Items all(100);
        std::iota(all.begin(), all.end(), 0);
        const Items found = vxrun::minimized(all, [&](const std::vector<Items>& candidates) {
            return size_t(std::find_if(candidates.begin(), candidates.end(), shows) -
                          candidates.begin());
        });
        EXPECT_TRUE(shows(found));
        for (size_t i = 0; i < found.size() && found.size() > 1; ++i) {
            Items less = found;
            less.erase(less.begin() + ptrdiff_t(i));
            EXPECT_FALSE(shows(less)) << found.size();
        }
    }
}

class VxrunMinimize : public Vxrun {
protected:
    // A decoder that fails at streams of more than `most` bytes.
    Result minimize(const std::string& clip, const std::string& most, const Words& more) const {
        const std::string script =
            "[ $(wc -c < {input}) -le " + most +
            " ] && exec ffmpeg -v error -f lavfi -i color=size=16x16:duration=0.1 -pix_fmt yuv420p "
            "-f yuv4mpegpipe -; exit 9";
        writeFile(path("bad.json"),
                  R"({"name": "bad", "command": ["sh", "-c", ")" + script + "\"]}");
        return vxrun(Words{"minimize", path(clip), "--decoder", path("bad.json")} + more);
    }
};

// Catches: a file of another size for another number of jobs, bytes that were not in the stream, a
// file that is left over, a stream that does not fail.
TEST_F(VxrunMinimize, FindsTheSameInEveryContainer) {
    if (!makeVideo("clip.ivf", "yuv420p", "libvpx", "testsrc2=size=160x120:rate=30:duration=1"))
        GTEST_SKIP() << "no ffmpeg";
    ASSERT_TRUE(ffmpeg({"-i", path("clip.ivf"), "-c", "copy", path("clip.mkv")}));
    for (const std::string end : {".ivf", ".mkv"}) {
        SCOPED_TRACE(end);
        std::string found;
        for (const std::string jobs : {"1", "4"}) {
            const Result result =
                minimize("clip" + end, "9000", {"-o", path("small" + end), "--jobs", jobs});
            EXPECT_EQ(result.exit, 0) << result.err;
            const std::string small = contentOf(path("small" + end));
            EXPECT_GT(small.size(), 9000u);
            EXPECT_LT(small.size(), contentOf(path("clip" + end)).size());
            EXPECT_TRUE(found.empty() || found == small);
            found = small;
        }
        EXPECT_EQ(minimize("clip" + end, "9999999", {"-o", path("none")}).exit, 4);
    }
    for (const auto& file : std::filesystem::directory_iterator(mFolder)) {
        EXPECT_FALSE(file.is_directory()) << file.path();
    }
    EXPECT_FALSE(std::filesystem::exists(path("none")));
}

// A clip of ffmpeg's and a decoder of it with a planted fault.
class Faulty : public VxrunMinimize {
protected:
    bool makeClip(const std::string& name, const Words& codec) {
        mClip = path(name);
        return ffmpeg(Words{"-f", "lavfi", "-i", "testsrc2=size=128x96:rate=25:duration=3",
                            "-pix_fmt", "yuv420p"} +
                      codec + Words{mClip});
    }
    Words words(const std::string& fault, const std::string& at, const Words& more) const {
        return Words{"minimize",  mClip,
                     "--nodes",   NODES_DIR "/libfaults.so",
                     "--decoder", "test/faulty",
                     "--set",     "decoder.fault=" + fault,
                     "--set",     "decoder.at=" + at,
                     "--set",     "decoder.of=" + mClip} +
               more;
    }
    static size_t unitsOf(const std::string& file) {
        const std::string shown = run({"ffprobe", "-v", "error", "-select_streams", "v",
                                       "-show_entries", "packet=size", "-of", "csv=p=0", file})
                                      .out;
        return static_cast<size_t>(std::count(shown.begin(), shown.end(), '\n'));
    }

    std::string mClip;
};

// Catches: a cut file that does not decode, or not to the pictures of its units, in any container;
// a failure that is another one; a command that does not show it.
TEST_F(Faulty, StreamsAreCutToTheFault) {
    const struct {
        std::string name;
        Words codec;
        size_t most;  // units that may be left: a few of one group of pictures
    } clips[] = {
        {"clip.264", {"-c:v", "libx264", "-g", "15", "-bf", "2", "-x264-params", "slices=3"}, 15},
        {"clip.mp4", {"-c:v", "libx264", "-g", "15", "-bf", "2"}, 15},
        {"clip.265", {"-c:v", "libx265", "-x265-params", "keyint=15:bframes=3:log-level=none"}, 15},
        {"clip.mkv", {"-c:v", "libx265", "-x265-params", "keyint=15:bframes=3:log-level=none"}, 15},
        {"clip.webm", {"-c:v", "libvpx-vp9", "-g", "15", "-deadline", "realtime"}, 15},
    };
    for (const auto& clip : clips) {
        SCOPED_TRACE(clip.name);
        if (!makeClip(clip.name, clip.codec)) GTEST_SKIP() << "no ffmpeg";
        const std::string small = path("small_" + clip.name);
        const Result result =
            vxrun(words("block", "33", {"--against", "libavcodec", "-o", small, "--jobs", "2"}));
        ASSERT_EQ(result.exit, 0) << result.err << result.out;
        EXPECT_LE(unitsOf(small), clip.most);
        const std::string key = "show it: vxrun ";
        const size_t at = result.out.find(key);
        ASSERT_LT(at, result.out.size());
        // The trusted decoder finds nothing wrong with the small one, the other one fails.
        EXPECT_EQ(vxrun({"decode", small}).exit, 0);
        std::string shown = result.out.substr(at + key.size());
        shown.erase(shown.find('\n'));
        Words shell = command({});
        shell.push_back(shown);
        std::string line;
        for (const std::string& word : shell) line += word + " ";
        const Result again = run({"sh", "-c", line});
        EXPECT_EQ(again.exit, 1) << line << again.err;
        expectHas(again.err, "verdict: CRC_MISMATCH");
    }
}

// Catches: a crash or an error for which another one is taken; a list whose rows are those of
// other frames.
TEST_F(Faulty, EveryKindOfFailureStays) {
    if (!makeClip("clip.264", {"-c:v", "libx264", "-g", "15", "-bf", "2"}))
        GTEST_SKIP() << "no ffmpeg";
    const struct {
        std::string fault;
        Words more;
        std::string signature;
    } failures[] = {
        {"crash", {}, "failure: SIGNAL_11\n"},
        {"error", {}, "failure: INFO_VALIDATION_FAIL\n"},
        {"block", {"--list", path("clip.framemd5")}, "failure: CRC_MISMATCH, checksum\n"},
    };
    ASSERT_EQ(vxrun({"decode", mClip, "--record", path("clip.framemd5")}).exit, 0);
    for (const auto& failure : failures) {
        SCOPED_TRACE(failure.fault);
        const Result result =
            vxrun(words(failure.fault, "40", failure.more + Words{"-o", path("small.264")}));
        EXPECT_EQ(result.exit, 0) << result.err;
        expectHas(result.out, failure.signature);
        EXPECT_LE(unitsOf(path("small.264")), 15u);
    }
}

// Catches: another result after an interrupt, a search that begins anew, a state of another command
// that is taken, files that are left.
TEST_F(Faulty, GoesOnAfterAnInterrupt) {
    if (!makeClip("clip.264", {"-c:v", "libx264", "-g", "15", "-bf", "2"}))
        GTEST_SKIP() << "no ffmpeg";
    const Words more = {"--against", "libavcodec", "-o", path("small.264")};
    ASSERT_EQ(vxrun(words("block", "33", more)).exit, 0);
    const std::string whole = contentOf(path("small.264"));
    std::filesystem::remove(path("small.264"));

    Process first(command(words("block", "33", more)), {"VENDOR_VEXA_LOG_MSG=0"});
    ASSERT_TRUE(first.waitFor(", tries ")) << first.err;
    first.kill(SIGINT);
    EXPECT_EQ(first.wait(), 130) << first.err;
    expectHas(first.err, "the same command continues");
    EXPECT_FALSE(std::filesystem::exists(path("small.264")));
    const Result other = vxrun(words("block", "34", more));
    EXPECT_EQ(other.exit, 2);
    expectHas(other.err, "of another command or stream; --force ignores it");

    const Result second = vxrun(words("block", "33", more));
    EXPECT_EQ(second.exit, 0) << second.err;
    EXPECT_EQ(contentOf(path("small.264")), whole);
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(mFolder)) {
        names.push_back(entry.path().filename());
    }
    EXPECT_EQ(names.size(), 2u) << testing::PrintToString(names);
}

}  // namespace
