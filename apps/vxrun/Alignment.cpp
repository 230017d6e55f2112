#include "Alignment.h"

extern "C" {
#include <libavutil/mem.h>
#include <libavutil/murmur3.h>
}

#include <new>

namespace vxrun {
namespace {

constexpr int kReach = 2;  // offsets that are tried, both ways
constexpr size_t kMostPairs = 1000;

}  // namespace

std::string frameHash(const Payload& payload) {
    constexpr size_t kSize = 16;
    const std::unique_ptr<AVMurMur3, void (*)(void*)> state(av_murmur3_alloc(), av_free);
    if (state == nullptr) throw std::bad_alloc();
    av_murmur3_init(state.get());
    payload.forEachRow(
        [&](const uint8_t* row, size_t bytes) { av_murmur3_update(state.get(), row, bytes); });
    uint8_t hash[kSize];
    av_murmur3_final(state.get(), hash);
    return std::string(hash, hash + kSize);
}

void Alignment::add(const std::string& got, const std::string& wanted, bool differs) {
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
    for (const int offset : {-1, 1, -2, 2}) {
        size_t pairs = 0;
        size_t equalPairs = 0;
        for (size_t i = mFirstBad; mDiffers && i < mPairs.size(); ++i) {
            const size_t j = i + static_cast<size_t>(offset);  // wraps to something large
            if (j >= mPairs.size() || mPairs[i].got.empty() || mPairs[j].wanted.empty()) continue;
            ++pairs;
            if (mPairs[i].got != mPairs[j].wanted) continue;
            ++equalPairs;
            if (i != mFirstBad || !equals.empty()) continue;
            equals = "frame " + std::to_string(mFirst + i) + " is the wanted frame " +
                     std::to_string(mFirst + j);
        }
        if (pairs < 2 || equalPairs < pairs) continue;  // one may be chance
        return "shifted by " + std::to_string(offset) + ": from frame " +
               std::to_string(mFirst + mFirstBad) + " on, frame n is the wanted frame n" +
               (offset > 0 ? "+" : "") + std::to_string(offset);
    }
    return equals;
}

}  // namespace vxrun
