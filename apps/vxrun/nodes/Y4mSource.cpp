// source/y4m: the pictures of a YUV4MPEG2 file.
#include "Producer.h"
#include "Y4mReader.h"

namespace vxrun {
namespace {

class Y4mSource : public Producer {
public:
    using Producer::Producer;

private:
    void open() override {
        const std::string path = requiredConfig("file");
        mReader.emplace(path);
        mStream = std::make_shared<StreamInfo>(mReader->stream());
        if (!next()) throw Failure(path + ": no frame in the file");
    }

    bool next() override {
        if (!mReader->nextFrame()) return false;
        vexa::VXFrameInfo frame;
        frame.timestamp = mTimestamp++;
        frame.mInfos = {mStream};
        give(mStream->picture, std::move(frame),
             [this](const auto& buffer) { mReader->readFrame(Payload(buffer, *mStream)); });
        return true;
    }

    std::optional<Y4mReader> mReader;
    std::shared_ptr<StreamInfo> mStream;
    uint64_t mTimestamp = 0;
};

const bool kAdded = addNodeType<Y4mSource>("source/y4m", "the pictures of a YUV4MPEG2 file", 0, 1,
                                           {{"file", kFile, "the file to read"}});

}  // namespace
}  // namespace vxrun
