#include "SuiteRun.h"

#include "Console.h"
#include "Evidence.h"
#include "Failure.h"
#include "Files.h"
#include "Text.h"

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <list>
#include <thread>

namespace vxrun {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

constexpr std::chrono::seconds kGrace(5);  // for a process to end before it is made to

// ---- Selection --------------------------------------------------------------------------------

// What the options leave open, the variables of GoogleTest's runners say. True when the filter selects
// something, even if none of it is in this shard.
bool selectVectors(const SuiteOptions& options, Suite* suite) {
    filterVectors(suite, options.filter.empty() ? variable("GTEST_FILTER") : options.filter);
    const bool any = !suite->vectors.empty();
    const bool given = !options.shard.empty();
    const std::string totalShards = variable("GTEST_TOTAL_SHARDS");
    if (!given && totalShards.empty()) return any;
    std::istringstream shard(given ? options.shard
                                   : variable("GTEST_SHARD_INDEX") + "/" + totalShards);
    std::string index, total;
    std::getline(shard, index, '/');
    std::getline(shard, total);
    try {
        constexpr uint64_t kMaxShards = 1'000'000;
        const uint64_t shards = parseNumber(total, 1, kMaxShards);
        const uint64_t first = given ? 1 : 0;
        shardVectors(suite, parseNumber(index, first, shards - 1 + first) - first, shards);
    } catch (const Failure& failure) {
        throw badOption(given ? "--shard" : "GTEST_SHARD_INDEX, GTEST_TOTAL_SHARDS",
                        failure.what());
    }
    return any;
}

// "xml:FILE" or "xml:FOLDER/"; other kinds are GoogleTest's own.
std::string junitFile(const Suite& suite) {
    const std::string output = variable("GTEST_OUTPUT");
    if (output.rfind("xml:", 0) != 0) return {};
    return output.substr(4) + (output.back() == '/' ? suite.name + ".xml" : "");
}

// ---- Processes --------------------------------------------------------------------------------

FileHandle memoryFile() {
    FileHandle file(fdopen(memfd_create("vxrun", MFD_CLOEXEC), "r"));
    if (file == nullptr) throw Failure("vxrun: no memory file: " + errnoText(errno));
    return file;
}

// The last bytes of what was written to `file`.
std::string contentOf(std::FILE* file) {
    constexpr off_t kMost = 16 << 10;
    std::string text(kMost, '\0');
    const off_t size = lseek(fileno(file), 0, SEEK_END);
    const ssize_t got =
        pread(fileno(file), text.data(), text.size(), std::max<off_t>(size - kMost, 0));
    text.resize(static_cast<size_t>(std::max<ssize_t>(got, 0)));
    return text;
}

// What stands between the first `start` and the next `end` in `text`.
std::string textAfter(const std::string& start, const std::string& end, const std::string& text) {
    const size_t at = text.find(start);
    if (at == text.npos) return {};
    const size_t from = at + start.size();
    return text.substr(from, text.find(end, from) - from);
}

// Child: the process of one vector. Ended, if need be, when it is destroyed.
class Child {
public:
    // `main` is all that the process does; `signals` are those that it blocks.
    Child(Vector* vector, Clock::duration limit, const sigset_t& signals,
          const std::function<int()>& main)
        : mVector(*vector), mDeadline(mStart + limit) {
        const pid_t parent = getpid();
        mPid = fork();
        if (mPid < 0) throw Failure("vxrun: no process: " + errnoText(errno), "NODE_FAIL_INIT");
        mVector.state = Vector::RUNNING;
        if (mPid > 0) return;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(1);  // it ended before that
        dup2(fileno(mOut.get()), STDOUT_FILENO);
        dup2(fileno(mErr.get()), STDERR_FILENO);
        pthread_sigmask(SIG_SETMASK, &signals, nullptr);
        _exit(main());
    }
    ~Child() {
        if (mPid <= 0) return;
        kill(mPid, SIGKILL);
        waitpid(mPid, nullptr, 0);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    Vector& vector() { return mVector; }
    Clock::time_point deadline() const { return mDeadline; }

    // Sends SIGTERM, the next time SIGKILL.
    void end() {
        mSent = mSent == 0 ? SIGTERM : SIGKILL;
        kill(mPid, mSent);
        mDeadline = Clock::now() + kGrace;
    }

    // True when it is over; the vector then has its result, unless it was to be `abandoned`.
    bool finish(bool negative, bool abandoned) {
        int status = 0;
        if (waitpid(mPid, &status, WNOHANG) != mPid) return false;
        mPid = -1;
        mVector.seconds = Seconds(Clock::now() - mStart).count();
        if (!abandoned) judge(status, negative);
        return true;
    }

private:
    void set(Vector::State state, const std::string& type, const std::string& message) {
        mVector.state = state;
        mVector.type = type;
        mVector.message = message;
    }

    void judge(int status, bool negative) {
        if (mSent != 0) {
            return set(Vector::TIMEOUT, "TIMEOUT",
                       "ended after " + decimal(mVector.seconds, 1) + " s");
        }
        std::string& log = mVector.log = contentOf(mErr.get());
        if (WIFSIGNALED(status)) {
            const int number = WTERMSIG(status);
            return set(Vector::ERROR, concat("SIGNAL_", number),
                       concat("ended by a signal: ", strsignal(number)));
        }
        const std::string word = textAfter("verdict: ", " ", log);
        const std::string message = textAfter("vxrun: ", "\n", log);
        log.erase(std::min(log.rfind("verdict: "), log.size()));
        const int code = WEXITSTATUS(status);
        if (code == exitCode("NOT_SUPPORTED")) return set(Vector::NOT_SUPPORTED, word, message);
        if (code == exitCode("TIMEOUT")) return set(Vector::TIMEOUT, word, message);
        if (code != 0 && code != exitCode("FAIL")) return set(Vector::ERROR, word, message);
        // The pictures decide, where it is known what they have to be: what a decoder calls an error
        // in a stream that has none is no reason to fail.
        const std::string md5 = textAfter("", "\n", contentOf(mOut.get()));
        const bool isRight = mVector.md5.empty() ? code == 0 : md5 == mVector.md5;
        if (isRight != negative) return set(Vector::SUCCESS, "", "");
        if (negative) {
            return set(Vector::FAIL, "UNEXPECTED_PASS", "decoded as if nothing was wrong");
        }
        if (md5.empty()) return set(Vector::FAIL, word, message);
        set(Vector::FAIL, "CRC_MISMATCH",
            concat("expected MD5 ", mVector.md5, ", got ", md5, message.empty() ? "" : "; ",
                   message));
    }

    Vector& mVector;
    const FileHandle mOut = memoryFile();
    const FileHandle mErr = memoryFile();
    const Clock::time_point mStart = Clock::now();
    Clock::time_point mDeadline;  // for the next signal
    pid_t mPid = -1;
    int mSent = 0;  // the last signal
};

// ---- The run ----------------------------------------------------------------------------------

class SuiteRun {
public:
    SuiteRun(const SuiteOptions& options, double timeout,
             const std::function<int(const DecodeOptions&)>& decode, Suite* suite)
        : mOptions(options),
          mLimit(std::chrono::duration_cast<Clock::duration>(Seconds(timeout)) + kGrace),
          mDecode(decode),
          mSuite(*suite) {
        sigemptyset(&mSignals);
        for (const int number : {SIGCHLD, SIGINT, SIGTERM}) sigaddset(&mSignals, number);
        std::signal(SIGCHLD, SIG_DFL);  // whoever ignores it would not get the exit codes
        pthread_sigmask(SIG_BLOCK, &mSignals, &mOldSignals);
    }

    // The signal that ended it; else 0.
    int run() {
        const size_t processors = std::max(std::thread::hardware_concurrency(), 1u);
        const size_t jobs = mOptions.jobs == 0 ? processors : mOptions.jobs;
        for (size_t next = 0;;) {
            while (mSignal == 0 && mChildren.size() < jobs && next < mSuite.vectors.size()) {
                start(&mSuite.vectors[next++]);
            }
            writeReports(mOptions.reports, mSuite);
            if (mChildren.empty()) return mSignal;
            wait();
        }
    }

private:
    void start(Vector* vector) {
        if (mSuite.testMethod != "md5") {
            vector->state = Vector::NOT_SUPPORTED;
            vector->message = "test method " + mSuite.testMethod;
            return report(*vector);
        }
        DecodeOptions options = {inputOf(*vector), "", true, vector->format, mSuite.codec};
        if (!mOptions.output.empty()) {
            options.output = fs::path(mOptions.output) / mSuite.name / (vector->name + ".out");
            makeFolder("--output", fs::path(options.output).parent_path());
        }
        mChildren.emplace_back(vector, mLimit, mOldSignals, [&] { return mDecode(options); });
    }

    std::string inputOf(const Vector& vector) const {
        const fs::path folder = fs::path(mOptions.resources) / mSuite.name;
        const bool hasFolder = vector.inputFile.find('/') != std::string::npos;
        const fs::path file = folder / vector.inputFile;
        return hasFolder && fs::exists(file) ? file : folder / vector.name / vector.inputFile;
    }

    // Until a process has ended.
    void wait() {
        for (const size_t running = mChildren.size(); mChildren.size() == running;) {
            const timespec step = {0, 200'000'000};
            const int number = sigtimedwait(&mSignals, nullptr, &step);
            if (number == SIGINT || number == SIGTERM) {
                mSignal = number;
                console::line("vxrun: ending what runs; once more kills it");
            }
            mChildren.remove_if([&](Child& child) {
                if (!child.finish(mSuite.negative, mSignal != 0)) {
                    if (number == mSignal || Clock::now() >= child.deadline()) child.end();
                    return false;
                }
                report(child.vector());
                return true;
            });
        }
    }

    void report(const Vector& vector) {
        console::line(concat("[", ++mReported, "/", mSuite.vectors.size(), "] ", vector.name, ": ",
                             stateName(vector.state), " (", decimal(vector.seconds, 1), " s)",
                             vector.message.empty() ? "" : ": ", vector.message));
    }

    const SuiteOptions& mOptions;
    const Clock::duration mLimit;  // for a process
    const std::function<int(const DecodeOptions&)>& mDecode;
    Suite& mSuite;
    std::list<Child> mChildren;  // that run
    size_t mReported = 0;
    int mSignal = 0;  // that ends the run
    sigset_t mSignals;
    sigset_t mOldSignals;
};

// The verdict's word.
std::string verdictOf(const Sums& sums, int signal, bool anySelected) {
    if (signal != 0) return signal == SIGINT ? "SIGINT" : "SIGTERM";
    if (sums.failed + sums.errors > 0) return "FAIL";
    if (sums.passed > 0) return "PASS";
    return anySelected ? "SKIPPED" : "NOTHING_CHECKED";  // that is a mistake in the selection
}

}  // namespace

int runSuite(SuiteOptions options, double timeout,
             const std::function<int(const DecodeOptions&)>& decode) {
    Suite suite = readSuite(options.file);
    const bool anySelected = selectVectors(options, &suite);
    if (options.list) {
        for (const Vector& vector : suite.vectors) std::printf("%s\n", vector.name.c_str());
        return 0;
    }
    if (options.resources.empty()) throw Failure("vxrun: no --resources given", "BAD_OPTION");
    if (options.reports.junit.empty()) options.reports.junit = junitFile(suite);
    constexpr char kStatus[] = "GTEST_SHARD_STATUS_FILE";
    if (!variable(kStatus).empty()) writeTextFile(kStatus, variable(kStatus), "");
    const int signal = SuiteRun(options, timeout, decode, &suite).run();
    const Sums sums = suite.sums();
    const std::string word = verdictOf(sums, signal, anySelected);
    std::printf("%sverdict: %s passed=%zu failed=%zu errors=%zu skipped=%zu\n",
                profileTable(suite).c_str(), word.c_str(), sums.passed, sums.failed, sums.errors,
                sums.skipped());
    std::fflush(stdout);
    return exitCode(word);
}

}  // namespace vxrun
