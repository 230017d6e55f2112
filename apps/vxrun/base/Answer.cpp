#include "Answer.h"

#include "Text.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>

namespace vxrun {

static bool isInterrupted() {
    sigset_t pending;
    sigpending(&pending);
    return sigismember(&pending, SIGINT) == 1 || sigismember(&pending, SIGTERM) == 1;
}

std::string answerOf(const std::function<std::string()>& ask, std::chrono::seconds limit,
                     int* status) {
    using Clock = std::chrono::steady_clock;
    constexpr int kStep = 200;  // milliseconds
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) throw Failure("a pipe: " + errnoText(errno));
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(1);
        int code = 0;
        try {
            dprintf(ends[1], "%s", ask().c_str());
        } catch (...) {
            code = 1;
        }
        _exit(code);
    }
    close(ends[1]);
    const auto deadline = Clock::now() + limit;
    std::string answer;
    bool isOver = child < 0;
    while (!isOver && Clock::now() < deadline && !isInterrupted()) {
        char part[4096];
        pollfd end = {ends[0], POLLIN, 0};
        if (poll(&end, 1, kStep) != 1) continue;
        const ssize_t size = read(ends[0], part, sizeof part);
        isOver = size <= 0;
        if (!isOver) answer.append(part, static_cast<size_t>(size));
    }
    close(ends[0]);
    if (child > 0 && !isOver) kill(child, SIGKILL);  // no answer in time
    if (child < 0 || waitpid(child, status, 0) < 0) {
        throw Failure("a process: " + errnoText(errno));
    }
    return answer;
}

}  // namespace vxrun
