// What a build without FFmpeg's libraries has in place of libav/.
#include "MediaLibraries.h"
#include "Text.h"

namespace vxrun {
namespace {

struct NothingKnown final : VideoProbe {
    std::string codec() const override {
        throw Failure("without libavformat the codec is not known; set 'codec'");
    }
    PictureFormat picture() const override {
        throw Failure(
            "without libavformat size and format of raw video are not known; set 'width', "
            "'height' and 'format'");
    }
    bool changesSize() override { return false; }
};

}  // namespace

std::string mediaLibraries() {
    return "none of FFmpeg's";
}

std::unique_ptr<VideoProbe> probeVideo(const std::string&) {
    return std::make_unique<NothingKnown>();
}

std::unique_ptr<Muxer> newMuxer(const std::string& container) {
    throw Failure(
        "config 'container': expected raw or y4m, since this vxrun is built without libavformat, "
        "got " +
        quote(container));
}

}  // namespace vxrun
