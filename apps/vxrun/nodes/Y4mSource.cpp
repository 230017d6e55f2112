// source/y4m: the pictures of a YUV4MPEG2 file.
#include "AppNode.h"
#include "Failure.h"
#include "Y4mReader.h"

#include <optional>

namespace vxrun {
namespace {

class Y4mSource final : public Source {
public:
    explicit Y4mSource(NodeArguments arguments) : Source(std::move(arguments)) {}
    ~Y4mSource() override { teardown(); }

private:
    void open() override {
        const std::string path = requiredConfig("file");
        mReader.emplace(path);
        mStream = std::make_shared<StreamInfo>(mReader->stream());
        if (!mReader->nextFrame()) throw Failure(path + ": no frame in the file");
        makePicturePool(mStream->picture);
    }

    void fill(const std::shared_ptr<vexa::VXBuffer>& buffer, vexa::VXFrameInfo* frame) override {
        mReader->readFrame(Payload(buffer, *mStream));
        frame->timestamp = mTimestamp++;
        frame->mInfos.push_back(mStream);
    }

    bool hasNext() override { return mReader->nextFrame(); }

    std::optional<Y4mReader> mReader;
    std::shared_ptr<StreamInfo> mStream;
    uint64_t mTimestamp = 0;
};

}  // namespace

extern const NodeType kY4mSource = {"source/y4m",
                                    "the pictures of a YUV4MPEG2 file",
                                    0,
                                    1,
                                    {{"file", true, "the file to read"}},
                                    makeNode<Y4mSource>};

}  // namespace vxrun
