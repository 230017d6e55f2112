// PictureReader: raw video files: the planes of one picture after another, without padding.
#pragma once

#include "Files.h"
#include "Vxkit.h"

#include <vxkit/FrameView.h>

#include <string>

namespace vxrun {

// Throws Failure for a picture that takes more than 1 GiB.
void checkSize(const PictureFormat& picture);
// The stream of raw video, which states no times: 25 pictures a second.
StreamInfo rawStream(const PictureFormat& picture);

// The base of readers of files that have more than that. Failures name the file, the frame and its
// byte offset, and what was expected.
//
// Life     nextFrame(), and while it is true readFrame().
// Threads  one at a time. A pipe is waited for.
// Owns     the open file.
class PictureReader {
public:
    PictureReader(const std::string& path, const StreamInfo& stream)
        : mFile(path), mStream(stream) {}
    virtual ~PictureReader() = default;
    PictureReader(const PictureReader&) = delete;
    PictureReader& operator=(const PictureReader&) = delete;

    const std::string& path() const { return mFile.path(); }
    const StreamInfo& stream() const { return mStream; }
    // Reads what is before the next frame; false at the end of the file.
    virtual bool nextFrame() { return !mFile.atEnd(); }
    // Reads the planes of that frame into `picture`, which has the stream's format.
    void readFrame(const FrameView& picture);

protected:
    // For derived classes, which read the stream first.
    explicit PictureReader(const std::string& path) : mFile(path) {}
    [[noreturn]] void failFrame(uint64_t offset, const std::string& text) const;

    InputFile mFile;
    StreamInfo mStream;

private:
    uint64_t mFrame = 0;  // the one that comes next
};

}  // namespace vxrun
