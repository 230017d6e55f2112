// Y4mReader: YUV4MPEG2 files: a header line, then per frame a line and the planes, without padding.
#pragma once

#include "Files.h"
#include "Payload.h"

#include <string>

namespace vxrun {

// The header line, with its line feed, for pictures of `stream`. A Failure with the verdict NOT_SUPPORTED
// for those that Y4M does not have.
std::string y4mHeader(const StreamInfo& stream);

// Every failure is a Failure that names the file, the header field or the frame and its byte offset, and
// what was expected.
//
// Use      nextFrame(), and while it is true readFrame().
// Threads  one at a time.
class Y4mReader {
public:
    // Opens `path` and reads its header. The verdict is NOT_SUPPORTED for a colour space that exists but
    // is not handled.
    explicit Y4mReader(const std::string& path);

    const StreamInfo& stream() const { return mStream; }
    // Reads the line before a frame; false at the end of the file.
    bool nextFrame();
    // Reads the planes of that frame into `picture`, which has the stream's format.
    void readFrame(const Payload& picture);

private:
    [[noreturn]] void failFrame(uint64_t offset, const std::string& text) const;

    InputFile mFile;
    StreamInfo mStream;
    uint64_t mFrame = 0;  // the one that comes next
};

}  // namespace vxrun
