// Poller: waits for a file descriptor on a thread of its own, so that no event thread has to.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include <poll.h>

namespace vxkit {

// Life     ends its thread with itself; until then the descriptors it was given stay open.
// Threads  watch(): one at a time.
// Owns     the thread.
class Poller {
public:
    // `onReady` is called on the thread of the poller.
    explicit Poller(std::function<void()> onReady);
    ~Poller();
    Poller(const Poller&) = delete;
    Poller& operator=(const Poller&) = delete;

    // Calls `onReady` once, when one of `files` is ready as poll(2) has it, or at once when they
    // cannot be polled. In place of those of the last call, if that has not come yet.
    void watch(std::vector<pollfd> files);

private:
    void run();

    const std::function<void()> mOnReady;
    const int mWake;  // an eventfd: something of the following has changed
    std::mutex mLock;
    std::vector<pollfd> mFiles;  // guarded by mLock; empty: nothing to wait for
    uint64_t mWatches = 0;       // calls of watch(); guarded by mLock
    bool mIsEnding = false;      // guarded by mLock
    std::thread mThread;
};

}  // namespace vxkit
