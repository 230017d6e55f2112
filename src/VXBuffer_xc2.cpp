#include <VXBuffer_xc2.h>

#include <C2PlatformSupport.h>
#include <VideoBufferLayout.h>
#include <xc2/Platform.h>

#include <new>

namespace vexa {

namespace {

constexpr char kLogTag[] = "Vexa::VXBuffer_XC2";
constexpr char kImplType[] = "xcodec2";

// ---- Pixel formats ----------------------------------------------------------------------------

// The two tables are not inverse, on purpose: 0x16, 0x23, 0x109 and 0x7F000789 go in only.
uint32_t toC2Format(uint32_t vxFormat) {
    switch (vxFormat) {
        case 0x1:
        case 0x16:
        case 0x23:
        case 0x36:
        case 0x109:
        case 0x114:
        case 0x32315659:
        case 0x7F000789:
        case 0x7FA30C04:
        case 0x7FA30C06:
        case 0x7FA30C09:
        case 0xC2000000:
            return vxFormat;
        case 0x55:
            return 0x3C;
        case 0x7FA30C10:
            return 0x133;
        case 0xC2000001:
            return 0x2B;
        case 0xC2000002:
            return 0xC2000001;
        default:
            VX_LOGE("Unrecognized VX format : 0x%x", vxFormat);
            return 0;
    }
}

// 0xC2000001 is a code of both sides, for different pictures.
uint32_t toVXFormat(uint32_t c2Format) {
    switch (c2Format) {
        case 0x1:
        case 0x36:
        case 0x114:
        case 0x32315659:
        case 0x7FA30C04:
        case 0x7FA30C06:
        case 0x7FA30C09:
        case 0xC2000000:
            return c2Format;
        case 0x3C:
            return 0x55;
        case 0x133:
            return 0x7FA30C10;
        case 0x2B:
            return 0xC2000001;
        case 0xC2000001:
            return 0xC2000002;
        default:
            VX_LOGE("Unrecognized C2 format : 0x%x", c2Format);
            return 0;
    }
}

// ---- Usages -----------------------------------------------------------------------------------

// The usage is tested as a bit, so MULTIVIEW, 3, is secure too.
bool hasSecureBit(VXBufferUsage usage) {
    return (usage & SECURE) != 0;
}

// The words are the codec library's own; here they are constants.
uint64_t linearUsageWord(VXBufferUsage usage) {
    switch (usage) {
        case CACHED:
            return 0x20410001;
        case SECURE:
            return 0x20410002;
        case MULTIVIEW:
            VX_LOGD("setUsage (VXBufferUsage usage):  usage: MULTIVIEW");
            return 0x400000020410000;
        default:
            return 0x20410000;
    }
}

uint64_t graphicUsageWord(VXBufferUsage usage) {
    switch (usage) {
        case CACHED:
            return 0x10000020410301;
        case SECURE:
            return 0x10000020410302;
        case MULTIVIEW:
            VX_LOGD("setUsage (VXBufferUsage usage):  usage: MULTIVIEW");
            return 0x410000020410300;
        default:
            // The text is not about these usages; kept so.
            VX_LOGW("setUsage (VXBufferUsage usage):  usage: CACHED/SECURE");
            return 0x10000020410300;
    }
}

// ---- Buffers and pools of either kind ---------------------------------------------------------

// A new Codec 2.0 block pool, or null. The basic pools ignore the component, so there is none.
std::shared_ptr<C2BlockPool> blockPool(C2BlockPool::local_id_t id) {
    std::shared_ptr<C2BlockPool> pool;
    if (android::GetCodec2BlockPool(id, nullptr, &pool) != C2_OK || pool == nullptr) {
        VX_LOGE("Failed to get Codec2 BlockPool");
        return nullptr;
    }
    return pool;
}

const char* secureName(bool secure) {
    return secure ? "Secure" : "Non-Secure";
}

// The codec library's buffer inside `native`, or null.
std::shared_ptr<xc2::XC2Buffer> fromContainer(const std::any& native) {
    // The pointer form, which does not throw: anything else inside, as from the other back-end, is
    // an answer.
    const auto* container = std::any_cast<VXNativeBufContainer<xc2::XC2Buffer>>(&native);
    return container != nullptr ? container->buffer : nullptr;
}

std::list<xc2::viewId_t> viewIds(const xc2::XC2Buffer* buffer) {
    if (buffer == nullptr || !buffer->hasAuxViews()) return {};
    std::list<xc2::viewId_t> ids = buffer->enumerateAuxViews();
    VX_LOGD("size of viewIds list is %u", static_cast<uint32_t>(ids.size()));
    return ids;
}

uint64_t uniqueId(const xc2::XC2Buffer* buffer) {
    return buffer != nullptr ? buffer->uniqueId() : 0;
}

}  // namespace

std::shared_ptr<VXLinearBufferPool> VXLinearBufferPoolCreate_xc2(VXBufferUsage usage) {
    return std::make_shared<VXLinearBufferPool_XC2>(usage);
}

std::shared_ptr<VXGraphicBufferPool> VXGraphicBufferPoolCreate_xc2(VXBufferUsage usage) {
    return std::make_shared<VXGraphicBufferPool_XC2>(usage);
}

VXBufferXC2_Mapping::~VXBufferXC2_Mapping() = default;

// ---- VXFence_XC2 ------------------------------------------------------------------------------

VXFence_XC2::VXFence_XC2(std::shared_ptr<C2Fence> fence) : mFence(std::move(fence)) {}
VXFence_XC2::~VXFence_XC2() = default;

VXError VXFence_XC2::waitForSignal() const {
    C2Fence* const fence = inside();
    if (fence == nullptr) return VX_OK;
    // Whatever ended the wait, the memory may not be touched: one error for all.
    return fence->wait(c2_nsecs_t{mTimeoutMs} * 1000000) == C2_OK ? VX_OK : VX_ERROR;
}

bool VXFence_XC2::isValid() const {
    const C2Fence* const fence = inside();
    return fence != nullptr && fence->valid();
}

bool VXFence_XC2::isReady() const {
    const C2Fence* const fence = inside();
    return fence != nullptr && fence->ready();
}

int VXFence_XC2::fd() const {
    const C2Fence* const fence = inside();
    return fence != nullptr ? fence->fd() : -1;
}

C2Fence* VXFence_XC2::inside() const {
    if (mFence == nullptr) VX_LOGE("fence is null");
    return mFence.get();
}

// ---- VXBuffer_XC2 -----------------------------------------------------------------------------

VXBuffer_XC2::VXBuffer_XC2(std::shared_ptr<xc2::XC2Buffer> xc2Buf, bool secure)
    : VXBuffer(LINEAR, kImplType), mXC2Buf(std::move(xc2Buf)), mSecure(secure) {}
VXBuffer_XC2::~VXBuffer_XC2() = default;

// Asked before every access: the constructor takes any buffer, and the block that is not of the
// buffer's own kind is all zero.
bool VXBuffer_XC2::isGood() const {
    return mXC2Buf != nullptr && mXC2Buf->isLinear();
}

int VXBuffer_XC2::fd() const {
    return isGood() ? mXC2Buf->linearBlock().fd : -1;
}
int32_t VXBuffer_XC2::id() const {
    return isGood() ? mXC2Buf->linearBlock().id : -1;
}
// The id is the buffer's, not the block's, so its kind does not matter.
uint64_t VXBuffer_XC2::uid() const {
    return uniqueId(mXC2Buf.get());
}
bool VXBuffer_XC2::isSecure() const {
    return mSecure;
}
size_t VXBuffer_XC2::capacity() const {
    return isGood() ? mXC2Buf->linearBlock().capacity : 0;
}
bool VXBuffer_XC2::isFenceValid() const {
    return false;
}
bool VXBuffer_XC2::isFenceReady() const {
    return false;
}
VXError VXBuffer_XC2::waitForFenceSignal() const {
    return VX_OK;
}
size_t VXBuffer_XC2::size() const {
    return isGood() ? mXC2Buf->linearBlock().size : 0;
}
size_t VXBuffer_XC2::offset() const {
    return isGood() ? mXC2Buf->linearBlock().offset : 0;
}

VXError VXBuffer_XC2::setFilledRange(size_t offset, size_t size) {
    if (!isGood()) return VX_NO_INIT;
    mXC2Buf->setRange(static_cast<uint32_t>(offset), static_cast<uint32_t>(size));
    return VX_OK;
}

std::any VXBuffer_XC2::nativeBuffer() {
    // A share, which the receiver may keep for longer than this object lives.
    return VXNativeBufContainer<xc2::XC2Buffer>(mXC2Buf);
}
std::list<xc2::viewId_t> VXBuffer_XC2::enumviews() const {
    return viewIds(mXC2Buf.get());
}

std::shared_ptr<VXBuffer> VXBuffer_XC2::getview(xc2::viewId_t viewId) const {
    const auto view = mXC2Buf != nullptr ? mXC2Buf->getView(viewId) : nullptr;
    // A plain shared pointer, past the stash: the view belongs to the codec library's buffer.
    return view != nullptr ? std::make_shared<VXBuffer_XC2>(view, false) : nullptr;
}

std::unique_ptr<VXBuffer::Mapping> VXBuffer_XC2::map() {
    return std::make_unique<VXBufferXC2_Mapping>(fd(), capacity(), offset());
}

void VXBuffer_XC2::reset() {
    setFilledRange(0, 0);
}

// ---- VXGraphicBuffer_XC2 ----------------------------------------------------------------------

// Repeats much of VXBuffer_XC2 on purpose, for the same reason as in the other back-end: the order
// of bases and virtual operations.
VXGraphicBuffer_XC2::VXGraphicBuffer_XC2(std::shared_ptr<xc2::XC2Buffer> xc2Buf, bool secure)
    : VXBuffer(GRAPHIC, kImplType),
      mXC2Buf(std::move(xc2Buf)),
      // Read once, here. A fence that the codec library's buffer gets later is not seen.
      mFence(std::make_unique<VXFence_XC2>(mXC2Buf != nullptr ? mXC2Buf->fence() : nullptr)),
      mSecure(secure) {}
VXGraphicBuffer_XC2::~VXGraphicBuffer_XC2() = default;

bool VXGraphicBuffer_XC2::isGood() const {
    return mXC2Buf != nullptr && mXC2Buf->isGraphic();
}

int VXGraphicBuffer_XC2::fd() const {
    return isGood() ? mXC2Buf->graphicBlock().fd : -1;
}
// Pictures have no running number in their block, so the descriptor stands for it.
int32_t VXGraphicBuffer_XC2::id() const {
    return fd();
}
uint64_t VXGraphicBuffer_XC2::uid() const {
    return uniqueId(mXC2Buf.get());
}
bool VXGraphicBuffer_XC2::isSecure() const {
    return mSecure;
}

size_t VXGraphicBuffer_XC2::capacity() const {
    return isGood() ? mXC2Buf->graphicBlock().capacity : 0;
}

bool VXGraphicBuffer_XC2::isFenceValid() const {
    return mFence->isValid();
}
bool VXGraphicBuffer_XC2::isFenceReady() const {
    return mFence->isReady();
}
VXError VXGraphicBuffer_XC2::waitForFenceSignal() const {
    return mFence->waitForSignal();
}

size_t VXGraphicBuffer_XC2::size() const {
    // The application's size wins over the codec's, and the codec's over the layout's, which is
    // only known for the whole allocated picture.
    if (mSizeOverride != SIZE_MAX) return mSizeOverride;
    if (!isGood()) return 0;
    if (mXC2Buf->compressedSize() != 0) return mXC2Buf->compressedSize();
    // Either side may mark the picture interlaced. A missing info leaves 0: progressive.
    uint32_t inputInterlace = 0;
    uint32_t outputInterlace = 0;
    if (mXC2Buf->getInfo(0xC2008005, &inputInterlace) == xc2::XC2_OK) {
        VX_LOGT("input interlace type = %u", inputInterlace);
    }
    if (mXC2Buf->getInfo(0xD2008005, &outputInterlace) == xc2::XC2_OK) {
        VX_LOGT("output interlace type = %u", outputInterlace);
    }
    const auto& block = mXC2Buf->graphicBlock();
    return VideoBufferLayout_GetBufferSizeUsed(
        xc2::Platform::LyraBufferLayout::FormatMap(block.format), block.width, block.height,
        inputInterlace != 0 || outputInterlace != 0);
}

size_t VXGraphicBuffer_XC2::offset() const {
    return isGood() ? mXC2Buf->graphicBlock().offset : 0;
}

VXError VXGraphicBuffer_XC2::setFilledRange(size_t /*offset*/, size_t size) {
    if (!isGood()) return VX_NO_INIT;
    // Only for a good buffer, so that a refused call leaves size() as it was.
    mSizeOverride = size;
    mXC2Buf->setCompressedSize(static_cast<uint32_t>(size));
    return VX_OK;
}

uint32_t VXGraphicBuffer_XC2::width() const {
    return isGood() ? mXC2Buf->graphicBlock().width : 0;
}

uint32_t VXGraphicBuffer_XC2::height() const {
    return isGood() ? mXC2Buf->graphicBlock().height : 0;
}

uint32_t VXGraphicBuffer_XC2::sliceHeight() const {
    return isGood() ? mXC2Buf->graphicBlock().sliceHeight : 0;
}

uint32_t VXGraphicBuffer_XC2::stride() const {
    return isGood() ? mXC2Buf->graphicBlock().stride : 0;
}

uint32_t VXGraphicBuffer_XC2::frameWidth() const {
    return isGood() ? mXC2Buf->frameWidth() : 0;
}
uint32_t VXGraphicBuffer_XC2::frameHeight() const {
    return isGood() ? mXC2Buf->frameHeight() : 0;
}

VXError VXGraphicBuffer_XC2::setFrameWidth(uint32_t width) {
    // VX_OK without a buffer as well, on purpose; so with the height.
    if (isGood()) mXC2Buf->setFrameWidth(width);
    return VX_OK;
}

VXError VXGraphicBuffer_XC2::setFrameHeight(uint32_t height) {
    if (isGood()) mXC2Buf->setFrameHeight(height);
    return VX_OK;
}

uint32_t VXGraphicBuffer_XC2::pixelFormat() const {
    return isGood() ? toVXFormat(mXC2Buf->graphicBlock().format) : 0;
}

// The codec library keeps width and height before left and top.
VXGraphicBuffer::Rect VXGraphicBuffer_XC2::crop() const {
    VX_FAIL_IF(!mXC2Buf || !mXC2Buf->isGraphic(), {});
    const C2Rect& crop = mXC2Buf->crop();
    return {crop.left, crop.top, crop.width, crop.height};
}

VXError VXGraphicBuffer_XC2::setCrop(const Rect& rect) {
    VX_FAIL_IF(!mXC2Buf || !mXC2Buf->isGraphic(), VX_NO_INIT);
    // Width and height go to the constructor, left and top by at(): the four-argument constructor
    // is private.
    mXC2Buf->setCrop(C2Rect(rect.width, rect.height).at(rect.left, rect.top));
    return VX_OK;
}

std::any VXGraphicBuffer_XC2::nativeBuffer() {
    return VXNativeBufContainer<xc2::XC2Buffer>(mXC2Buf);
}

std::unique_ptr<VXBuffer::Mapping> VXGraphicBuffer_XC2::map() {
    return std::make_unique<VXBufferXC2_Mapping>(fd(), capacity(), offset());
}

// From here on size() is 0, and no longer what the layout makes of the picture: a size that was set
// once stays in force.
void VXGraphicBuffer_XC2::reset() {
    setFilledRange(0, 0);
}
std::list<xc2::viewId_t> VXGraphicBuffer_XC2::enumviews() const {
    return viewIds(mXC2Buf.get());
}

std::shared_ptr<VXBuffer> VXGraphicBuffer_XC2::getview(xc2::viewId_t viewId) const {
    const auto view = mXC2Buf != nullptr ? mXC2Buf->getView(viewId) : nullptr;
    if (view == nullptr) {
        VX_LOGD("VX Aux handle is NULL !!");
        return nullptr;
    }
    VX_LOGD("VX Aux handle obtained !!");
    return std::make_shared<VXGraphicBuffer_XC2>(view, false);
}

// ---- VXLinearBufferPool_XC2 -------------------------------------------------------------------

VXLinearBufferPool_XC2::VXLinearBufferPool_XC2(VXBufferUsage usage) : mSecure(hasSecureBit(usage)) {
    // Without a block pool the object exists all the same: a constructor has no result, and every
    // setting answers VX_NO_INIT. The same for pictures.
    const auto pool = blockPool(C2BlockPool::BASIC_LINEAR);
    if (pool == nullptr) return;
    // nothrow: the library is built without exceptions, and a failure is a message and no pool. The
    // words are not those of linearUsageWord(): CACHED and MULTIVIEW wait for setUsage().
    mPool.reset(new (std::nothrow)
                    xc2::XC2LinearBufferPool(pool, mSecure ? 0x20410002 : 0x20410000));
    if (mPool == nullptr) VX_LOGE("Failed to create linear buffer pool !");
}
VXLinearBufferPool_XC2::~VXLinearBufferPool_XC2() = default;

VXError VXLinearBufferPool_XC2::setSize(size_t size) {
    VXLocker lock(mLock);
    VX_FAIL_IF(mPool == nullptr, VX_NO_INIT);
    // The linear pool's statuses are ignored on purpose; a size that cannot be allocated fails when
    // a buffer is fetched.
    mPool->setBufferSize(static_cast<uint32_t>(size));
    reset();
    return VX_OK;
}

VXError VXLinearBufferPool_XC2::setAlignment(size_t alignment) {
    VXLocker lock(mLock);
    VX_FAIL_IF(mPool == nullptr, VX_NO_INIT);
    mPool->setAlignment(static_cast<uint32_t>(alignment));
    reset();
    return VX_OK;
}

VXError VXLinearBufferPool_XC2::fetch(std::shared_ptr<VXBuffer>* buf) noexcept {
    // Over the whole fetch: the limit is checked in one step and used in another. The same for
    // pictures.
    VXLocker lock(mLock);
    return fetchBuffer(buf);
}

std::shared_ptr<VXBuffer> VXLinearBufferPool_XC2::createFromNative(std::any native) {
    // The caller's buffer: the stash neither counts nor keeps it.
    const auto xc2Buffer = fromContainer(native);
    if (xc2Buffer == nullptr || !xc2Buffer->isLinear()) {
        VX_LOGE("LinearPool::createFromNative: xc2 buf is not linear !");
        return nullptr;
    }
    return std::make_shared<VXBuffer_XC2>(xc2Buffer, false);
}

VXError VXLinearBufferPool_XC2::setUsage(VXBufferUsage usage) {
    VXLocker lock(mLock);
    VX_FAIL_IF(mPool == nullptr, VX_NO_INIT);
    mPool->setUsage(linearUsageWord(usage));
    reset();
    return VX_OK;
}

const char* VXLinearBufferPool_XC2::implType() const {
    return kImplType;
}

VXBuffer* VXLinearBufferPool_XC2::onAllocate() {
    VX_FAIL_IF(mPool == nullptr, nullptr);
    std::shared_ptr<xc2::XC2Buffer> xc2Buffer;
    // Checked here once: a buffer of the wrong kind would answer every question with 0.
    VX_FAIL_IF(mPool->allocate(&xc2Buffer) != xc2::XC2_OK, nullptr);
    VX_FAIL_IF(xc2Buffer == nullptr, nullptr);
    VX_FAIL_IF(xc2Buffer->isLinear() == false, nullptr);
    const auto& block = xc2Buffer->linearBlock();
    VXBuffer* const buffer = new VXBuffer_XC2(xc2Buffer, mSecure);
    VX_LOGD("Allocated (%s) buffer: %p (size=%u fd=%d)", secureName(mSecure),
            static_cast<void*>(buffer), block.capacity, block.fd);
    return buffer;
}

// ---- VXGraphicBufferPool_XC2 ------------------------------------------------------------------

VXGraphicBufferPool_XC2::VXGraphicBufferPool_XC2(VXBufferUsage usage)
    : mSecure(hasSecureBit(usage)) {
    const auto pool = blockPool(C2BlockPool::BASIC_GRAPHIC);
    if (pool == nullptr) return;
    // 0 stands for the usage word, which setUsage() supplies; the others are constants of the
    // signature.
    mPool.reset(new (std::nothrow) xc2::XC2GraphicBufferPoolImpl(pool, 1, nullptr, 0));
    if (mPool == nullptr) VX_LOGE("Failed to create graphic pool !");
}
VXGraphicBufferPool_XC2::~VXGraphicBufferPool_XC2() = default;

VXError VXGraphicBufferPool_XC2::setHEICFlag(bool isHEIC) {
    // Stored only: the codec library lays pictures out.
    mHEIC = isHEIC;
    return VX_OK;
}

VXError VXGraphicBufferPool_XC2::reserved() {
    return VX_OK;
}

VXError VXGraphicBufferPool_XC2::setPixelFormat(uint32_t pixelFormat) {
    VXLocker lock(mLock);
    VX_FAIL_IF(mPool == nullptr, VX_NO_INIT);
    // An unknown format goes on as 0, on purpose; the codec library judges it.
    const xc2::XC2Status status = mPool->setPixelFormat(toC2Format(pixelFormat));
    // No reset after a refusal: the kept buffers still have the shape of the pool.
    VX_FAIL_IF(status != xc2::XC2_OK, VX_ERROR);
    reset();
    return VX_OK;
}

VXError VXGraphicBufferPool_XC2::setResolution(uint32_t width, uint32_t height) {
    VXLocker lock(mLock);
    VX_FAIL_IF(mPool == nullptr, VX_NO_INIT);
    const xc2::XC2Status status = mPool->setResolution(width, height);
    VX_FAIL_IF(status != xc2::XC2_OK, VX_ERROR);
    reset();
    return VX_OK;
}

VXError VXGraphicBufferPool_XC2::fetch(std::shared_ptr<VXGraphicBuffer>* buf) noexcept {
    VXLocker lock(mLock);
    return fetchGraphicBuffer(buf);
}

std::shared_ptr<VXGraphicBuffer> VXGraphicBufferPool_XC2::createFromNative(std::any native) {
    const auto xc2Buffer = fromContainer(native);
    if (xc2Buffer == nullptr || !xc2Buffer->isGraphic()) {
        VX_LOGE("GraphicPool::createFromNative: xc2 buf is not graphic !");
        return nullptr;
    }
    return std::make_shared<VXGraphicBuffer_XC2>(xc2Buffer, false);
}

VXError VXGraphicBufferPool_XC2::setUsage(VXBufferUsage usage) {
    VXLocker lock(mLock);
    VX_FAIL_IF(mPool == nullptr, VX_NO_INIT);
    mPool->setUsage(graphicUsageWord(usage));
    reset();
    return VX_OK;
}

const char* VXGraphicBufferPool_XC2::implType() const {
    return kImplType;
}

VXBuffer* VXGraphicBufferPool_XC2::onAllocate() {
    VX_FAIL_IF(mPool == nullptr, nullptr);
    std::shared_ptr<xc2::XC2Buffer> xc2Buffer;
    VX_FAIL_IF(mPool->allocate(&xc2Buffer) != xc2::XC2_OK, nullptr);
    VX_FAIL_IF(xc2Buffer == nullptr, nullptr);
    VX_FAIL_IF(xc2Buffer->isGraphic() == false, nullptr);
    const auto& block = xc2Buffer->graphicBlock();
    VXBuffer* const buffer = new VXGraphicBuffer_XC2(xc2Buffer, mSecure);
    VX_LOGD("Allocated (%s) buffer: %p (size=%ux%u fd=%d)", secureName(mSecure),
            static_cast<void*>(buffer), block.width, block.height, block.fd);
    return buffer;
}

}  // namespace vexa
