// transform/convert: another pixel format or size, by libswscale.
#include "LibavFrames.h"
#include "Text.h"

#include <vxkit/Transform.h>

namespace vxrun {
namespace {

const TextKey kFormat{"format", "the pixel format, as FFmpeg names it; default that of the input"};
const NumberKey kWidth{"width", 1, 65535, 0, "the width in samples, default that of the input"};
const NumberKey kHeight{"height", 1, 65535, 0, "the height in samples, default that of the input"};
const TextKey kFlags{"flags", "flags of libswscale, default bicubic+accurate_rnd+bitexact"};

class Convert : public Transform {
public:
    using Transform::Transform;

private:
    void open() override {
        CodecLog::takeOver();
        const std::string name = config(kFormat);
        if (name.empty()) return;
        mPixels = av_get_pix_fmt(name.c_str());
        if (mPixels == AV_PIX_FMT_NONE) {
            throw Failure("config 'format': no pixel format " + quote(name));
        }
        formatOf(mPixels, 1, 1);
    }

    void transform(const Frame& frame, uint64_t) override {
        const auto picture = copyOf(frame);
        const auto side = [this](const NumberKey& key, int otherwise) {
            return isGiven(key) ? static_cast<int>(config(key)) : otherwise;
        };
        const auto stream = std::make_shared<StreamInfo>(frame.stream);
        const AVPixelFormat pixels =
            mPixels == AV_PIX_FMT_NONE ? pixelsOf(frame.format()) : mPixels;
        stream->picture =
            formatOf(pixels, side(kWidth, picture->width), side(kHeight, picture->height));
        const std::shared_ptr<AVFrame> converted =
            newPicture(pixels, stream->picture.width, stream->picture.height);
        // The picture keeps its shape on the screen.
        stream->sar = fromLibav(av_mul_q(
            asLibav(stream->sar),
            av_mul_q({picture->width, converted->width}, {converted->height, picture->height})));
        if (mScaler == nullptr || mFrom != frame.format()) {
            const std::string exact = "bicubic+accurate_rnd+bitexact";
            mScaler = newScaler(*picture, *converted, isGiven(kFlags) ? config(kFlags) : exact);
            mFrom = frame.format();
        }
        const int result = sws_scale_frame(mScaler.get(), converted.get(), picture.get());
        if (result < 0) throw Failure("libswscale failed: " + libavText(result));
        givePicture(stream, frame.info.timestamp,
                    [converted](const FrameView& output) { copyTo(output, *converted); });
    }

    AVPixelFormat mPixels = AV_PIX_FMT_NONE;  // of the outputs; none: that of the input
    // [event thread]
    PictureFormat mFrom;  // what mScaler is for
    Libav<SwsContext> mScaler;
};

const Registered<Convert> kType("transform/convert",
                                "converts pictures to another pixel format or size with libswscale",
                                1, 1, {&kFormat, &kWidth, &kHeight, &kFlags});

}  // namespace
}  // namespace vxrun
