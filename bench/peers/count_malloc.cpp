// LD_PRELOAD=count_malloc.so PROGRAM...: prints, when the program ends, how often malloc was
// called, as operator new does. For GNU's C library, whose malloc has a second name.
#include <atomic>
#include <cstddef>
#include <cstdio>

extern "C" void* __libc_malloc(size_t size);

static std::atomic<long> sCalls{0};

extern "C" void* malloc(size_t size) {
    sCalls.fetch_add(1, std::memory_order_relaxed);
    return __libc_malloc(size);
}

__attribute__((destructor)) static void print() {
    std::printf("process allocations %ld\n", sCalls.load());
    std::fflush(stdout);
}
