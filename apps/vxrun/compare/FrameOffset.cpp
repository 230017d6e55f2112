#include "FrameOffset.h"

#include "Text.h"

#include <array>
#include <cstring>

namespace vxrun {

// A hash for the frames of one run. Each step is reversible, so that a single difference always
// shows. Four chains of steps, since one would wait for its multiplications.
static std::string hashOf(const FrameView& frame) {
    constexpr uint64_t kOdd = 0x9e3779b97f4a7c15u;
    constexpr size_t kWord = sizeof(uint64_t), kChains = 4;
    std::array<uint64_t, kChains> chains = {frame.size(), 1, 2, 3};
    const auto step = [](uint64_t chain, uint64_t word) {
        chain ^= word;
        return (chain << 29 | chain >> 35) * kOdd;
    };
    frame.forEachRow([&](const uint8_t* row, size_t bytes) {
        std::array<uint64_t, kChains> words{};
        size_t at = 0;
        for (; bytes - at >= kChains * kWord; at += kChains * kWord) {
            std::memcpy(words.data(), row + at, sizeof words);
            for (size_t i = 0; i < kChains; ++i) chains[i] = step(chains[i], words[i]);
        }
        words = {};
        std::memcpy(words.data(), row + at, bytes - at);
        for (size_t i = 0; i < kChains; ++i) chains[i] = step(chains[i], words[i]);
    });
    uint64_t hash = 0;
    for (const uint64_t chain : chains) hash = step(hash, chain);
    return std::to_string(hash);
}

void FrameOffset::addPair(const std::string& actual, const std::string& expected, bool differs) {
    if (mPairs.size() == kMostPairs) return;
    mPairs.push_back({actual, expected});
    if (!mDiffers && !differs && mPairs.size() > kReach) {
        mPairs.pop_front();
        ++mFirst;
    }
    if (differs && !mDiffers) mFirstBad = mPairs.size() - 1;
    mDiffers = mDiffers || differs;
}

void FrameOffset::addFrames(const FrameView* actual, const FrameView* expected, bool differs) {
    if (mPairs.size() == kMostPairs) return;
    // Before the first pair that differs, only the expected frame may turn up elsewhere.
    const bool needsActual = actual != nullptr && (differs || mDiffers);
    addPair(needsActual ? hashOf(*actual) : "", expected != nullptr ? hashOf(*expected) : "",
            differs);
}

std::string FrameOffset::finding() const {
    std::string equals;
    const uint64_t bad = mFirst + mFirstBad;
    for (const int offset : {-1, 1, -kReach, kReach}) {
        size_t pairs = 0, equalPairs = 0;
        for (size_t i = mFirstBad; mDiffers && i < mPairs.size(); ++i) {
            const size_t j = i + static_cast<size_t>(offset);  // wraps to something large
            if (j >= mPairs.size() || mPairs[i].actual.empty() || mPairs[j].expected.empty())
                continue;
            ++pairs;
            if (mPairs[i].actual != mPairs[j].expected) continue;
            ++equalPairs;
            if (i == mFirstBad && equals.empty()) {
                equals = concat("frame ", bad, " is the expected frame ", mFirst + j);
            }
        }
        if (pairs < 2 || equalPairs < pairs) continue;  // one may be chance
        return concat("shifted by ", offset, ": from frame ", bad,
                      " on, frame n is the expected frame n", std::showpos, offset);
    }
    return equals;
}

}  // namespace vxrun
