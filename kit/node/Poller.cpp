#include <vxkit/Failure.h>
#include <vxkit/Poller.h>
#include <vxkit/Text.h>

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>

namespace vxkit {

Poller::Poller(std::function<void()> onReady)
    : mOnReady(std::move(onReady)), mWake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (mWake < 0) throw Failure("an eventfd: " + errnoText(errno));
    mThread = std::thread([this] { run(); });
}

Poller::~Poller() {
    {
        std::lock_guard<std::mutex> lock(mLock);
        mIsEnding = true;
    }
    eventfd_write(mWake, 1);
    mThread.join();
    close(mWake);
}

void Poller::watch(std::vector<pollfd> files) {
    {
        std::lock_guard<std::mutex> lock(mLock);
        mFiles = std::move(files);
        ++mWatches;
    }
    eventfd_write(mWake, 1);
}

void Poller::run() {
    for (;;) {
        std::vector<pollfd> files;
        uint64_t watches;
        {
            std::lock_guard<std::mutex> lock(mLock);
            if (mIsEnding) return;
            files = mFiles;
            watches = mWatches;
        }
        files.push_back({mWake, POLLIN, 0});
        poll(files.data(), files.size(), -1);
        if (files.back().revents != 0) {
            eventfd_t count;
            eventfd_read(mWake, &count);
            continue;
        }
        {
            std::lock_guard<std::mutex> lock(mLock);
            if (watches != mWatches) continue;
            mFiles.clear();
        }
        mOnReady();
    }
}

}  // namespace vxkit
