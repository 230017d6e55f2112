// What the comparison programs share: options, counting what arrives, work and load, and the lines
// that they print. Each program does one workload per process:
//
//     PROGRAM WORKLOAD [n=5] [us=0] [busy=0] [ms=300] [count=0]
//
// and prints "WORKLOAD METRIC VALUE" lines. Every item carries the same: one small object that is
// reference-counted. At most kInFlight items are on their way over one hop.
#pragma once

#include "../BusyThreads.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace peer {

constexpr int kInFlight = 4;

using Item = std::shared_ptr<int>;
inline Item makeItem() {
    return std::make_shared<int>(0);
}

struct Options {
    const char* workload = "";
    int64_t n = 5;      // stages, producers, threads or branches
    int64_t us = 0;     // arithmetic per stage and item
    int64_t busy = 0;   // threads that compute beside it
    int64_t ms = 300;   // about as long as one measurement takes
    int64_t count = 0;  // items at a time; 0: the workload chooses
};

[[noreturn]] inline void fail(const char* what) {
    std::fprintf(stderr, "%s\n", what);
    std::_Exit(1);
}

inline int64_t nowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

inline void report(const Options& options, const char* metric, double value) {
    std::printf("%s %s %.3f\n", options.workload, metric, value);
}

// Counts the items that arrive at one place, on one thread at a time, and takes the time from the
// first to the last: what is built before and torn down after does not count.
class Arrivals {
public:
    static constexpr int64_t kAnyNumber = -1;  // of items, which no thread waits for

    explicit Arrivals(int64_t expected) : mExpected(expected) {}
    void start() { mFirst = nowNs(); }  // time from here on instead
    void one() {
        const int64_t count = mCount.load(std::memory_order_relaxed) + 1;
        mCount.store(count, std::memory_order_relaxed);
        if (mFirst == 0) mFirst = nowNs();
        if (count != mExpected) return;
        const std::lock_guard<std::mutex> lock(mLock);
        mLast = nowNs();
        mAll.notify_one();
    }
    // Waits until all are there; ns from the first to the last.
    double wait() {
        std::unique_lock<std::mutex> lock(mLock);
        if (!mAll.wait_for(lock, std::chrono::minutes(10), [this] { return mLast != 0; })) {
            fail("not every item arrived");
        }
        return static_cast<double>(mLast - mFirst);
    }
    int64_t count() const { return mCount; }
    ~Arrivals() {
        if (mCount != mExpected && mExpected != kAnyNumber)
            fail("other than the expected items arrived");
    }

private:
    const int64_t mExpected;
    std::atomic<int64_t> mCount{0};
    int64_t mFirst = 0, mLast = 0;
    std::mutex mLock;
    std::condition_variable mAll;
};

// Waits for all items at all places; ns from the first to the last at the slowest of them.
template <typename Places>
double slowest(Places& arrivals) {
    double ns = 0;
    for (Arrivals& place : arrivals) ns = std::max(ns, place.wait());
    return ns;
}

// Arithmetic that takes about `us` microseconds of processor time: the fastest of several short
// trials is taken as the measure, so that a busy machine does not make the work smaller.
inline void compute(int64_t us) {
    const auto spin = [](int64_t steps) {
        for (volatile int64_t i = 0; i < steps; i = i + 1) {
        }
    };
    static const double sStepsPerUs = [&] {
        constexpr int64_t kSteps = 50000;
        int64_t best = INT64_MAX;
        for (int i = 0; i < 50; ++i) {
            const int64_t from = nowNs();
            spin(kSteps);
            best = std::min(best, nowNs() - from);
        }
        return kSteps * 1e3 / static_cast<double>(best);
    }();
    if (us > 0) spin(static_cast<int64_t>(static_cast<double>(us) * sStepsPerUs));
}

// Calls run(count), which moves so many items and returns the ns that they took: first with `few`,
// as a warm-up that measures how many fit into options.ms, then for the record. A given count is
// moved as often as fits.
template <typename Run>
void perItem(const Options& options, Run run, int64_t few = 1000) {
    const double wanted = static_cast<double>(options.ms) * 1e6;
    int64_t count = few, moved = 0;
    double ns = run(count);
    if (options.count > 0) {
        count = options.count;
        ns = 0;
        do {
            ns += run(count);
            moved += count;
        } while (ns < wanted);
    } else {
        while (ns < wanted / 8) ns = run(count *= 4);
        moved = std::max(few, static_cast<int64_t>(static_cast<double>(count) * wanted / ns));
        ns = run(moved);
    }
    report(options, "ns_per_item", ns / static_cast<double>(moved));
}

// Makes options.n threads call `action` `each` times; ns until the last has done so.
template <typename Action>
double onThreads(const Options& options, int64_t each, Action action) {
    std::vector<std::thread> threads;
    const int64_t from = nowNs();
    for (int64_t i = 0; i < options.n; ++i) {
        threads.emplace_back([&] {
            for (int64_t left = each; left > 0; --left) action();
        });
    }
    for (auto& thread : threads) thread.join();
    return static_cast<double>(nowNs() - from);
}

// Something slow: what one call of `once` takes.
template <typename Once>
void perCall(const Options& options, Once once) {
    perItem(
        options,
        [&](int64_t count) {
            const int64_t from = nowNs();
            for (int64_t i = 0; i < count; ++i) once();
            return static_cast<double>(nowNs() - from);
        },
        10);
}

// A buffer that options.n threads fetch and release, one after another each; what `fetch` returns
// is the buffer, empty when there was none.
template <typename Fetch>
void perFetch(const Options& options, Fetch fetch) {
    perItem(options, [&](int64_t count) {
        return onThreads(options, count / options.n, [&] {
            if (fetch() == nullptr) fail("no buffer");
        });
    });
}

// Items that options.n threads post at once, without a handshake, in bursts so that what waits has
// a limit. Each item ends in (*arrivals)->one().
template <typename Post>
void perPost(const Options& options, Arrivals** arrivals, Post post) {
    const int64_t each = 10000, burst = each * options.n;
    perItem(options, [&](int64_t count) {
        double ns = 0;
        int64_t posted = 0;
        for (; posted < count; posted += burst) {
            Arrivals all(burst);
            *arrivals = &all;
            all.start();  // a consumer may come to its first item when all have been posted
            onThreads(options, each, post);
            ns += all.wait();
        }
        return ns * static_cast<double>(count) / static_cast<double>(posted);
    });
}

// The times of single round trips, taken on the thread that sends and receives.
class RoundTrips {
public:
    explicit RoundTrips(const Options& options)
        : mOptions(options), mUntil(nowNs() + options.ms * 1000000) {
        mTimes.reserve(1 << 20);
    }
    void sent() { mSent = nowNs(); }
    // True when there is to be another one.
    bool received() {
        const int64_t now = nowNs();
        mTimes.push_back(now - mSent);
        if (now < mUntil) return true;
        mEnd.one();
        return false;
    }
    void wait() { mEnd.wait(); }  // for the last one
    void report() {
        wait();
        // The first ones warm up.
        mTimes.erase(mTimes.begin(), mTimes.begin() + static_cast<int64_t>(mTimes.size() / 10));
        std::sort(mTimes.begin(), mTimes.end());
        const size_t count = mTimes.size();
        peer::report(mOptions, "ns_median", static_cast<double>(mTimes[count / 2]));
        peer::report(mOptions, "ns_p99", static_cast<double>(mTimes[count * 99 / 100]));
    }

private:
    const Options mOptions;
    const int64_t mUntil;
    int64_t mSent = 0;
    std::vector<int64_t> mTimes;
    Arrivals mEnd{1};
};

using Workloads = std::map<std::string, void (*)(const Options&)>;

inline int run(int argc, char** argv, const Workloads& workloads) {
    Options options;
    const std::map<std::string, int64_t*> values = {{"n", &options.n},
                                                    {"us", &options.us},
                                                    {"busy", &options.busy},
                                                    {"ms", &options.ms},
                                                    {"count", &options.count}};
    const auto workload = workloads.find(argc > 1 ? argv[1] : "");
    bool good = workload != workloads.end();
    for (int i = 2; i < argc && good; ++i) {
        const std::string text = argv[i];
        const auto value = values.find(text.substr(0, text.find('=')));
        good = value != values.end() && text.find('=') != std::string::npos;
        if (good) *value->second = std::atoll(text.c_str() + text.find('=') + 1);
    }
    if (!good) {
        std::fprintf(
            stderr,
            "usage: %s WORKLOAD [n=5] [us=0] [busy=0] [ms=300] [count=0]\nworkloads:", argv[0]);
        for (const auto& [name, function] : workloads) std::fprintf(stderr, " %s", name.c_str());
        std::fprintf(stderr, "\n");
        return 2;
    }
    options.workload = argv[1];
    compute(0);  // measures how fast the processor is while nothing else runs
    const BusyThreads busy(options.busy);
    workload->second(options);
    return 0;
}

}  // namespace peer
