#include "Producer.h"
#include "Text.h"

#include <algorithm>
#include <climits>
#include <cstring>

namespace vxrun {

using namespace vexa;

VXError Producer::countAvailablePendingInputWorks(unsigned long maxCount,
                                                  unsigned long* actualCount, bool* hasEOS) {
    if (!mNext) return AppNode::countAvailablePendingInputWorks(maxCount, actualCount, hasEOS);
    if (actualCount == nullptr || hasEOS == nullptr || maxCount == 0) return VX_BAD_VALUE;
    *hasEOS = false;
    // Without memory it is offered all the same: process() says what is wrong.
    const bool wait = mBuffer == nullptr && mPool->fetch(&mBuffer) == VX_NO_FREE_SLOT;
    *actualCount = wait ? 0 : 1;
    return VX_OK;
}

VXError Producer::getPendingInputWorks(unsigned long requestedCount, SharedWorks* works) {
    if (works == nullptr) return VX_BAD_VALUE;
    *works = {mStep};
    if (mNext) return VX_OK;
    SharedWorks taken;
    const VXError ret = AppNode::getPendingInputWorks(requestedCount, &taken);
    hold(&taken);
    mInputs.splice(mInputs.end(), taken);
    return ret;
}

void Producer::process(const SharedWorks&) {
    if (mNext) write();
    try {
        advance();
    } catch (...) {  // the frame before the trouble is sent on
        sendWritten();
        throw;
    }
    if (mEnded) finish(mWritten == nullptr);
    if (mEnded) mWritten->frameInfo().flags |= VXFrameInfo::FLAG_END_OF_STREAM;
    if (mEnded || mNext) sendWritten();
}

void Producer::write() {
    const Output output = *std::exchange(mNext, {});  // gone also if something is thrown below
    if (mBuffer == nullptr) throw Failure("no memory for a buffer");
    output.fill(mBuffer);
    mWritten = std::make_unique<VXWork>();
    mWritten->frameInfo() = output.frame;
    attach(mWritten.get(), fenced(std::move(mBuffer), output.frame));
}

// Goes on until the next frame or the end is known, or the next input is missing.
void Producer::advance() {
    while (!mNext && !next()) {
        if (mEnding) {
            mEnded = true;
            return;
        }
        if (mInputs.empty()) return;
        const auto input = mInputs.front();
        if (!feed(*input, mTaken)) continue;
        mInputs.pop_front();
        ++mTaken;
        mEnding = (input->frameInfo().flags & VXFrameInfo::FLAG_END_OF_STREAM) != 0;
        if (mEnding) feedEnd();
    }
}

void Producer::sendWritten() {
    if (mWritten != nullptr) sendOutput(std::move(mWritten));
}

void Producer::finish(bool nothing) {
    if (nothing) throw Failure("nothing comes out", errorName(INFO_VALIDATION_FAIL));
    for (const auto& entry : entries()) {
        if (entry.frameIndex < mTaken) continue;
        failCheck(INFO_VALIDATION_FAIL, concat("an entry '", entry.key, "' is for frame ",
                                               entry.frameIndex, ", there are ", mTaken));
    }
}

void Producer::give(const PictureFormat& format, VXFrameInfo frame, Fill fill) {
    if (mPool == nullptr || mPool->format() != format) mPool = newPool(format);
    mNext = {std::move(frame), std::move(fill)};
}

void Producer::givePicture(std::shared_ptr<AVFrame> picture, std::shared_ptr<StreamInfo> stream,
                           uint64_t timestamp) {
    VXFrameInfo frame;
    frame.timestamp = timestamp;
    frame.mInfos = {stream};
    give(stream->picture, std::move(frame), [=](const auto& buffer) {
        const Payload payload(buffer, *stream);
        av_frame_copy(&payload.view(), picture.get());
    });
}

void Producer::giveUnit(Libav<AVPacket> unit, std::shared_ptr<BitstreamInfo> stream) {
    const std::shared_ptr<AVPacket> packet = std::move(unit);
    const auto info = std::make_shared<UnitInfo>();
    if (av_packet_copy_props(info->properties.get(), packet.get()) < 0) throw std::bad_alloc();
    while (mBlock < packet->size) mBlock = mBlock > INT_MAX / 2 ? INT_MAX : 2 * mBlock;
    const int64_t time = packet->pts != AV_NOPTS_VALUE ? packet->pts : packet->dts;
    VXFrameInfo frame;
    frame.timestamp = static_cast<uint64_t>(std::max<int64_t>(time, 0));
    frame.mInfos = {std::move(stream), info};
    give({AV_PIX_FMT_NONE, mBlock, 1}, std::move(frame), [packet](const auto& buffer) {
        buffer->setFilledRange(0, static_cast<size_t>(packet->size));
        std::memcpy(Payload(buffer, {}).view().data[0], packet->data, buffer->size());
    });
}

}  // namespace vxrun
