// PictureSource: the base of sources that read pictures from a file or a pipe.
#pragma once

#include "PictureReader.h"

#include <vxkit/Source.h>

#include <memory>
#include <string>

namespace vxrun {

// A derived class has an open() that calls read(). Life, threads and owns: as Source.
class PictureSource : public Source {
public:
    using Source::Source;

protected:
    void read(std::unique_ptr<PictureReader> reader) {
        mReader = std::move(reader);
        mStream = std::make_shared<StreamInfo>(mReader->stream());
    }

private:
    std::string nothing() const override { return mReader->path() + ": no frame in the file"; }

    bool next() override {
        if (!mReader->nextFrame()) return false;
        givePicture(mStream, mTimestamp++,
                    [this](const FrameView& picture) { mReader->readFrame(picture); });
        return true;
    }

    std::unique_ptr<PictureReader> mReader;
    std::shared_ptr<StreamInfo> mStream;
    uint64_t mTimestamp = 0;
};

}  // namespace vxrun
