// The engine beside the plainest thing that does the same: a mutex and a condition variable around a
// queue per stage, with the same depth of flow control. Counters: works per second, ns per work and
// hop, context switches per work.
#include "Graphs.h"
#include "floors.h"

#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <chrono>
#include <deque>
#include <future>
#include <thread>

using namespace graphs;

namespace {

// ---- Measuring --------------------------------------------------------------------------------

long contextSwitches() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_nvcsw + usage.ru_nivcsw;
}

// Times the iterations of a benchmark, each of which moves `works` works over `hops` hops, and reports
// them when it goes.
class Report {
public:
    using Clock = std::chrono::steady_clock;

    Report(benchmark::State& state, int64_t works, int hops)
        : mState(state), mWorks(works), mHops(hops), mSwitches(contextSwitches()) {}
    ~Report() {
        const double works = static_cast<double>(mWorks) * static_cast<double>(mState.iterations());
        mState.counters["works/s"] = works / mTotal.count();
        mState.counters["ns/work/hop"] = mTotal.count() * 1e9 / works / mHops;
        mState.counters["switches/work"] =
            static_cast<double>(contextSwitches() - mSwitches) / works;
    }
    void begin() { mBegin = Clock::now(); }
    void end() {
        const std::chrono::duration<double> time = Clock::now() - mBegin;
        mState.SetIterationTime(time.count());
        mTotal += time;
    }

private:
    benchmark::State& mState;
    const int64_t mWorks;
    const int mHops;
    const long mSwitches;
    Clock::time_point mBegin;
    std::chrono::duration<double> mTotal{0};
};

using floors::PlainQueue;
using Item = std::shared_ptr<int>;

// ---- Graphs -----------------------------------------------------------------------------------

// Runs a graph to its end and times what is between start and completion.
void runGraph(Report& report, VXGraphInfo info) {
    auto listener = std::make_shared<Listener>();
    const auto graph = VXGraph::BuildFromGraphInfo(info, listener);
    report.begin();
    graph->runAsync();
    listener->done.get_future().wait();
    report.end();
    graph->stop();
}

constexpr int64_t kWorks = 20000;

void chainOfNodes(benchmark::State& state) {
    const int nodes = static_cast<int>(state.range(0));
    Source::sCount = kWorks;
    Report report(state, kWorks, nodes - 1);
    for (auto _ : state) {
        runGraph(report, chain(nodes));
    }
}

void chainOfPlainQueues(benchmark::State& state) {
    const int stages = static_cast<int>(state.range(0));
    Report report(state, kWorks, stages - 1);
    for (auto _ : state) {
        std::deque<PlainQueue<Item>> queues;
        for (int i = 1; i < stages; ++i) queues.emplace_back(4);
        report.begin();
        std::vector<std::thread> threads;
        threads.emplace_back([&] {
            for (int64_t i = 0; i < kWorks; ++i) queues[0].push(std::make_shared<int>(0));
            queues[0].push(nullptr);
        });
        for (int i = 1; i + 1 < stages; ++i) {
            threads.emplace_back([&, i] {
                while (Item item = queues[i - 1].pop()) queues[i].push(std::move(item));
                queues[i].push(nullptr);
            });
        }
        while (queues.back().pop() != nullptr) {
        }
        report.end();
        for (auto& thread : threads) thread.join();
    }
}

constexpr int kBranches = 4;

void fanOutOfNodes(benchmark::State& state) {
    Source::sCount = kWorks;
    Report report(state, kWorks, kBranches);
    for (auto _ : state) {
        VXGraphInfo info{"bench", {}, {}};
        add(&info, "bench/source", 0, false, true);
        for (int i = 1; i <= kBranches; ++i) {
            add(&info, "bench/node", i, true, false);
            info.connections["n0.out"].push_back("n" + std::to_string(i) + ".in");
        }
        runGraph(report, std::move(info));
    }
}

void fanOutOfPlainQueues(benchmark::State& state) {
    Report report(state, kWorks, kBranches);
    for (auto _ : state) {
        std::deque<PlainQueue<Item>> queues;
        for (int i = 0; i < kBranches; ++i) queues.emplace_back(4);
        report.begin();
        std::vector<std::thread> threads;
        for (auto& queue : queues) {
            threads.emplace_back([&queue] {
                while (queue.pop() != nullptr) {
                }
            });
        }
        for (int64_t i = 0; i <= kWorks; ++i) {
            const Item item = i < kWorks ? std::make_shared<int>(0) : nullptr;
            for (auto& queue : queues) queue.push(item);
        }
        for (auto& thread : threads) thread.join();
        report.end();
    }
}

// ---- Events alone -----------------------------------------------------------------------------

// Calls a function for every event.
template <typename Function>
class Receiver : public virtual xc2::EventHandler {
public:
    explicit Receiver(Function function) : mFunction(std::move(function)) {}
    xc2::XC2Status onEvent(std::shared_ptr<xc2::Event> event) override {
        mFunction(std::move(event));
        return xc2::XC2_OK;
    }

private:
    Function mFunction;
};

// Has `producers` threads call `post` kWorks times each, and times until `allSeen` is ready.
template <typename Post>
void timeProducers(Report& report, int producers, const Post& post, std::future<void> allSeen) {
    report.begin();
    std::vector<std::thread> threads;
    for (int i = 0; i < producers; ++i) {
        threads.emplace_back([&] {
            for (int64_t n = 0; n < kWorks; ++n) post();
        });
    }
    allSeen.wait();
    report.end();
    for (auto& thread : threads) thread.join();
}

void postEvents(benchmark::State& state) {
    const int producers = static_cast<int>(state.range(0));
    Report report(state, kWorks * producers, 1);
    for (auto _ : state) {
        int64_t left = kWorks * producers;
        std::promise<void> seen;
        const auto count = [&](std::shared_ptr<xc2::Event>) {
            if (--left == 0) seen.set_value();
        };
        const auto handler = std::make_shared<Receiver<decltype(count)>>(count);
        auto queue = std::make_shared<xc2::EventQueue>("bench");
        queue->start(0);
        handler->attach(queue);
        timeProducers(
            report, producers, [&] { handler->postAsync(std::make_shared<xc2::Event>(1)); },
            seen.get_future());
        queue->stop();
    }
}

void postToPlainQueue(benchmark::State& state) {
    const int producers = static_cast<int>(state.range(0));
    Report report(state, kWorks * producers, 1);
    for (auto _ : state) {
        PlainQueue<Item> queue(SIZE_MAX);
        std::promise<void> seen;
        std::thread consumer([&] {
            for (int64_t left = kWorks * producers; left > 0; --left) queue.pop();
            seen.set_value();
        });
        timeProducers(
            report, producers, [&] { queue.push(std::make_shared<int>(0)); }, seen.get_future());
        consumer.join();
    }
}

void roundTripOfEvents(benchmark::State& state) {
    Report report(state, kWorks, 2);
    for (auto _ : state) {
        std::promise<void> seen;
        std::shared_ptr<xc2::EventHandler> ping;
        std::shared_ptr<xc2::EventHandler> pong;
        int64_t left = kWorks;
        const auto back = [&](std::shared_ptr<xc2::Event> event) {
            ping->postAsync(std::move(event));
        };
        const auto again = [&](std::shared_ptr<xc2::Event> event) {
            if (--left == 0) {
                seen.set_value();
            } else {
                pong->postAsync(std::move(event));
            }
        };
        pong = std::make_shared<Receiver<decltype(back)>>(back);
        ping = std::make_shared<Receiver<decltype(again)>>(again);
        auto pingQueue = std::make_shared<xc2::EventQueue>("ping");
        auto pongQueue = std::make_shared<xc2::EventQueue>("pong");
        pingQueue->start(0);
        pongQueue->start(0);
        ping->attach(pingQueue);
        pong->attach(pongQueue);
        report.begin();
        pong->postAsync(std::make_shared<xc2::Event>(1));
        seen.get_future().wait();
        report.end();
        pingQueue->stop();
        pongQueue->stop();
    }
}

void roundTripOfPlainQueues(benchmark::State& state) {
    Report report(state, kWorks, 2);
    for (auto _ : state) {
        PlainQueue<Item> ping;
        PlainQueue<Item> pong;
        std::thread other([&] {
            for (int64_t left = kWorks; left > 0; --left) ping.push(pong.pop());
        });
        report.begin();
        Item item = std::make_shared<int>(0);
        for (int64_t left = kWorks; left > 0; --left) {
            pong.push(std::move(item));
            item = ping.pop();
        }
        report.end();
        other.join();
    }
}

// Each engine row is followed by its baseline.
BENCHMARK(postEvents)->Arg(1)->Arg(2)->Arg(4)->UseManualTime();
BENCHMARK(postToPlainQueue)->Arg(1)->Arg(2)->Arg(4)->UseManualTime();
BENCHMARK(roundTripOfEvents)->UseManualTime();
BENCHMARK(roundTripOfPlainQueues)->UseManualTime();
BENCHMARK(chainOfNodes)->Arg(3)->Arg(5)->Arg(9)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(chainOfPlainQueues)
    ->Arg(3)
    ->Arg(5)
    ->Arg(9)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(fanOutOfNodes)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(fanOutOfPlainQueues)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace
