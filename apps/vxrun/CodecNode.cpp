#include "CodecNode.h"

#include "Failure.h"

#include <algorithm>

namespace vxrun {

using namespace vexa;

VXError CodecNode::countAvailablePendingInputWorks(unsigned long maxCount,
                                                   unsigned long* actualCount, bool* hasEOS) {
    if (!canSend()) return AppNode::countAvailablePendingInputWorks(maxCount, actualCount, hasEOS);
    if (actualCount == nullptr || hasEOS == nullptr || maxCount == 0) return VX_BAD_VALUE;
    *hasEOS = false;
    // Without memory it is offered all the same: process() says what is wrong.
    const bool wait =
        mBuffer == nullptr && mOutputs.front().pool->fetch(&mBuffer) == VX_NO_FREE_SLOT;
    *actualCount = wait ? 0 : 1;
    return VX_OK;
}

VXError CodecNode::getPendingInputWorks(unsigned long requestedCount,
                                        std::list<std::shared_ptr<VXSharedWork>>* works) {
    if (!canSend()) return AppNode::getPendingInputWorks(requestedCount, works);
    if (works == nullptr) return VX_BAD_VALUE;
    works->clear();
    if (requestedCount > 1) return VX_INVALID_OPERATION;
    works->push_back(std::make_shared<VXSharedWork>(VXAuxInfo(), VXFrameInfo()));
    return VX_OK;
}

void CodecNode::process(const SharedWorks& inputs, Works*) {
    if (canSend()) {
        send();
    } else {
        mInputs.insert(mInputs.end(), inputs.begin(), inputs.end());
    }
    advance();
}

// Goes on until an output can be sent or the next input is missing.
void CodecNode::advance() {
    while (!canSend() && !mDrained) {
        const Progress progress = receive();
        if (progress == Progress::GAVE) continue;
        if (progress == Progress::NEEDS_INPUT) {
            if (mInputs.empty()) return;
            const auto input = mInputs.front();
            if (!feed(*input, mTaken)) continue;
            mInputs.pop_front();
            ++mTaken;
            mEnding = (input->frameInfo().flags & VXFrameInfo::FLAG_END_OF_STREAM) != 0;
            if (mEnding) feedEnd();
        } else if (!mEnding) {
            restart();
        } else {
            mDrained = true;
            if (mOutputs.empty()) finish(true);
        }
    }
}

void CodecNode::finish(bool nothing) {
    if (nothing) throw Failure("nothing comes out", errorName(INFO_VALIDATION_FAIL));
    for (const auto& entry : entries()) {
        if (entry.frameIndex < mTaken) continue;
        failCheck(INFO_VALIDATION_FAIL, "an entry '" + entry.key + "' is for frame " +
                                            std::to_string(entry.frameIndex) + ", there are " +
                                            std::to_string(mTaken));
    }
}

void CodecNode::give(std::shared_ptr<Pool> pool, VXFrameInfo frame, Fill fill) {
    mOutputs.push_back({std::move(pool), std::move(frame), std::move(fill)});
}

void CodecNode::givePicture(std::shared_ptr<AVFrame> picture, std::shared_ptr<StreamInfo> stream,
                            VXFrameInfo frame) {
    if (mPictures == nullptr || mFormat != stream->picture) {
        mFormat = stream->picture;
        mPictures =
            Pool::ofPictures(allocatorType(), mFormat, slots(), newPoolRecord(), scheduleSelf());
    }
    frame.mInfos.push_back(stream);
    give(mPictures, std::move(frame), [picture, stream](const std::shared_ptr<VXBuffer>& buffer) {
        copyPicture(*picture, Payload(buffer, *stream));
    });
}

void CodecNode::send() {
    Output output = std::move(mOutputs.front());
    mOutputs.pop_front();  // gone also if something is thrown below
    if (mBuffer == nullptr) throw Failure("no memory for a buffer");
    output.fill(mBuffer);
    Works works;
    VXWork& work = *works.emplace_back(std::make_unique<VXWork>());
    work.frameInfo() = std::move(output.frame);
    attach(&work, fenced(std::move(mBuffer), work.frameInfo()));
    if (mOutputs.empty()) {
        work.frameInfo().flags |= VXFrameInfo::FLAG_END_OF_STREAM;
        finish(false);
    }
    countFrame(work.frameInfo());
    returnWorks(std::move(works));
}

}  // namespace vxrun
