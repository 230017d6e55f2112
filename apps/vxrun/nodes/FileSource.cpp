// source/file: the bytes of any file, in chunks of one size; the last may be shorter.
#include "AppNode.h"
#include "Failure.h"
#include "Files.h"

#include <optional>

namespace vxrun {
namespace {

class FileSource final : public Source {
public:
    explicit FileSource(NodeArguments arguments) : Source(std::move(arguments)) {}
    ~FileSource() override { teardown(); }

private:
    void open() override {
        constexpr uint64_t kMaxChunk = 1 << 30;
        mChunk = numberConfig("chunk", 1, kMaxChunk, 65536);
        mFile.emplace(requiredConfig("file"));
        if (mFile->atEnd()) mFile->fail("empty file");
        // What FFmpeg's demuxer of plain data states: no time, no duration.
        mStream->media = "data";
        mStream->codec = "none";
        mStream->timeBase = {1, 90000};
        makeBlockPool(mChunk);
    }

    void fill(const std::shared_ptr<vexa::VXBuffer>& buffer, vexa::VXFrameInfo* frame) override {
        size_t got = 0;
        Payload(buffer, *mStream).forEachRow([&](uint8_t* row, size_t bytes) {
            got += mFile->read(row, bytes);
        });
        buffer->setFilledRange(0, got);
        frame->mInfos.push_back(mStream);
    }

    bool hasNext() override { return !mFile->atEnd(); }

    size_t mChunk = 0;
    std::optional<InputFile> mFile;
    const std::shared_ptr<StreamInfo> mStream = std::make_shared<StreamInfo>();
};

}  // namespace

extern const NodeType kFileSource = {
    "source/file",
    "the bytes of a file",
    0,
    1,
    {{"file", true, "the file to read"}, {"chunk", false, "bytes per work, default 65536"}},
    makeNode<FileSource>};

}  // namespace vxrun
