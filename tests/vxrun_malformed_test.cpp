// Damaged streams: whatever the damage, vxrun ends with a verdict, and passes only on full
// evidence.
#include "support/Scale.h"
#include "support/Vxrun.h"

#include <set>

namespace {

using namespace vxrun_test;

class VxrunMalformed : public Vxrun {
protected:
    struct Stream {
        std::string name, codec, data;
    };

    // A second of pictures by every codec that the ffmpeg program has, each with its list beside
    // it.
    std::vector<Stream> makeStreams() const {
        const std::string codecs[][2] = {{"a.264", "libx264"},        {"b.265", "libx265"},
                                         {"c.ivf", "libvpx"},         {"d.webm", "libvpx-vp9"},
                                         {"e.mp4", "libx264"},        {"f.mkv", "mpeg2video"},
                                         {"g.y4m", "wrapped_avframe"}};
        std::vector<Stream> made;
        for (const auto& [name, codec] : codecs) {
            if (!makeVideo(name, "yuv420p", codec, "testsrc=size=64x48:rate=10:duration=1")) break;
            makeList({"-i", path(name)}, "framemd5");
            std::filesystem::rename(path("framemd5"), path(name + ".framemd5"));
            made.push_back({name, codec, contentOf(path(name))});
        }
        return made;
    }

    // Runs `data` under the name of `stream` and looks whether the verdict can be trusted.
    void expectVerdict(const Stream& stream, const std::string& data) {
        const std::string file = path("bad" + stream.name.substr(1));
        writeFile(file, data);
        const Result result =
            vxrun({VXRUN_GRAPHS_DIR "/decode.json", "--timeout", "50", "reader.file=" + file,
                   "decoder.threads=2", "check.expect=" + path(stream.name + ".framemd5")});
        if (result.exit == 0) return expectPass(result, "10");
        EXPECT_EQ(std::set({1, 3, 77}).count(result.exit), 1u) << result.exit << result.err;
        EXPECT_EQ(result.out.rfind("verdict: ", 0), 0u) << result.out;
        EXPECT_NE(result.err, "") << "a failure without a reason";
    }
};

// Catches: a stream that is cut short and hangs, crashes, or passes with fewer frames. One that has
// only lost the index at its end still has them all.
TEST_F(VxrunMalformed, TruncatedStreamsGetAVerdict) {
    for (const Stream& stream : makeStreams()) {
        const size_t step = std::max<size_t>(1024, stream.data.size() / scaled(8));
        for (size_t size = 0; size < stream.data.size(); size += step) {
            SCOPED_TRACE(stream.name + " cut to " + std::to_string(size));
            expectVerdict(stream, stream.data.substr(0, size));
        }
    }
}

// Catches: flipped bits anywhere, in headers, sizes, tables or pictures, that hang or crash, or
// that are not noticed although the pictures differ.
TEST_F(VxrunMalformed, FlippedBitsGetAVerdict) {
    uint32_t seed = 1;
    const auto random = [&seed](size_t limit) {
        seed = seed * 1664525 + 1013904223;
        return (seed >> 8) % limit;
    };
    for (const Stream& stream : makeStreams()) {
        for (int round = 0; round < scaled(6); ++round) {
            SCOPED_TRACE(stream.name + " round " + std::to_string(round));
            std::string data = stream.data;
            // The first rounds aim at the headers.
            const size_t range = round % 2 == 0 ? std::min<size_t>(data.size(), 200) : data.size();
            for (int flip = 0; flip <= round; ++flip) {
                data[random(range)] ^= static_cast<char>(1 << random(8));
            }
            expectVerdict(stream, data);
        }
    }
}

// Catches: trust in a file's name, and size fields that ask for all the memory there is.
TEST_F(VxrunMalformed, WrongNamesAndHugeSizesGetAVerdict) {
    const std::vector<Stream> streams = makeStreams();
    for (size_t i = 0; i < streams.size(); ++i) {
        SCOPED_TRACE(streams[i].name);
        const Stream& other = streams[(i + 1) % streams.size()];
        expectVerdict(other, streams[i].data);
        for (const size_t at : {0u, 4u, 12u, 32u, 44u, 60u}) {
            std::string data = streams[i].data;
            data.replace(at, 4, "\xff\xff\xff\x7f");
            SCOPED_TRACE(at);
            expectVerdict(streams[i], data);
        }
    }
}

}  // namespace
