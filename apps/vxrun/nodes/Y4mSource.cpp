// source/y4m: the pictures of a YUV4MPEG2 file.
#include "Keys.h"
#include "Y4m.h"

#include <vxkit/Source.h>

#include <optional>

namespace vxrun {
namespace {

class Y4mSource : public Source {
public:
    using Source::Source;

private:
    void open() override {
        mReader.emplace(requiredConfig(kFile));
        mStream = std::make_shared<StreamInfo>(mReader->stream());
    }
    std::string nothing() const override { return mReader->path() + ": no frame in the file"; }

    bool next() override {
        if (!mReader->nextFrame()) return false;
        givePicture(mStream, mTimestamp++,
                    [this](const FrameView& picture) { mReader->readFrame(picture); });
        return true;
    }

    std::optional<Y4mReader> mReader;
    std::shared_ptr<StreamInfo> mStream;
    uint64_t mTimestamp = 0;
};

const Registered<Y4mSource> kType("source/y4m", "reads the pictures of a YUV4MPEG2 file", 0, 1,
                                  {&kFile});

}  // namespace
}  // namespace vxrun
