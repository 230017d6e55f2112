#include "Runner.h"

#include "Console.h"
#include "Progress.h"
#include "Snapshot.h"
#include "Text.h"
#include "Trace.h"

#include <pthread.h>
#include <semaphore.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <exception>
#include <optional>
#include <system_error>
#include <thread>

namespace vxrun {
namespace {

using vexa::VXGraph;
using vexa::VXGraphInfo;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kStopLimit(3);    // for the next node of a graph to stop
constexpr std::chrono::milliseconds kStep(500);  // of the watchdog
constexpr int kWake = SIGUSR2;                   // wakes the watchdog

std::string inSeconds(double seconds) {
    char text[32];
    std::snprintf(text, sizeof text, "%g s", seconds);
    return text;
}

// Run: one run. A thread of its own builds, starts, stops and releases the graph, so that no hook of a node,
// not even one of its set-up, can hold up the watchdog, which takes the signals and decides.
class Run final : public VXGraph::Listener, public std::enable_shared_from_this<Run> {
public:
    Run(VXGraphInfo info, const RunOptions& options, Evidence* evidence)
        : mInfo(std::move(info)),
          mOptions(options),
          mEvidence(*evidence),
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
            if (graph->runAsync() == vexa::VX_OK) {
                mSnapshots.draw(age(), "start");
                while (!mEnding) sem_wait(&mEnd);
            }
            graph->stop();
        } else if (mEvidence.fail(errorName(vexa::GRAPH_BUILD_FAIL))) {
            // The only failure that the library tells the log alone.
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
                if (still >= kStopLimit) leave();
            } else if (Clock::now() >= mDeadline) {
                stop("TIMEOUT", "out of time after " + inSeconds(mOptions.timeout) +
                                    "; not finished: " + mEvidence.unfinished());
                showSnapshot("timeout");
            } else if (mOptions.stall > 0 && still >= asTime(mOptions.stall)) {
                stop("STALL", "no work has moved for " + inSeconds(mOptions.stall) +
                                  "; not finished: " + mEvidence.unfinished());
                showSnapshot("stall");
            }
            if (gTrace != nullptr) gTrace->flush();
            mProgress.step();
            const auto next = std::min({mDeadline, mProgress.next(), mLastLook + step()});
            const auto limit = std::max<std::chrono::nanoseconds>(next - Clock::now(), {}).count();
            const timespec time = {limit / 1000000000, limit % 1000000000};
            const int number = sigtimedwait(&signals, nullptr, &time);
            if (number == SIGUSR1) showSnapshot("request");
            if (number != SIGINT && number != SIGTERM) continue;
            // The second one leaves, whatever else hangs.
            sigset_t leaving;
            sigemptyset(&leaving);
            for (const int signal : {SIGINT, SIGTERM}) {
                sigdelset(&signals, signal);
                sigaddset(&leaving, signal);
                std::signal(signal, [](int again) { _exit(128 + again); });
            }
            pthread_sigmask(SIG_UNBLOCK, &leaving, nullptr);
            const std::string name = number == SIGINT ? "SIGINT" : "SIGTERM";
            stop(name, name + ", stopping; once more leaves at once");
        }
        mProgress.finish();
    }

    // [a node's or the graph's thread]
    void onGraphError(std::string message) override {
        const auto isName = [&](const auto& entry) { return entry.second == message; };
        const auto& names = vexa::gVexaErrorNames;
        const bool known = std::any_of(names.begin(), names.end(), isName);
        if (mEvidence.fail(known ? message : errorName(vexa::UNKNOWN_ERROR))) {
            console::line("vxrun: the graph reports: " + message);
        }
        // What a stream turned out to be, or a check, is no trouble of the graph.
        const std::string verdict = mEvidence.verdict();
        if (verdict == errorName(vexa::NODE_FAIL_FATAL) ||
            verdict == errorName(vexa::UNKNOWN_ERROR)) {
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
        if (gTrace != nullptr) gTrace->instant(Trace::kGraph, reason, "");
        console::note(mSnapshots.text(age()));
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

    // For how long no work has moved and no node has stopped. Time that this thread was not given does not
    // count: the others were not given it, either.
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

    void stop(const std::string& verdict, const std::string& line) {
        console::line("vxrun: " + line);
        mEvidence.fail(verdict);
        startStopping();
        end();
    }

    [[noreturn]] void leave() {
        console::line("vxrun: the graph does not stop, leaving it; not finished: " +
                      mEvidence.unfinished());
        mEvidence.fail(errorName(vexa::NODE_FAIL_STOP));
        mProgress.finish();
        if (gTrace != nullptr) gTrace->flush();
        _exit(mEvidence.printVerdict());
    }

    VXGraphInfo mInfo;  // [run thread]
    const RunOptions mOptions;
    Evidence& mEvidence;
    const Clock::time_point mStart = Clock::now();
    const SnapshotMaker mSnapshots;

    const pthread_t mWatchdog = pthread_self();

    std::atomic<bool> mEnding{false};  // the graph is to stop, or has begun to
    sem_t mEnd;                        // has the run thread look
    std::atomic<bool> mDone{false};    // the graph is gone

    // [watchdog]
    Clock::time_point mDeadline;  // of the run
    Progress mProgress;
    uint64_t mMoved = 0;  // works, and nodes that have stopped, at the last look
    Clock::time_point mLastLook = mStart;
    Clock::duration mStill{};  // for how long nothing has moved
    bool mStopping = false;
};

// The evidence of the run that is under way. std::terminate() takes no argument.
Evidence* sEvidence = nullptr;

// An exception that cannot be caught: the library starts its threads where none can. The run ends with a line
// and a verdict all the same.
[[noreturn]] void endWithVerdict() {
    std::string text = "std::terminate() was called";
    vexa::VexaError error = vexa::NODE_FAIL_FATAL;
    try {
        if (std::current_exception() != nullptr) throw;
    } catch (const std::system_error& thread) {  // nothing else throws it
        text = "a thread cannot be started: " + thread.code().message();
        error = vexa::NODE_FAIL_START;
    } catch (const std::exception& exception) {  // memory, for instance
        text = exception.what();
    } catch (...) {
    }
    sEvidence->fail(errorName(error));
    console::line("vxrun: " + text);
    _exit(sEvidence->printVerdict());
}

}  // namespace

void runGraph(VXGraphInfo info, const RunOptions& options, Evidence* evidence) {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGINT, SIGTERM, SIGUSR1, kWake}) sigaddset(&signals, number);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);  // for every thread that starts from now on
    sEvidence = evidence;
    const auto terminate = std::set_terminate(endWithVerdict);
    std::optional<Trace> trace;
    if (!options.trace.empty()) trace.emplace(options.trace);
    const auto run = std::make_shared<Run>(std::move(info), options, evidence);
    std::thread runner;
    try {
        runner = std::thread([run] { run->execute(); });
    } catch (const std::system_error&) {
        endWithVerdict();
    }
    run->watch(signals);
    runner.join();
    std::set_terminate(terminate);
    if (trace && !trace->flush()) evidence->fail(kNotWritten);
}

}  // namespace vxrun
