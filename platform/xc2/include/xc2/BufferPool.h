// <xc2/BufferPool.h>: the codec library's buffer pools, over the block pools of Codec 2.0.
//
// Every allocation is fresh: the pools keep no freed blocks. Statuses other than those named are
// the block pool's own, passed on. A usage word with the multi-view bit makes buffers with two
// views, 0 and 1, in blocks of their own.
#pragma once

#include <C2Buffer.h>
#include <xc2/Buffer.h>
#include <xc2/Event.h>

#include <cstdint>
#include <memory>

#pragma GCC visibility push(default)
namespace xc2 {

constexpr uint64_t kUsageMultiView = 1ull << 58;

// XC2LinearBufferPool: makes linear buffers.
//
// Life     settings, then allocations; its buffers may outlive it.
// Threads  one at a time: the caller serializes.
// Owns     a share of its block pool.
class XC2LinearBufferPool {
public:
    XC2LinearBufferPool(std::shared_ptr<C2BlockPool> pool, uint64_t usage);
    ~XC2LinearBufferPool();

    // Settings count for the next allocation. The capacity is the size rounded up to the alignment,
    // both in bytes.
    XC2Status setBufferSize(uint32_t size);
    XC2Status setAlignment(uint32_t alignment);
    XC2Status setUsage(uint64_t usage);

    // A new buffer in `*buffer`, which is empty on failure.
    XC2Status allocate(std::shared_ptr<XC2Buffer>* buffer);

private:
    XC2Status allocateOne(std::shared_ptr<XC2Buffer>* buffer);

    const std::shared_ptr<C2BlockPool> mPool;
    uint64_t mUsage;
    uint32_t mSize = 0;
    uint32_t mAlignment = 1;
    int32_t mNextId = 0;
};

// XC2GraphicBufferPoolImpl: makes graphic buffers.
//
// Life     settings, then allocations; its buffers may outlive it.
// Threads  one at a time: the caller serializes.
// Owns     a share of its block pool.
class XC2GraphicBufferPoolImpl {
public:
    // The last three belong to the signature only: 1, null, 0.
    XC2GraphicBufferPoolImpl(std::shared_ptr<C2BlockPool> pool, uint32_t, std::shared_ptr<void>,
                             uint64_t);
    ~XC2GraphicBufferPoolImpl();

    // Settings count for the next allocation.
    //   XC2_BAD_VALUE  setResolution: a side is 0
    XC2Status setResolution(uint32_t width, uint32_t height);
    XC2Status setPixelFormat(uint32_t format);
    XC2Status setUsage(uint64_t usage);

    // A new buffer in `*buffer`, which is empty on failure.
    //   XC2_BAD_VALUE  there is no layout for the pixel format, or no resolution
    XC2Status allocate(std::shared_ptr<XC2Buffer>* buffer);

private:
    XC2Status allocateOne(std::shared_ptr<XC2Buffer>* buffer);

    const std::shared_ptr<C2BlockPool> mPool;
    uint64_t mUsage = 0;
    C2Rect mResolution;
    uint32_t mFormat = 0;
};

}  // namespace xc2
#pragma GCC visibility pop
