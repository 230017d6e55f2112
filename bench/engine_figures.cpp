// Figures of the engine that are counts rather than times, or need a process of their own:
//
//     engine_figures run NODES WORKS      one chain and nothing else; for a profiler
//     engine_figures [MOST WORKS]         all figures; the longest run, by default a million works
#include <android/log.h>
#include <dirent.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <new>
#include <string>
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

// ---- Growth -----------------------------------------------------------------------------------

// The whole process on the first of its processors, or on all of them again.
class OneCore {
public:
    OneCore() {
        sched_getaffinity(0, sizeof(mAll), &mAll);
        cpu_set_t one;
        CPU_ZERO(&one);
        for (int cpu = 0; CPU_COUNT(&one) == 0; ++cpu) {
            if (CPU_ISSET(cpu, &mAll)) CPU_SET(cpu, &one);
        }
        sched_setaffinity(0, sizeof(one), &one);
    }
    ~OneCore() { sched_setaffinity(0, sizeof(mAll), &mAll); }

private:
    cpu_set_t mAll;
};

long residentKiB() {
    long pages = 0;
    std::ifstream("/proc/self/statm") >> pages >> pages;
    return pages * (sysconf(_SC_PAGESIZE) / 1024);
}

void growth(int64_t mostWorks) {
    const OneCore oneCore;
    const std::vector<int> lengths = {3, 5, 9, 17, 33, 65};
    std::vector<std::vector<double>> figures(lengths.size());
    for (int round = 0; round < 7; ++round) {
        for (size_t i = 0; i < lengths.size(); ++i) {
            const int64_t works = 200000 / lengths[i];
            const double hops = static_cast<double>(works) * (lengths[i] - 1);
            figures[i].push_back(run(lengths[i], works) / hops);
        }
    }
    for (size_t i = 0; i < lengths.size(); ++i) {
        std::printf("chain of %d on one core: %.0f ns per work and hop\n", lengths[i],
                    median(figures[i]));
    }
    for (int64_t works = 1000; works <= mostWorks; works *= 10) {
        std::vector<double> times;
        for (int64_t round = 0; round < 7 && round * works < 1000000; ++round) {
            times.push_back(run(3, works) / static_cast<double>(works) / 2);
        }
        std::printf("%lld works on one core: %.0f ns per work and hop, %ld KiB resident\n",
                    static_cast<long long>(works), median(times), residentKiB());
    }
}

// ---- Idleness ---------------------------------------------------------------------------------

// Voluntary switches of all threads but this one.
long wakeUps() {
    long sum = 0;
    DIR* tasks = opendir("/proc/self/task");
    while (const dirent* task = readdir(tasks)) {
        if (std::atoi(task->d_name) == 0 || std::atoi(task->d_name) == getpid()) continue;
        std::ifstream status(std::string("/proc/self/task/") + task->d_name + "/status");
        for (std::string word; status >> word;) {
            long count = 0;
            if (word == "voluntary_ctxt_switches:" && status >> count) sum += count;
        }
    }
    closedir(tasks);
    return sum;
}

void idleness() {
    Source::sCount = 1000;
    Source::sEnds = false;
    auto listener = std::make_shared<Listener>();
    VXGraphInfo info = chain(9);
    const auto graph = VXGraph::BuildFromGraphInfo(info, listener);
    graph->runAsync();
    std::this_thread::sleep_for(
        std::chrono::seconds(1));  // the works go through, then all is still
    const long before = wakeUps();
    std::this_thread::sleep_for(std::chrono::seconds(1));
    std::printf("idle graph of 9: %ld wake-ups in a second, after %ld at work\n",
                wakeUps() - before, before);
    graph->stop();
    Source::sEnds = true;
}

// ---- Log gates --------------------------------------------------------------------------------

std::atomic<int64_t> sMessages{0};

// Every gate that a work passes lets its message through once under a full mask; a guard's gate is
// behind its condition.
void gates() {
    constexpr int64_t kWorks = 5000;
    const OneCore oneCore;
    __android_log_set_logger([](const __android_log_message*) { ++sMessages; });
    gVXLogLevel = 0x1f;
    const auto count = [](int nodes) {
        const int64_t before = sMessages;
        run(nodes, kWorks);
        return sMessages - before;
    };
    const double perHop = static_cast<double>(count(9) - count(5)) / (4 * kWorks);
    gVXLogLevel = 0;
    __android_log_set_logger(__android_log_stderr_logger);

    constexpr int kTests = 100000000;
    int passed = 0;
    const auto begin = Clock::now();
    for (int i = 0; i < kTests; ++i) {
        if (gVXLogLevel.load(std::memory_order_relaxed) & VX_LOG_TRACE) ++passed;
        asm volatile("" : : : "memory");
    }
    const std::chrono::duration<double, std::nano> time = Clock::now() - begin;
    std::vector<double> hops;
    for (int round = 0; round < 7; ++round) hops.push_back(run(9, 20000) / 20000 / 8);
    std::printf("log gates: %.1f per work and hop, %.2f ns each, %.2f %% of a hop (%d passed)\n",
                perHop, time.count() / kTests, 100 * perHop * time.count() / kTests / median(hops),
                passed);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::strcmp(argv[1], "run") == 0) {
        run(std::atoi(argv[2]), std::atoll(argv[3]));
        return 0;
    }
    allocations();
    gates();
    idleness();
    growth(argc == 2 ? std::atoll(argv[1]) : 1000000);
}
