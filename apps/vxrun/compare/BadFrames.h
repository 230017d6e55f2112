// BadFrames: the first wrong frames of a node as files for people to look at.
#pragma once

#include "Vxkit.h"

#include <vxkit/Config.h>
#include <vxkit/FrameView.h>

#include <functional>
#include <string>

namespace vxrun {

// The configs of nodes that write them.
extern const PathKey kDumpBad;
extern const NumberKey kDumpLimit;

// For each frame NODE.frame000007.actual.png and .actual.raw, and where the expected frame is known
// .expected.png, .expected.raw and .diff.png, .diff.raw. Raw files hold the visible rows, plane by
// plane; those of the difference one byte per sample of the first plane: 0 where all planes are
// equal, else 64 + 8 times the largest difference of any plane there, at most 255.
//
// Pictures of more than 8 bits become PNGs of 16. For what is not a picture there is no PNG.
//
// Life     held by its node.
// Threads  one at a time.
class BadFrames {
public:
    // Makes the folder; throws Failure when that is not possible. An empty name: nothing is
    // written. `print` prints a line that begins with the node's name.
    BadFrames(const std::string& folder, uint64_t limit, const std::string& node,
              std::function<void(const std::string&)> print);

    // Writes one frame, unless `limit` frames have been written. `expected` may be null. A file
    // that cannot be written is an error line and ends the dumps; the verdict is still the
    // comparison's. What the names of its files begin with; empty when none is written.
    std::string dump(uint64_t frame, const FrameView& actual, const FrameView* expected);

private:
    static void write(const std::string& stem, const FrameView& actual, const FrameView* expected);

    const std::function<void(const std::string&)> mPrint;
    const std::string mStem;  // of all files
    uint64_t mLeft;           // frames still to be written
};

}  // namespace vxrun
