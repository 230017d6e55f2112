#include "PictureBytes.h"

#include "Text.h"
#include "Y4m.h"

#include <algorithm>
#include <cstring>

namespace vxrun {

uint8_t* PictureBytes::room(size_t* size) {
    constexpr size_t kLeast = 1 << 16;
    if (mAt > 0) {
        std::memmove(mBytes.data(), mBytes.data() + mAt, mEnd - mAt);
        mEnd -= mAt;
        mAt = 0;
    }
    const size_t whole = kY4mLine + (mStream != nullptr ? mStream->picture.size() : 0);
    if (mBytes.size() < std::max(whole, kLeast)) mBytes.resize(std::max(whole, kLeast));
    *size = mBytes.size() - mEnd;
    return mBytes.data() + mEnd;
}

bool PictureBytes::hasPicture() {
    if (mStream == nullptr && !parseHeader()) return false;
    if (!mIsInFrame && !parseFrameLine()) return false;
    return mEnd - mAt >= mStream->picture.size();
}

bool PictureBytes::parseHeader() {
    const size_t size = std::min(mEnd - mAt, kY4mMagic.size());
    mIsY4m = size > 0 && std::memcmp(mBytes.data() + mAt, kY4mMagic.data(), size) == 0;
    if (mIsY4m) {
        std::string line;
        if (size < kY4mMagic.size() || !takeLine(&line)) return false;
        mStream = std::make_shared<StreamInfo>(y4mStream(line));
    } else if (size > 0) {
        mStream = std::make_shared<StreamInfo>(mRawStream());
    }
    return mStream != nullptr;
}

bool PictureBytes::parseFrameLine() {
    std::string line;
    if (mIsY4m && !takeLine(&line)) return false;
    if (mIsY4m && !isY4mFrame(line)) {
        throw Failure(concat("frame ", mPictures, ": expected 'FRAME', got ", quote(line)));
    }
    mIsInFrame = mEnd > mAt || mIsY4m;
    return mIsInFrame;
}

bool PictureBytes::takeLine(std::string* line) {
    const uint8_t* const start = mBytes.data() + mAt;
    const uint8_t* const all = mBytes.data() + mEnd;
    const uint8_t* const end = std::find(start, all, '\n');
    if (static_cast<size_t>(end - start) > kY4mLine) {
        throw Failure(concat("frame ", mPictures, ": a line longer than ", kY4mLine, " bytes"));
    }
    if (end == all) return false;
    line->assign(start, end);
    mAt += line->size() + 1;
    return true;
}

void PictureBytes::takePicture(const FrameView& picture) {
    picture.forEachRow([this](uint8_t* row, size_t bytes) {
        std::memcpy(row, mBytes.data() + mAt, bytes);
        mAt += bytes;
    });
    mIsInFrame = false;
    ++mPictures;
}

void PictureBytes::takeRest(uint8_t* to) {
    std::memcpy(to, mBytes.data() + mAt, mEnd - mAt);
    mAt = mEnd;
    mIsInFrame = false;
}

void PictureBytes::finish() const {
    if (mEnd == mAt && !mIsInFrame) return;
    throw Failure(
        concat("frame ", mPictures, ": truncated: ",
               mStream != nullptr ? concat("expected ", mStream->picture.size(), " bytes, ") : "",
               "actual ", mEnd - mAt));
}

}  // namespace vxrun
