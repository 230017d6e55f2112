// vxrun explain, and the map of a stream that it shows, beside what containers and ffprobe state.
#include "support/Vxrun.h"

#include <StreamMap.h>
#include <vxkit/Failure.h>

#include <algorithm>
#include <set>

using namespace vxrun_test;
using vxrun::CodedPicture;
using vxrun::StreamMap;
using vxrun::StreamUnit;

namespace {

class Explain : public Vxrun {
protected:
    // A clip of `codec`, options of ffmpeg, in the container of `name`; false where it cannot be
    // made.
    bool makeClip(const std::string& name, const Words& codec) const {
        return ffmpeg(Words{"-f", "lavfi", "-i", "testsrc2=size=128x96:rate=25:duration=3",
                            "-pix_fmt", "yuv420p"} +
                      codec + Words{path(name)});
    }

    // The bytes of each access unit as ffmpeg demuxes them, and their times.
    struct Packet {
        uint64_t size;
        std::string pts;
    };
    static std::vector<Packet> packetsOf(const std::string& file) {
        const Result shown = run({"ffprobe", "-v", "error", "-select_streams", "v", "-show_entries",
                                  "packet=pts,size", "-of", "csv=p=0", file});
        std::vector<Packet> packets;
        std::istringstream lines(shown.out);
        for (std::string line; std::getline(lines, line);) {
            const size_t comma = line.find(',');
            packets.push_back({std::stoull(line.substr(comma + 1)), line.substr(0, comma)});
        }
        return packets;
    }
};

// What holds for every map: offsets lead to bytes of the file that follow one another, and pictures
// refer only to pictures that were decoded before them.
void expectSound(const StreamMap& map, const std::string& file) {
    uint64_t end = 0;
    for (const StreamUnit& unit : map.units) {
        ASSERT_NE(unit.offset, StreamUnit::kNoOffset) << file;
        EXPECT_GE(unit.offset, end) << file;
        end = unit.offset + unit.bytes;
    }
    EXPECT_LE(end, std::filesystem::file_size(file)) << file;
    for (size_t i = 0; i < map.pictures.size(); ++i) {
        EXPECT_LT(map.pictures[i].unit, map.units.size()) << file;
        for (const size_t other : map.pictures[i].refers) EXPECT_LT(other, i) << file;
    }
    for (const size_t picture : map.frames) EXPECT_LT(picture, map.pictures.size()) << file;
}

// Catches: units that are numbered, placed or measured wrongly in any container; an output order
// that is not that of the container's times; a B picture whose references are those of another one.
TEST_F(Explain, FramesComeFromTheUnitsOfTheirTimes) {
    const struct {
        std::string name;
        Words codec;
        bool isExact;
    } clips[] = {
        {"b.mp4",
         {"-c:v", "libx264", "-bf", "3", "-x264-params", "b-pyramid=2:log-level=none"},
         false},
        {"b.mkv", {"-c:v", "libx264", "-bf", "2"}, false},
        {"fields.mkv",
         {"-c:v", "libx264", "-flags", "+ildct+ilme", "-x264-params", "tff=1"},
         false},
        {"b265.mp4", {"-c:v", "libx265", "-x265-params", "bframes=4:log-level=none"}, true},
        {"b265.mkv",
         {"-c:v", "libx265", "-x265-params", "bframes=3:keyint=20:log-level=none"},
         true},
        {"m2.mkv", {"-c:v", "mpeg2video", "-bf", "2"}, false},
        {"v8.webm", {"-c:v", "libvpx"}, false},
    };
    for (const auto& clip : clips) {
        if (!makeClip(clip.name, clip.codec)) GTEST_SKIP() << "ffmpeg is not installed";
        const std::string file = path(clip.name);
        const StreamMap map = vxrun::mapStream(file);
        expectSound(map, file);
        const auto packets = packetsOf(file);
        ASSERT_EQ(map.units.size(), packets.size()) << file;
        std::vector<std::pair<int64_t, size_t>> byTime;
        for (size_t i = 0; i < packets.size(); ++i) {
            EXPECT_EQ(map.units[i].bytes, packets[i].size) << file;
            byTime.emplace_back(map.units[i].pts, i);
        }
        std::sort(byTime.begin(), byTime.end());
        ASSERT_EQ(map.frames.size(), packets.size()) << file;
        for (size_t frame = 0; frame < map.frames.size(); ++frame) {
            const CodedPicture& picture = map.pictures[map.frames[frame]];
            EXPECT_EQ(picture.unit, byTime[frame].second) << file << " " << frame;
            EXPECT_NE(picture.type, 0) << file << " " << frame;
            if (!clip.isExact || picture.type != 'B') continue;
            std::set<bool> sides;  // whether a reference is output earlier
            for (const size_t other : picture.refers) {
                sides.insert(map.units[map.pictures[other].unit].pts < map.units[picture.unit].pts);
            }
            EXPECT_EQ(sides.size(), 2u) << file << " " << frame;
        }
    }
}

// Catches: a picture that is decoded hidden and shown later, and is taken for one of the access
// unit that shows it.
TEST_F(Explain, PicturesThatAreShownLaterWereDecodedEarlier) {
    for (const char* name : {"vp9/vp90-2-10-show-existing-frame2.vp9.ivf",
                             "av1/av1-176x144-main-basic-10.ivf", "av1/av1-sizeup-fluster.ivf"}) {
        const std::string file = std::string(VXRUN_STREAMS_DIR) + "/" + name;
        if (!std::filesystem::exists(file)) GTEST_SKIP() << file << " is missing";
        const StreamMap map = vxrun::mapStream(file);
        expectSound(map, file);
        // In these each access unit shows one frame.
        ASSERT_EQ(map.frames.size(), map.units.size()) << name;
        size_t shownLater = 0;
        for (size_t frame = 0; frame < map.frames.size(); ++frame) {
            const size_t unit = map.pictures[map.frames[frame]].unit;
            EXPECT_LE(unit, frame) << name;
            // An access unit that only shows a picture has a few bytes of headers.
            EXPECT_EQ(unit < frame, map.units[frame].bytes < 10) << name << " " << frame;
            shownLater += unit < frame;
        }
        EXPECT_GT(shownLater, 0u) << name;
    }
}

// Catches: a crash, a hang, or a number out of range in a stream that is damaged.
TEST_F(Explain, DamagedStreamsAreMappedAsFarAsTheyGo) {
    const std::string folder = VXRUN_STREAMS_DIR;
    if (!std::filesystem::exists(folder)) GTEST_SKIP() << folder << " is missing";
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
        const std::string extension = entry.path().extension();
        if (!entry.is_regular_file() || extension == ".framemd5" || extension == ".md") continue;
        std::string bytes = contentOf(entry.path());
        constexpr size_t kFirst = 100, kEvery = 397;  // bytes that are inverted
        for (size_t i = kFirst; i < bytes.size(); i += kEvery)
            bytes[i] = static_cast<char>(~bytes[i]);
        writeFile(path("damaged" + extension), bytes);
        const Result result = vxrun({"explain", path("damaged" + extension), "--unit", "0"});
        EXPECT_TRUE(result.exit == 0 || result.exit == 2) << entry.path() << result.err;
        const Result whole = vxrun({"explain", entry.path(), "--unit", "1"});
        EXPECT_EQ(whole.exit, 0) << entry.path() << whole.err;
    }
}

// Catches: headers of other units than asked for, parameter sets that are left out, mistakes that
// are not told.
TEST_F(Explain, ShowsThePictureAndTheHeadersThatItNeeds) {
    if (!makeClip("clip.264", {"-c:v", "libx264", "-bf", "1", "-g", "10"})) {
        GTEST_SKIP() << "ffmpeg is not installed";
    }
    const Result b = vxrun({"explain", path("clip.264"), "--frame", "1"});
    EXPECT_EQ(b.exit, 0) << b.err;
    expectMatch(b.out,
                "^picture [23] in decoding order \\(B, no reference\\), frame 1\n"
                "  in access unit [23]: [0-9]+ bytes at byte [0-9]+, pts ");
    expectHas(b.out, "    picture 0 in decoding order (I), frame 0, access unit 0: ");
    expectHas(b.out, " Sequence Parameter Set\n");
    expectHas(b.out, "  max_num_ref_frames = ");
    expectMatch(b.out, "\naccess unit [23]: [0-9]+ bytes at byte [0-9]+\n Slice Header\n");
    const Result unit = vxrun({"explain", path("clip.264"), "--unit", "0"});
    expectHas(unit.out, "picture 0 in decoding order (I), frame 0\n");

    const Result none = vxrun({"explain", path("clip.264"), "--frame", "75"});
    EXPECT_EQ(none.exit, 2);
    expectHas(none.err, "clip.264: no frame 75; there are 75\n");
    expectHas(vxrun({"explain", path("clip.264")}).err, "--frame: missing");
    writeFile(path("text"), "no video");
    expectHas(vxrun({"explain", path("text"), "--frame", "0"}).err, "text: ");
}

}  // namespace
