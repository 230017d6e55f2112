// transform/fence: holds every picture until its fence has fired.
#include "AppNode.h"
#include "Failure.h"

#include <chrono>

namespace vxrun {
namespace {

// A fence has no handle to wait on beside events, so the one in front is looked at every millisecond
// while it has not fired.
class Fence final : public AppNode {
public:
    explicit Fence(NodeArguments arguments) : AppNode(std::move(arguments)) {}
    ~Fence() override { teardown(); }

private:
    using Clock = std::chrono::steady_clock;

    void open() override {
        constexpr uint64_t kLongest = 3600000;
        mLimit = std::chrono::milliseconds(numberConfig("timeout_ms", 1, kLongest, 5000));
    }

    void process(const SharedWorks& inputs, Works*) override {
        if (mHeld.empty()) mSince = Clock::now();
        mHeld.insert(mHeld.end(), inputs.begin(), inputs.end());
        if (!mAsleep) wake();
    }

    void wake() override {
        mAsleep = false;
        while (!mHeld.empty() && hasFired(*bufferOf(*mHeld.front()))) {
            Works works;
            works.push_back(passOn(*mHeld.front()));
            countFrame(mHeld.front()->frameInfo());
            mHeld.pop_front();
            returnWorks(std::move(works));
            mSince = Clock::now();
        }
        if (mHeld.empty()) return;
        if (Clock::now() - mSince > mLimit) fail();
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
        throw Failure("frame " + std::to_string(record().frames) +
                      ": the fence of its picture has not fired");
    }

    std::chrono::milliseconds mLimit{0};  // for one fence
    // [event thread]
    SharedWorks mHeld;
    Clock::time_point mSince;  // when the first of them came to the front
    bool mAsleep = false;      // wake() will be called
};

}  // namespace

extern const NodeType kFence = {"transform/fence",
                                "holds every picture until its fence has fired",
                                1,
                                1,
                                {{"timeout_ms", false, "how long a fence may take, default 5000"}},
                                makeNode<Fence>};

}  // namespace vxrun
