// Producer: what nodes have in common that make frames: sources, codecs, converters. Their outputs may
// come later than their inputs and in another number.
//
// Such a node works in steps, each of which writes and sends at most one frame. To the regulator, which
// wants as many outputs as inputs, a step is one input of the node's own making, so that flow control
// paces it; the pending inputs are taken when no frame is to be written. The node offers nothing while
// its pool has no buffer. A frame is sent when it is known whether another one follows it.
#pragma once

#include "AppNode.h"

#include <functional>
#include <optional>

namespace vxrun {

// The hooks are called on the event thread.
class Producer : public AppNode {
public:
    static constexpr bool kHasPool = true;
    // Each frame is kept until the next one is known.
    static uint64_t keeps(const vexa::VXNodeDescriptor&) { return 1; }

    using AppNode::AppNode;
    vexa::VXError countAvailablePendingInputWorks(unsigned long maxCount,
                                                  unsigned long* actualCount,
                                                  bool* hasEOS) override;
    vexa::VXError getPendingInputWorks(unsigned long requestedCount, SharedWorks* works) override;

protected:
    // Gives the next frame that can be had of what was fed, if there is one; whether there was. A source
    // calls it in open(), too: it has to have one.
    virtual bool next() { return false; }
    // Takes input `number`, from 0; may give one frame. False: next() is to be called for what came before
    // this input, which is then fed again.
    virtual bool feed(const vexa::VXSharedWork&, uint64_t) { return true; }
    // No further input comes.
    virtual void feedEnd() {}
    // The last frame is about to be sent, or, with `nothing`, there was none.
    virtual void finish(bool nothing);

    // Gives a frame of `format`; `fill` writes its contents into a buffer as soon as one is free.
    using Fill = std::function<void(const std::shared_ptr<vexa::VXBuffer>&)>;
    void give(const PictureFormat& format, vexa::VXFrameInfo frame, Fill fill);
    // The same for a picture of the format that `stream` tells, and for an access unit.
    void givePicture(std::shared_ptr<AVFrame> picture, std::shared_ptr<StreamInfo> stream,
                     uint64_t timestamp);
    void giveUnit(Libav<AVPacket> unit, std::shared_ptr<BitstreamInfo> stream);

private:
    struct Output {
        vexa::VXFrameInfo frame;
        Fill fill;
    };

    void process(const SharedWorks& inputs) final;
    void write();
    void advance();
    void sendWritten();

    const std::shared_ptr<vexa::VXSharedWork> mStep =
        std::make_shared<vexa::VXSharedWork>(vexa::VXAuxInfo(), vexa::VXFrameInfo());
    // [event thread]
    SharedWorks mInputs;                      // not taken yet
    uint64_t mTaken = 0;                      // inputs
    std::shared_ptr<Pool> mPool;              // of mNext
    int mBlock = 1 << 16;                     // bytes of its blocks, for access units
    std::optional<Output> mNext;              // to be written
    std::shared_ptr<vexa::VXBuffer> mBuffer;  // for it
    std::unique_ptr<vexa::VXWork> mWritten;   // the one before, to be sent
    bool mEnding = inputPortInfos().empty();  // all inputs are taken
    bool mEnded = false;                      // no more frames come
};

}  // namespace vxrun
