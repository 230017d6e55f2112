// transform/fence: holds every picture until its fence has fired.
#include "AppNode.h"
#include "Text.h"

#include <chrono>

namespace vxrun {
namespace {

// A fence has no handle to wait on beside events, so the one in front is looked at every millisecond
// while it has not fired.
class Fence : public AppNode {
public:
    using AppNode::AppNode;

private:
    using Clock = std::chrono::steady_clock;

    void process(const SharedWorks& inputs) override {
        if (mHeld.empty()) mSince = Clock::now();
        mHeld.insert(mHeld.end(), inputs.begin(), inputs.end());
        if (!mAsleep) wake();
    }

    void wake() override {
        mAsleep = false;
        while (!mHeld.empty() && hasFired(*bufferOf(*mHeld.front()))) {
            send(shareOf(*mHeld.front()));
            mHeld.pop_front();
            mSince = Clock::now();
        }
        if (mHeld.empty()) return;
        if (Clock::now() - mSince > std::chrono::milliseconds(numberConfig("timeout_ms"))) fail();
        mAsleep = true;
        wakeUp(1);
    }

    // Never waits: a buffer whose fence is not valid has none, or one that never will fire, and says
    // which at once.
    bool hasFired(const vexa::VXBuffer& buffer) {
        if (buffer.isFenceValid()) return buffer.isFenceReady();
        if (buffer.waitForFenceSignal() != vexa::VX_OK) fail();
        return true;
    }

    [[noreturn]] void fail() {
        throw Failure(
            concat("frame ", record().frames, ": the fence of its picture has not fired"));
    }

    // [event thread]
    SharedWorks mHeld;
    Clock::time_point mSince;  // when the first of them came to the front
    bool mAsleep = false;      // wake() will be called
};

const bool kAdded = addNodeType<Fence>(
    "transform/fence", "holds every picture until its fence has fired", 1, 1,
    {{"timeout_ms", number(1, 3600000, 5000), "how long a fence may take, default 5000"}});

}  // namespace
}  // namespace vxrun
