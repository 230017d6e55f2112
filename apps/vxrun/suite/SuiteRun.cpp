#include "Suite.h"

#include "Console.h"
#include "Evidence.h"
#include "Failure.h"
#include "Files.h"
#include "Text.h"

#include <malloc.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <deque>
#include <filesystem>
#include <list>

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
    std::string index = variable("GTEST_SHARD_INDEX"), total = variable("GTEST_TOTAL_SHARDS");
    if (given) {
        const size_t slash = std::min(options.shard.find('/'), options.shard.size() - 1);
        index = options.shard.substr(0, slash);
        total = options.shard.substr(slash + 1);
    } else if (total.empty()) {
        return any;
    }
    try {
        constexpr uint64_t kMaxShards = 1'000'000;
        const uint64_t shards = parseNumber(total, 1, kMaxShards);
        const uint64_t first = given ? 1 : 0;
        std::vector<Vector> part;
        for (uint64_t i = parseNumber(index, first, shards - 1 + first) - first;
             i < suite->vectors.size(); i += shards) {
            part.push_back(std::move(suite->vectors[i]));
        }
        suite->vectors = std::move(part);
    } catch (const Failure& failure) {
        throw badOption(given ? "--shard" : "GTEST_SHARD_INDEX, GTEST_TOTAL_SHARDS",
                        failure.what());
    }
    return any;
}

// ---- Processes --------------------------------------------------------------------------------

// An empty file in memory; null, with errno set, where no descriptor is left for it.
FileHandle memoryFile() {
    const int file = memfd_create("output", MFD_CLOEXEC);
    return FileHandle(file < 0 ? nullptr : fdopen(file, "r"));
}

// The process of one vector.
struct Child {
    // What it says.
    FileHandle out = memoryFile();
    FileHandle err = memoryFile();
    Vector* vector = nullptr;
    pid_t pid = -1;
    Clock::time_point start = Clock::now();
    Clock::time_point deadline;  // for the next signal
    int sent = 0;                // the last signal
    bool isAlone = false;        // no other runs beside it
};

// The last bytes of what was written to `file`.
std::string contentOf(std::FILE* file) {
    constexpr off_t kMost = 16 << 10;
    const off_t size = lseek(fileno(file), 0, SEEK_END);
    std::string text(static_cast<size_t>(std::min(size, kMost)), '\0');
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

// What became of the vector of a process that has ended with `status`.
void judge(const Child& child, int status, bool negative) {
    Vector& vector = *child.vector;
    vector.log = contentOf(child.err.get());
    const std::string md5 = textAfter("", "\n", contentOf(child.out.get()));
    const int code = WEXITSTATUS(status);
    // The pictures decide, where it is known what they have to be: what a decoder calls an error in a
    // stream that has none is no reason to fail.
    const bool isRight = vector.md5.empty() ? code == 0 : md5 == vector.md5;
    vector.type = textAfter("verdict: ", " ", vector.log);
    vector.message = textAfter("vxrun: ", "\n", vector.log);
    vector.log.erase(std::min(vector.log.rfind("verdict: "), vector.log.size()));
    if (child.sent != 0) {
        vector.state = Vector::TIMEOUT;
        vector.type = "TIMEOUT";
        vector.message = "ended after " + decimal(vector.seconds, 1) + " s";
    } else if (WIFSIGNALED(status)) {
        vector.state = Vector::ERROR;
        vector.type = concat("SIGNAL_", WTERMSIG(status));
        vector.message = concat("ended by a signal: ", strsignal(WTERMSIG(status)));
    } else if (code == exitCode("NOT_SUPPORTED")) {
        vector.state = Vector::NOT_SUPPORTED;
    } else if (code == exitCode("TIMEOUT")) {
        vector.state = Vector::TIMEOUT;
    } else if (code != 0 && code != exitCode("FAIL")) {
        vector.state = Vector::ERROR;
    } else if (isRight != negative) {
        vector.state = Vector::SUCCESS;
        vector.message.clear();
        vector.log = {};  // of no use, and there may be many
    } else {
        vector.state = Vector::FAIL;
        if (negative) {
            vector.type = "UNEXPECTED_PASS";
            vector.message = "decoded as if nothing was wrong";
        } else if (!md5.empty()) {
            vector.type = "CRC_MISMATCH";
            vector.message = concat("expected MD5 ", vector.md5, ", got ", md5,
                                    vector.message.empty() ? "" : "; ", vector.message);
        }
    }
}

// Gives back what reading or reporting many vectors took: to start a process takes the longer the more
// memory there is to share with it.
void trimMemory() {
#ifdef __GLIBC__
    malloc_trim(0);
#endif
}

// ---- The run ----------------------------------------------------------------------------------

class SuiteRun {
public:
    SuiteRun(const SuiteOptions& options, const DecodeFunction& decode, Suite* suite)
        : mOptions(options), mDecode(decode), mSuite(*suite) {
        sigemptyset(&mSignals);
        for (const int number : {SIGCHLD, SIGINT, SIGTERM}) sigaddset(&mSignals, number);
        std::signal(SIGCHLD, SIG_DFL);  // whoever ignores it would not get the exit codes
        pthread_sigmask(SIG_BLOCK, &mSignals, &mOldSignals);
    }

    // The signal that ended it; else 0. What it changed since the last mid-run reports is not in them.
    int run() {
        for (Vector& vector : mSuite.vectors) mWaiting.push_back(&vector);
        trimMemory();
        for (;;) {
            while (mSignal == 0 && mChildren.size() < mJobs && !mWaiting.empty() &&
                   start(mWaiting.front())) {
                mWaiting.pop_front();
            }
            if (mChildren.empty()) return mSignal;
            if (mIsChanged && Clock::now() >= mReportDue) reportAll();
            wait();
        }
    }

private:
    // Starts what `vector` needs, which may be nothing. False when there is no room beside what runs.
    bool start(Vector* vector) {
        if (vector->state == Vector::NOT_RUN && mSuite.testMethod != "md5") {
            vector->state = Vector::NOT_SUPPORTED;
            vector->message = "test method " + mSuite.testMethod;
        }
        if (vector->state != Vector::NOT_RUN) {
            report(*vector);
            return true;
        }
        DecodeOptions options = {inputOf(*vector), "", true, vector->format, mSuite.codec};
        if (!mOptions.output.empty()) {
            options.output = fs::path(mOptions.output) / mSuite.name / (vector->name + ".out");
            try {
                makeFolder("--output", fs::path(options.output).parent_path());
            } catch (const Failure& failure) {
                fail(vector, failure.what());
                return true;
            }
        }
        const pid_t parent = getpid();
        std::list<Child> added(1);
        Child& child = added.front();
        child.vector = vector;
        child.isAlone = mJobs == 1;
        child.deadline = child.start + kGrace +
                         std::chrono::duration_cast<Clock::duration>(Seconds(mOptions.timeout));
        // A descriptor is left over, for the reports.
        if (child.out != nullptr && child.err != nullptr && memoryFile() != nullptr) {
            child.pid = fork();
        }
        if (child.pid < 0) {
            const int error = errno;
            added.clear();  // reporting may need its descriptors
            if (mChildren.empty()) {
                fail(vector, "no process: " + errnoText(error));
                return true;
            }
            mIsShort = true;
            mJobs = std::max<size_t>(mChildren.size() / 2, 1);
            return false;
        }
        if (child.pid > 0) {
            vector->state = Vector::ERROR;  // as long as it runs
            vector->type = "DID_NOT_FINISH";
            vector->message = "did not finish";
            mIsChanged = true;
            mChildren.splice(mChildren.end(), added);
            return true;
        }
        prctl(PR_SET_PDEATHSIG, SIGKILL);   // however the suite ends, this ends with it
        if (getppid() != parent) _exit(1);  // it ended before that
        mChildren.clear();                  // the descriptors of the others
        dup2(fileno(child.out.get()), STDOUT_FILENO);
        dup2(fileno(child.err.get()), STDERR_FILENO);
        pthread_sigmask(SIG_SETMASK, &mOldSignals, nullptr);
        _exit(mDecode(options));
    }

    std::string inputOf(const Vector& vector) const {
        const fs::path folder = fs::path(mOptions.resources) / mSuite.name;
        const bool hasFolder = vector.inputFile.find('/') != std::string::npos;
        const fs::path file = folder / vector.inputFile;
        std::error_code ignored;
        return hasFolder && fs::exists(file, ignored) ? file
                                                      : folder / vector.name / vector.inputFile;
    }

    // Until a process has ended, or some time has passed.
    void wait() {
        constexpr std::chrono::nanoseconds kStep = std::chrono::milliseconds(200), kShortest(1);
        const std::chrono::nanoseconds due = mIsChanged ? mReportDue - Clock::now() : kStep;
        const timespec step = {0, std::clamp(due, kShortest, kStep).count()};
        const int number = sigtimedwait(&mSignals, nullptr, &step);
        if (number == SIGINT || number == SIGTERM) {
            mSignal = number;
            console::line("vxrun: ending what runs; once more kills it");
        }
        mChildren.remove_if([&](Child& child) { return hasEnded(&child, number == mSignal); });
    }

    // True when a process has ended; its vector has a result then, unless the run was ended. One that has
    // not is sent SIGTERM, the next time SIGKILL, when its time is over or if it `shallEnd`.
    bool hasEnded(Child* child, bool shallEnd) {
        int status = 0;
        if (waitpid(child->pid, &status, WNOHANG) == child->pid) {
            Vector* const vector = child->vector;
            vector->seconds = Seconds(Clock::now() - child->start).count();
            if (mSignal == 0) judge(*child, status, mSuite.negative);
            if (mSignal == 0 && mIsShort && !child->isAlone && vector->state == Vector::ERROR) {
                // There may have been no room for its threads. Where fewer run, there is.
                vector->state = Vector::NOT_RUN;
                vector->log.clear();
                mWaiting.push_back(vector);
                mJobs = std::max<size_t>(mJobs / 2, 1);
            } else {
                report(*vector);
            }
            return true;
        }
        if (shallEnd || Clock::now() >= child->deadline) {
            child->sent = child->sent == 0 ? SIGTERM : SIGKILL;
            kill(child->pid, child->sent);
            child->deadline = Clock::now() + kGrace;
        }
        return false;
    }

    void fail(Vector* vector, const std::string& text) {
        vector->state = Vector::ERROR;
        vector->type = "NODE_FAIL_INIT";
        vector->message = text;
        report(*vector);
    }

    void report(const Vector& vector) {
        mIsChanged = true;
        console::line(concat("[", ++mReported, "/", mSuite.vectors.size(), "] ", vector.name, ": ",
                             stateName(vector.state), " (", decimal(vector.seconds, 1), " s)",
                             vector.message.empty() ? "" : ": ", vector.message));
    }

    // What cannot be written now may be written at the end. The next reports come so late that they take
    // a small share of the time only, however many vectors there are.
    void reportAll() {
        constexpr int kPause = 20;  // times what they take
        const Clock::time_point start = Clock::now();
        writeReports(mOptions.reports, mSuite);
        trimMemory();
        mIsChanged = false;
        mReportDue = Clock::now() + kPause * (Clock::now() - start);
    }

    const SuiteOptions& mOptions;
    const DecodeFunction& mDecode;
    Suite& mSuite;
    std::deque<Vector*> mWaiting;
    size_t mJobs = mOptions.jobs;  // that run at once, at most
    bool mIsShort = false;         // there was no room for that many
    std::list<Child> mChildren;    // that run
    size_t mReported = 0;
    bool mIsChanged = false;       // since the last reports
    Clock::time_point mReportDue;  // not before that
    int mSignal = 0;               // that ends the run
    sigset_t mSignals;
    sigset_t mOldSignals;
};

// The verdict's word.
std::string verdictOf(const Sums& sums, int signal, bool anySelected) {
    if (signal != 0) return signal == SIGINT ? "SIGINT" : "SIGTERM";
    if (sums.of[Vector::FAIL] + sums.errors() > 0) return "FAIL";
    if (sums.of[Vector::SUCCESS] > 0) return "PASS";
    return anySelected ? "SKIPPED" : "NOTHING_CHECKED";  // that is a mistake in the selection
}

}  // namespace

int runSuite(SuiteOptions options, const DecodeFunction& decode) {
    Suite suite = readSuite(options.file);
    const bool anySelected = selectVectors(options, &suite);
    if (options.list) {
        std::string names;
        for (const Vector& vector : suite.vectors) names += printable(vector.name) + "\n";
        return printResult(names);
    }
    if (options.resources.empty()) throw badOption("--resources", "missing");
    // "xml:FILE" or "xml:FOLDER/"; other kinds are GoogleTest's own.
    const std::string output = variable("GTEST_OUTPUT");
    std::string& junit = options.reports["junit"].file;
    if (junit.empty() && output.rfind("xml:", 0) == 0) {
        junit = output.substr(4) + (output.back() == '/' ? suite.name + ".xml" : "");
    }
    constexpr char kStatus[] = "GTEST_SHARD_STATUS_FILE";
    if (!variable(kStatus).empty()) writeTextFile(kStatus, variable(kStatus), "");
    // They take the place of older ones before anything runs, or can fail to.
    const std::vector<Failure> failures = writeReports(options.reports, suite);
    if (!failures.empty()) throw Failure(failures.front());
    if (!options.output.empty()) makeFolder("--output", fs::path(options.output) / suite.name);
    const int signal = SuiteRun(options, decode, &suite).run();
    const Sums sums = suite.sums();
    std::string word = verdictOf(sums, signal, anySelected);
    for (const Failure& failure : writeReports(options.reports, suite)) {
        console::line(failure.what());
        if (exitCode(word) == 0) word = kNotWritten;
    }
    const std::string verdict = concat("verdict: ", word, " passed=", sums.of[Vector::SUCCESS],
                                       " failed=", sums.of[Vector::FAIL], " errors=", sums.errors(),
                                       " skipped=", sums.skipped(), "\n");
    return printResult(profileTable(suite) + verdict, exitCode(word));
}

}  // namespace vxrun
