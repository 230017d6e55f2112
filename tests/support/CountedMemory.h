// Memory by new, counted and overwritten at its end, for a program that includes this once. Not
// inline: g++ takes an inlined pair of them for a new that meets a free.
#pragma once

#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

inline std::atomic<int> gAllocations{0};         // so far
inline std::atomic<int> gBlocks{0};              // in use
inline thread_local bool tRefuseMemory = false;  // by the form of new that may answer null

#define COUNTED __attribute__((noinline))
COUNTED void* operator new(size_t size) {
    ++gAllocations;
    ++gBlocks;
    return std::malloc(size);
}
COUNTED void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return tRefuseMemory ? nullptr : operator new(size);
}
COUNTED void operator delete(void* memory) noexcept {
    if (memory == nullptr) return;
    --gBlocks;
    std::memset(memory, 0xdd, malloc_usable_size(memory));
    asm volatile("" : : "r"(memory) : "memory");  // so that the compiler leaves it in
    std::free(memory);
}
COUNTED void operator delete(void* memory, size_t) noexcept {
    operator delete(memory);
}
