// The MD5s that vxrun computes of several frames at once, beside those of libcrypto.
#include <Md5.h>
#include <Md5Lanes.h>
#include <gtest/gtest.h>
#include <vxkit/Pool.h>

#include <algorithm>
#include <deque>
#include <random>

using namespace vxkit;
using namespace vxrun;

namespace {

// Pictures and blocks in buffers of pools, of random samples.
class Frames {
public:
    void add(const PictureFormat& format) {
        StreamInfo stream;
        stream.picture = format;
        const auto pool = Pool::make("dmabuf", format, 1, mEvidence.addPool("", 1), nullptr, [] {});
        std::shared_ptr<PoolBuffer> buffer;
        ASSERT_EQ(pool->fetch(&buffer), vexa::VX_OK);
        mBuffers.push_back(buffer);
        const FrameView& view = mViews.emplace_back(*buffer, stream);
        view.forEachRow([this](uint8_t* row, size_t bytes) {
            for (size_t i = 0; i < bytes; ++i) row[i] = static_cast<uint8_t>(mRandom());
        });
        views.push_back(&view);
    }

    std::vector<const FrameView*> views;

private:
    Evidence mEvidence;
    std::mt19937 mRandom{1};
    std::deque<std::shared_ptr<PoolBuffer>> mBuffers;
    std::deque<FrameView> mViews;
};

std::vector<std::string> oneByOne(const std::vector<const FrameView*>& frames) {
    std::vector<std::string> md5s(frames.size());
    std::transform(frames.begin(), frames.end(), md5s.begin(),
                   [](const FrameView* frame) { return md5Of(*frame); });
    return md5s;
}

PictureFormat picture(const char* pixels, int width, int height) {
    return {*findPixelFormat(pixels), width, height};
}

void expectEqual(const Frames& frames) {
    const auto expected = oneByOne(frames.views);
    for (const InstructionSet set : instructionSets()) {
        EXPECT_EQ(md5sOf(frames.views, set), expected) << "set " << static_cast<int>(set);
    }
}

// Catches: a length whose padding is wrong, one of the places where it takes a block of its own
// above all; lanes that end before others.
TEST(Md5Lanes, HashEveryLength) {
    Frames equal, mixed;
    for (int bytes = 1; bytes <= 200; ++bytes) mixed.add(PictureFormat::block(bytes));
    expectEqual(mixed);
    for (int i = 0; i < 8; ++i) equal.add(PictureFormat::block(1 << 20));
    expectEqual(equal);
}

// Catches: samples that are lost or added where rows and planes end within a block; a frame that
// takes the size of its neighbor; groups of any number of frames.
TEST(Md5Lanes, HashEveryShape) {
    const PictureFormat formats[] = {picture("yuv420p", 1, 1),   picture("yuv420p", 35, 27),
                                     picture("yuv420p", 64, 48), picture("yuv420p10le", 351, 17),
                                     picture("yuv444p", 63, 65), picture("yuv422p12le", 130, 9),
                                     picture("gray", 500, 3),    picture("gray16le", 33, 2)};
    for (const auto& format : formats) {
        SCOPED_TRACE(format.description());
        Frames frames;
        for (int i = 0; i < 9; ++i) frames.add(format);
        expectEqual(frames);
    }
    Frames mixed;
    for (size_t count = 1; count <= 17; ++count) {
        mixed.add(formats[count * 5 % std::size(formats)]);
        expectEqual(mixed);
    }
}

}  // namespace
