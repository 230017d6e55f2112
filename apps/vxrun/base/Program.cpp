#include "Program.h"

#include "Text.h"

#include <fcntl.h>
#include <linux/close_range.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <sstream>

namespace vxrun {
namespace {

// A pipe, closed in programs that are started.
std::array<int, 2> newPipe() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) throw Failure("a pipe: " + errnoText(errno));
    return ends;
}

std::vector<char*> pointersTo(const std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (const std::string& text : texts) pointers.push_back(const_cast<char*>(text.c_str()));
    pointers.push_back(nullptr);
    return pointers;
}

// What the guard and the program need after fork(): only async-signal-safe calls are allowed there.
struct Launch {
    std::vector<char*> command, environment;
    int input, output, errors;
    int started;       // gets the errno number of a program that cannot be started
    int life, status;  // see Program
};

[[noreturn]] void runProgram(const Launch& launch) {
    setpgid(0, 0);
    sigset_t none;
    sigemptyset(&none);
    for (const int number : {SIGPIPE, SIGXFSZ, SIGCHLD}) std::signal(number, SIG_DFL);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    dup2(launch.input, STDIN_FILENO);
    dup2(launch.output, STDOUT_FILENO);
    dup2(launch.errors, STDERR_FILENO);
    close_range(STDERR_FILENO + 1, ~0u, CLOSE_RANGE_CLOEXEC);
    execvpe(launch.command[0], launch.command.data(), launch.environment.data());
    const int error = errno;
    if (write(launch.started, &error, sizeof error) < 0) _exit(126);
    _exit(127);
}

// The guard is a process of its own, so that it outlives this one, however that ends.
[[noreturn]] void runGuard(const Launch& launch) {
    setpgid(0, 0);  // what a terminal sends is not for it
    sigset_t child, none;
    sigemptyset(&none);
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    sigprocmask(SIG_SETMASK, &child, nullptr);
    std::signal(SIGCHLD, [](int) {});
    std::signal(SIGPIPE, SIG_IGN);
    const pid_t program = fork();
    if (program == 0) runProgram(launch);
    if (program > 0) setpgid(program, program);  // here and in the child, whichever runs first
    // Only what it uses: the program's end has to be that of its pipes.
    for (int file = 0; file < 3; ++file) close(file);
    dup2(launch.life, 0);
    dup2(launch.status, 1);
    close_range(2, ~0u, 0);
    int status = 0;
    pollfd life = {0, POLLIN, 0};
    bool hasEnded = false, isOver = program < 0;
    while (!isOver && !(hasEnded = waitpid(program, &status, WNOHANG) == program)) {
        isOver = ppoll(&life, 1, nullptr, &none) > 0;
    }
    if (program > 0) kill(-program, SIGKILL);
    if (!hasEnded && program > 0) waitpid(program, &status, 0);
    if (write(1, &status, sizeof status) < 0) _exit(1);
    _exit(0);
}

}  // namespace

bool Program::exists(const std::string& name) {
    if (name.find('/') != std::string::npos) return access(name.c_str(), X_OK) == 0;
    const char* const path = std::getenv("PATH");
    std::istringstream folders(path != nullptr ? path : "/bin:/usr/bin");  // as execvp(3)
    for (std::string folder; std::getline(folders, folder, ':');) {
        const std::string file = (folder.empty() ? "." : folder) + "/" + name;
        if (access(file.c_str(), X_OK) == 0) return true;
    }
    return false;
}

Program::Program(const Setup& setup) {
    std::vector<std::string> environment = setup.environment;
    for (char** known = environ; *known != nullptr; ++known) environment.emplace_back(*known);
    const std::string input = setup.input.empty() ? "/dev/null" : setup.input;
    const int file = open(input.c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0) throw Failure(input + ": " + errnoText(errno));
    const auto output = newPipe(), errors = newPipe(), started = newPipe(), life = newPipe(),
               status = newPipe();
    const Launch launch = {pointersTo(setup.command),
                           pointersTo(environment),
                           file,
                           output[1],
                           errors[1],
                           started[1],
                           life[0],
                           status[1]};
    mOutput = output[0];
    mErrors = errors[0];
    mLife = life[1];
    mStatus = status[0];
    for (const int end : {mOutput, mErrors, mStatus}) fcntl(end, F_SETFL, O_NONBLOCK);
    mGuard = fork();
    if (mGuard == 0) {
        close(mLife);
        runGuard(launch);
    }
    int error = mGuard < 0 ? errno : 0;
    for (const int end : {file, output[1], errors[1], started[1], life[0], status[1]}) close(end);
    if (mGuard > 0 && read(started[0], &error, sizeof error) < 0) error = errno;
    close(started[0]);
    if (error == 0) return;
    finish();
    throw Failure(setup.command[0] + ": " + errnoText(error));
}

void Program::finish() {
    for (const int end : {mLife, mOutput, mErrors, mStatus}) close(end);
    if (mGuard > 0) waitpid(mGuard, nullptr, 0);
}

std::optional<int> Program::status() {
    int status = 0;
    if (!mEnded && read(mStatus, &status, sizeof status) == sizeof status) mEnded = status;
    return mEnded;
}

std::string endText(int status) {
    if (WIFSIGNALED(status)) return concat("ended by ", strsignal(WTERMSIG(status)));
    return WEXITSTATUS(status) == 0 ? "" : concat("exit code ", WEXITSTATUS(status));
}

}  // namespace vxrun
