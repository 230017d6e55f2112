// transform/convert: another pixel format or size, by libswscale.
#include "Producer.h"

namespace vxrun {
namespace {

class Convert : public Producer {
public:
    using Producer::Producer;

private:
    void open() override {
        CodecLog::takeOver();
        const std::string name = config("format");
        if (name.empty()) return;
        mPixels = av_get_pix_fmt(name.c_str());
        if (mPixels == AV_PIX_FMT_NONE) {
            throw Failure("config 'format': no pixel format " + quote(name));
        }
        formatOf(mPixels, 1, 1);
    }

    bool feed(const vexa::VXSharedWork& work, uint64_t) override {
        const Frame frame(work);
        const auto picture = frame.copy();
        const auto side = [this](const char* key, int otherwise) {
            return config(key).empty() ? otherwise : static_cast<int>(numberConfig(key));
        };
        const auto stream = std::make_shared<StreamInfo>(frame.stream);
        stream->picture = formatOf(mPixels == AV_PIX_FMT_NONE ? frame.format().pixels : mPixels,
                                   side("width", picture->width), side("height", picture->height));
        auto converted =
            newPicture(stream->picture.pixels, stream->picture.width, stream->picture.height);
        // The picture keeps its shape on the screen.
        stream->sar = av_mul_q(stream->sar, av_mul_q({picture->width, converted->width},
                                                     {converted->height, picture->height}));
        if (mScaler == nullptr || mFrom != frame.format()) {
            const std::string flags = config("flags");
            const char* const exact = "bicubic+accurate_rnd+bitexact";
            mScaler = newScaler(*picture, *converted, flags.empty() ? exact : flags);
            mFrom = frame.format();
        }
        const int result = sws_scale_frame(mScaler.get(), converted.get(), picture.get());
        if (result < 0) throw Failure("libswscale fails: " + libavText(result));
        givePicture(std::move(converted), stream, frame.info.timestamp);
        return true;
    }

    AVPixelFormat mPixels = AV_PIX_FMT_NONE;  // of the pictures; none: as it comes
    // [event thread]
    PictureFormat mFrom;  // what mScaler is for
    Libav<SwsContext> mScaler;
};

const bool kAdded = addNodeType<Convert>(
    "transform/convert", "converts pictures to another pixel format or size with libswscale", 1, 1,
    {{"format", kText, "FFmpeg's name of the pixel format, default as it comes"},
     {"width", number(1, 65535, 0), "samples, default as it comes"},
     {"height", number(1, 65535, 0), "likewise"},
     {"flags", kText, "of libswscale, default bicubic+accurate_rnd+bitexact"}});

}  // namespace
}  // namespace vxrun
