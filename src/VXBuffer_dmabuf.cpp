#include <VXBuffer_dmabuf.h>
#include <VideoBufferLayout.h>
#include <sys/stat.h>
#include <unistd.h>

#include <unordered_map>

namespace vexa {

namespace {

constexpr char kLogTag[] = "Vexa::VXBuffer_DMABUF";
constexpr char kImplType[] = "dmabuf";

// Pixel format -> number of the layout library, whose 4 and 10 are not in use.
const std::unordered_map<uint32_t, uint32_t> sColorFormats = {
    {0x7FA30C04, 0}, {0x7FA30C06, 1},  {0x114, 2},       {0x36, 3},
    {0x7FA30C09, 5}, {0x55, 6},        {0x7FA30C10, 7},  {0x1, 8},
    {0xC2000000, 9}, {0xC2000002, 11}, {0xC2000001, 12}, {0x16, 13},
};

// The formats that keep their padding under the HEIC flag: that is about 4:2:0 pictures only.
bool isRGBA(uint32_t pixelFormat) {
    switch (pixelFormat) {
        case 0x1:
        case 0x16:
        case 0xC2000000:
        case 0xC2000001:
        case 0xC2000002:
            return true;
        default:
            return false;
    }
}

// A descriptor of `size` bytes, negative on failure. One heap for every usage; the flags, 0, reach
// only kernels older than DMA-BUF heaps.
int allocate(BufferAllocator* allocator, uint32_t size) {
    const int fd = allocator->Alloc("vndr,system", size, 0);
    if (fd < 0) VX_LOGE("Failed to Allocate DMA Buffer");
    return fd;
}

void closeDescriptor(int32_t* fd) {
    VX_LOGD("Close Fd %d", *fd);
    close(*fd);
    *fd = -1;
}

// Recorded and not used: no usage changes where the memory comes from. A flag that is set stays
// set, whatever usage comes later.
void recordUsage(VXBufferUsage usage, bool* secure, bool* cached) {
    if (usage == SECURE) *secure = true;
    if (usage == CACHED) *cached = true;
}

}  // namespace

uint64_t getUniqueIdForFileDescriptor(int fd) {
    struct stat status = {};
    if (fstat(fd, &status) != 0) {
        VX_LOGE("Failed to fstat(%d)", fd);
        return 0;
    }
    // The inode and not the descriptor: all descriptors of one DMA-BUF share it.
    return status.st_ino;
}

// The usage is ignored on purpose: callers pass it to setUsage().
std::shared_ptr<VXLinearBufferPool> VXLinearBufferPoolCreate_dmabuf(VXBufferUsage) {
    return std::make_shared<VXLinearBufferPool_DMABUF>();
}

std::shared_ptr<VXGraphicBufferPool> VXGraphicBufferPoolCreate_dmabuf(VXBufferUsage) {
    return std::make_shared<VXGraphicBufferPool_DMABUF>();
}

VXBufferDMA_Mapping::~VXBufferDMA_Mapping() = default;

// ---- VXBuffer_DMABUF --------------------------------------------------------------------------

VXBuffer_DMABUF::VXBuffer_DMABUF(int fd, size_t capacity)
    : VXBuffer(LINEAR, kImplType),
      mFd(fd),
      mCapacity(capacity),
      mUid(getUniqueIdForFileDescriptor(fd)) {}

VXBuffer_DMABUF::~VXBuffer_DMABUF() {
    closeDescriptor(&mFd);
}

int VXBuffer_DMABUF::fd() const {
    return mFd;
}
int32_t VXBuffer_DMABUF::id() const {
    return mFd;
}
uint64_t VXBuffer_DMABUF::uid() const {
    return mUid;
}
// Never secure, also in a pool whose usage is SECURE: the memory is the same.
bool VXBuffer_DMABUF::isSecure() const {
    return mSecure;
}
// The size that was requested; the heap rounds it up to whole pages.
size_t VXBuffer_DMABUF::capacity() const {
    return mCapacity;
}
bool VXBuffer_DMABUF::isFenceValid() const {
    return false;
}
bool VXBuffer_DMABUF::isFenceReady() const {
    return false;
}
// Without a fence there is nothing to wait for.
VXError VXBuffer_DMABUF::waitForFenceSignal() const {
    return VX_OK;
}
size_t VXBuffer_DMABUF::size() const {
    return mFilledSize;
}
// 0 on purpose, here and in pictures: a mapping shows its buffer from the start.
size_t VXBuffer_DMABUF::offset() const {
    return 0;
}

VXError VXBuffer_DMABUF::setFilledRange(size_t offset, size_t size) {
    mFilledOffset = static_cast<uint32_t>(offset);
    mFilledSize = static_cast<uint32_t>(size);
    return VX_OK;
}

// Holds a nullptr_t and is not empty, on purpose. With no native buffer, createFromNative() has
// nothing to wrap either.
std::any VXBuffer_DMABUF::nativeBuffer() {
    return nullptr;
}
std::list<xc2::viewId_t> VXBuffer_DMABUF::enumviews() const {
    return {};
}
std::shared_ptr<VXBuffer> VXBuffer_DMABUF::getview(xc2::viewId_t) const {
    return nullptr;
}

std::unique_ptr<VXBuffer::Mapping> VXBuffer_DMABUF::map() {
    return std::make_unique<VXBufferDMA_Mapping>(fd(), capacity(), offset());
}

void VXBuffer_DMABUF::reset() {
    setFilledRange(0, 0);
}

// ---- VXGraphicBuffer_DMABUF -------------------------------------------------------------------

// Repeats much of VXBuffer_DMABUF on purpose: a base class for both would change the order of bases
// and virtual operations, which is part of the library's interface.
VXGraphicBuffer_DMABUF::VXGraphicBuffer_DMABUF(int fd, const Geometry& geometry)
    : VXBuffer(GRAPHIC, kImplType),
      mFd(fd),
      mUid(getUniqueIdForFileDescriptor(fd)),
      mGeometry(geometry) {}

VXGraphicBuffer_DMABUF::~VXGraphicBuffer_DMABUF() {
    closeDescriptor(&mFd);
}

int VXGraphicBuffer_DMABUF::fd() const {
    return mFd;
}
int32_t VXGraphicBuffer_DMABUF::id() const {
    return mFd;
}
uint64_t VXGraphicBuffer_DMABUF::uid() const {
    return mUid;
}
bool VXGraphicBuffer_DMABUF::isSecure() const {
    return mSecure;
}
size_t VXGraphicBuffer_DMABUF::capacity() const {
    return mGeometry.size;
}
bool VXGraphicBuffer_DMABUF::isFenceValid() const {
    return false;
}
bool VXGraphicBuffer_DMABUF::isFenceReady() const {
    return false;
}
VXError VXGraphicBuffer_DMABUF::waitForFenceSignal() const {
    return VX_OK;
}
size_t VXGraphicBuffer_DMABUF::size() const {
    return mFilledSize;
}
size_t VXGraphicBuffer_DMABUF::offset() const {
    return 0;
}

VXError VXGraphicBuffer_DMABUF::setFilledRange(size_t offset, size_t size) {
    mFilledOffset = static_cast<uint32_t>(offset);
    mFilledSize = static_cast<uint32_t>(size);
    return VX_OK;
}

uint32_t VXGraphicBuffer_DMABUF::width() const {
    return mGeometry.width;
}
uint32_t VXGraphicBuffer_DMABUF::height() const {
    return mGeometry.height;
}
uint32_t VXGraphicBuffer_DMABUF::sliceHeight() const {
    return mGeometry.scanlines;
}
uint32_t VXGraphicBuffer_DMABUF::stride() const {
    return mGeometry.stride;
}
// An unset frame size follows the allocated one. No number stands for unset: 0 can be set as well.
uint32_t VXGraphicBuffer_DMABUF::frameWidth() const {
    return mFrameWidth.value_or(width());
}
uint32_t VXGraphicBuffer_DMABUF::frameHeight() const {
    return mFrameHeight.value_or(height());
}

VXError VXGraphicBuffer_DMABUF::setFrameWidth(uint32_t width) {
    mFrameWidth = width;
    return VX_OK;
}

VXError VXGraphicBuffer_DMABUF::setFrameHeight(uint32_t height) {
    mFrameHeight = height;
    return VX_OK;
}

uint32_t VXGraphicBuffer_DMABUF::pixelFormat() const {
    return mGeometry.pixelFormat;
}
VXGraphicBuffer::Rect VXGraphicBuffer_DMABUF::crop() const {
    return mCrop;
}

VXError VXGraphicBuffer_DMABUF::setCrop(const Rect& rect) {
    mCrop = rect;
    return VX_OK;
}

std::any VXGraphicBuffer_DMABUF::nativeBuffer() {
    return nullptr;
}

std::unique_ptr<VXBuffer::Mapping> VXGraphicBuffer_DMABUF::map() {
    return std::make_unique<VXBufferDMA_Mapping>(fd(), capacity(), offset());
}

// Crop and frame size stay as the last holder set them.
void VXGraphicBuffer_DMABUF::reset() {
    setFilledRange(0, 0);
}
std::list<xc2::viewId_t> VXGraphicBuffer_DMABUF::enumviews() const {
    return {};
}
std::shared_ptr<VXBuffer> VXGraphicBuffer_DMABUF::getview(xc2::viewId_t) const {
    return nullptr;
}

// ---- VXLinearBufferPool_DMABUF ----------------------------------------------------------------

VXLinearBufferPool_DMABUF::VXLinearBufferPool_DMABUF() = default;
VXLinearBufferPool_DMABUF::~VXLinearBufferPool_DMABUF() = default;

VXError VXLinearBufferPool_DMABUF::setSize(size_t size) {
    VXLocker lock(mLock);
    // Every setter that shapes buffers drops the kept ones, which have the old shape. The lock
    // order is the pool's, then the stash's.
    mBufferSize = static_cast<uint32_t>(size);
    reset();
    return VX_OK;
}

VXError VXLinearBufferPool_DMABUF::setAlignment(size_t alignment) {
    VXLocker lock(mLock);
    // Recorded only: heaps hand out whole pages.
    mAlignment = static_cast<uint32_t>(alignment);
    reset();
    return VX_OK;
}

VXError VXLinearBufferPool_DMABUF::fetch(std::shared_ptr<VXBuffer>* buf) noexcept {
    // Over the whole fetch: the limit is checked in one step and used in another, and no setting
    // may change in between. The same for pictures.
    VXLocker lock(mLock);
    return fetchBuffer(buf);
}

std::shared_ptr<VXBuffer> VXLinearBufferPool_DMABUF::createFromNative(std::any) {
    return nullptr;
}

VXError VXLinearBufferPool_DMABUF::setUsage(VXBufferUsage usage) {
    VXLocker lock(mLock);
    recordUsage(usage, &mSecure, &mCached);
    reset();
    return VX_OK;
}

const char* VXLinearBufferPool_DMABUF::implType() const {
    return kImplType;
}

VXBuffer* VXLinearBufferPool_DMABUF::onAllocate() {
    const int fd = allocate(&mAllocator, mBufferSize);
    if (fd < 0) return nullptr;
    VX_LOGD("Allocated DMA Linear buffer fd %d mBufferSize %d", fd, mBufferSize);
    // Without memory for the object the process ends, see VXBufferPool, so no descriptor is lost.
    return new VXBuffer_DMABUF(fd, mBufferSize);
}

// ---- VXGraphicBufferPool_DMABUF ---------------------------------------------------------------

VXGraphicBufferPool_DMABUF::VXGraphicBufferPool_DMABUF() = default;
VXGraphicBufferPool_DMABUF::~VXGraphicBufferPool_DMABUF() = default;

VXError VXGraphicBufferPool_DMABUF::setHEICFlag(bool isHEIC) {
    // No lock and no reset: it is set before the pool is shared, and takes effect with the next
    // setResolution().
    mHEIC = isHEIC;
    return VX_OK;
}

VXError VXGraphicBufferPool_DMABUF::reserved() {
    return VX_OK;
}

VXError VXGraphicBufferPool_DMABUF::setPixelFormat(uint32_t pixelFormat) {
    VXLocker lock(mLock);
    // Not checked here. The geometry needs format and size, so both are judged by setResolution(),
    // which callers make second.
    mGeometry.pixelFormat = pixelFormat;
    reset();
    return VX_OK;
}

VXError VXGraphicBufferPool_DMABUF::setResolution(uint32_t width, uint32_t height) {
    VXLocker lock(mLock);
    mGeometry.width = width;
    mGeometry.height = height;
    const auto known = sColorFormats.find(mGeometry.pixelFormat);
    if (known == sColorFormats.end()) {
        VX_LOGE("Error. Pixelformat not found");
        return VX_ERROR;
    }
    const auto colorFormat = static_cast<VideoColorFormat>(known->second);
    if (mHEIC && !isRGBA(mGeometry.pixelFormat)) {
        mGeometry.stride = width;
        mGeometry.scanlines = height;
    } else {
        // The 1 belongs to the layout library's signature only.
        mGeometry.stride = VideoBufferLayout_GetStrideInPixels(colorFormat, width, 1);
        mGeometry.scanlines = VideoBufferLayout_GetScanlines(colorFormat, height, 1);
    }
    mGeometry.size =
        VideoBufferLayout_GetBufferSize(colorFormat, mGeometry.stride, mGeometry.scanlines);
    reset();
    return VX_OK;
}

VXError VXGraphicBufferPool_DMABUF::fetch(std::shared_ptr<VXGraphicBuffer>* buf) noexcept {
    VXLocker lock(mLock);
    return fetchGraphicBuffer(buf);
}

std::shared_ptr<VXGraphicBuffer> VXGraphicBufferPool_DMABUF::createFromNative(std::any) {
    return nullptr;
}

VXError VXGraphicBufferPool_DMABUF::setUsage(VXBufferUsage usage) {
    VXLocker lock(mLock);
    // No reset, unlike in the linear pool, on purpose.
    recordUsage(usage, &mSecure, &mCached);
    return VX_OK;
}

const char* VXGraphicBufferPool_DMABUF::implType() const {
    return kImplType;
}

VXBuffer* VXGraphicBufferPool_DMABUF::onAllocate() {
    const int fd = allocate(&mAllocator, mGeometry.size);
    return fd < 0 ? nullptr : new VXGraphicBuffer_DMABUF(fd, mGeometry);
}

}  // namespace vexa
