// BadFrames: the first wrong frames of a node as files that people look at.
#pragma once

#include "Payload.h"

#include <string>

namespace vxrun {

// For each frame NODE.frame000007.got.png and .got.raw, and where the frame wanted is known
// .wanted.png, .wanted.raw and .diff.png, .diff.raw. Raw files hold the visible rows, plane by plane;
// those of the difference one byte per sample of the first plane: 0 where all planes are equal, else
// 64 + 8 times the largest difference of any plane there, at most 255.
//
// Pictures of more than 8 bits become PNGs of 16. Where libswscale cannot show a format, and for
// what is no picture, there is no PNG.
class BadFrames {
public:
    // Makes the folder; a Failure when that is not possible. An empty name: nothing is ever written.
    BadFrames(const std::string& folder, uint64_t limit, const std::string& node);

    // Writes one frame, unless `limit` frames have been written. `wanted` may be null. A file that cannot
    // be written is an error line, and the last: the verdict is the comparison's.
    void add(uint64_t frame, const Payload& got, const Payload* wanted);

private:
    void write(uint64_t frame, const Payload& got, const Payload* wanted) const;

    const std::string mNode;
    const std::string mStem;  // of all files
    uint64_t mLeft;           // frames still to be written
};

}  // namespace vxrun
