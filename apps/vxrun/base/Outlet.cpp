#include "Outlet.h"

#include "Text.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

namespace vxrun {

Outlet::Outlet(int fd) : mFile(-1) {
    struct stat status {};
    if (fstat(fd, &status) != 0) return;
    mIsSocket = S_ISSOCK(status.st_mode);
    // O_NONBLOCK belongs to the open file, which other processes share: pipes and terminals are
    // reopened.
    if (S_ISFIFO(status.st_mode) || S_ISCHR(status.st_mode)) {
        mFile = open(concat("/proc/self/fd/", fd).c_str(),
                     O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    }
    if (mFile < 0) mFile = fcntl(fd, F_DUPFD_CLOEXEC, 3);
}

Outlet::~Outlet() {
    if (mFile >= 0) close(mFile);
}

int Outlet::write(const std::string& text, std::chrono::milliseconds patience) {
    if (mIsStuck) patience = std::chrono::milliseconds(0);
    // What comes after a text that has begun waits for it: nothing is put into the middle of a
    // line.
    if (const int error = writeRest(patience)) return error;
    mRest = text;
    return writeRest(patience);
}

int Outlet::writeRest(std::chrono::milliseconds patience) {
    using Clock = std::chrono::steady_clock;
    const bool forever = patience == kForever;
    const auto end = Clock::now() + (forever ? std::chrono::milliseconds(0) : patience);
    while (!mRest.empty()) {
        const ssize_t written =
            mIsSocket ? send(mFile, mRest.data(), mRest.size(), MSG_DONTWAIT | MSG_NOSIGNAL)
                      : ::write(mFile, mRest.data(), mRest.size());
        if (written >= 0) {
            mRest.erase(0, static_cast<size_t>(written));
            continue;
        }
        if (errno == EINTR) continue;
        if (errno != EAGAIN) {
            mRest.clear();
            return errno;
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
        pollfd room = {mFile, POLLOUT, 0};
        if (forever || left > 0) {
            poll(&room, 1, forever ? -1 : static_cast<int>(std::min<int64_t>(left, INT_MAX)));
            continue;
        }
        mIsStuck = true;
        return EAGAIN;
    }
    mIsStuck = false;
    return 0;
}

}  // namespace vxrun
