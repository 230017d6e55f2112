#include "ProcessCopy.h"

#include "Console.h"
#include "Text.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

namespace vxrun {
namespace {

// Passes on what is ready in the pipe `from`. False at its end, or when there is nothing.
bool passOn(int from, Outlet* to, std::string* log) {
    constexpr size_t kMost = 1 << 20;
    constexpr std::chrono::seconds kPatience(3);  // as Console's
    char piece[16 << 10];
    const ssize_t size = read(from, piece, sizeof piece);
    if (size <= 0) return false;
    const std::string text(piece, static_cast<size_t>(size));
    if (to->isOpen()) to->write(text, kPatience);
    *log += text;
    if (log->size() > 2 * kMost) log->erase(0, log->size() - kMost);
    return true;
}

}  // namespace

std::optional<CopyEnd> goOnInCopy(const ProcessSignals& signals) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) throw Failure("vxrun: a pipe: " + errnoText(errno));
    const pid_t parent = getpid(), copy = fork();
    if (copy < 0) throw Failure("vxrun: a process: " + errnoText(errno));
    if (copy == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(1);
        setpgid(0, 0);  // what a terminal sends is passed on, once
        pthread_sigmask(SIG_SETMASK, &signals.before, nullptr);
        dup2(ends[1], STDERR_FILENO);
        for (const int end : ends) close(end);
        return {};
    }
    close(ends[1]);
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    sigset_t waited = signals.waited;
    sigaddset(&waited, SIGUSR1);
    const int arrived = signalfd(-1, &waited, SFD_CLOEXEC | SFD_NONBLOCK);
    Outlet out(STDERR_FILENO);
    CopyEnd end = {};
    pollfd sources[] = {{ends[0], POLLIN, 0}, {arrived, POLLIN, 0}};
    while (waitpid(copy, &end.status, WNOHANG) != copy) {
        poll(sources, 2, 1000);
        if (sources[0].revents != 0 && !passOn(ends[0], &out, &end.log)) sources[0].fd = -1;
        signalfd_siginfo signal;
        while (read(arrived, &signal, sizeof signal) == sizeof signal) {
            const int number = static_cast<int>(signal.ssi_signo);
            if (number != SIGCHLD) kill(copy, number);
        }
    }
    while (passOn(ends[0], &out, &end.log)) {
    }
    for (const int file : {ends[0], arrived}) close(file);
    return end;
}

}  // namespace vxrun
