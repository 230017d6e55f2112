// transform/convert: another pixel format or size, by libswscale.
#include "CodecNode.h"
#include "Failure.h"

extern "C" {
#include <libavutil/opt.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

namespace vxrun {
namespace {

struct ScalerDeleter {
    void operator()(SwsContext* scaler) const { sws_freeContext(scaler); }
};

class Convert final : public CodecNode {
public:
    explicit Convert(NodeArguments arguments) : CodecNode(std::move(arguments)) {}
    ~Convert() override { teardown(); }

private:
    void open() override {
        CodecLog::takeOver();
        constexpr uint64_t kMaxSide = 65535;
        mWidth = static_cast<int>(numberConfig("width", 1, kMaxSide, 0));
        mHeight = static_cast<int>(numberConfig("height", 1, kMaxSide, 0));
        slots();
        const std::string name = config("format");
        if (name.empty()) return;
        mPixels = av_get_pix_fmt(name.c_str());
        if (mPixels == AV_PIX_FMT_NONE) {
            throw Failure("config 'format': no pixel format " + quote(name));
        }
        formatOf(mPixels, 1, 1);
    }

    bool feed(const vexa::VXSharedWork& work, uint64_t) override {
        const StreamInfo* from = nullptr;
        const auto picture = pictureOf(work, &from);
        if (mScaler == nullptr || mFrom.picture != from->picture || mFrom.sar != from->sar) {
            prepare(*from, *picture);
        }
        auto converted = newPicture(mStream->picture);
        const int rows = sws_scale(mScaler.get(), picture->data, picture->linesize, 0,
                                   picture->height, converted->data, converted->linesize);
        if (rows != converted->height) throw Failure("libswscale fails: " + libavText(rows));
        vexa::VXFrameInfo frame;
        frame.timestamp = work.frameInfo().timestamp;
        givePicture(std::move(converted), mStream, std::move(frame));
        return true;
    }

    void prepare(const StreamInfo& from, const AVFrame& picture) {
        mFrom = from;
        const int width = mWidth > 0 ? mWidth : picture.width;
        const int height = mHeight > 0 ? mHeight : picture.height;
        const auto pixels = static_cast<AVPixelFormat>(picture.format);
        mStream = std::make_shared<StreamInfo>(from);
        mStream->picture = formatOf(mPixels == AV_PIX_FMT_NONE ? pixels : mPixels, width, height);
        // The picture keeps its shape on the screen.
        mStream->sar = rational(av_mul_q(
            rational(from.sar), av_mul_q({picture.width, width}, {height, picture.height})));
        mScaler.reset(sws_alloc_context());
        if (mScaler == nullptr) throw std::bad_alloc();
        const std::string flags = config("flags");
        for (const auto& [key, value] :
             {std::pair("srcw", picture.width), std::pair("srch", picture.height),
              std::pair("dstw", width), std::pair("dsth", height),
              std::pair("src_format", picture.format),
              std::pair("dst_format",
                        static_cast<int>(av_get_pix_fmt(mStream->picture.pixels.c_str())))}) {
            av_opt_set_int(mScaler.get(), key, value, 0);
        }
        av_opt_set(mScaler.get(), "sws_dither", "none", 0);
        const char* const exact = "bicubic+accurate_rnd+bitexact";
        if (av_opt_set(mScaler.get(), "sws_flags", flags.empty() ? exact : flags.c_str(), 0) < 0) {
            throw Failure("config 'flags': libswscale does not know all of " + quote(flags));
        }
        if (sws_init_context(mScaler.get(), nullptr, nullptr) < 0) {
            throw Failure("libswscale does not convert " + from.picture.text() + " to " +
                              mStream->picture.text(),
                          "NOT_SUPPORTED");
        }
    }

    int mWidth = 0;  // 0: as it comes
    int mHeight = 0;
    AVPixelFormat mPixels = AV_PIX_FMT_NONE;  // likewise
    // [event thread]
    StreamInfo mFrom;  // what mScaler and mStream are for
    std::unique_ptr<SwsContext, ScalerDeleter> mScaler;
    std::shared_ptr<StreamInfo> mStream;
};

}  // namespace

extern const NodeType kConvert = {
    "transform/convert",
    "converts pictures to another pixel format or size with libswscale",
    1,
    1,
    {{"format", false, "FFmpeg's name of the pixel format, default as it comes"},
     {"width", false, "samples, default as it comes"},
     {"height", false, "likewise"},
     {"flags", false, "of libswscale, default bicubic+accurate_rnd+bitexact"},
     {"slots", false, "buffers of the node's pool, default 8"}},
    makeNode<Convert>};

}  // namespace vxrun
