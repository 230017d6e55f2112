// Y4m: YUV4MPEG2 files: a header line, then per frame a line and the planes, without padding.
#pragma once

#include "Files.h"
#include "Vxkit.h"

#include <vxkit/FrameView.h>

#include <string>

namespace vxrun {

// The header line, with its line feed, for pictures of `stream`. Throws Failure,
// Verdict::NotSupported, for those that Y4M does not have.
std::string y4mHeader(const StreamInfo& stream);

// The stream of such a header line, without its line feed. Throws Failure, Verdict::NotSupported,
// for a color space that exists but is not handled.
StreamInfo y4mStream(const std::string& header);
// Whether `line` is that before a frame.
bool isY4mFrame(const std::string& line);
// What such a file begins with, and the longest line that is accepted.
extern const std::string kY4mMagic;
constexpr size_t kY4mLine = 4096;

// Y4mReader: reads such a file. Failures name the file, the header field or the frame and its byte
// offset, and what was expected.
//
// Life     nextFrame(), and while it is true readFrame().
// Threads  one at a time.
// Owns     the open file.
class Y4mReader {
public:
    // Opens `path` and reads its header. Verdict::NotSupported: a color space that exists but is
    // not handled.
    explicit Y4mReader(const std::string& path);

    const std::string& path() const { return mFile.path(); }
    const StreamInfo& stream() const { return mStream; }
    // Reads the line before a frame; false at the end of the file.
    bool nextFrame();
    // Reads the planes of that frame into `picture`, which has the stream's format.
    void readFrame(const FrameView& picture);

private:
    [[noreturn]] void failFrame(uint64_t offset, const std::string& text) const;

    InputFile mFile;
    StreamInfo mStream;
    uint64_t mFrame = 0;  // the one that comes next
};

}  // namespace vxrun
