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

}  // namespace
