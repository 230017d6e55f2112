#include <VXWork.h>

#include <cstring>
#include <new>

namespace vexa {

static constexpr char kLogTag[] = "Vexa:VXWork";

size_t memcpy_s(void* dst, size_t dstSize, const void* src, size_t count) {
    if (dst == nullptr) {
        VX_LOGE("memcpy_s: invalid dst addr");
        return 0;
    }
    if (src == nullptr) {
        VX_LOGE("memcpy_s: invalid src addr");
        return 0;
    }
    if (dstSize < count) {
        VX_LOGE("memcpy_s: dst-size (%zu bytes) is shorter than copy-size (%zu bytes)", dstSize,
                count);
        return 0;
    }
    std::memcpy(dst, src, count);
    return count;
}

void* VXSharedWork::Home::inside(void* memory) {
    if (memory == nullptr) return nullptr;
    // In a step of its own: clang-tidy crashes on pointer arithmetic behind a new expression.
    Home* const home = new (memory) Home();
    return home + 1;
}

// Only the thread that makes the work or runs its release hook enters, before any resident could
// leave on another, so it need not count atomically.
void* VXSharedWork::Home::enter(size_t size) {
    if (size > sizeof(room) - used) return nullptr;
    residents.store(residents.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    void* const memory = room + used;
    // Rounded up, so that the next resident is aligned, too.
    used += (size + kAlign - 1) / kAlign * kAlign;
    return memory;
}

// The last to leave need not count: the load sees what the others have done, and no other thread is
// left to change the number.
void VXSharedWork::Home::leave() {
    if (residents.load(std::memory_order_acquire) == 1 ||
        residents.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        this->~Home();
        ::operator delete(this);
    }
}

void* VXSharedWork::operator new(size_t size) {
    // One allocation for the work, its control block and the event of its release.
    return Home::inside(::operator new(sizeof(Home) + size));
}

void* VXSharedWork::operator new(size_t size, const std::nothrow_t& noThrow) noexcept {
    return Home::inside(::operator new(sizeof(Home) + size, noThrow));
}

void VXSharedWork::operator delete(void* work) {
    // The work is one of the residents: its memory stays while the event of its release is under
    // way. Works made in a caller's memory never come here.
    (static_cast<Home*>(work) - 1)->leave();
}

// Destructors stand here so that each type's virtual table and identity exist once, in this
// library.
VXAuxInfo::~VXAuxInfo() = default;
VXEditableAuxInfo::~VXEditableAuxInfo() = default;
VXInfo::~VXInfo() = default;
VXSharedWork::~VXSharedWork() = default;
VXWork::~VXWork() = default;

}  // namespace vexa
