// source/file: the bytes of any file, in chunks of one size; the last may be shorter.
#include "Files.h"
#include "Keys.h"

#include <vxkit/Source.h>

#include <optional>

namespace vxrun {
namespace {

const NumberKey kChunk{"chunk", 1, 1 << 30, 65536, "bytes per work, default 65536"};

class FileSource : public Source {
public:
    using Source::Source;

private:
    void open() override {
        mFile.emplace(requiredConfig(kFile));
        // What FFmpeg's demuxer of plain data states: no time, no duration.
        mStream->media = "data";
        mStream->codec = "none";
        mStream->timeBase = {1, 90000};
    }
    std::string nothing() const override { return mFile->path() + ": empty file"; }

    bool next() override {
        if (mFile->atEnd()) return false;
        vexa::VXFrameInfo frame;
        frame.mInfos = {mStream};
        give(PictureFormat::block(static_cast<int>(config(kChunk))), std::move(frame),
             [this](PoolBuffer& buffer) {
                 const FrameView chunk(buffer, *mStream);
                 buffer.buffer().setFilledRange(0, mFile->read(chunk.plane(0), chunk.size()));
             });
        return true;
    }

    std::optional<InputFile> mFile;
    const std::shared_ptr<StreamInfo> mStream = std::make_shared<StreamInfo>();
};

const Registered<FileSource> kType("source/file", "reads the bytes of a file", 0, 1,
                                   {&kFile, &kChunk});

}  // namespace
}  // namespace vxrun
