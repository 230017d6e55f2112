#include "RunProcess.h"

#include "Console.h"
#include "Crash.h"
#include "Measured.h"
#include "Text.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <iterator>
#include <limits>
#include <new>

namespace vxrun {

// What the process hands back. Plain memory: it may end at any moment.
struct RunProcess::Shared {
    volatile bool isComplete = false;  // set last
    Verdict verdict = Verdict::UnknownError;
    char md5[64] = "";                   // of all pictures; empty when the stream did not end well
    char message[2048] = "";             // the first error line, or what is known about a crash
    char kind[64] = "", shape[64] = "";  // of the FailureSignature
    RunFigures figures;
    struct NodeFigure {
        char name[64];  // "node.figure"
        double value;
    };
    NodeFigure nodeFigures[256] = {};
    size_t nodeFigureCount = 0;
};

// An empty file in memory; null, with errno set, where no descriptor is left for it.
static FileHandle memoryFile() {
    const int file = memfd_create("vxrun", MFD_CLOEXEC);
    return FileHandle(file < 0 ? nullptr : fdopen(file, "r+"));
}

// The last bytes of such a file, `most` at most.
static std::string endOf(const FileHandle& file, off_t most) {
    const off_t size = lseek(fileno(file.get()), 0, SEEK_END);
    std::string text(static_cast<size_t>(std::min(size, most)), '\0');
    const ssize_t count =
        pread(fileno(file.get()), text.data(), text.size(), std::max<off_t>(size - most, 0));
    text.resize(static_cast<size_t>(std::max<ssize_t>(count, 0)));
    return text;
}

std::string FailureSignature::text() const {
    return concat(type, kind.empty() ? "" : ", " + kind, shape.empty() ? "" : " " + shape);
}

const NodeRecord* failingNode(const Evidence& evidence) {
    // One that knows samples knows more.
    const NodeRecord* found = nullptr;
    for (const NodeRecord* node : evidence.records()) {
        const auto mismatch = node->mismatch();
        if (!mismatch) continue;
        if (found == nullptr || mismatch->kind == "samples") found = node;
        if (mismatch->kind == "samples") break;
    }
    return found;
}

FailureSignature signatureOf(const Evidence& evidence) {
    FailureSignature signature{verdictName(evidence.verdict()), "", ""};
    if (!isFailedTest(evidence.verdict())) return signature;
    if (const NodeRecord* const node = failingNode(evidence)) {
        signature.kind = node->mismatch()->kind;
        signature.shape = node->mismatch()->shape;
    }
    return signature;
}

// What this process, and the programs that it ran, have used so far; no frames.
static RunFigures usage() {
    RunFigures figures;
    figures.seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
    const ProcessUse use = processUse();
    figures.cpuSeconds = use.seconds + use.commandsSeconds;
    figures.peakBytes = static_cast<double>(std::max(use.peak, use.commandsPeak));
    figures.preemptions = static_cast<double>(use.preemptions);
    return figures;
}

ProcessSignals::ProcessSignals() {
    sigemptyset(&waited);
    for (const int number : {SIGCHLD, SIGINT, SIGTERM}) sigaddset(&waited, number);
    std::signal(SIGCHLD, SIG_DFL);  // a process that ignores it gets no exit codes
    pthread_sigmask(SIG_BLOCK, &waited, &before);
}

void ProcessSignals::check() const {
    sigset_t ending = waited;
    sigdelset(&ending, SIGCHLD);
    const timespec none = {0, 0};
    const int number = sigtimedwait(&ending, nullptr, &none);
    if (number < 0) return;
    const Verdict verdict = number == SIGINT ? Verdict::Interrupted : Verdict::Terminated;
    throw Failure(concat("ended by ", verdictName(verdict)), verdict);
}

RunProcess::RunProcess() : mLog(memoryFile()), mDescription(memoryFile()), mShared(nullptr) {
    void* const memory =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory != MAP_FAILED) mShared = new (memory) Shared();
}

RunProcess::~RunProcess() {
    if (mShared != nullptr) munmap(mShared, sizeof(Shared));
}

int RunProcess::start(const GraphMaker& makeGraph, const RunOptions& options,
                      const ProcessSignals& signals, const Describe& describe) {
    // A descriptor is left over, for the reports.
    if (mLog == nullptr || mDescription == nullptr || mShared == nullptr ||
        memoryFile() == nullptr) {
        return errno;
    }
    const pid_t parent = getpid();
    mPid = fork();
    if (mPid < 0) return errno;
    if (mPid > 0) return 0;
    prctl(PR_SET_PDEATHSIG, SIGKILL);   // however the program ends, this ends with it
    if (getppid() != parent) _exit(1);  // it ended before that
    pthread_sigmask(SIG_SETMASK, &signals.before, nullptr);
    runChild(makeGraph, options, describe);
}

void RunProcess::runChild(const GraphMaker& makeGraph, const RunOptions& options,
                          const Describe& describe) {
    constexpr int kDescription = STDERR_FILENO + 1;
    dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDOUT_FILENO);  // the MD5 goes into the result
    dup2(fileno(mLog.get()), STDERR_FILENO);
    console::configure(false, "never");
    dup2(fileno(mDescription.get()), kDescription);
    fcntl(kDescription, F_SETFD, FD_CLOEXEC);
    close_range(kDescription + 1, ~0u, 0);  // the logs of the other processes, among others
    Evidence evidence;
    evidence.expectNoCheck();
    reportCrashes(
        evidence,
        [](const char* text, void* to) {
            std::strncpy(static_cast<char*>(to), text, sizeof Shared::message - 1);
        },
        mShared->message);
    RunFigures start;
    const auto handBack = [&](const Evidence& shown) {
        const auto copy = [](const std::string& text, auto& to) {
            to[text.copy(to, sizeof to - 1)] = '\0';
        };
        std::string message = printable(console::firstError());
        if (message.rfind("vxrun: ", 0) == 0) message.erase(0, message.find(' ') + 1);
        RunFigures& figures = mShared->figures = usage();
        figures.seconds -= start.seconds;
        figures.cpuSeconds -= start.cpuSeconds;
        figures.preemptions -= start.preemptions;
        figures.frames = shown.totals().frames;
        mShared->verdict = shown.verdict();
        copy(shown.streamMd5(), mShared->md5);
        copy(message, mShared->message);
        const FailureSignature signature = signatureOf(shown);
        copy(signature.kind, mShared->kind);
        copy(signature.shape, mShared->shape);
        if (describe) dprintf(kDescription, "%s", describe(shown).c_str());
        for (const auto& [name, value] : shown.figures()) {
            if (mShared->nodeFigureCount == std::size(mShared->nodeFigures)) break;
            Shared::NodeFigure& figure = mShared->nodeFigures[mShared->nodeFigureCount++];
            copy(name, figure.name);
            figure.value = value;
        }
        mShared->isComplete = true;
        return exitCode(mShared->verdict);
    };
    _exit(concluded(&evidence, handBack, [&] {
        vexa::VXGraphInfo graph = makeGraph();
        start = usage();
        runGraph(std::move(graph), options, &evidence, handBack);
        return handBack(evidence);
    }));
}

void RunProcess::kill(int signal) const {
    ::kill(mPid, signal);
}

bool RunProcess::hasEnded() {
    return waitpid(mPid, &mStatus, WNOHANG) == mPid;
}

int RunProcess::wait(const ProcessSignals& signals) {
    int ending = 0;
    while (!hasEnded()) {
        const int number = sigwaitinfo(&signals.waited, nullptr);
        if (number != SIGINT && number != SIGTERM) continue;
        kill(ending == 0 ? SIGTERM : SIGKILL);
        ending = number;
    }
    return ending;
}

RunResult RunProcess::result() const {
    RunResult result;
    result.type = verdictName(Verdict::UnknownError);
    if (WIFSIGNALED(mStatus)) {
        result.type = concat("SIGNAL_", WTERMSIG(mStatus));
        result.message =
            concat("ended by a signal: ",
                   *mShared->message != '\0' ? mShared->message : strsignal(WTERMSIG(mStatus)));
    } else if (!mShared->isComplete) {
        result.message = concat("ended without a verdict, with exit code ", WEXITSTATUS(mStatus));
    } else {
        result = {mShared->verdict,
                  verdictName(mShared->verdict),
                  mShared->message,
                  mShared->md5,
                  mShared->figures,
                  {},
                  {"", mShared->kind, mShared->shape}};
        for (size_t i = 0; i < mShared->nodeFigureCount; ++i) {
            result.nodeFigures[mShared->nodeFigures[i].name] = mShared->nodeFigures[i].value;
        }
    }
    result.signature.type = result.type;
    return result;
}

std::string RunProcess::log() const {
    constexpr off_t kMost = 16 << 10;
    return endOf(mLog, kMost);
}

std::string RunProcess::description() const {
    return endOf(mDescription, std::numeric_limits<off_t>::max());
}

}  // namespace vxrun
