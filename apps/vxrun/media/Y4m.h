// Y4m: YUV4MPEG2 files: a header line, then per frame a line and the planes, without padding.
#pragma once

#include "PictureReader.h"

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

// Y4mReader: reads such a file. Failures of the header name its field.
//
// Life, threads and owns: as PictureReader.
class Y4mReader final : public PictureReader {
public:
    // Opens `path` and reads its header. Verdict::NotSupported: a color space that exists but is
    // not handled.
    explicit Y4mReader(const std::string& path);

    bool nextFrame() override;
};

}  // namespace vxrun
