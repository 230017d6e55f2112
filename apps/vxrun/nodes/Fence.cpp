// transform/fence: holds every picture until its fence has fired.
#include "Text.h"

#include <vxkit/Node.h>

#include <chrono>

namespace vxrun {
namespace {

const NumberKey kTimeoutMs{"timeout_ms", 1, 3600000, 5000,
                           "milliseconds that a fence may take, default 5000"};

// A fence has no handle to wait on beside events, so the one in front is polled every millisecond
// while it has not fired.
class Fence : public Node {
public:
    using Node::Node;

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
        if (Clock::now() - mSince > std::chrono::milliseconds(config(kTimeoutMs))) fail();
        mAsleep = true;
        wakeUp(1);
    }

    // Never waits: for a buffer whose fence is not valid, because it has none or because it never
    // will fire, the answer comes at once.
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

const Registered<Fence> kType("transform/fence", "holds every picture until its fence has fired", 1,
                              1, {&kTimeoutMs});

}  // namespace
}  // namespace vxrun
