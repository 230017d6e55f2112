// transform/delay: keeps some frames back, as a decoder does, and may take its time for each.
#include "AppNode.h"

#include <algorithm>

namespace vxrun {
namespace {

class Delay final : public AppNode {
public:
    explicit Delay(NodeArguments arguments) : AppNode(std::move(arguments)) {}
    ~Delay() override { teardown(); }

private:
    void open() override {
        constexpr uint64_t kMostFrames = 10000;
        constexpr uint64_t kLongest = 3600000;
        mFrames = numberConfig("frames", 0, kMostFrames, 0);
        mTime = static_cast<unsigned>(numberConfig("ms", 0, kLongest, 0));
        setTotalDelay(std::max<uint64_t>(mFrames, 1));
    }

    void process(const SharedWorks& inputs, Works*) override {
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
        countFrame(mHeld.front()->frameInfo());
        Works works;
        works.push_back(passOn(*mHeld.front()));
        mHeld.pop_front();
        returnWorks(std::move(works));
    }

    uint64_t mFrames = 0;
    unsigned mTime = 0;  // for each frame, in milliseconds
    // [event thread]
    SharedWorks mHeld;
    bool mEnding = false;  // the last frame has come
    bool mBusy = false;    // the clock runs for the first frame held
};

}  // namespace

extern const NodeType kDelay = {
    "transform/delay",
    "keeps frames back, for tests of flow control",
    1,
    1,
    {{"frames", false, "how many are kept back, default 0"},
     {"ms", false, "time taken for each frame, in milliseconds, default 0"}},
    makeNode<Delay>};

}  // namespace vxrun
