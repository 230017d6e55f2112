#include <vxkit/Producer.h>
#include <vxkit/Text.h>

#include <algorithm>
#include <climits>

namespace vxkit {

using namespace vexa;

VXError Producer::countAvailablePendingInputWorks(unsigned long maxCount,
                                                  unsigned long* actualCount, bool* hasEOS) {
    if (!mNext && !mPaused && !*mIsDue) {
        return Node::countAvailablePendingInputWorks(maxCount, actualCount, hasEOS);
    }
    if (actualCount == nullptr || hasEOS == nullptr || maxCount == 0) return VX_BAD_VALUE;
    *hasEOS = false;
    // Without memory a step is offered all the same: process() reports what is wrong.
    const bool wait =
        mNext ? mBuffer == nullptr && mPool->fetch(&mBuffer) == VX_NO_FREE_SLOT : !*mIsDue;
    *actualCount = wait ? 0 : 1;
    record().times.enter(!wait   ? NodeTimes::READY
                         : mNext ? NodeTimes::WAITS_FOR_BUFFER
                                 : NodeTimes::WAITS_FOR_INPUT);
    return VX_OK;
}

VXError Producer::getPendingInputWorks(unsigned long requestedCount, SharedWorks* works) {
    if (works == nullptr) return VX_BAD_VALUE;
    // The regulator gets one step for one output, whatever the number of inputs it takes to make
    // it.
    *works = {mStep};
    if (mNext || mPaused || *mIsDue) return VX_OK;
    SharedWorks inputs;
    const VXError ret = Node::getPendingInputWorks(requestedCount, &inputs);
    if (ret == VX_OK) ++record().moved;
    hold(&inputs);
    mInputs.splice(mInputs.end(), inputs);
    return ret;
}

void Producer::process(const SharedWorks&) {
    if (mEnded) return;  // a step that was due when the end was found
    if (mNext) write();
    try {
        advance();
    } catch (...) {  // the frame before the error is still sent
        sendWritten();
        throw;
    }
    // One frame is always held: only when no other follows is it known to be the last.
    if (mEnded) finish(mWritten == nullptr);
    if (mEnded) mWritten->frameInfo().flags |= VXFrameInfo::FLAG_END_OF_STREAM;
    if (mEnded || mNext) sendWritten();
}

void Producer::write() {
    const Output output = *std::exchange(mNext, {});  // gone also if something is thrown below
    if (mBuffer == nullptr) throw Failure("no memory for a buffer");
    if (output.fill) output.fill(*mBuffer);
    const auto sent = fenced(std::move(mBuffer), output.frame);
    mWritten = std::make_unique<VXWork>();
    mWrittenSince = output.since;
    mWritten->frameInfo() = output.frame;
    mWritten->frameInfo().mInfos.push_back(sent);
    attach(mWritten.get(), PoolBuffer::payload(sent));
}

std::function<void()> Producer::resumer() {
    return [isDue = mIsDue, schedule = scheduler()] {
        *isDue = true;
        schedule();
    };
}

void Producer::advance() {
    *mIsDue = false;  // first, so that what resumes it from now on counts
    const bool wasPaused = std::exchange(mPaused, false);
    seekNext();
    // Only now: a node that is resumed all the time, and pauses again, still waits.
    if (wasPaused && !mPaused) record().setWaitsFor("");
}

// Goes on until the next frame or the end is known, the next input is missing, or a hook pauses.
void Producer::seekNext() {
    while (!mNext && !next()) {
        if (mPaused) return;
        if (mEnding) {
            mEnded = true;
            return;
        }
        if (mInputs.empty()) return;
        const auto input = mInputs.front();
        const bool isTaken = feed(*input, mTaken);
        if (mPaused) return;
        if (!isTaken) continue;  // a drain: next() first, then the same input again
        mInputs.pop_front();
        ++mTaken;
        mEnding = (input->frameInfo().flags & VXFrameInfo::FLAG_END_OF_STREAM) != 0;
        if (mEnding) feedEnd();
    }
}

void Producer::sendWritten() {
    if (mWritten == nullptr) return;
    sendOutput(std::move(mWritten));
    if (mWrittenSince) evidence().latency().add(Clock::now() - *mWrittenSince);
}

void Producer::finish(bool nothing) {
    if (nothing) throw Failure("no frame was produced", Verdict::InfoValidationFail);
    for (const auto& entry : entries()) {
        if (entry.frameIndex < mTaken) continue;
        failCheck(INFO_VALIDATION_FAIL, concat("an entry '", entry.key, "' is for frame ",
                                               entry.frameIndex, ", there are ", mTaken));
    }
}

void Producer::give(const PictureFormat& format, VXFrameInfo frame, Fill fill) {
    // A pool makes buffers of one format. The one before lives until its last buffer is back.
    if (mPool == nullptr || mPool->format() != format) mPool = newPool(format);
    mNext = {std::move(frame), std::move(fill), {}};
}

void Producer::giveFilled(std::shared_ptr<PoolBuffer> buffer, VXFrameInfo frame) {
    mBuffer = std::move(buffer);
    mNext = {std::move(frame), {}, {}};
}

void Producer::givePicture(std::shared_ptr<StreamInfo> stream, uint64_t timestamp,
                           std::function<void(const FrameView&)> fill) {
    VXFrameInfo frame;
    frame.timestamp = timestamp;
    frame.mInfos = {stream};
    give(stream->picture, std::move(frame), [stream, fill = std::move(fill)](PoolBuffer& buffer) {
        fill(FrameView(buffer, *stream));
    });
}

void Producer::giveUnit(std::shared_ptr<BitstreamInfo> stream, std::shared_ptr<UnitInfo> unit,
                        size_t size, std::function<void(uint8_t*)> fill) {
    // Blocks double, so that a stream whose access units grow does not change pools with each of
    // them.
    while (mBlock < size) mBlock = std::min<size_t>(2 * mBlock, INT_MAX);
    const int64_t time = unit->pts != UnitInfo::kNoTime ? unit->pts : unit->dts;
    VXFrameInfo frame;
    frame.timestamp = static_cast<uint64_t>(std::max<int64_t>(time, 0));
    frame.mInfos = {stream, std::move(unit)};
    give(PictureFormat::block(static_cast<int>(mBlock)), std::move(frame),
         [stream, size, fill = std::move(fill)](PoolBuffer& buffer) {
             buffer.buffer().setFilledRange(0, size);
             fill(FrameView(buffer, *stream).plane(0));
         });
}

}  // namespace vxkit
