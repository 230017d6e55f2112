#include "VectorProcess.h"

#include "Console.h"
#include "Crash.h"
#include "Text.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

namespace vxrun {

// What the process hands back. Plain memory: it may end at any moment.
struct VectorProcess::Result {
    volatile bool isComplete = false;  // set last
    Verdict verdict = Verdict::UnknownError;
    char md5[64] = "";        // of all pictures; empty when the stream did not end well
    char message[2048] = "";  // the first error line, or what is known about a crash
};

// An empty file in memory; null, with errno set, where no descriptor is left for it.
static FileHandle memoryFile() {
    const int file = memfd_create("log", MFD_CLOEXEC);
    return FileHandle(file < 0 ? nullptr : fdopen(file, "r"));
}

// The last bytes of what was written to `file`.
static std::string endOf(std::FILE* file) {
    constexpr off_t kMost = 16 << 10;
    const off_t size = lseek(fileno(file), 0, SEEK_END);
    std::string text(static_cast<size_t>(std::min(size, kMost)), '\0');
    const ssize_t count =
        pread(fileno(file), text.data(), text.size(), std::max<off_t>(size - kMost, 0));
    text.resize(static_cast<size_t>(std::max<ssize_t>(count, 0)));
    return text;
}

VectorProcess::VectorProcess(TestVector* vector)
    : mVector(*vector), mLog(memoryFile()), mResult(nullptr) {
    void* const memory =
        mmap(nullptr, sizeof(Result), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory != MAP_FAILED) mResult = new (memory) Result();
}

VectorProcess::~VectorProcess() {
    if (mResult != nullptr) munmap(mResult, sizeof(Result));
}

int VectorProcess::start(const TestedDecoder& decoder, const DecodeOptions& decode,
                         const VectorOptions& options, const sigset_t& signals) {
    // A descriptor is left over, for the reports.
    if (mLog == nullptr || mResult == nullptr || memoryFile() == nullptr) return errno;
    const pid_t parent = getpid();
    mPid = fork();
    if (mPid < 0) return errno;
    if (mPid > 0) return 0;
    prctl(PR_SET_PDEATHSIG, SIGKILL);   // however the suite ends, this ends with it
    if (getppid() != parent) _exit(1);  // it ended before that
    pthread_sigmask(SIG_SETMASK, &signals, nullptr);
    runChild(decoder, decode, options);
}

void VectorProcess::runChild(const TestedDecoder& decoder, const DecodeOptions& decode,
                             const VectorOptions& options) {
    dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDOUT_FILENO);  // the MD5 goes into the result
    dup2(fileno(mLog.get()), STDERR_FILENO);
    console::configure(false, "never");
    close_range(STDERR_FILENO + 1, ~0u, 0);  // the logs of the other processes, among others
    Evidence evidence;
    evidence.expectNoCheck();
    reportCrashes(
        evidence,
        [](const char* text, void* to) {
            std::strncpy(static_cast<char*>(to), text, sizeof Result::message - 1);
        },
        mResult->message);
    const auto handBack = [&](const Evidence& shown) {
        const auto copy = [](const std::string& text, auto& to) {
            to[text.copy(to, sizeof to - 1)] = '\0';
        };
        std::string message = printable(console::firstError());
        if (message.rfind("vxrun: ", 0) == 0) message.erase(0, message.find(' ') + 1);
        mResult->verdict = shown.verdict();
        copy(shown.streamMd5(), mResult->md5);
        copy(message, mResult->message);
        mResult->isComplete = true;
        return exitCode(mResult->verdict);
    };
    _exit(concluded(&evidence, handBack, [&] {
        decoder.setEnvironment();
        vexa::VXGraphInfo graph = decoder.graphFor(decode);
        options.edits.applyTo(&graph);
        runGraph(std::move(graph), options.run, &evidence, handBack);
        return handBack(evidence);
    }));
}

void VectorProcess::kill(int signal) {
    mSent = signal;
    ::kill(mPid, signal);
}

bool VectorProcess::hasEnded(int* status) const {
    return waitpid(mPid, status, WNOHANG) == mPid;
}

void VectorProcess::judge(int status, bool negative) {
    mVector.log = endOf(mLog.get());
    const auto set = [this](TestVector::State state, const std::string& type,
                            const std::string& message) {
        mVector.state = state;
        mVector.type = type;
        mVector.message = message;
    };
    if (mSent != 0) {
        return set(TestVector::TIMEOUT, verdictName(Verdict::Timeout),
                   "ended after " + decimal(mVector.seconds, 1) + " s");
    }
    if (WIFSIGNALED(status)) {
        return set(
            TestVector::ERROR, concat("SIGNAL_", WTERMSIG(status)),
            concat("ended by a signal: ",
                   *mResult->message != '\0' ? mResult->message : strsignal(WTERMSIG(status))));
    }
    if (!mResult->isComplete) {
        return set(TestVector::ERROR, verdictName(Verdict::UnknownError),
                   concat("ended without a verdict, with exit code ", WEXITSTATUS(status)));
    }
    const Verdict verdict = mResult->verdict;
    const int code = exitCode(verdict);
    set(TestVector::ERROR, verdictName(verdict), mResult->message);
    if (code == exitCode(Verdict::NotSupported)) {
        mVector.state = TestVector::NOT_SUPPORTED;
    } else if (code == exitCode(Verdict::Timeout)) {
        mVector.state = TestVector::TIMEOUT;
    } else if (code == 0 || isFailedTest(verdict)) {
        judgePictures(negative);
    }
}

// If the expected pictures are known, they decide: what a decoder reports as an error in an intact
// stream is not a failure.
void VectorProcess::judgePictures(bool negative) {
    const std::string md5 = mResult->md5;
    mVector.actualMd5 = md5;
    const bool isRight = mVector.md5.empty() ? exitCode(mResult->verdict) == 0 : md5 == mVector.md5;
    if (isRight != negative) {
        mVector.state = TestVector::SUCCESS;
        mVector.message.clear();
        mVector.log = {};  // of no use, and there may be many
        return;
    }
    mVector.state = TestVector::FAIL;
    if (negative) {
        mVector.type = "UNEXPECTED_PASS";
        mVector.message = "decoded without an error";
    } else if (!md5.empty()) {
        mVector.type = verdictName(Verdict::CrcMismatch);
        mVector.message = concat("expected MD5 ", mVector.md5, ", actual ", md5,
                                 mVector.message.empty() ? "" : "; ", mVector.message);
    }
}

}  // namespace vxrun
