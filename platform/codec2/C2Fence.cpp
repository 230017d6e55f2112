#include <C2Buffer.h>
#include <C2FenceSource.h>
#include <vexa_testing/Faults.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>

class C2Fence::Impl {
public:
    c2_status_t wait(c2_nsecs_t timeoutNs) {
        using Clock = std::chrono::steady_clock;
        const Clock::time_point now = Clock::now();
        const auto longest = Clock::time_point::max() - now;  // a time-out may exceed it
        std::unique_lock<std::mutex> lock(mLock);
        mChanged.wait_until(
            lock, now + std::min<Clock::duration>(longest, std::chrono::nanoseconds(timeoutNs)),
            [&] { return mState != State::Unfired; });
        if (mState == State::Unfired) return C2_TIMED_OUT;
        return mState == State::Fired ? C2_OK : C2_BAD_STATE;
    }
    bool valid() const { return state() != State::Abandoned; }
    bool ready() const { return state() == State::Fired; }

    void fire() { leaveUnfired(State::Fired); }
    void abandon() { leaveUnfired(State::Abandoned); }

private:
    enum class State { Unfired, Fired, Abandoned };

    State state() const {
        std::lock_guard<std::mutex> lock(mLock);
        return mState;
    }
    // The first of fire() and abandon() counts.
    void leaveUnfired(State state) {
        std::lock_guard<std::mutex> lock(mLock);
        if (mState == State::Unfired) mState = state;
        mChanged.notify_all();
    }

    mutable std::mutex mLock;
    std::condition_variable mChanged;
    State mState = State::Unfired;
};

C2Fence::C2Fence(std::shared_ptr<Impl> impl) : mImpl(std::move(impl)) {}

c2_status_t C2Fence::wait(c2_nsecs_t timeoutNs) {
    return mImpl ? mImpl->wait(timeoutNs) : C2_OK;
}
bool C2Fence::valid() const {
    return !mImpl || mImpl->valid();
}
bool C2Fence::ready() const {
    return !mImpl || mImpl->ready();
}
int C2Fence::fd() const {
    const int injected = vexa_testing::injectedError(vexa_testing::Call::FenceFd);
    return injected != 0 ? injected : -1;
}
bool C2Fence::isHW() const {
    return false;
}

namespace vexa_host {

FenceSource::FenceSource() : mImpl(std::make_shared<C2Fence::Impl>()) {}
C2Fence FenceSource::fence() const {
    return C2Fence(mImpl);
}
void FenceSource::fire() {
    mImpl->fire();
}
void FenceSource::abandon() {
    mImpl->abandon();
}

}  // namespace vexa_host
