// source/rawvideo: the pictures of a file without a header.
#include "Keys.h"
#include "PictureSource.h"

namespace vxrun {
namespace {

const NumberKey kWidth{"width", 1, 65535, 1, "samples of a row"};
const NumberKey kHeight{"height", 1, 65535, 1, "rows"};
const TextKey kPixels{"format", "the pixel format of the pictures, such as yuv420p or nv12"};

class RawVideoSource : public PictureSource {
public:
    using PictureSource::PictureSource;

private:
    void open() override {
        const PictureFormat picture = {pixelFormatOf(requiredConfig(kPixels)),
                                       static_cast<int>(requiredConfig(kWidth)),
                                       static_cast<int>(requiredConfig(kHeight))};
        read(std::make_unique<PictureReader>(requiredConfig(kFile), rawStream(picture)));
    }
};

const Registered<RawVideoSource> kType("source/rawvideo", "reads the pictures of a raw video file",
                                       0, 1, {&kFile, &kWidth, &kHeight, &kPixels});

}  // namespace
}  // namespace vxrun
