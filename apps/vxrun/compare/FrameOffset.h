// Alignment: whether a stream that differs from the one wanted is that stream some frames off.
#pragma once

#include "Payload.h"

#include <deque>
#include <string>

namespace vxrun {

// A hash for the frames of one run.
std::string frameHash(const Payload& payload);

// Takes the hashes of both streams frame by frame. Keeps those from shortly before the first frame that
// differs on, a thousand at most, which is evidence enough.
class Alignment {
public:
    // The next frame of both, or of the one that is longer; the other's hash is empty then.
    void add(const std::string& got, const std::string& wanted, bool differs);

    // What was found: "shifted by -1: ...", "frame 3 is the wanted frame 2"; empty when nothing was.
    std::string text() const;

private:
    static constexpr int kReach = 2;  // offsets that are tried, both ways

    struct Pair {
        std::string got, wanted;
    };
    std::deque<Pair> mPairs;
    uint64_t mFirst = 0;  // frame number of the first pair
    bool mDiffers = false;
    size_t mFirstBad = 0;  // index of the first pair that differs
};

}  // namespace vxrun
