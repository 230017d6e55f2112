// CodecNode: what nodes have in common whose outputs come later than their inputs and in another number.
//
// Such a node works in steps, each of which sends at most one output. An output is sent when it is known
// whether another one follows it. While one is to be sent, the node offers this instead of its pending
// inputs, and offers nothing while its pool has no buffer.
#pragma once

#include "AppNode.h"
#include "Libav.h"

#include <deque>
#include <functional>

namespace vxrun {

// The hooks are called on the event thread.
class CodecNode : public AppNode {
public:
    vexa::VXError countAvailablePendingInputWorks(unsigned long maxCount,
                                                  unsigned long* actualCount,
                                                  bool* hasEOS) override;
    vexa::VXError getPendingInputWorks(
        unsigned long requestedCount,
        std::list<std::shared_ptr<vexa::VXSharedWork>>* works) override;

protected:
    enum class Progress { GAVE, NEEDS_INPUT, DRAINED };

    explicit CodecNode(NodeArguments arguments) : AppNode(std::move(arguments)) {}

    // Takes input `number`, from 0. False: what came before it is to be drained first; then restart() is
    // called, and feed() with the same input.
    virtual bool feed(const vexa::VXSharedWork& input, uint64_t number) = 0;
    // No further input comes.
    virtual void feedEnd() {}
    virtual void restart() {}
    // Gives at most one output, and says DRAINED when all are given after feedEnd() or a feed() that was
    // false.
    virtual Progress receive() { return mEnding ? Progress::DRAINED : Progress::NEEDS_INPUT; }
    // The last output is about to be sent, or, with `nothing`, there was none.
    virtual void finish(bool nothing);

    // Output: `fill` writes the contents into a buffer of `pool`; it is called once, when one is free.
    using Fill = std::function<void(const std::shared_ptr<vexa::VXBuffer>&)>;
    void give(std::shared_ptr<Pool> pool, vexa::VXFrameInfo frame, Fill fill);
    // The same for a picture of the format that `stream` tells; `frame` gets `stream`, too.
    void givePicture(std::shared_ptr<AVFrame> picture, std::shared_ptr<StreamInfo> stream,
                     vexa::VXFrameInfo frame);

private:
    struct Output {
        std::shared_ptr<Pool> pool;
        vexa::VXFrameInfo frame;
        Fill fill;
    };

    void process(const SharedWorks& inputs, Works* outputs) final;
    bool canSend() const { return mOutputs.size() > (mDrained ? 0 : 1); }
    void send();
    void advance();

    // [event thread]
    SharedWorks mInputs;          // not taken yet
    uint64_t mTaken = 0;          // inputs
    std::deque<Output> mOutputs;  // to be sent: the next one and the one after it
    bool mEnding = false;         // all inputs are taken
    bool mDrained = false;        // no more outputs come
    std::shared_ptr<Pool> mPictures;
    PictureFormat mFormat;                    // of mPictures
    std::shared_ptr<vexa::VXBuffer> mBuffer;  // for the next output
};

}  // namespace vxrun
