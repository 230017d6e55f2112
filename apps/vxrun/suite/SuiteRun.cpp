#include "SuiteRun.h"

#include "BadFrames.h"
#include "Console.h"
#include "Text.h"

#include <malloc.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <deque>
#include <filesystem>
#include <list>

namespace vxrun {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

constexpr std::chrono::seconds kGrace(5);  // for a process to end before it is killed

// A process, and when it is sent its next signal.
struct Child {
    explicit Child(TestVector* vector) : process(vector) {}

    VectorProcess process;
    Clock::time_point start = Clock::now();
    Clock::time_point deadline = Clock::time_point::max();
    bool wasSignaled = false;  // by SIGTERM
    bool isAlone = false;      // no other runs beside it
};

// Returns memory that reading or reporting many vectors used: the more memory there is to share
// with a process, the longer its start takes.
void trimMemory() {
#ifdef __GLIBC__
    malloc_trim(0);
#endif
}

class SuiteRun {
public:
    SuiteRun(const SuiteRunOptions& options, const PrepareVector& prepare, Suite* suite)
        : mOptions(options), mPrepare(prepare), mSuite(*suite) {}

    // The signal that ended it; else 0. What it changed since the last mid-run reports is not in
    // them.
    int run() {
        for (TestVector& vector : mSuite.vectors) mWaiting.push_back(&vector);
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
    // Starts the process of `vector`, if it needs one. False when there is no room beside those
    // that run.
    bool start(TestVector* vector) {
        if (vector->state != TestVector::NOT_RUN) {
            report(*vector);
            return true;
        }
        GraphMaker makeGraph;
        try {
            makeGraph = mPrepare(*vector);
        } catch (const Failure& failure) {
            setError(vector, failure.what());
            return true;
        }
        std::list<Child> added;
        Child& child = added.emplace_back(vector);
        child.isAlone = mJobs == 1;
        const double timeout = mOptions.vectors.run.timeout;
        if (timeout > 0) {
            child.deadline = child.start + kGrace +
                             std::chrono::duration_cast<Clock::duration>(Seconds(timeout));
        }
        const int error = child.process.start(makeGraph, mOptions.vectors, mSignals);
        if (error != 0) {
            added.clear();  // reporting may need its descriptors
            if (mChildren.empty()) {
                setError(vector, "cannot start: " + errnoText(error));
                return true;
            }
            mIsShort = true;
            mJobs = std::max<size_t>(mChildren.size() / 2, 1);
            return false;
        }
        vector->state = TestVector::ERROR;  // as long as it runs
        vector->type = "DID_NOT_FINISH";
        vector->message = "did not finish";
        mIsChanged = true;
        mChildren.splice(mChildren.end(), added);
        return true;
    }

    // Until a process has ended, or some time has passed.
    void wait() {
        constexpr std::chrono::nanoseconds kStep = std::chrono::milliseconds(200), kShortest(1);
        const std::chrono::nanoseconds due = mIsChanged ? mReportDue - Clock::now() : kStep;
        const timespec step = {0, std::clamp(due, kShortest, kStep).count()};
        const int number = sigtimedwait(&mSignals.waited, nullptr, &step);
        if (number == SIGINT || number == SIGTERM) {
            mSignal = number;
            console::line("vxrun: ending the running vectors; a second signal kills them");
        }
        mChildren.remove_if([&](Child& child) { return hasEnded(&child, number == mSignal); });
    }

    // True when a process has ended; its vector has a result then, unless the run was ended. One
    // that has not is sent SIGTERM, the next time SIGKILL, when its time is over or if it
    // `shallEnd`.
    bool hasEnded(Child* child, bool shallEnd) {
        if (child->process.hasEnded()) {
            TestVector* const vector = &child->process.vector();
            vector->seconds = Seconds(Clock::now() - child->start).count();
            if (mSignal == 0) child->process.judge(mSuite.negative, mOptions.vectors);
            if (mSignal == 0 && mIsShort && !child->isAlone && vector->state == TestVector::ERROR) {
                // There may have been no room for its threads. If fewer run, there is.
                vector->state = TestVector::NOT_RUN;
                vector->log.clear();
                mWaiting.push_back(vector);
                mJobs = std::max<size_t>(mJobs / 2, 1);
            } else {
                report(*vector);
            }
            return true;
        }
        if (shallEnd || Clock::now() >= child->deadline) {
            child->process.kill(child->wasSignaled ? SIGKILL : SIGTERM);
            child->wasSignaled = true;
            child->deadline = Clock::now() + kGrace;
        }
        return false;
    }

    void setError(TestVector* vector, const std::string& text) {
        vector->state = TestVector::ERROR;
        vector->type = verdictName(Verdict::NodeFailInit);
        vector->message = text;
        report(*vector);
    }

    void report(const TestVector& vector) {
        mIsChanged = true;
        console::line(concat("[", ++mReported, "/", mSuite.vectors.size(), "] ", mOptions.label,
                             vector.name, ": ", stateName(vector.state), " (",
                             decimal(vector.seconds, 1), " s)", vector.message.empty() ? "" : ": ",
                             vector.message));
    }

    // What cannot be written now may be written at the end. The next reports come so late that they
    // take only a small share of the time, however many vectors there are.
    void reportAll() {
        constexpr int kPause = 20;  // times what they take
        const Clock::time_point start = Clock::now();
        mOptions.writeReports();
        trimMemory();
        mIsChanged = false;
        mReportDue = Clock::now() + kPause * (Clock::now() - start);
    }

    const SuiteRunOptions& mOptions;
    const PrepareVector& mPrepare;
    Suite& mSuite;
    std::deque<TestVector*> mWaiting;
    size_t mJobs = mOptions.jobs;  // that run at once, at most
    bool mIsShort = false;         // there was no room for that many
    std::list<Child> mChildren;    // that run
    size_t mReported = 0;
    bool mIsChanged = false;       // since the last reports
    Clock::time_point mReportDue;  // not before that
    int mSignal = 0;               // that ends the run
    const ProcessSignals mSignals;
};

std::string inputOf(const TestVector& vector, const fs::path& folder) {
    const bool hasFolder = vector.inputFile.find('/') != std::string::npos;
    const fs::path file = folder / vector.inputFile;
    std::error_code ignored;
    return hasFolder && fs::exists(file, ignored) ? file : folder / vector.name / vector.inputFile;
}

// The checksum list of a vector; empty when there is none.
std::string listOf(const SuiteRunOptions& options, const TestVector& vector,
                   const fs::path& input) {
    if (!vector.frames.empty()) return input.parent_path() / vector.frames;
    if (options.lists.empty()) return "";
    for (const char* const kind : {".framemd5", ".framecrc", ".md5", ".json", ".txt"}) {
        std::string list = (fs::path(options.lists) / vector.inputFile).native() + kind;
        if (std::error_code ignored; fs::exists(list, ignored)) return list;
    }
    return "";
}

}  // namespace

DecodeOptions decodeOptionsOf(const SuiteRunOptions& options, const Suite& suite,
                              const TestVector& vector) {
    DecodeOptions decode = {inputOf(vector, fs::path(options.resources) / suite.name), "", true,
                            vector.format, suite.codec};
    if (!options.output.empty()) {
        decode.output = fs::path(options.output) / suite.name / (vector.name + ".out");
    }
    decode.list = listOf(options, vector, decode.input);
    decode.against = options.against;
    return decode;
}

int runVectors(const SuiteRunOptions& options, const PrepareVector& prepare, Suite* suite) {
    return SuiteRun(options, prepare, suite).run();
}

int decodeVectors(const SuiteRunOptions& options, const TestedDecoder& decoder, Suite* suite) {
    for (TestVector& vector : suite->vectors) {
        if (vector.state != TestVector::NOT_RUN || suite->testMethod == "md5") continue;
        vector.state = TestVector::NOT_SUPPORTED;
        vector.message = "test method " + suite->testMethod;
    }
    const auto prepare = [&](const TestVector& vector) -> GraphMaker {
        const DecodeOptions decode = decodeOptionsOf(options, *suite, vector);
        if (!decode.output.empty()) {
            makeFolder("--output", fs::path(decode.output).parent_path());
        }
        GraphEdits dumps;
        if (!options.dumps.empty()) {
            dumps.whereKnown[kDumpBad.name] = options.dumps + "/" + vector.name;
        }
        return [&decoder, decode, dumps] {
            decoder.setEnvironment();
            if (decode.against != nullptr) decode.against->setEnvironment();
            vexa::VXGraphInfo graph = decoder.graphFor(decode);
            dumps.applyTo(&graph);
            return graph;
        };
    };
    SuiteRunOptions run = options;
    run.vectors.inputOf = [&](const TestVector& vector) {
        return inputOf(vector, fs::path(options.resources) / suite->name);
    };
    const int signal = runVectors(run, prepare, suite);
    for (const TestVector& vector : suite->vectors) {
        std::error_code ignored;  // a folder with frames stays
        if (!options.dumps.empty()) fs::remove(fs::path(options.dumps) / vector.name, ignored);
    }
    return signal;
}

}  // namespace vxrun
