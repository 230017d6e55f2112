// Figures of the engine that are counts rather than times, or need a process of their own:
//
//     engine_figures run NODES WORKS      one chain and nothing else; for a profiler
//     engine_figures                      all figures
#include <dirent.h>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <new>
#include <thread>
#include <vector>

#include "Graphs.h"

// ---- Allocations ------------------------------------------------------------------------------

// Every operator new of the process, libvxbase's too, while they are counted: that costs.
static std::atomic<bool> sCounting{false};
static std::atomic<int64_t> sAllocations{0};

void* operator new(size_t size) {
    if (sCounting.load(std::memory_order_relaxed)) sAllocations.fetch_add(1);
    if (void* memory = std::malloc(size)) return memory;
    std::abort();
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, size_t) noexcept {
    std::free(memory);
}

namespace {

using namespace graphs;
using Clock = std::chrono::steady_clock;

// Runs a chain to its end; nanoseconds from start to completion.
double run(int nodes, int64_t works) {
    Source::sCount = works;
    auto listener = std::make_shared<Listener>();
    VXGraphInfo info = chain(nodes);
    const auto graph = VXGraph::BuildFromGraphInfo(info, listener);
    const auto begin = Clock::now();
    graph->runAsync();
    listener->done.get_future().wait();
    const std::chrono::duration<double, std::nano> time = Clock::now() - begin;
    graph->stop();
    return time.count();
}

void allocations() {
    constexpr int64_t kWorks = 20000;
    sCounting = true;
    const auto count = [](int nodes) {
        const int64_t before = sAllocations;
        run(nodes, kWorks);
        return sAllocations - before;
    };
    std::printf("allocations per work and hop: %.2f\n",
                static_cast<double>(count(9) - count(5)) / (4 * kWorks));
    sCounting = false;
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

void growth() {
    cpu_set_t all;
    sched_getaffinity(0, sizeof(all), &all);
    cpu_set_t one;
    CPU_ZERO(&one);
    for (int cpu = 0; CPU_COUNT(&one) == 0; ++cpu) {
        if (CPU_ISSET(cpu, &all)) CPU_SET(cpu, &one);
    }
    sched_setaffinity(0, sizeof(one), &one);
    const std::vector<int> lengths = {3, 5, 9, 17, 33, 65};
    std::vector<std::vector<double>> figures(lengths.size());
    for (int round = 0; round < 7; ++round) {
        for (size_t i = 0; i < lengths.size(); ++i) {
            const int64_t works = 200000 / lengths[i];
            figures[i].push_back(run(lengths[i], works) / static_cast<double>(works) /
                                 (lengths[i] - 1));
        }
    }
    for (size_t i = 0; i < lengths.size(); ++i) {
        std::printf("chain of %d on one core: %.0f ns per work and hop\n", lengths[i],
                    median(figures[i]));
    }
    sched_setaffinity(0, sizeof(all), &all);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::strcmp(argv[1], "run") == 0) {
        run(std::atoi(argv[2]), std::atoll(argv[3]));
        return 0;
    }
    allocations();
    growth();
}
