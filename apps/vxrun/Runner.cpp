#include "Runner.h"

#include "Console.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <csignal>
#include <mutex>
#include <thread>

namespace vxrun {
namespace {

using vexa::VXGraph;
using vexa::VXGraphInfo;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kStopLimit(3);  // for a graph to stop
constexpr std::chrono::milliseconds kProgressStep(200);
constexpr std::chrono::hours kLongWait(1);

// Run: one run with its three threads. The run thread builds, starts, stops and releases the graph,
// so that no hook of a node, not even one of its set-up, can hold up the watchdog; the signal thread
// only takes signals; the watchdog decides.
class Run final : public VXGraph::Listener, public std::enable_shared_from_this<Run> {
public:
    Run(VXGraphInfo info, std::chrono::duration<double> limit, Evidence* evidence)
        : mInfo(std::move(info)), mLimit(limit), mEvidence(*evidence) {
        if (limit.count() > 0) {
            mDeadline = mStart + std::chrono::duration_cast<Clock::duration>(limit);
        }
    }

    // [run thread]
    void execute() {
        if (const auto graph = VXGraph::BuildFromGraphInfo(mInfo, weak_from_this())) {
            if (graph->runAsync() == vexa::VX_OK) {
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
        for (int number = 0; sigwait(&signals, &number) == 0 && !mDone; isFirst = false) {
            if (!isFirst) _exit(128 + number);
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
                char seconds[32];
                std::snprintf(seconds, sizeof seconds, "%g", mLimit.count());
                stop("TIMEOUT", std::string("out of time after ") + seconds +
                                    " s; not finished: " + mEvidence.unfinished());
            }
            showProgress();
            mChanged.wait_until(lock, nextWake());
        }
    }

    // [a node's or the graph's thread]
    void onGraphError(std::string message) override {
        const auto isName = [&](const auto& entry) { return entry.second == message; };
        const auto& names = vexa::gVexaErrorNames;
        const bool known = std::any_of(names.begin(), names.end(), isName);
        if (mEvidence.fail(known ? message : errorName(vexa::UNKNOWN_ERROR))) {
            console::line("vxrun: the graph reports: " + message);
        }
    }
    void onGraphComplete() override { set(&mEnding, true); }

private:
    template <typename Member, typename Value>
    void set(Member* member, Value value) {
        std::lock_guard<std::mutex> lock(mLock);
        *member = value;
        mChanged.notify_all();
    }

    // ---- [watchdog], with mLock held ----

    Clock::time_point nextWake() const {
        const auto next = std::min(mDeadline, Clock::now() + kLongWait);
        return console::showsProgress() ? std::min(next, mLastProgress + kProgressStep) : next;
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
        _exit(mEvidence.printVerdict());
    }

    void showProgress() {
        const auto now = Clock::now();
        if (!console::showsProgress() || now - mLastProgress < kProgressStep) return;
        mLastProgress = now;
        const auto totals = mEvidence.totals();
        const std::chrono::duration<double> elapsed = now - mStart;
        char rate[32];
        std::snprintf(rate, sizeof rate, "%.1f",
                      static_cast<double>(totals.frames) / elapsed.count());
        console::progress(std::to_string(totals.frames) + " frames, " +
                          std::to_string(totals.checked) + " checked, " + rate + " frames/s");
    }

    VXGraphInfo mInfo;  // [run thread]
    const std::chrono::duration<double> mLimit;
    Evidence& mEvidence;

    std::mutex mLock;
    std::condition_variable mChanged;  // one of the next three, all guarded by mLock
    bool mEnding = false;              // the graph is to stop, or has begun to
    std::atomic<bool> mDone{false};    // the graph is gone; also read without the lock
    int mSignal = 0;                   // the first one that came

    // [watchdog]
    const Clock::time_point mStart = Clock::now();
    Clock::time_point mDeadline = Clock::time_point::max();  // of the run, then of its stop
    Clock::time_point mLastProgress = mStart;
    bool mStopping = false;
    bool mSignalled = false;
};

}  // namespace

void runGraph(VXGraphInfo info, std::chrono::duration<double> limit, Evidence* evidence) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);  // for every thread that starts from now on
    const auto run = std::make_shared<Run>(std::move(info), limit, evidence);
    std::thread signalThread([run, signals] { run->takeSignals(signals); });
    std::thread runner([run] { run->execute(); });
    run->watch();
    runner.join();
    pthread_kill(signalThread.native_handle(), SIGINT);
    signalThread.join();
    console::progress("");
}

}  // namespace vxrun
