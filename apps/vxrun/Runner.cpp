#include "Runner.h"

#include "Console.h"
#include "Progress.h"
#include "Snapshot.h"
#include "Trace.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <csignal>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

namespace vxrun {
namespace {

using vexa::VXGraph;
using vexa::VXGraphInfo;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kStopLimit(3);    // for a graph to stop
constexpr std::chrono::milliseconds kStep(500);  // of the watchdog

std::string inSeconds(double seconds) {
    char text[32];
    std::snprintf(text, sizeof text, "%g s", seconds);
    return text;
}

// Run: one run with its three threads. The run thread builds, starts, stops and releases the graph,
// so that no hook of a node, not even one of its set-up, can hold up the watchdog; the signal thread
// only takes signals; the watchdog decides.
class Run final : public VXGraph::Listener, public std::enable_shared_from_this<Run> {
public:
    Run(VXGraphInfo info, const RunOptions& options, Evidence* evidence)
        : mInfo(std::move(info)),
          mOptions(options),
          mEvidence(*evidence),
          mSnapshots(mInfo, *evidence, options.dot),
          mDeadline(options.timeout > 0 ? mStart + asTime(options.timeout)
                                        : Clock::time_point::max()),
          mProgress(options.progress, *evidence, mDeadline) {}

    // [run thread]
    void execute() {
        if (const auto graph = VXGraph::BuildFromGraphInfo(mInfo, weak_from_this())) {
            if (graph->runAsync() == vexa::VX_OK) {
                mSnapshots.draw(age(), "start");
                std::unique_lock<std::mutex> lock(mLock);
                mChanged.wait(lock, [this] { return mEnding; });
            }
            graph->stop();
        } else if (mEvidence.fail(errorName(vexa::GRAPH_BUILD_FAIL))) {
            // The only failure that the library tells the log alone.
            console::line("vxrun: no buffer allocator suits every node: " + mEvidence.allocators());
        }
        set(&mDone, true);
    }

    // [signal thread] Until a signal comes after the end of the run. The second one leaves from here,
    // whatever else hangs.
    void takeSignals(const sigset_t& signals) {
        bool isFirst = true;
        for (int number = 0; sigwait(&signals, &number) == 0 && !mDone;) {
            if (number == SIGUSR1) {
                set(&mAsked, true);
                continue;
            }
            if (!isFirst) _exit(128 + number);
            isFirst = false;
            set(&mSignal, number);
        }
    }

    // [watchdog] Returns when the graph is gone.
    void watch() {
        std::unique_lock<std::mutex> lock(mLock);
        while (!mDone) {
            if (mSignal != 0 && !mSignalled) {
                mSignalled = true;
                const std::string name = mSignal == SIGINT ? "SIGINT" : "SIGTERM";
                stop(name, name + ", stopping; once more leaves at once");
            } else if (mEnding && !mStopping) {
                startStopping();
            } else if (Clock::now() >= mDeadline) {
                if (mStopping) leave();
                stop("TIMEOUT", "out of time after " + inSeconds(mOptions.timeout) +
                                    "; not finished: " + mEvidence.unfinished());
                showSnapshot("timeout");
            } else if (!mStopping && hasStalled()) {
                stop("STALL", "no work has moved for " + inSeconds(mOptions.stall) +
                                  "; not finished: " + mEvidence.unfinished());
                showSnapshot("stall");
            }
            if (std::exchange(mAsked, false)) showSnapshot("request");
            if (gTrace != nullptr) gTrace->flush();
            mProgress.step();
            mChanged.wait_until(lock, nextWake());
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
    void onGraphComplete() override { set(&mEnding, true); }

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

    template <typename Member, typename Value>
    void set(Member* member, Value value) {
        std::lock_guard<std::mutex> lock(mLock);
        *member = value;
        mChanged.notify_all();
    }

    // ---- [watchdog], with mLock held ----

    Clock::time_point nextWake() const {
        return std::min({mDeadline, mProgress.next(), Clock::now() + step()});
    }
    Clock::duration step() const {
        return mOptions.stall > 0 ? std::min<Clock::duration>(kStep, asTime(mOptions.stall / 4))
                                  : kStep;
    }

    // No work has moved for so long. Time that this thread was not given does not count: the others
    // were not given it, either.
    bool hasStalled() {
        const auto now = Clock::now();
        const uint64_t moved = mEvidence.moved();
        mStill =
            moved == mMoved ? mStill + std::min(now - mLastLook, 2 * step()) : Clock::duration(0);
        mMoved = moved;
        mLastLook = now;
        return mOptions.stall > 0 && mStill >= asTime(mOptions.stall);
    }

    void startStopping() {
        mStopping = true;
        mDeadline = Clock::now() + kStopLimit;
    }

    void stop(const std::string& verdict, const std::string& line) {
        console::line("vxrun: " + line);
        mEvidence.fail(verdict);
        startStopping();
        mEnding = true;
        mChanged.notify_all();
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

    std::mutex mLock;
    std::condition_variable mChanged;  // one of the next four, all guarded by mLock
    bool mEnding = false;              // the graph is to stop, or has begun to
    std::atomic<bool> mDone{false};    // the graph is gone; also read without the lock
    int mSignal = 0;                   // the first one that came
    bool mAsked = false;               // for a snapshot

    // [watchdog]
    Clock::time_point mDeadline;  // of the run, then of its stop
    Progress mProgress;
    uint64_t mMoved = 0;  // works at the last look
    Clock::time_point mLastLook = mStart;
    Clock::duration mStill{};  // since when nothing has moved
    bool mStopping = false;
    bool mSignalled = false;
};

}  // namespace

void runGraph(VXGraphInfo info, const RunOptions& options, Evidence* evidence) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGUSR1);
    sigset_t blocked = signals;
    sigaddset(&blocked, SIGPIPE);                   // the end of a reader is not the end of a run
    pthread_sigmask(SIG_BLOCK, &blocked, nullptr);  // for every thread that starts from now on
    std::optional<Trace> trace;
    if (!options.trace.empty()) trace.emplace(options.trace);
    const auto run = std::make_shared<Run>(std::move(info), options, evidence);
    std::thread signalThread([run, signals] { run->takeSignals(signals); });
    std::thread runner([run] { run->execute(); });
    run->watch();
    runner.join();
    pthread_kill(signalThread.native_handle(), SIGINT);
    signalThread.join();
}

}  // namespace vxrun
