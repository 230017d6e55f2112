// sink/file: the visible bytes of every frame, one after another.
#include "AppNode.h"
#include "Files.h"

#include <optional>

namespace vxrun {
namespace {

class FileSink final : public Sink {
public:
    explicit FileSink(NodeArguments arguments) : Sink(std::move(arguments)) {}
    ~FileSink() override { teardown(); }

private:
    void open() override { mFile.emplace(requiredConfig("file")); }

    void consume(const Payload& payload, const StreamInfo&, const vexa::VXFrameInfo&) override {
        payload.forEachRow([this](const uint8_t* row, size_t bytes) { mFile->write(row, bytes); });
    }

    void finish() override { mFile->commit(); }

    std::optional<OutputFile> mFile;
};

}  // namespace

extern const NodeType kFileSink = {
    "sink/file",
    "writes the bytes of every frame; the file appears when it is complete",
    1,
    0,
    {{"file", true, "the file to write"}},
    makeNode<FileSink>};

}  // namespace vxrun
