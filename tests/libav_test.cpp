// vxkit beside FFmpeg's libraries: the same pixel formats, and access units that libavformat did
// not make.
#include <LibavFrames.h>
#include <gtest/gtest.h>
#include <vexa_testing/NodeDriver.h>
#include <vxkit/Source.h>

#include <cstring>
#include <filesystem>

using namespace vxkit;
using vexa_testing::NodeDriver;

namespace {

// Catches: a format that vxrun could not pass to FFmpeg, one that it refuses for no reason, and
// planes of other sizes than FFmpeg's.
TEST(PixelFormats, AreThoseOfFFmpegThatFit) {
    size_t fits = 0;
    const AVPixFmtDescriptor* av = nullptr;
    while ((av = av_pix_fmt_desc_next(av)) != nullptr) {
        constexpr uint64_t kOther = AV_PIX_FMT_FLAG_PAL | AV_PIX_FMT_FLAG_BITSTREAM |
                                    AV_PIX_FMT_FLAG_HWACCEL | AV_PIX_FMT_FLAG_ALPHA |
                                    AV_PIX_FMT_FLAG_FLOAT;
        const auto id = av_pix_fmt_desc_get_id(av);
        const int depth = av->comp[0].depth;
        bool isPlanar = depth >= 8 && depth <= 16 && (av->flags & kOther) == 0 &&
                        (depth == 8 || (av->flags & AV_PIX_FMT_FLAG_BE) == 0) &&
                        (av->nb_components == 1 || av->nb_components == 3) &&
                        av_pix_fmt_count_planes(id) == av->nb_components;
        for (int i = 0; i < av->nb_components; ++i) {
            const auto& comp = av->comp[i];
            isPlanar = isPlanar && comp.depth == depth && comp.step == (depth > 8 ? 2 : 1) &&
                       comp.offset == 0 && comp.shift == 0;
        }
        const auto format = findPixelFormat(av->name);
        if (format && format->isSemiPlanar()) continue;
        ASSERT_EQ(format.has_value(), isPlanar) << av->name;
        if (!isPlanar) continue;
        ++fits;
        EXPECT_EQ(format->planes, av->nb_components) << av->name;
        EXPECT_EQ(format->depth, depth) << av->name;
        EXPECT_EQ(format->bytesPerSample(), av->comp[0].step) << av->name;
        EXPECT_EQ(format->chromaShiftX, av->log2_chroma_w) << av->name;
        EXPECT_EQ(format->chromaShiftY, av->log2_chroma_h) << av->name;
    }
    EXPECT_GT(fits, 30u);
}

const PathKey kFile{"file", "an MP4, Matroska or IVF file"};

// A source like those of authors who have no FFmpeg: its access units carry nothing but what vxkit
// defines.
class ForeignSource : public Source {
public:
    using Source::Source;

private:
    void open() override {
        AVFormatContext* file = nullptr;
        if (avformat_open_input(&file, config(kFile).c_str(), nullptr, nullptr) < 0) {
            throw Failure("no such file");
        }
        mFile.reset(file);
        avformat_find_stream_info(file, nullptr);
        const AVCodecParameters& parameters = *file->streams[0]->codecpar;
        mStream->codec = avcodec_get_name(parameters.codec_id);
        mStream->timeBase = vxrun::fromLibav(file->streams[0]->time_base);
        mStream->headers.assign(parameters.extradata,
                                parameters.extradata + parameters.extradata_size);
    }

    bool next() override {
        const std::shared_ptr<AVPacket> packet = vxrun::made(av_packet_alloc());
        if (av_read_frame(mFile.get(), packet.get()) < 0) return false;
        const auto unit = std::make_shared<UnitInfo>();
        unit->pts = packet->pts;
        unit->dts = packet->dts;
        unit->isKey = (packet->flags & AV_PKT_FLAG_KEY) != 0;
        giveUnit(mStream, unit, static_cast<size_t>(packet->size), [packet](uint8_t* bytes) {
            std::memcpy(bytes, packet->data, static_cast<size_t>(packet->size));
        });
        return true;
    }

    vxrun::Libav<AVFormatContext> mFile;
    const std::shared_ptr<BitstreamInfo> mStream = std::make_shared<BitstreamInfo>();
};
const Registered<ForeignSource> kType("test/foreign", "access units without FFmpeg", 0, 1,
                                      {&kFile});

// Catches: a codec/decoder that understands only what source/bitstream attaches. The headers of
// H.264 in MP4 are out of band.
TEST(Decoders, TakeAccessUnitsOfAnySource) {
    char folder[] = "/tmp/kit_test.XXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
    const std::string file = std::string(folder) + "/clip.mp4";
    ASSERT_EQ(std::system(("ffmpeg -loglevel error -f lavfi -i testsrc=d=1:s=64x48 -c:v libx264 "
                           "-pix_fmt yuv420p " +
                           file)
                              .c_str()),
              0);
    const auto md5Of = [&](const char* type, uint32_t flushAt = 0) {
        NodeDriver source(type, {{"file", file}, {"slots", "50"}}),
            decoder("codec/decoder", {{"tolerate_errors", flushAt == 0 ? "false" : "true"}},
                    {NodeDriver::command("flush", flushAt)}),
            sink("sink/checksum", {{"print_md5", "true"}});
        while (const auto unit = source.receive()) decoder.give(unit);
        while (const auto picture = decoder.receive()) sink.give(picture);
        EXPECT_EQ(sink.receive(), nullptr);
        EXPECT_EQ(sink.evidence().totals().frames == 25, flushAt == 0);
        for (NodeDriver* const node : {&sink, &decoder, &source}) {
            EXPECT_EQ(node->stop(), Verdict::Done) << node->lines();
        }
        return sink.evidence().streamMd5();
    };
    EXPECT_EQ(md5Of("test/foreign"), md5Of("source/bitstream"));
    md5Of("source/bitstream", 24);  // loses what the decoder holds back
    std::filesystem::remove_all(folder);
}

}  // namespace
