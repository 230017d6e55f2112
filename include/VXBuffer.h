// VXBuffer: memory that travels in works, and the pools that it comes from.
//
// A pool hands out buffers in shared pointers. The last holder's release gives the buffer back to
// the pool, which keeps it for the next fetch or destroys it. There are two back-ends: "dmabuf"
// (VXBuffer_dmabuf.h) and "xcodec2" (VXBuffer_xc2.h).
//
//   auto pool = VXGraphicBufferPool::Create("dmabuf", DEFAULT);
//   pool->setMaxSlots(8);                    // without a limit nothing is kept for reuse
//   pool->setPixelFormat(0x7FA30C04);        // the format first, then the size
//   pool->setResolution(1920, 1080);
//   std::shared_ptr<VXGraphicBuffer> picture;
//   if (pool->fetch(&picture) == VX_OK) {
//       auto mapping = picture->map();       // unmapped by its destructor
//       ...
//   }
#pragma once

#include <VXUtils.h>
#include <xc2/Buffer.h>

#include <any>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <unordered_set>
#include <utility>

namespace vexa {

// What a pool's buffers are for. Any other number counts as DEFAULT. The header of each
// back-end says what it does with a usage.
enum VX_EXPORT VXBufferUsage : uint32_t {
    DEFAULT = 0,    // plain memory, read and written by the processor
    CACHED = 1,     // in the processor's cache
    SECURE = 2,     // protected
    MULTIVIEW = 3,  // several views in one buffer
};

// ---- Buffers ----------------------------------------------------------------------------------

// VXBuffer: a piece of memory behind a file descriptor, with the range of it that is filled.
//
// Life     made by its pool, handed out by a fetch, given back by the last holder; reset() each
//          time it is handed out again.
// Threads  none of its own: it belongs to one holder at a time, on any thread.
// Owns     its memory. What map() returns belongs to the caller and may outlive the buffer: it
//          keeps the memory, but not its contents, which are the next holder's once the buffer is
//          given back.
//
// Concrete classes derive from it virtually. Virtual operations stand in slot order.
class VX_EXPORT VXBuffer {
public:
    enum Kind : uint32_t {
        LINEAR = 0,   // plain memory
        GRAPHIC = 1,  // a picture: a VXGraphicBuffer
        INVALID = 2,
    };

    // Mapping: a buffer's memory in the address space of this process.
    //
    // Life     the caller's of map(); may outlive the buffer.
    // Threads  any; accesses to the memory are not synchronized.
    // Owns     the mapped addresses, not the descriptor.
    //
    // Virtual operations stand in slot order.
    class VX_EXPORT Mapping {
    public:
        // Maps `size` bytes of `fd`, shared, for reading and writing. `offset` is ignored, on
        // purpose: every mapping shows its buffer from the start.
        Mapping(int fd, size_t size, size_t offset);

        // Unmaps size() bytes.
        virtual ~Mapping();

        Mapping(const Mapping&) = delete;
        Mapping& operator=(const Mapping&) = delete;

        // The first byte, or MAP_FAILED of <sys/mman.h> when the memory could not be mapped.
        virtual uint8_t* vaddr();

        // The mapped bytes, modulo 2^32.
        virtual uint32_t size();

    private:
        uint8_t* const mVaddr;
        const uint32_t mSize;
    };

    VXBuffer(Kind kind, const std::string& allocatorName);
    virtual ~VXBuffer();

    VXBuffer(const VXBuffer&) = delete;
    VXBuffer& operator=(const VXBuffer&) = delete;

    virtual bool isLinear() const;
    virtual bool isGraphic() const;
    virtual bool isValid() const;

    // The descriptor of the memory; the buffer keeps it.
    virtual int fd() const = 0;
    // The back-end's number of the buffer.
    virtual int32_t id() const = 0;
    // The identity of the memory, unique within one back-end and process: two buffers alive have
    // the same one only when they share it. Those of different back-ends may coincide. 0: not
    // known.
    virtual uint64_t uid() const = 0;
    virtual bool isSecure() const = 0;
    // Allocated bytes.
    virtual size_t capacity() const = 0;

    // The fence that must have fired before the memory may be touched. Without one: false, false,
    // VX_OK at once.
    //   VX_OK     waitForFenceSignal: fired
    //   VX_ERROR  waitForFenceSignal: not fired within the back-end's time limit, or abandoned
    virtual bool isFenceValid() const = 0;
    virtual bool isFenceReady() const = 0;
    virtual VXError waitForFenceSignal() const = 0;

    // The filled range, in bytes; not compared with the capacity.
    virtual size_t size() const = 0;
    virtual size_t offset() const = 0;
    virtual VXError setFilledRange(size_t offset, size_t size) = 0;

    // A VXNativeBufContainer of the back-end's own buffer; a nullptr_t where it has none.
    virtual std::any nativeBuffer() = 0;

    // The views of a multi-view buffer; without views an empty list and an empty pointer.
    virtual std::list<xc2::viewId_t> enumviews() const = 0;
    virtual std::shared_ptr<VXBuffer> getview(xc2::viewId_t viewId) const = 0;

    // The whole memory for the processor. Never null; a failed mapping has the address
    // MAP_FAILED.
    virtual std::unique_ptr<Mapping> map() = 0;

    // Makes a kept buffer ready to be handed out again: clears the filled range.
    virtual void reset() = 0;

    // The back-end that made the buffer, as the pool's implType() names it.
    const std::string& allocatorName() const { return mAllocatorName; }

private:
    const Kind mKind;
    const std::string mAllocatorName;
};

// VXGraphicBuffer: a buffer that holds a picture.
//
// Life, Threads, Owns: as VXBuffer.
//
// Virtual operations stand in slot order, the inherited ones among them.
class VX_EXPORT VXGraphicBuffer : public virtual VXBuffer {
public:
    // Rect: a part of a picture, in pixels. A plain value.
    struct Rect {
        uint32_t left = 0;
        uint32_t top = 0;
        uint32_t width = 0;
        uint32_t height = 0;
    };

    ~VXGraphicBuffer() override;

    int fd() const override = 0;
    int32_t id() const override = 0;
    uint64_t uid() const override = 0;
    bool isSecure() const override = 0;
    size_t capacity() const override = 0;
    bool isFenceValid() const override = 0;
    bool isFenceReady() const override = 0;
    VXError waitForFenceSignal() const override = 0;
    size_t size() const override = 0;
    size_t offset() const override = 0;
    VXError setFilledRange(size_t offset, size_t size) override = 0;

    // The allocated size of the picture, in pixels.
    virtual uint32_t width() const = 0;
    virtual uint32_t height() const = 0;
    // Rows from the start of the first plane to the next plane.
    virtual uint32_t sliceHeight() const = 0;
    // Pixels from one row to the next.
    virtual uint32_t stride() const = 0;

    // The size of the picture that the buffer carries now: the allocated one until it is set. Not
    // compared with it.
    virtual uint32_t frameWidth() const = 0;
    virtual uint32_t frameHeight() const = 0;
    virtual VXError setFrameWidth(uint32_t width) = 0;
    virtual VXError setFrameHeight(uint32_t height) = 0;

    // A code of the system's pixel formats, as the pool's setPixelFormat() takes them.
    virtual uint32_t pixelFormat() const = 0;

    // The part of the picture that is shown. Not compared with its size.
    virtual Rect crop() const = 0;
    virtual VXError setCrop(const Rect& rect) = 0;

    std::any nativeBuffer() override = 0;
    std::unique_ptr<Mapping> map() override = 0;
    void reset() override = 0;
    std::list<xc2::viewId_t> enumviews() const override = 0;
    std::shared_ptr<VXBuffer> getview(xc2::viewId_t viewId) const override = 0;
};

// VXFence: an event that a buffer's reader has to wait for.
//
// Life     that of its buffer, which makes it. It fires at most once and stays fired.
// Threads  any.
// Owns     what the back-end waits with.
//
// Virtual operations stand in slot order.
class VX_EXPORT VXFence {
public:
    VXFence() = default;
    virtual ~VXFence();

    VXFence(const VXFence&) = delete;
    VXFence& operator=(const VXFence&) = delete;

    // Blocks until the fence has fired; VX_ERROR if it has not within the back-end's time limit.
    virtual VXError waitForSignal() const = 0;
    virtual bool isValid() const = 0;
    virtual bool isReady() const = 0;
    // A new descriptor of the fence, which the caller closes; -1 when it has none.
    virtual int fd() const = 0;
};

// VXNativeBufContainer: the back-end's own buffer, as nativeBuffer() and createFromNative() carry
// it in a std::any. A plain value, which owns a share of the buffer.
template <typename T>
struct VX_EXPORT VXNativeBufContainer {
    VXNativeBufContainer() = default;
    VXNativeBufContainer(std::shared_ptr<T> nativeBuffer) : buffer(std::move(nativeBuffer)) {}

    std::shared_ptr<T> buffer;
};

// ---- Pools ------------------------------------------------------------------------------------

// VXBufferPool: hands out buffers and takes them back.
//
// Life     usable once the settings that its kind needs have been made; a setting that shapes
//          buffers destroys the kept ones of the old shape. Buffers may outlive their pool: they
//          are then never destroyed when their holders release them, on purpose.
// Threads  any; the back-ends serialize settings and fetches with a lock of their own. Buffers come
//          back on the thread of the last release. Lock order: a pool's lock, then its stash's.
// Owns     its stash, which owns the buffers kept for reuse.
// Memory   a buffer that cannot be allocated is VX_NO_MEMORY. When an operation marked noexcept
//          cannot allocate its own bookkeeping, the process ends: a device has no exceptions, and
//          every host behaves the same. A lock left behind would stop every later fetch and
//          release.
//
// Back-ends implement the virtual operations, which stand in slot order.
class VX_EXPORT VXBufferPool {
public:
    class Stash;

    VXBufferPool();
    virtual ~VXBufferPool();

    VXBufferPool(const VXBufferPool&) = delete;
    VXBufferPool& operator=(const VXBufferPool&) = delete;

    virtual VXError setUsage(VXBufferUsage usage) = 0;

    // The back-end's name, as Create() takes it.
    virtual const char* implType() const = 0;

    // A new buffer, owned by the caller, or null. For fetchBuffer() only.
    virtual VXBuffer* onAllocate() = 0;

    // Limits the pool to `maxSlots` live buffers. Without a limit, which is SIZE_MAX and the
    // default, no buffer is ever kept for reuse: every fetch allocates, every release destroys.
    // [any thread]
    void setMaxSlots(size_t maxSlots);

    // Returns the buffer that has been kept longest, or else a new one. Never waits. Calls must not
    // overlap: back-ends call it under their lock.
    //   VX_OK            `*buf` is set; it is empty on every other result
    //   VX_BAD_VALUE     `buf` is null
    //   VX_NO_FREE_SLOT  the limit is reached and nothing is free; not logged
    //   VX_NO_MEMORY     the back-end could not allocate
    VXError fetchBuffer(std::shared_ptr<VXBuffer>* buf) noexcept;

    // Destroys the kept buffers and forgets those in use, which are destroyed on release.
    // [any thread]
    void reset() noexcept;

private:
    const std::shared_ptr<Stash> mStash;
};

// Stash: a pool's bookkeeping. A buffer is in use, free (kept, oldest first), or gone.
//
// Life     always held by a shared pointer, the pool's; releases reach it by a weak one.
// Threads  any. Buffers are destroyed and reset outside the lock, since the release of one
//          buffer may cause the release of another pool's.
// Owns     the free buffers.
class VX_EXPORT VXBufferPool::Stash : public virtual std::enable_shared_from_this<Stash> {
public:
    // Tracker: the deleter of the buffers that a stash hands out.
    //
    // Life     stored in the buffer's shared pointer.
    // Threads  runs on whatever thread drops the last reference.
    // Owns     nothing: the stash is held weakly.
    //
    // Virtual operations stand in slot order.
    class VX_EXPORT Tracker {
    public:
        explicit Tracker(std::weak_ptr<Stash> stash);
        Tracker(const Tracker&) = default;
        Tracker(Tracker&&) = default;
        virtual ~Tracker();

        // Gives `buf` back to the stash. If the stash is gone, the buffer is left alone, neither
        // kept nor destroyed, on purpose.
        virtual void onRelease(VXBuffer* buf);

        void operator()(VXBuffer* buf) noexcept { onRelease(buf); }

    private:
        std::weak_ptr<Stash> mStash;
    };

    Stash() = default;
    virtual ~Stash();

    Stash(const Stash&) = delete;
    Stash& operator=(const Stash&) = delete;

    void setMaxSlots(size_t maxSlots);

    // Takes the oldest free buffer, after its reset().
    //   VX_OK              `*buf` is set; it is empty on every other result
    //   VX_BAD_VALUE       `buf` is null
    //   VX_NO_FREE_BUFFER  nothing is free, one more may be made
    //   VX_NO_FREE_SLOT    nothing is free and the limit is reached
    VXError getFreeIfAvailable(std::shared_ptr<VXBuffer>* buf) noexcept;

    // Takes ownership of `buf`, in use from now on, and returns its shared pointer; empty when
    // `buf` is null.
    std::shared_ptr<VXBuffer> track(VXBuffer* buf) noexcept;

    // Keeps a buffer that is no longer in use, under a finite limit that still has room, else
    // destroys it.
    //   VX_OK         kept or destroyed
    //   VX_BAD_VALUE  `buf` is null
    VXError reuseOrFree(VXBuffer* buf) noexcept;

    // Destroys the free buffers, forgets those in use, and logs how many different ones there
    // were.
    void reset() noexcept;

private:
    std::shared_ptr<VXBuffer> share(VXBuffer* buf);
    size_t total() const;

    mutable VXRecursiveMutex mLock;                             // recursive: total() nests
    std::list<VXBuffer*> mFree VX_GUARDED_BY(mLock);            // kept for reuse, oldest first
    std::list<VXBuffer*> mInUse VX_GUARDED_BY(mLock);           // handed out, not owned
    std::unordered_set<uint64_t> mUnique VX_GUARDED_BY(mLock);  // addresses, for the report only
    size_t mMaxSlots VX_GUARDED_BY(mLock) = SIZE_MAX;
};

// VXLinearBufferPool: a pool of plain memory.
//
// Life     as VXBufferPool; usable once setSize() has been given a size.
// Threads  all operations: any.
// Owns     as VXBufferPool.
//
// Settings of a back-end without its allocator return VX_NO_INIT. Virtual operations stand in slot
// order.
class VX_EXPORT VXLinearBufferPool : public virtual VXBufferPool {
public:
    // Creates a pool of the back-end "dmabuf" or "xcodec2"; empty for any other name. Only the
    // Codec 2.0 back-end uses `usage`; call setUsage() for the other.
    static std::shared_ptr<VXLinearBufferPool> Create(const char* poolImplType,
                                                      VXBufferUsage usage);

    ~VXLinearBufferPool() override;

    // Bytes of every buffer, and the multiple they are rounded up to where the back-end does that;
    // both are cut to 32 bits.
    virtual VXError setSize(size_t size) = 0;
    virtual VXError setAlignment(size_t alignment) = 0;

    // Results as of fetchBuffer().
    virtual VXError fetch(std::shared_ptr<VXBuffer>* buf) = 0;

    // Wraps a buffer from elsewhere, given in a VXNativeBufContainer; empty if that is not
    // possible. The pool neither counts nor keeps it.
    virtual std::shared_ptr<VXBuffer> createFromNative(std::any native) = 0;

    VXError setUsage(VXBufferUsage usage) override = 0;
    const char* implType() const override = 0;
    VXBuffer* onAllocate() override = 0;
};

// VXGraphicBufferPool: a pool of pictures.
//
// Life     as VXBufferPool; usable once setPixelFormat() and then setResolution() have succeeded:
//          the geometry is computed by the second only.
// Threads  all operations: any, but for setHEICFlag(), which comes before the pool is shared.
// Owns     as VXBufferPool.
//
// Settings of a back-end without its allocator return VX_NO_INIT. Virtual operations stand in slot
// order.
class VX_EXPORT VXGraphicBufferPool : public virtual VXBufferPool {
public:
    // As VXLinearBufferPool::Create().
    static std::shared_ptr<VXGraphicBufferPool> Create(const char* poolImplType,
                                                       VXBufferUsage usage);

    ~VXGraphicBufferPool() override;

    // Pictures for still images. Takes effect with the next setResolution().
    virtual VXError setHEICFlag(bool isHEIC) = 0;

    // Reserved: returns VX_OK. Do not rely on it.
    virtual VXError reserved() = 0;

    // VX_ERROR: the back-end refused; setResolution() also when the pixel format is unknown.
    virtual VXError setPixelFormat(uint32_t pixelFormat) = 0;
    virtual VXError setResolution(uint32_t width, uint32_t height) = 0;

    // Results as of fetchBuffer().
    virtual VXError fetch(std::shared_ptr<VXGraphicBuffer>* buf) = 0;

    // As VXLinearBufferPool::createFromNative().
    virtual std::shared_ptr<VXGraphicBuffer> createFromNative(std::any native) = 0;

    VXError setUsage(VXBufferUsage usage) override = 0;
    const char* implType() const override = 0;
    VXBuffer* onAllocate() override = 0;

protected:
    // fetchBuffer() of a pool that makes graphic buffers only.
    VXError fetchGraphicBuffer(std::shared_ptr<VXGraphicBuffer>* buf) noexcept;
};

}  // namespace vexa
