#include "SuiteRun.h"

#include "Console.h"
#include "Decode.h"
#include "Evidence.h"
#include "Failure.h"
#include "Files.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <list>
#include <thread>

namespace vxrun {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kGrace(5);  // for a process to end before it is made to
constexpr off_t kMaxOutput = 16 << 10;     // bytes of what a process says that are kept
constexpr std::chrono::hours kLongWait(1);
constexpr int kMaxShards = 1'000'000;

// ---- Environment ------------------------------------------------------------------------------

std::string variable(const char* name) {
    const char* const value = std::getenv(name);
    return value == nullptr ? "" : value;
}

// What the options leave open, the variables of GoogleTest's runners say. True when the filter selects
// something, even if none of it is in this shard.
bool selectVectors(const SuiteOptions& options, Suite* suite) {
    filterVectors(suite, options.filter.empty() ? variable("GTEST_FILTER") : options.filter);
    const bool any = !suite->vectors.empty();
    std::string index = variable("GTEST_SHARD_INDEX");
    std::string total = variable("GTEST_TOTAL_SHARDS");
    const size_t slash = options.shard.find('/');
    const bool given = !options.shard.empty();
    if (given) {
        index = options.shard.substr(0, slash);
        total = slash == std::string::npos ? "" : options.shard.substr(slash + 1);
    } else if (total.empty()) {
        return any;
    }
    try {
        const uint64_t shards = parseNumber(total, 1, kMaxShards);
        const uint64_t first = given ? 1 : 0;
        shardVectors(suite, parseNumber(index, first, shards - 1 + first) - first, shards);
    } catch (const Failure& failure) {
        const std::string name = given ? "--shard" : "GTEST_SHARD_INDEX, GTEST_TOTAL_SHARDS";
        throw Failure("vxrun: " + name + ": " + failure.what(), "BAD_OPTION");
    }
    return any;
}

// "xml:FILE" or "xml:FOLDER/"; other kinds are GoogleTest's own.
std::string junitFile(const Suite& suite) {
    std::string file = variable("GTEST_OUTPUT");
    if (file.rfind("xml:", 0) != 0) return {};
    file.erase(0, 4);
    return !file.empty() && file.back() == '/' ? file + suite.name + ".xml" : file;
}

// ---- Processes --------------------------------------------------------------------------------

FileHandle memoryFile() {
    FileHandle file(fdopen(memfd_create("vxrun", MFD_CLOEXEC), "r"));
    if (file == nullptr) throw Failure("vxrun: no memory file: " + errnoText(errno));
    return file;
}

// The last bytes of what was written to `file`.
std::string contentOf(std::FILE* file) {
    const int descriptor = fileno(file);
    const off_t size = lseek(descriptor, 0, SEEK_END);
    const off_t start = std::max<off_t>(size - kMaxOutput, 0);
    std::string text(static_cast<size_t>(size - start), '\0');
    const ssize_t got = pread(descriptor, text.data(), text.size(), start);
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
    Child(Vector* vector, const std::vector<std::string>& command, const sigset_t& signals,
          std::chrono::duration<double> limit)
        : mVector(*vector),
          mDeadline(mStart + std::chrono::duration_cast<Clock::duration>(limit) + kGrace) {
        std::vector<char*> arguments;
        arguments.reserve(command.size() + 1);
        for (const auto& text : command) arguments.push_back(const_cast<char*>(text.c_str()));
        arguments.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&actions, fileno(mOut.get()), STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&actions, fileno(mErr.get()), STDERR_FILENO);
        posix_spawnattr_t attributes;
        posix_spawnattr_init(&attributes);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
        posix_spawnattr_setsigmask(&attributes, &signals);
        const int error =
            posix_spawn(&mPid, "/proc/self/exe", &actions, &attributes, arguments.data(), environ);
        posix_spawnattr_destroy(&attributes);
        posix_spawn_file_actions_destroy(&actions);
        if (error != 0) throw Failure("vxrun: no process: " + errnoText(error), "NODE_FAIL_INIT");
        mVector.state = Vector::RUNNING;
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
        mVector.seconds = std::chrono::duration<double>(Clock::now() - mStart).count();
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
        std::string md5 = contentOf(mOut.get());
        md5.erase(md5.find_last_not_of('\n') + 1);
        std::string log = contentOf(mErr.get());
        const std::string seconds = decimal(mVector.seconds, 1);
        if (mSent != 0) return set(Vector::TIMEOUT, "TIMEOUT", "ended after " + seconds + " s");
        if (WIFSIGNALED(status)) {
            const int number = WTERMSIG(status);
            mVector.log = log;
            return set(Vector::ERROR, "SIGNAL_" + std::to_string(number),
                       std::string("ended by a signal: ") + strsignal(number));
        }
        const std::string word = textAfter("verdict: ", " ", log);
        const std::string message = textAfter("vxrun: ", "\n", log);
        log.erase(std::min(log.rfind("verdict: "), log.size()));
        mVector.log = log;
        const int code = WEXITSTATUS(status);
        if (code == DecodeOptions().unsupportedExit) {
            return set(Vector::NOT_SUPPORTED, word, message);
        }
        if (code == exitCode("TIMEOUT")) return set(Vector::TIMEOUT, word, message);
        if (code != 0 && code != exitCode("FAIL")) return set(Vector::ERROR, word, message);
        // The pictures decide, where it is known what they have to be: what a decoder calls an error
        // in a stream that has none is no reason to fail.
        const bool isRight = mVector.md5.empty() ? code == 0 : md5 == mVector.md5;
        if (negative) {
            return isRight ? set(Vector::FAIL, "UNEXPECTED_PASS", "decoded as if nothing was wrong")
                           : set(Vector::SUCCESS, "", "");
        }
        if (isRight) return set(Vector::SUCCESS, "", "");
        if (md5.empty()) return set(Vector::FAIL, word, message);
        set(Vector::FAIL, "CRC_MISMATCH",
            "expected MD5 " + mVector.md5 + ", got " + md5 + (message.empty() ? "" : "; ") +
                message);
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
    SuiteRun(const SuiteOptions& options, Suite* suite) : mOptions(options), mSuite(*suite) {
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
        std::vector<std::string> command = {"vxrun",          "decode",
                                            inputOf(*vector), "--md5",
                                            "--timeout",      decimal(mOptions.timeout),
                                            "--threads",      std::to_string(mOptions.threads)};
        const auto add = [&](const char* option, const std::string& value) {
            if (!value.empty()) command.insert(command.end(), {option, value});
        };
        add("--format", vector->format);
        add("--codec", mSuite.codec);
        add("--allocator", mOptions.allocator);
        if (!mOptions.output.empty()) {
            const fs::path file = fs::path(mOptions.output) / mSuite.name / (vector->name + ".out");
            std::error_code error;
            fs::create_directories(file.parent_path(), error);
            if (error) throw Failure(file.string() + ": " + error.message(), "BAD_OPTION");
            add("-o", file);
        }
        mChildren.emplace_back(vector, command, mOldSignals,
                               std::chrono::duration<double>(mOptions.timeout));
    }

    std::string inputOf(const Vector& vector) const {
        const fs::path folder = fs::path(mOptions.resources) / mSuite.name;
        const bool hasFolder = vector.inputFile.find('/') != std::string::npos;
        const fs::path file = folder / vector.inputFile;
        return hasFolder && fs::exists(file) ? file : folder / vector.name / vector.inputFile;
    }

    // Until a process ends, one is to be ended, or a signal comes.
    void wait() {
        auto next = Clock::now() + kLongWait;
        for (const Child& child : mChildren) next = std::min(next, child.deadline());
        const auto left = std::max<Clock::duration>(next - Clock::now(), Clock::duration(0));
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
        const timespec limit = {seconds.count(), std::chrono::nanoseconds(left - seconds).count()};
        const int number = sigtimedwait(&mSignals, nullptr, &limit);
        if (number == SIGINT || number == SIGTERM) {
            mSignal = number;
            console::line("vxrun: ending what runs; once more kills it");
            for (Child& child : mChildren) child.end();
        }
        for (auto child = mChildren.begin(); child != mChildren.end();) {
            if (child->finish(mSuite.negative, mSignal != 0)) {
                report(child->vector());
                child = mChildren.erase(child);
            } else {
                if (Clock::now() >= child->deadline()) child->end();
                ++child;
            }
        }
    }

    void report(const Vector& vector) {
        const std::string bad = vector.message.empty() ? "" : ": " + vector.message;
        console::line("[" + std::to_string(++mReported) + "/" +
                      std::to_string(mSuite.vectors.size()) + "] " + vector.name + ": " +
                      stateName(vector.state) + " (" + decimal(vector.seconds, 1) + " s)" + bad);
    }

    const SuiteOptions& mOptions;
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

int runSuite(SuiteOptions options) {
    Suite suite = readSuite(options.file);
    const bool anySelected = selectVectors(options, &suite);
    if (options.list) {
        for (const Vector& vector : suite.vectors) std::printf("%s\n", vector.name.c_str());
        return 0;
    }
    if (options.resources.empty()) throw Failure("vxrun: no --resources given", "BAD_OPTION");
    if (options.reports.junit.empty()) options.reports.junit = junitFile(suite);
    const std::string status = variable("GTEST_SHARD_STATUS_FILE");
    if (!status.empty()) OutputFile(status).commit();
    const int signal = SuiteRun(options, &suite).run();
    const Sums sums = suite.sums();
    const std::string word = verdictOf(sums, signal, anySelected);
    std::printf("%sverdict: %s passed=%zu failed=%zu errors=%zu skipped=%zu\n",
                profileTable(suite).c_str(), word.c_str(), sums.passed, sums.failed, sums.errors,
                sums.skipped());
    std::fflush(stdout);
    return exitCode(word);
}

}  // namespace vxrun
