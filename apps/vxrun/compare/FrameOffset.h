// FrameOffset: whether a stream that differs from the expected one is that stream some frames off.
#pragma once

#include "Vxkit.h"

#include <vxkit/FrameView.h>

#include <deque>
#include <string>

namespace vxrun {

// Collects the hashes of both streams frame by frame. Keeps those from shortly before the first
// frame that differs on, a thousand at most, which is evidence enough.
//
// Threads  one at a time.
class FrameOffset {
public:
    // The next frame of both, or of the one that is longer; the other's hash is empty then.
    void addPair(const std::string& actual, const std::string& expected, bool differs);
    // The same of frames, either of which may be null. Hashes no more of them than may be needed.
    void addFrames(const FrameView* actual, const FrameView* expected, bool differs);

    // What was found: "shifted by -1: ...", "frame 3 is the expected frame 2"; empty when nothing
    // was.
    std::string finding() const;

private:
    static constexpr int kReach = 2;  // offsets that are tried, both ways
    static constexpr size_t kMostPairs = 1000;

    struct Pair {
        std::string actual, expected;
    };
    std::deque<Pair> mPairs;
    uint64_t mFirst = 0;  // frame number of the first pair
    bool mDiffers = false;
    size_t mFirstBad = 0;  // index of the first pair that differs
};

}  // namespace vxrun
