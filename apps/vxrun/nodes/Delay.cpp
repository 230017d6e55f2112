// transform/delay: keeps some frames back, as a decoder does, and may take its time for each.
#include "AppNode.h"

#include <algorithm>

namespace vxrun {
namespace {

class Delay : public AppNode {
public:
    static uint64_t keeps(const vexa::VXNodeDescriptor& node) { return numberOf(node, "frames"); }

    using AppNode::AppNode;

private:
    void open() override {
        mFrames = numberConfig("frames");
        mTime = static_cast<unsigned>(numberConfig("ms"));
        setTotalDelay(std::max<uint64_t>(mFrames, 1));
    }

    void process(const SharedWorks& inputs) override {
        for (const auto& input : inputs) {
            mEnding = (input->frameInfo().flags & vexa::VXFrameInfo::FLAG_END_OF_STREAM) != 0;
            mHeld.push_back(input);
        }
        proceed();
    }

    void wake() override {
        mBusy = false;
        sendOne();
        proceed();
    }

    bool canSend() const { return mHeld.size() > (mEnding ? 0 : mFrames); }

    // Sends what is due: at once, or one frame each time the clock has run.
    void proceed() {
        while (mTime == 0 && canSend()) sendOne();
        if (mBusy || !canSend()) return;
        mBusy = true;
        wakeUp(mTime);
    }

    void sendOne() {
        send(shareOf(*mHeld.front()));
        mHeld.pop_front();
    }

    uint64_t mFrames = 0;
    unsigned mTime = 0;  // for each frame, in milliseconds
    // [event thread]
    SharedWorks mHeld;
    bool mEnding = false;  // the last frame has come
    bool mBusy = false;    // the clock runs for the first frame held
};

const bool kAdded = addNodeType<Delay>(
    "transform/delay", "keeps frames back, for tests of flow control", 1, 1,
    {{"frames", number(0, 10000, 0), "how many are kept back, default 0"},
     {"ms", number(0, 3600000, 0), "time taken for each frame, in milliseconds, default 0"}});

}  // namespace
}  // namespace vxrun
