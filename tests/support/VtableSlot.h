// slotOf: the vtable slot of a virtual member, for the tests that pin slot orders.
//
//   EXPECT_EQ(slotOf(&VXBuffer::isLinear), 2);   // 0 and 1 are the destructor's two slots
//
// The slot is the one in the table of the class that the pointer names; of a destructor no pointer
// can be taken, so its slots show as the gap before the first operation.
#pragma once

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
    const bool isVirtual = (raw.adj & 1) != 0;
    const uintptr_t offset = raw.ptr;
#else
    const bool isVirtual = (raw.ptr & 1) != 0;
    const uintptr_t offset = raw.ptr - 1;
#endif
    return isVirtual ? static_cast<int>(offset / sizeof(void*)) : -1;
}
