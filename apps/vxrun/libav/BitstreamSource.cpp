// source/bitstream: the access units of the best video stream of a file, as libavformat demuxes
// them.
#include "Keys.h"
#include "VideoFile.h"

#include <vxkit/Source.h>

#include <cstring>
#include <optional>

namespace vxrun {
namespace {

class BitstreamSource : public Source {
public:
    using Source::Source;

private:
    void open() override { mFile.emplace(requiredConfig(kFile), config(kOptions)); }
    std::string nothing() const override { return mFile->path() + ": no access unit in the file"; }

    bool next() override {
        const std::shared_ptr<AVPacket> unit = made(av_packet_alloc());
        if (!mFile->next(unit.get())) return false;
        giveUnit(mFile->stream(), std::make_shared<LibavUnitInfo>(*unit),
                 static_cast<size_t>(unit->size),
                 [unit](uint8_t* bytes) { std::memcpy(bytes, unit->data, unit->size); });
        return true;
    }

    std::optional<VideoFile> mFile;
};

const Registered<BitstreamSource> kType("source/bitstream",
                                        "reads the access units of a video file", 0, 1,
                                        {&kFile, &kOptions});

}  // namespace
}  // namespace vxrun
