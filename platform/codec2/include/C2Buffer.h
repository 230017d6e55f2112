// <C2Buffer.h>: fences, blocks of memory and the pools that they come from.
//
// Names, signatures and results are the device's; what this project does not use is left out.
#pragma once

#include <C2.h>
#include <cutils/native_handle.h>

#include <cstdint>
#include <memory>

#pragma GCC visibility push(default)

class C2CircularBlock;
struct _C2BlockFactory;
namespace vexa_host {
class FenceSource;
}

// One descriptor first, then numbers that belong to the handle's maker.
typedef ::native_handle_t C2Handle;

// C2Fence: an event to wait for.
//
// Life     a value; copies share one state, which lives until the last of them is gone.
// Threads  any.
// Owns     its share of that state.
//
// A fence made by the default constructor counts as fired. There is no fence of the kernel here; an
// unfired one comes from a vexa_host::FenceSource (<C2FenceSource.h>).
class C2Fence {
public:
    constexpr C2Fence() : mImpl(nullptr) {}

    // Blocks until the fence has fired, at most `timeoutNs`, which may be any number.
    //   C2_OK         fired
    //   C2_TIMED_OUT  not yet
    //   C2_BAD_STATE  it never will: abandoned
    c2_status_t wait(c2_nsecs_t timeoutNs);

    bool valid() const;  // false once abandoned
    bool ready() const;  // fired
    int fd() const;      // a new descriptor for a fence of the kernel, else -1
    bool isHW() const;   // whether it is one

private:
    class Impl;
    friend class vexa_host::FenceSource;
    explicit C2Fence(std::shared_ptr<Impl> impl);

    std::shared_ptr<Impl> mImpl;
};

// C2MemoryUsage: what a buffer will be used for, as bits. A plain value.
struct C2MemoryUsage {
    enum read_t : uint64_t {
        CPU_READ = 1 << 0,
        READ_PROTECTED = 1 << 1,
    };
    enum write_t : uint64_t {
        CPU_WRITE = 1 << 2,
        WRITE_PROTECTED = 1 << 3,
    };

    explicit C2MemoryUsage(uint64_t usage) : expected(usage) {}
    C2MemoryUsage(uint64_t read, uint64_t write) : expected(read | write) {}

    uint64_t expected;
};

// C2Rect: a part of a picture, in pixels. A plain value.
struct C2Rect {
    uint32_t width;
    uint32_t height;
    uint32_t left;
    uint32_t top;

    C2Rect() : C2Rect(0, 0) {}
    C2Rect(uint32_t width_, uint32_t height_) : C2Rect(width_, height_, 0, 0) {}
    C2Rect at(uint32_t left_, uint32_t top_) const { return C2Rect(width, height, left_, top_); }

private:
    C2Rect(uint32_t width_, uint32_t height_, uint32_t left_, uint32_t top_)
        : width(width_), height(height_), left(left_), top(top_) {}
};

// C2Block1D: linear memory, in bytes.
//
// Life     made by a pool, held by shared pointer; may outlive the pool.
// Threads  any: it never changes.
// Owns     its handle and the handle's descriptor: duplicate the descriptor to keep it longer.
class C2Block1D {
public:
    virtual ~C2Block1D();

    const C2Handle* handle() const { return mHandle.get(); }
    uint32_t capacity() const { return mCapacity; }
    uint32_t offset() const { return 0; }
    uint32_t size() const { return mCapacity; }

protected:
    C2Block1D(std::shared_ptr<const C2Handle> handle, uint32_t capacity);

private:
    const std::shared_ptr<const C2Handle> mHandle;
    const uint32_t mCapacity;
};

// C2LinearBlock: what a pool hands out; as C2Block1D in everything.
class C2LinearBlock : public C2Block1D {
    using C2Block1D::C2Block1D;
    friend struct _C2BlockFactory;
};

// C2Block2D: the memory of a picture, its sides in pixels. Life, Threads, Owns: as C2Block1D.
class C2Block2D {
public:
    virtual ~C2Block2D();

    const C2Handle* handle() const { return mHandle.get(); }
    uint32_t width() const { return mWidth; }
    uint32_t height() const { return mHeight; }
    C2Rect crop() const { return C2Rect(mWidth, mHeight); }

protected:
    C2Block2D(std::shared_ptr<const C2Handle> handle, uint32_t width, uint32_t height);

private:
    const std::shared_ptr<const C2Handle> mHandle;
    const uint32_t mWidth;
    const uint32_t mHeight;
};

// C2GraphicBlock: what a pool hands out; as C2Block2D in everything.
class C2GraphicBlock : public C2Block2D {
    using C2Block2D::C2Block2D;
    friend struct _C2BlockFactory;
};

// C2Allocator: here only the type of an allocator's id.
class C2Allocator {
public:
    typedef uint32_t id_t;
};

// C2BlockPool: where blocks come from. A fetch empties `*block` first; a kind of block that a pool
// does not make is C2_OMITTED.
//
// Life     held by shared pointer; its blocks may outlive it.
// Threads  all operations: any.
// Owns     its source of memory, not the blocks.
class C2BlockPool {
public:
    typedef uint64_t local_id_t;
    enum : local_id_t {
        BASIC_LINEAR = 0,
        BASIC_GRAPHIC = 1,
        PLATFORM_START = 0x10,
    };

    // Virtual operations in slot order.
    virtual local_id_t getLocalId() const = 0;
    virtual C2Allocator::id_t getAllocatorId() const = 0;
    virtual c2_status_t fetchLinearBlock(uint32_t capacity, C2MemoryUsage usage,
                                         std::shared_ptr<C2LinearBlock>* block);
    virtual c2_status_t fetchCircularBlock(uint32_t capacity, C2MemoryUsage usage,
                                           std::shared_ptr<C2CircularBlock>* block);
    virtual c2_status_t fetchGraphicBlock(uint32_t width, uint32_t height, uint32_t format,
                                          C2MemoryUsage usage,
                                          std::shared_ptr<C2GraphicBlock>* block);
    virtual ~C2BlockPool();
};

#pragma GCC visibility pop
