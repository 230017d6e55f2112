// Damaged streams: whatever the damage, vxrun ends with a verdict, and passes only on full
// evidence.
#include "support/Scale.h"
#include "support/Vxrun.h"

#include <set>

namespace {

using namespace vxrun_test;

// Catches: a stream that is cut short, has flipped bits anywhere, in headers, sizes, tables or
// pictures, size fields that ask for all the memory there is or another codec's name, and that
// hangs, crashes, or passes although frames are missing or differ. One that has only lost the index
// at its end still has them all.
TEST_F(Vxrun, DamagedStreamsGetAVerdict) {
    // A second of pictures by every codec that the ffmpeg program has, each with its list beside
    // it.
    const std::pair<std::string, std::string> codecs[] = {
        {"a.264", "libx264"},        {"b.265", "libx265"}, {"c.ivf", "libvpx"},
        {"d.webm", "libvpx-vp9"},    {"e.mp4", "libx264"}, {"f.mkv", "mpeg2video"},
        {"g.y4m", "wrapped_avframe"}};
    std::vector<std::pair<std::string, std::string>> streams;  // names and contents
    for (const auto& [name, codec] : codecs) {
        if (!makeVideo(name, "yuv420p", codec, "testsrc=size=64x48:rate=10:duration=1")) break;
        makeList({"-i", path(name)}, "framemd5");
        std::filesystem::rename(path("framemd5"), path(name + ".framemd5"));
        streams.emplace_back(name, contentOf(path(name)));
    }
    uint32_t seed = 1;
    const auto random = [&seed](size_t limit) {
        seed = seed * 1664525 + 1013904223;
        return (seed >> 8) % limit;
    };
    for (size_t i = 0; i < streams.size(); ++i) {
        const auto& [name, good] = streams[i];
        std::vector<std::string> damaged = {streams[(i + 1) % streams.size()].second};
        const size_t step = std::max<size_t>(1024, good.size() / scaled(8));
        for (size_t size = 0; size < good.size(); size += step) {
            damaged.push_back(good.substr(0, size));
        }
        for (const size_t at : {0u, 4u, 12u, 32u, 44u, 60u}) {
            damaged.push_back(good);
            damaged.back().replace(at, 4, "\xff\xff\xff\x7f");
        }
        for (int round = 0; round < scaled(6); ++round) {
            damaged.push_back(good);
            // The first rounds aim at the headers.
            const size_t range = round % 2 == 0 ? std::min<size_t>(good.size(), 200) : good.size();
            for (int flip = 0; flip <= round; ++flip) {
                damaged.back()[random(range)] ^= static_cast<char>(1 << random(8));
            }
        }
        for (const std::string& data : damaged) {
            SCOPED_TRACE(name + " number " + std::to_string(&data - damaged.data()));
            writeFile(path("bad" + name.substr(1)), data);
            const Result result =
                vxrun({VXRUN_GRAPHS_DIR "/decode.json", "--timeout", "50",
                       "reader.file=" + path("bad" + name.substr(1)), "decoder.threads=2",
                       "check.expect=" + path(name + ".framemd5")});
            if (result.exit == 0) {
                expectPass(result, "10");
                continue;
            }
            EXPECT_EQ(std::set({1, 3, 77}).count(result.exit), 1u) << result.exit << result.err;
            EXPECT_EQ(result.out.rfind("verdict: ", 0), 0u) << result.out;
            EXPECT_NE(result.err, "") << "a failure without a reason";
        }
    }
}

}  // namespace
