// What a buffer costs: a fetch and its release, recycled and fresh, from a pool that one or two
// threads share, beside what one would write instead (malloc and free, a free list under a mutex);
// and a mapping of which every page is touched, beside plain anonymous memory.
//
// All times are wall-clock times per fetch + release, or per mapping.
#include <VXBuffer.h>
#include <benchmark/benchmark.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <memory>

#include "floors.h"

using namespace vexa;

namespace {

constexpr size_t kSmall = 4096;
constexpr uint32_t kWidth = 3840, kHeight = 2160, kFormat = 0x36;  // 4K, 10-bit 4:2:0
constexpr size_t kPicture = 3840 * 2176 * 3;                       // the pool's size of it
constexpr size_t kSlots = 4;

// Threads of one benchmark share these; thread 0 makes them before the others start to measure, and
// drops them after all have stopped.
std::shared_ptr<VXLinearBufferPool> sLinear;
std::shared_ptr<VXGraphicBufferPool> sGraphic;

template <typename Pool>
std::shared_ptr<Pool> makePool(const char* backEnd, bool recycled) {
    auto pool = Pool::Create(backEnd, DEFAULT);
    if (recycled) pool->setMaxSlots(kSlots);
    return pool;
}

template <typename Buffer, typename Pool>
void fetchAndRelease(benchmark::State& state, std::shared_ptr<Pool>& pool) {
    for (auto _ : state) {
        std::shared_ptr<Buffer> buffer;
        if (pool->fetch(&buffer) != VX_OK) {
            state.SkipWithError("fetch failed");
            break;
        }
    }
    if (state.thread_index() == 0) pool.reset();
}

void linear(benchmark::State& state, const char* backEnd, bool recycled) {
    if (state.thread_index() == 0) {
        sLinear = makePool<VXLinearBufferPool>(backEnd, recycled);
        sLinear->setSize(kSmall);
    }
    fetchAndRelease<VXBuffer>(state, sLinear);
}

void picture(benchmark::State& state, const char* backEnd, bool recycled) {
    if (state.thread_index() == 0) {
        sGraphic = makePool<VXGraphicBufferPool>(backEnd, recycled);
        sGraphic->setPixelFormat(kFormat);
        sGraphic->setResolution(kWidth, kHeight);
    }
    fetchAndRelease<VXGraphicBuffer>(state, sGraphic);
}

// ---- Baselines --------------------------------------------------------------------------------

void plainMalloc(benchmark::State& state, size_t size) {
    for (auto _ : state) {
        void* memory = std::malloc(size);
        benchmark::DoNotOptimize(memory);
        std::free(memory);
    }
}

// The least that recycles: no limit, no back-end.
template <size_t kSize>
void freeList(benchmark::State& state) {
    using List = floors::FreeList<std::array<char, kSize>>;
    static std::unique_ptr<List> list;
    if (state.thread_index() == 0) list = std::make_unique<List>(kSlots);
    for (auto _ : state) {
        auto memory = list->fetch();
        benchmark::DoNotOptimize(memory);
    }
    if (state.thread_index() == 0) list.reset();
}

// ---- Mappings ---------------------------------------------------------------------------------

void touchPages(benchmark::State& state, uint8_t* memory, size_t size) {
    if (memory == MAP_FAILED) {
        state.SkipWithError("mapping failed");
        return;
    }
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    for (size_t at = 0; at < size; at += page) memory[at] = 1;
}

// The same picture again and again: its memory is there after the first touch, its pages are not.
void mapAndTouch(benchmark::State& state, const char* backEnd) {
    const auto pool = makePool<VXGraphicBufferPool>(backEnd, true);
    pool->setPixelFormat(kFormat);
    pool->setResolution(kWidth, kHeight);
    std::shared_ptr<VXGraphicBuffer> buffer;
    if (pool->fetch(&buffer) != VX_OK) {
        state.SkipWithError("fetch failed");
        return;
    }
    for (auto _ : state) {
        const auto mapping = buffer->map();
        touchPages(state, mapping->vaddr(), mapping->size());
    }
}

void anonymousMapAndTouch(benchmark::State& state, size_t size) {
    for (auto _ : state) {
        void* memory =
            mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        touchPages(state, static_cast<uint8_t*>(memory), size);
        munmap(memory, size);
    }
}

}  // namespace

#define FETCH_BENCHMARK(function, ...) \
    BENCHMARK_CAPTURE(function, __VA_ARGS__)->Threads(1)->Threads(2)->UseRealTime()

FETCH_BENCHMARK(plainMalloc, 4KiB, kSmall);
BENCHMARK_TEMPLATE(freeList, kSmall)->Threads(1)->Threads(2)->UseRealTime();
FETCH_BENCHMARK(linear, 4KiB_dmabuf_recycled, "dmabuf", true);
FETCH_BENCHMARK(linear, 4KiB_dmabuf_fresh, "dmabuf", false);
FETCH_BENCHMARK(linear, 4KiB_xcodec2_recycled, "xcodec2", true);
FETCH_BENCHMARK(linear, 4KiB_xcodec2_fresh, "xcodec2", false);

FETCH_BENCHMARK(plainMalloc, 4K10bit, kPicture);
BENCHMARK_TEMPLATE(freeList, kPicture)->Threads(1)->Threads(2)->UseRealTime();
FETCH_BENCHMARK(picture, 4K10bit_dmabuf_recycled, "dmabuf", true);
FETCH_BENCHMARK(picture, 4K10bit_dmabuf_fresh, "dmabuf", false);
FETCH_BENCHMARK(picture, 4K10bit_xcodec2_recycled, "xcodec2", true);
FETCH_BENCHMARK(picture, 4K10bit_xcodec2_fresh, "xcodec2", false);

BENCHMARK_CAPTURE(anonymousMapAndTouch, 4K10bit, kPicture)->UseRealTime();
BENCHMARK_CAPTURE(mapAndTouch, 4K10bit_dmabuf, "dmabuf")->UseRealTime();
BENCHMARK_CAPTURE(mapAndTouch, 4K10bit_xcodec2, "xcodec2")->UseRealTime();
