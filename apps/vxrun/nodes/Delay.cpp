// transform/delay: holds some frames back, as a decoder does, and may spend time on each.
#include "Vxkit.h"

#include <vxkit/Node.h>

#include <algorithm>

namespace vxrun {
namespace {

const NumberKey kFrames{"frames", 0, 10000, 0, "frames held back, default 0"};
const NumberKey kMs{"ms", 0, 3600000, 0, "milliseconds spent on each frame, default 0"};

class Delay : public Node {
public:
    static uint64_t leastFramesHeld(const vexa::VXNodeDescriptor& node) {
        return kFrames.valueOf(kFrames.textIn(node));
    }

    using Node::Node;

private:
    void open() override {
        mFrames = config(kFrames);
        mTime = static_cast<unsigned>(config(kMs));
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

const Registered<Delay> kType("transform/delay", "holds frames back, for tests of flow control", 1,
                              1, {&kFrames, &kMs});

}  // namespace
}  // namespace vxrun
