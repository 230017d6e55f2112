#include "Alignment.h"

#include "Text.h"

#include <string_view>

namespace vxrun {

std::string frameHash(const Payload& payload) {
    size_t hash = payload.size();
    payload.forEachRow([&](const uint8_t* row, size_t bytes) {
        const std::string_view text(reinterpret_cast<const char*>(row), bytes);
        hash = hash * 0x9e3779b97f4a7c15u + std::hash<std::string_view>()(text);
    });
    return std::to_string(hash);
}

void Alignment::add(const std::string& got, const std::string& wanted, bool differs) {
    constexpr size_t kMostPairs = 1000;
    if (mPairs.size() == kMostPairs) return;
    mPairs.push_back({got, wanted});
    if (!mDiffers && !differs && mPairs.size() > kReach) {
        mPairs.pop_front();
        ++mFirst;
    }
    if (differs && !mDiffers) mFirstBad = mPairs.size() - 1;
    mDiffers = mDiffers || differs;
}

std::string Alignment::text() const {
    std::string equals;
    const uint64_t bad = mFirst + mFirstBad;
    for (const int offset : {-1, 1, -kReach, kReach}) {
        size_t pairs = 0, equalPairs = 0;
        for (size_t i = mFirstBad; mDiffers && i < mPairs.size(); ++i) {
            const size_t j = i + static_cast<size_t>(offset);  // wraps to something large
            if (j >= mPairs.size() || mPairs[i].got.empty() || mPairs[j].wanted.empty()) continue;
            ++pairs;
            if (mPairs[i].got != mPairs[j].wanted) continue;
            ++equalPairs;
            if (i == mFirstBad && equals.empty()) {
                equals = concat("frame ", bad, " is the wanted frame ", mFirst + j);
            }
        }
        if (pairs < 2 || equalPairs < pairs) continue;  // one may be chance
        return concat("shifted by ", offset, ": from frame ", bad,
                      " on, frame n is the wanted frame n", std::showpos, offset);
    }
    return equals;
}

}  // namespace vxrun
