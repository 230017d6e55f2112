// VXBuffer_xc2: buffers from Codec 2.0 block pools, through the codec library; back-end "xcodec2".
//
// A buffer here wraps an xc2::XC2Buffer, which nativeBuffer() hands out and createFromNative()
// accepts. If it has none, or one of the wrong kind, descriptors and ids are -1, numbers are 0, and
// setters return VX_NO_INIT unless noted.
#pragma once

#include <any>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <vector>

// After the standard headers, on which a device's <C2Buffer.h> relies.
#include <C2Buffer.h>
#include <VXBuffer.h>
#include <xc2/Buffer.h>
#include <xc2/BufferPool.h>

namespace vexa {

// New pools. Their buffers are secure when `usage` contains the bit of SECURE, which MULTIVIEW
// does, too, on purpose; setUsage() does not change that.  [any thread]
VX_EXPORT std::shared_ptr<VXLinearBufferPool> VXLinearBufferPoolCreate_xc2(VXBufferUsage usage);
VX_EXPORT std::shared_ptr<VXGraphicBufferPool> VXGraphicBufferPoolCreate_xc2(VXBufferUsage usage);

// VXBufferXC2_Mapping: the mapping of either kind of buffer; as VXBuffer::Mapping in everything.
class VX_EXPORT VXBufferXC2_Mapping : public VXBuffer::Mapping {
public:
    using VXBuffer::Mapping::Mapping;
    ~VXBufferXC2_Mapping() override;
};

// VXFence_XC2: the fence of a Codec 2.0 buffer. If the buffer has none, "fence is null" is logged
// and the results are VX_OK, false, false and -1.
//
// Life, Threads: as VXFence.
// Owns     a share of the codec library's fence.
class VX_EXPORT VXFence_XC2 : public VXFence {
public:
    explicit VXFence_XC2(std::shared_ptr<C2Fence> fence);
    ~VXFence_XC2() override;

    // Waits at most 500 ms.
    VXError waitForSignal() const override;
    bool isValid() const override;
    bool isReady() const override;
    int fd() const override;

private:
    C2Fence* inside() const;

    const uint32_t mTimeoutMs = 500;
    const std::shared_ptr<C2Fence> mFence;
};

// VXBuffer_XC2: plain memory. Has no fence.
//
// Life, Threads: as VXBuffer; views and results of createFromNative() belong to no pool.
// Owns     a share of the codec library's buffer.
class VX_EXPORT VXBuffer_XC2 : public virtual VXBuffer {
public:
    VXBuffer_XC2(std::shared_ptr<xc2::XC2Buffer> xc2Buf, bool secure);
    ~VXBuffer_XC2() override;

    int fd() const override;
    int32_t id() const override;
    uint64_t uid() const override;
    bool isSecure() const override;
    size_t capacity() const override;
    bool isFenceValid() const override;
    bool isFenceReady() const override;
    VXError waitForFenceSignal() const override;
    size_t size() const override;
    size_t offset() const override;
    VXError setFilledRange(size_t offset, size_t size) override;
    std::any nativeBuffer() override;
    std::list<xc2::viewId_t> enumviews() const override;
    // Views are never secure.
    std::shared_ptr<VXBuffer> getview(xc2::viewId_t viewId) const override;
    std::unique_ptr<Mapping> map() override;
    void reset() override;

private:
    bool isGood() const;

    const std::shared_ptr<xc2::XC2Buffer> mXC2Buf;
    const bool mSecure;
};

// VXGraphicBuffer_XC2: a picture. id() is the descriptor.
//
// Life, Threads: as VXBuffer; views and results of createFromNative() belong to no pool.
// Owns     a share of the codec library's buffer, and its VXFence_XC2.
class VX_EXPORT VXGraphicBuffer_XC2 : public VXGraphicBuffer {
public:
    VXGraphicBuffer_XC2(std::shared_ptr<xc2::XC2Buffer> xc2Buf, bool secure);
    ~VXGraphicBuffer_XC2() override;

    int fd() const override;
    int32_t id() const override;
    uint64_t uid() const override;
    bool isSecure() const override;
    size_t capacity() const override;
    bool isFenceValid() const override;
    bool isFenceReady() const override;
    VXError waitForFenceSignal() const override;
    // The size last given to setFilledRange(). Before the first call, the size of the compressed
    // picture, or if that is not known, the bytes that the layout uses for the allocated size.
    size_t size() const override;
    size_t offset() const override;
    // The offset is ignored.
    VXError setFilledRange(size_t offset, size_t size) override;
    uint32_t width() const override;
    uint32_t height() const override;
    uint32_t sliceHeight() const override;
    uint32_t stride() const override;
    uint32_t frameWidth() const override;
    uint32_t frameHeight() const override;
    // VX_OK even when there is no buffer.
    VXError setFrameWidth(uint32_t width) override;
    VXError setFrameHeight(uint32_t height) override;
    // 0 for formats that can be set but not read back: 0x16, 0x23, 0x109, 0x7F000789.
    uint32_t pixelFormat() const override;
    Rect crop() const override;
    VXError setCrop(const Rect& rect) override;
    std::any nativeBuffer() override;
    std::unique_ptr<Mapping> map() override;
    void reset() override;
    std::list<xc2::viewId_t> enumviews() const override;
    // Views are never secure.
    std::shared_ptr<VXBuffer> getview(xc2::viewId_t viewId) const override;

private:
    bool isGood() const;

    const std::shared_ptr<xc2::XC2Buffer> mXC2Buf;
    const std::unique_ptr<VXFence_XC2> mFence;  // always there; what it holds may be missing
    const bool mSecure;
    size_t mSizeOverride = SIZE_MAX;  // SIZE_MAX: none
};

// VXLinearBufferPool_XC2: plain memory from a block pool. Settings reset the pool. If
// no block pool could be created, settings return VX_NO_INIT and fetches VX_NO_MEMORY.
//
// Life, Threads: as VXLinearBufferPool.
// Owns     the codec library's pool, beside what VXBufferPool owns.
class VX_EXPORT VXLinearBufferPool_XC2 : public VXLinearBufferPool {
public:
    explicit VXLinearBufferPool_XC2(VXBufferUsage usage);
    ~VXLinearBufferPool_XC2() override;

    VXError setSize(size_t size) override;
    VXError setAlignment(size_t alignment) override;
    VXError fetch(std::shared_ptr<VXBuffer>* buf) noexcept override;
    std::shared_ptr<VXBuffer> createFromNative(std::any native) override;
    VXError setUsage(VXBufferUsage usage) override;
    const char* implType() const override;
    VXBuffer* onAllocate() override;

private:
    const bool mSecure;
    std::unique_ptr<xc2::XC2LinearBufferPool> mPool;  // null: no block pool
    VXMutex mLock;                                    // mPool, and each fetch
};

// VXGraphicBufferPool_XC2: pictures from a block pool; otherwise as the linear one. The HEIC flag
// is stored and ignored. A pixel format that the table does not hold reaches the block pool as 0,
// which makes fetches fail.
//
// Life, Threads: as VXGraphicBufferPool.
// Owns     the codec library's pool, beside what VXBufferPool owns.
class VX_EXPORT VXGraphicBufferPool_XC2 : public VXGraphicBufferPool {
public:
    explicit VXGraphicBufferPool_XC2(VXBufferUsage usage);
    ~VXGraphicBufferPool_XC2() override;

    VXError setHEICFlag(bool isHEIC) override;
    VXError reserved() override;
    VXError setPixelFormat(uint32_t pixelFormat) override;
    VXError setResolution(uint32_t width, uint32_t height) override;
    VXError fetch(std::shared_ptr<VXGraphicBuffer>* buf) noexcept override;
    std::shared_ptr<VXGraphicBuffer> createFromNative(std::any native) override;
    VXError setUsage(VXBufferUsage usage) override;
    const char* implType() const override;
    VXBuffer* onAllocate() override;

private:
    bool mHEIC = false;
    const bool mSecure;
    std::unique_ptr<xc2::XC2GraphicBufferPoolImpl> mPool;  // null: no block pool
    VXMutex mLock;                                         // mPool, and each fetch
};

}  // namespace vexa
