// slotOf: the vtable slot of a virtual member, for the tests that pin slot orders. Of a destructor
// no pointer can be taken, so its slots show as the gap before the first operation.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

// The slot of `member`, or -1 when it is not virtual. Itanium C++ ABI, the same with g++ and clang:
// a pointer to a virtual member holds the byte offset of its slot; AArch64 keeps the mark "virtual"
// in the lowest bit of the adjustment instead of the pointer.
template <class Member>
int slotOf(Member member) {
    struct {
        uintptr_t ptr;
        ptrdiff_t adj;
    } raw;
    static_assert(sizeof(member) == sizeof(raw), "not a pointer to a member function");
    std::memcpy(&raw, &member, sizeof(raw));
#if defined(__aarch64__)
    return (raw.adj & 1) != 0 ? static_cast<int>(raw.ptr / sizeof(void*)) : -1;
#else
    return (raw.ptr & 1) != 0 ? static_cast<int>((raw.ptr - 1) / sizeof(void*)) : -1;
#endif
}

// Expects the operations to stand one after the other, from slot `first` on.
template <class... Operations>
void expectSlots(const char* name, int first, Operations... operations) {
    for (const int slot : {slotOf(operations)...}) EXPECT_EQ(slot, first++) << name;
}
