// source/file: the bytes of any file, in chunks of one size; the last may be shorter.
#include "Files.h"
#include "Producer.h"

namespace vxrun {
namespace {

class FileSource : public Producer {
public:
    using Producer::Producer;

private:
    void open() override {
        mFile.emplace(requiredConfig("file"));
        // What FFmpeg's demuxer of plain data states: no time, no duration.
        mStream->media = "data";
        mStream->codec = "none";
        mStream->timeBase = {1, 90000};
        if (!next()) mFile->fail("empty file");
    }

    bool next() override {
        if (mFile->atEnd()) return false;
        vexa::VXFrameInfo frame;
        frame.mInfos = {mStream};
        give({AV_PIX_FMT_NONE, static_cast<int>(numberConfig("chunk")), 1}, std::move(frame),
             [this](const auto& buffer) {
                 const Payload payload(buffer, *mStream);
                 buffer->setFilledRange(0, mFile->read(payload.view().data[0], payload.size()));
             });
        return true;
    }

    std::optional<InputFile> mFile;
    const std::shared_ptr<StreamInfo> mStream = std::make_shared<StreamInfo>();
};

const bool kAdded = addNodeType<FileSource>(
    "source/file", "the bytes of a file", 0, 1,
    {{"file", kFile, "the file to read"},
     {"chunk", number(1, 1 << 30, 65536), "bytes per work, default 65536"}});

}  // namespace
}  // namespace vxrun
