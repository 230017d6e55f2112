// Producer: what nodes that make frames have in common: sources, codecs, transforms. Their outputs
// may come later than their inputs and in another number.
//
// Such a node works in steps, each of which writes and sends at most one frame. To the regulator,
// which expects as many outputs as inputs, a step is one input of the node's own making, so that
// flow control paces it; the pending inputs are fetched when no frame is to be written. The node
// offers nothing while its pool has no buffer. A frame is sent when it is known whether another one
// follows.
#pragma once

#include <vxkit/Node.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>

namespace vxkit {

// Life, threads and owns: as Node. The hooks are called on the event thread.
class Producer : public Node {
public:
    static std::vector<const ConfigKey*> commonConfigs() {
        return {&kAllocator, &kSlots, &kFenceMs};
    }
    static constexpr bool kHasPool = true;
    // Each frame is held back until the next one is known.
    static uint64_t leastFramesHeld(const vexa::VXNodeDescriptor&) { return 1; }

    using Node::Node;
    vexa::VXError countAvailablePendingInputWorks(unsigned long maxCount,
                                                  unsigned long* actualCount,
                                                  bool* hasEOS) override;
    vexa::VXError getPendingInputWorks(unsigned long requestedCount, SharedWorks* works) override;

protected:
    // Gives the next frame that the inputs so far lead to; false when there is none, or none yet,
    // after pause().
    virtual bool next() { return false; }
    // For hooks that have to wait for something outside the graph, which they must not do on the
    // event thread: they call this and return. They are called again after resumer()(). A run that
    // stalls meanwhile names `what` they wait for.
    void pause(const std::string& what) {
        mPaused = true;
        record().setWaitsFor(what);
    }
    bool isPaused() const { return mPaused; }
    // A function that has next() called once more: what the node waits for outside the graph may
    // have come. It may outlive the node.  [any thread]
    std::function<void()> resumer();
    // The last frame is about to be sent, or, with `nothing`, there was none.
    virtual void finish(bool nothing);

    // Gives a frame of `format`; `fill` writes its contents into a buffer as soon as one is free.
    using Fill = std::function<void(PoolBuffer& buffer)>;
    void give(const PictureFormat& format, vexa::VXFrameInfo frame, Fill fill);
    // The same for a picture of the stream's format. `timestamp`: in units of its time base.
    void givePicture(std::shared_ptr<StreamInfo> stream, uint64_t timestamp,
                     std::function<void(const FrameView& picture)> fill);
    using Clock = std::chrono::steady_clock;
    // The frame that was given last has been under way since `moment`: the run's latency counts it
    // from there until it is sent.
    void noteSince(Clock::time_point moment) { mNext->since = moment; }
    // Gives a frame that is in a buffer already.
    void giveFilled(std::shared_ptr<PoolBuffer> buffer, vexa::VXFrameInfo frame);
    // Gives the frame that was given last, and is not yet written, to no one.
    void drop() { mNext.reset(); }
    // The same for an access unit of `size` bytes.
    void giveUnit(std::shared_ptr<BitstreamInfo> stream, std::shared_ptr<UnitInfo> unit,
                  size_t size, std::function<void(uint8_t* bytes)> fill);

private:
    // Feeds input `number`, from 0; may give one frame. False: next() is to be called for what came
    // before this input, which is then fed again. The same when it has called pause().
    virtual bool feed(const vexa::VXSharedWork&, uint64_t) { return true; }
    // No further input comes.
    virtual void feedEnd() {}

    struct Output {
        vexa::VXFrameInfo frame;
        Fill fill;
        std::optional<Clock::time_point> since;  // see noteSince()
    };

    void process(const SharedWorks& inputs) final;
    bool movesByProcess() const final { return false; }
    void write();
    void advance();
    void seekNext();
    void sendWritten();

    const std::shared_ptr<vexa::VXSharedWork> mStep =
        std::make_shared<vexa::VXSharedWork>(vexa::VXAuxInfo(), vexa::VXFrameInfo());
    // [event thread]
    SharedWorks mInputs;                     // not fed yet
    uint64_t mTaken = 0;                     // inputs that were fed
    std::shared_ptr<Pool> mPool;             // of mNext
    size_t mBlock = 1 << 16;                 // bytes of its blocks, for access units
    std::optional<Output> mNext;             // to be written
    std::shared_ptr<PoolBuffer> mBuffer;     // for it
    std::unique_ptr<vexa::VXWork> mWritten;  // the one before, to be sent
    std::optional<Clock::time_point> mWrittenSince;
    bool mEnding = inputPortInfos().empty();  // all inputs are fed
    bool mEnded = false;                      // no more frames come
    bool mPaused = false;                     // until mIsDue
    // A step is due.  [any thread]
    const std::shared_ptr<std::atomic<bool>> mIsDue = std::make_shared<std::atomic<bool>>(false);
};

}  // namespace vxkit
