// VXBuffer_dmabuf: buffers from the DMA-BUF heaps, back-end "dmabuf".
//
// All memory comes from the heap "vndr,system", whatever the usage. There are no fences, no views
// and no native buffer (nativeBuffer() holds a nullptr_t), and no buffer is secure.
#pragma once

#include <BufferAllocator/BufferAllocator.h>
#include <VXBuffer.h>

#include <any>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <optional>

namespace vexa {

// The inode number of what `fd` refers to: equal for all descriptors of one DMA-BUF. 0 when it
// cannot be read.  [any thread]
VX_EXPORT uint64_t getUniqueIdForFileDescriptor(int fd);

// New pools. `usage` is ignored, on purpose: call setUsage().  [any thread]
VX_EXPORT std::shared_ptr<VXLinearBufferPool> VXLinearBufferPoolCreate_dmabuf(VXBufferUsage usage);
VX_EXPORT std::shared_ptr<VXGraphicBufferPool> VXGraphicBufferPoolCreate_dmabuf(
    VXBufferUsage usage);

// VXBufferDMA_Mapping: the mapping of either kind of buffer; as VXBuffer::Mapping in everything.
class VX_EXPORT VXBufferDMA_Mapping : public VXBuffer::Mapping {
public:
    using VXBuffer::Mapping::Mapping;
    ~VXBufferDMA_Mapping() override;
};

// VXBuffer_DMABUF: plain memory. id() is the descriptor; offset() is always 0, whatever
// setFilledRange() was given, on purpose.
//
// Life, Threads: as VXBuffer.
// Owns     its descriptor, which the destructor closes.
class VX_EXPORT VXBuffer_DMABUF : public virtual VXBuffer {
public:
    // Takes ownership of `fd`.
    VXBuffer_DMABUF(int fd, size_t capacity);
    ~VXBuffer_DMABUF() override;

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
    std::shared_ptr<VXBuffer> getview(xc2::viewId_t viewId) const override;
    std::unique_ptr<Mapping> map() override;
    void reset() override;

private:
    const bool mSecure = false;
    int32_t mFd;
    uint32_t mFilledSize = 0;
    uint32_t mFilledOffset = 0;  // recorded only
    const uint64_t mCapacity;
    const uint64_t mUid;
};

// VXGraphicBuffer_DMABUF: a picture, with the geometry of the pool at its allocation.
//
// Life, Threads: as VXBuffer.
// Owns     its descriptor, which the destructor closes.
class VX_EXPORT VXGraphicBuffer_DMABUF : public VXGraphicBuffer {
public:
    // Geometry: how a pool's pictures lie in memory. A plain value.
    struct Geometry {
        uint32_t size = 0;   // bytes
        uint32_t width = 0;  // pixels, as stride
        uint32_t stride = 0;
        uint32_t height = 0;  // rows, as scanlines
        uint32_t scanlines = 0;
        uint32_t pixelFormat = 0;
    };

    // Takes ownership of `fd`.
    VXGraphicBuffer_DMABUF(int fd, const Geometry& geometry);
    ~VXGraphicBuffer_DMABUF() override;

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
    uint32_t width() const override;
    uint32_t height() const override;
    uint32_t sliceHeight() const override;
    uint32_t stride() const override;
    uint32_t frameWidth() const override;
    uint32_t frameHeight() const override;
    VXError setFrameWidth(uint32_t width) override;
    VXError setFrameHeight(uint32_t height) override;
    uint32_t pixelFormat() const override;
    Rect crop() const override;
    VXError setCrop(const Rect& rect) override;
    std::any nativeBuffer() override;
    std::unique_ptr<Mapping> map() override;
    void reset() override;
    std::list<xc2::viewId_t> enumviews() const override;
    std::shared_ptr<VXBuffer> getview(xc2::viewId_t viewId) const override;

private:
    const bool mSecure = false;
    int32_t mFd;
    const uint64_t mUid;
    uint32_t mFilledSize = 0;
    uint32_t mFilledOffset = 0;  // recorded only
    const Geometry mGeometry;
    Rect mCrop;
    std::optional<uint32_t> mFrameWidth;  // empty: the allocated one
    std::optional<uint32_t> mFrameHeight;
};

// VXLinearBufferPool_DMABUF: plain memory from the heap. Settings reset the pool. The alignment and
// the usages SECURE and CACHED are only recorded, and MULTIVIEW is ignored. createFromNative() is
// always empty.
//
// Life, Threads: as VXLinearBufferPool.
// Owns     its allocator, beside what VXBufferPool owns.
class VX_EXPORT VXLinearBufferPool_DMABUF : public VXLinearBufferPool {
public:
    VXLinearBufferPool_DMABUF();
    ~VXLinearBufferPool_DMABUF() override;

    VXError setSize(size_t size) override;
    VXError setAlignment(size_t alignment) override;
    VXError fetch(std::shared_ptr<VXBuffer>* buf) noexcept override;
    std::shared_ptr<VXBuffer> createFromNative(std::any native) override;
    VXError setUsage(VXBufferUsage usage) override;
    const char* implType() const override;
    VXBuffer* onAllocate() override;

private:
    VXMutex mLock;  // settings, and each fetch
    uint32_t mAlignment = 0;
    uint32_t mBufferSize = 0;
    bool mSecure = false;  // once set, the two stay set
    bool mCached = false;
    BufferAllocator mAllocator;
};

// VXGraphicBufferPool_DMABUF: pictures from the heap. setPixelFormat() and setResolution() reset
// the pool, setUsage() does not. createFromNative() is always empty.
//
// Life, Threads: as VXGraphicBufferPool.
// Owns     its allocator, beside what VXBufferPool owns.
//
// The format is checked by setResolution(), which fails with VX_ERROR when the table does not hold
// it: width and height are then stored, the rest of the geometry stays. With the HEIC flag set,
// 4:2:0 pictures have no padding: stride and scanlines are width and height.
class VX_EXPORT VXGraphicBufferPool_DMABUF : public VXGraphicBufferPool {
public:
    VXGraphicBufferPool_DMABUF();
    ~VXGraphicBufferPool_DMABUF() override;

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
    VXMutex mLock;  // settings but the HEIC flag, and each fetch
    bool mHEIC = false;
    bool mSecure = false;  // once set, the two stay set
    bool mCached = false;
    VXGraphicBuffer_DMABUF::Geometry mGeometry;
    BufferAllocator mAllocator;
};

}  // namespace vexa
