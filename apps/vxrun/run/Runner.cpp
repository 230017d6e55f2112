#include "Runner.h"

#include "Console.h"
#include "Measured.h"
#include "Progress.h"
#include "Snapshot.h"
#include "Text.h"
#include "TraceFile.h"

#include <cutils/properties.h>
#include <vxkit/NodeType.h>

#include <pthread.h>
#include <semaphore.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <deque>
#include <exception>
#include <optional>
#include <system_error>
#include <thread>

namespace vxrun {
namespace {

using vexa::VXGraph;
using vexa::VXGraphInfo;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kStep(500);  // of the watchdog
constexpr int kWake = SIGUSR2;                   // wakes the watchdog

std::string inSeconds(double seconds) {
    char text[32];
    std::snprintf(text, sizeof text, "%g s", seconds);
    return text;
}

// Run: one run. A thread of its own builds, starts, stops and releases the graph, so that no hook
// of a node, not even one of its set-up, can hold up the watchdog, which handles the signals and
// decides.
class Run final : public VXGraph::Listener, public std::enable_shared_from_this<Run> {
public:
    Run(VXGraphInfo info, const RunOptions& options, Evidence* evidence, const Conclude& conclude,
        std::shared_ptr<TraceFile> trace)
        : mInfo(std::move(info)),
          mOptions(options),
          mEvidence(*evidence),
          mConclude(conclude),
          mTrace(std::move(trace)),
          mSnapshots(mInfo, *evidence, options.dot),
          mDeadline(options.timeout > 0 ? mStart + asTime(options.timeout)
                                        : Clock::time_point::max()),
          mProgress(options.progress, *evidence, mDeadline) {
        sem_init(&mEnd, 0, 0);
    }
    ~Run() { sem_destroy(&mEnd); }

    // [run thread]
    void execute() {
        if (const auto graph = VXGraph::BuildFromGraphInfo(mInfo, weak_from_this())) {
            mEvidence.noteStart();
            if (graph->runAsync() == vexa::VX_OK) {
                mSnapshots.draw(age(), "start");
                while (!mEnding) sem_wait(&mEnd);
            }
            mEvidence.noteEnd();
            graph->stop();
        } else if (mEvidence.setFailure(Verdict::GraphBuildFail)) {
            // The only failure that the library reports in its log alone.
            console::line("vxrun: no buffer allocator suits every node: " + mEvidence.allocators());
        }
        mDone = true;
        wake();
    }

    // [watchdog] Returns when the graph is gone. `signals` are blocked.
    void watch(sigset_t signals) {
        while (!mDone) {
            const auto still = timeStill();
            if (mEnding && !mStopping) {
                startStopping();
            } else if (mStopping) {
                if (still >= asTime(mOptions.stop)) leave();
            } else if (Clock::now() >= mDeadline) {
                stop(Verdict::Timeout, "out of time after " + inSeconds(mOptions.timeout) +
                                           "; not finished: " + mEvidence.unfinished());
                showSnapshot("timeout");
            } else if (mOptions.stall > 0 && still >= asTime(mOptions.stall)) {
                stop(Verdict::Stall, "no work has moved for " + inSeconds(mOptions.stall) +
                                         "; not finished: " + mEvidence.unfinished());
                showSnapshot("stall");
            }
            if (mTrace != nullptr) mTrace->flush();
            mProgress.step();
            const auto next = std::min({mDeadline, mProgress.next(), mLastLook + step()});
            const auto limit = std::max<std::chrono::nanoseconds>(next - Clock::now(), {}).count();
            const timespec time = {limit / 1000000000, limit % 1000000000};
            const int number = sigtimedwait(&signals, nullptr, &time);
            if (number == SIGUSR1) showSnapshot("request");
            if (number != SIGINT && number != SIGTERM) continue;
            // The second one exits, whatever else hangs.
            sigset_t leaving;
            sigemptyset(&leaving);
            for (const int signal : {SIGINT, SIGTERM}) {
                sigdelset(&signals, signal);
                sigaddset(&leaving, signal);
                std::signal(signal, [](int again) { _exit(128 + again); });
            }
            pthread_sigmask(SIG_UNBLOCK, &leaving, nullptr);
            const Verdict verdict = number == SIGINT ? Verdict::Interrupted : Verdict::Terminated;
            stop(verdict,
                 concat(verdictName(verdict), ", stopping; a second signal exits at once"));
        }
        mProgress.finish();
    }

    // [a node's or the graph's thread]
    void onGraphError(std::string message) override {
        if (mEvidence.setFailure(verdictOfErrorName(message).value_or(Verdict::UnknownError))) {
            console::line("vxrun: the graph reports: " + message);
        }
        // A wrong frame, or a stream that does not suit the codec, is not a fault of the graph.
        const Verdict verdict = mEvidence.verdict();
        if (verdict == Verdict::NodeFailFatal || verdict == Verdict::UnknownError) {
            showSnapshot("error");
        } else {
            mSnapshots.draw(age(), "error");
        }
    }
    void onGraphComplete() override { end(); }

private:
    static Clock::duration asTime(double seconds) {
        return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    }
    std::chrono::milliseconds age() const {
        return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - mStart);
    }

    void showSnapshot(const std::string& reason) {
        if (mTrace != nullptr) mTrace->instant(Trace::kGraph, reason, "");
        console::note(mSnapshots.graphText(age()));
        mSnapshots.draw(age(), reason);
    }

    void wake() { pthread_kill(mWatchdog, kWake); }
    void end() {
        mEnding = true;
        sem_post(&mEnd);
        wake();
    }

    // ---- [watchdog] ----

    Clock::duration step() const {
        return mOptions.stall > 0 ? std::min<Clock::duration>(kStep, asTime(mOptions.stall / 4))
                                  : kStep;
    }

    // For how long no work has moved and no node has stopped. Time in which this thread could not
    // run does not count: the others could not, either.
    Clock::duration timeStill() {
        const auto now = Clock::now();
        const uint64_t moved = mEvidence.moved() + (mStopping ? mEvidence.stopped() : 0);
        mStill =
            moved == mMoved ? mStill + std::min(now - mLastLook, 2 * step()) : Clock::duration(0);
        mMoved = moved;
        mLastLook = now;
        return mStill;
    }

    void startStopping() {
        mStopping = true;
        mStill = {};
        mDeadline = Clock::time_point::max();
    }

    void stop(Verdict verdict, const std::string& line) {
        console::line("vxrun: " + line);
        mEvidence.setFailure(verdict);
        startStopping();
        end();
    }

    [[noreturn]] void leave() {
        console::line("vxrun: the graph does not stop and is abandoned; not finished: " +
                      mEvidence.unfinished());
        mEvidence.setFailure(Verdict::NodeFailStop);
        mProgress.finish();
        if (mTrace != nullptr) mTrace->flush();
        _exit(mConclude(mEvidence));
    }

    VXGraphInfo mInfo;  // [run thread]
    const RunOptions mOptions;
    Evidence& mEvidence;
    const Conclude& mConclude;
    const std::shared_ptr<TraceFile> mTrace;  // null: none
    const Clock::time_point mStart = Clock::now();
    const SnapshotMaker mSnapshots;

    const pthread_t mWatchdog = pthread_self();

    std::atomic<bool> mEnding{false};  // the graph is to stop, or has begun to
    sem_t mEnd;                        // wakes the run thread
    std::atomic<bool> mDone{false};    // the graph is gone

    // [watchdog]
    Clock::time_point mDeadline;  // of the run
    Progress mProgress;
    uint64_t mMoved = 0;  // works, and nodes that have stopped, at the last look
    Clock::time_point mLastLook = mStart;
    Clock::duration mStill{};  // for how long nothing has moved
    bool mStopping = false;
};

// The run that is under way, for the handler of std::terminate(), which has no arguments.
struct Current {
    Evidence* evidence;
    const Conclude* conclude;
} sCurrent;

// An exception that cannot be caught: the library starts its threads where none can. The run ends
// with a line and a verdict all the same.
[[noreturn]] void endWithVerdict() {
    std::string text = "std::terminate() was called";
    Verdict verdict = Verdict::NodeFailFatal;
    try {
        if (std::current_exception() != nullptr) throw;
    } catch (const std::system_error& thread) {  // nothing else throws it
        text = "a thread cannot be started: " + thread.code().message();
        verdict = Verdict::NodeFailStart;
    } catch (const std::exception& exception) {  // memory, for instance
        text = exception.what();
    } catch (...) {
    }
    sCurrent.evidence->setFailure(verdict);
    console::line("vxrun: " + text);
    _exit((*sCurrent.conclude)(*sCurrent.evidence));
}

// Fails a run that got to its end when it does not meet its limits.
void judgeLimits(const Limits& limits, Evidence* evidence) {
    const Verdict verdict = evidence->verdict();
    if (exitCode(verdict) != 0 && verdict != Verdict::NothingChecked) return;
    for (const LimitCheck& check : checkLimits(limits, *evidence)) {
        if (check.isMet) continue;
        const LimitKind& kind = check.kind;
        if (!check.value) {
            console::line(concat("vxrun: ", kind.name, " cannot be checked: ", kind.figure));
            evidence->setFailure(Verdict::NothingChecked);
            continue;
        }
        const int digits = kind.isSize ? 0 : 1;
        const std::string limit = kind.isSize ? decimal(check.limit, 0) : concat(check.limit);
        console::line(concat("vxrun: ", decimal(*check.value, digits), kind.unit, ", at ",
                             kind.isLeast ? "least " : "most ", limit, " asked for"));
        evidence->setFailure(Verdict::Performance);
    }
}

// Fails the run for pools that miss buffers, and prints a line per pool when `stats` is set.
void closePools(Evidence* evidence, bool stats) {
    for (const PoolRecord* pool : evidence->pools()) {
        const std::string line = concat("vxrun: pool of '", pool->name, "': made=", pool->made,
                                        " recycled=", pool->recycled,
                                        " high_water=", pool->highWater, " left_out=", pool->out,
                                        pool->copied > 0 ? concat(" copied=", pool->copied) : "");
        if (pool->out != 0) {
            console::line(line);
            evidence->setFailure(Verdict::NodeFailFatal);
        } else if (stats) {
            console::note(line);
        }
    }
}

}  // namespace

int printVerdict(const Evidence& evidence, int fd) {
    const Verdict verdict = evidence.verdict();
    const int code = exitCode(verdict);
    const auto totals = evidence.totals();
    const std::string firstBad =
        totals.firstBad == NodeRecord::kNone ? "-" : std::to_string(totals.firstBad);
    const std::string line = concat(
        "verdict: ", console::painted(verdictName(verdict), code == 0, fd),
        " frames=", totals.frames, " checked=", totals.checked, " first_bad=", firstBad, "\n");
    return console::exitWithResult(line, code, fd, console::kPatience);
}

void runGraph(VXGraphInfo info, const RunOptions& options, Evidence* evidence,
              const Conclude& conclude) {
    std::shared_ptr<TraceFile> trace;
    if (!options.trace.empty()) trace = std::make_shared<TraceFile>(options.trace);
    const RunContext context = {*evidence, console::line, trace};
    // Before the log level is set: a factory that registers is not worth a message.
    std::deque<NodeFactory> factories;
    for (const auto& [name, type] : nodeTypes()) factories.emplace_back(type, context);
    if (!options.logMask.empty()) property_set("vendor.vexa.log.msg", options.logMask.c_str());
    vexa::vxUpdateLogLevel();

    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGINT, SIGTERM, SIGUSR1, kWake}) sigaddset(&signals, number);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);  // for every thread that starts from now on
    sCurrent = {evidence, &conclude};
    const auto terminate = std::set_terminate(endWithVerdict);
    {
        const auto run = std::make_shared<Run>(std::move(info), options, evidence, conclude, trace);
        std::thread runner;
        try {
            runner = std::thread([run] { run->execute(); });
        } catch (const std::system_error&) {
            endWithVerdict();
        }
        run->watch(signals);
        runner.join();
    }
    std::set_terminate(terminate);
    if (trace != nullptr && !trace->flush()) evidence->setFailure(Verdict::NotWritten);
    if (options.stats) {
        for (const std::string& line : statsLines(*evidence)) console::note("vxrun: " + line);
    }
    closePools(evidence, options.stats);
    judgeLimits(options.limits, evidence);
}

int concluded(Evidence* evidence, const Conclude& conclude, const std::function<int()>& action) {
    const auto fail = [&](const std::string& text, Verdict verdict) {
        console::line(text);
        evidence->setFailure(verdict);
    };
    try {
        return action();
    } catch (const Failure& failure) {
        fail(failure.what(), failure.verdict().value_or(Verdict::CorruptDescription));
    } catch (const std::exception& exception) {  // memory, for instance
        fail(concat("vxrun: ", exception.what()), Verdict::UnknownError);
    }
    return conclude(*evidence);
}

}  // namespace vxrun
