#include <vexa_testing/Codec2.h>
#include <vexa_testing/Faults.h>
#include <xc2/BufferPool.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <utility>

namespace {

using xc2::XC2Buffer;
using xc2::XC2Status;

constexpr xc2::viewId_t kViews = 2;

// The answer that a test has prepared; read only while the flag is set.
std::atomic<bool> sScripted{false};
std::mutex sScriptLock;
XC2Status sScriptedStatus;
std::shared_ptr<XC2Buffer> sScriptedBuffer;

XC2Status takeScripted(std::shared_ptr<XC2Buffer>* buffer) {
    std::lock_guard<std::mutex> lock(sScriptLock);
    *buffer = std::move(sScriptedBuffer);
    return sScriptedStatus;
}

// Block pools and these pools share the errno numbers, so a status passes as it is.
XC2Status passedOn(c2_status_t status) {
    return static_cast<XC2Status>(status);
}

XC2Status injectedSettingError() {
    return static_cast<XC2Status>(vexa_testing::injectedError(vexa_testing::Call::VendorSetting));
}

// Stores a setting, unless a test makes it fail.
template <class Value>
XC2Status store(const Value& value, Value* setting) {
    const XC2Status error = injectedSettingError();
    if (error == xc2::XC2_OK) *setting = value;
    return error;
}

// A buffer made by `makeOne`, with its views when the usage asks for them: all of them or nothing.
template <class MakeOne>
XC2Status makeWithViews(uint64_t usage, MakeOne makeOne, std::shared_ptr<XC2Buffer>* buffer) {
    buffer->reset();
    if (sScripted.exchange(false)) return takeScripted(buffer);
    std::shared_ptr<XC2Buffer> made;
    XC2Status status = makeOne(&made);
    const xc2::viewId_t views = (usage & xc2::kUsageMultiView) != 0 ? kViews : 0;
    for (xc2::viewId_t id = 0; id < views && status == xc2::XC2_OK; ++id) {
        std::shared_ptr<XC2Buffer> view;
        status = makeOne(&view);
        made->addView(id, std::move(view));
    }
    if (status == xc2::XC2_OK) *buffer = std::move(made);
    return status;
}

}  // namespace

void vexa_testing::scriptVendorAllocate(XC2Status status, std::shared_ptr<XC2Buffer> buffer) {
    std::lock_guard<std::mutex> lock(sScriptLock);
    sScriptedStatus = status;
    sScriptedBuffer = std::move(buffer);
    sScripted = true;
}

namespace xc2 {

// ---- XC2LinearBufferPool ----------------------------------------------------------------------

XC2LinearBufferPool::XC2LinearBufferPool(std::shared_ptr<C2BlockPool> pool, uint64_t usage)
    : mPool(std::move(pool)), mUsage(usage) {}

XC2LinearBufferPool::~XC2LinearBufferPool() = default;

XC2Status XC2LinearBufferPool::setBufferSize(uint32_t size) {
    return store(size, &mSize);
}

XC2Status XC2LinearBufferPool::setAlignment(uint32_t alignment) {
    return store(alignment, &mAlignment);
}

XC2Status XC2LinearBufferPool::setUsage(uint64_t usage) {
    return store(usage, &mUsage);
}

XC2Status XC2LinearBufferPool::allocate(std::shared_ptr<XC2Buffer>* buffer) {
    return makeWithViews(
        mUsage, [this](std::shared_ptr<XC2Buffer>* one) { return allocateOne(one); }, buffer);
}

XC2Status XC2LinearBufferPool::allocateOne(std::shared_ptr<XC2Buffer>* buffer) {
    const uint64_t alignment = std::max(mAlignment, 1u);
    const uint64_t capacity = (mSize + alignment - 1) / alignment * alignment;
    std::shared_ptr<C2LinearBlock> block;
    // Saturated, as the sizes of pictures are: the allocation is then refused.
    const c2_status_t status =
        mPool->fetchLinearBlock(static_cast<uint32_t>(std::min<uint64_t>(capacity, UINT32_MAX)),
                                C2MemoryUsage(mUsage), &block);
    if (status == C2_OK) *buffer = std::make_shared<XC2Buffer>(std::move(block), mNextId++);
    return passedOn(status);
}

// ---- XC2GraphicBufferPoolImpl -----------------------------------------------------------------

XC2GraphicBufferPoolImpl::XC2GraphicBufferPoolImpl(std::shared_ptr<C2BlockPool> pool, uint32_t,
                                                   std::shared_ptr<void>, uint64_t)
    : mPool(std::move(pool)) {}

XC2GraphicBufferPoolImpl::~XC2GraphicBufferPoolImpl() = default;

XC2Status XC2GraphicBufferPoolImpl::setResolution(uint32_t width, uint32_t height) {
    if (width == 0 || height == 0) return XC2_BAD_VALUE;
    return store(C2Rect(width, height), &mResolution);
}

XC2Status XC2GraphicBufferPoolImpl::setPixelFormat(uint32_t format) {
    return store(format, &mFormat);
}

XC2Status XC2GraphicBufferPoolImpl::setUsage(uint64_t usage) {
    return store(usage, &mUsage);
}

XC2Status XC2GraphicBufferPoolImpl::allocate(std::shared_ptr<XC2Buffer>* buffer) {
    return makeWithViews(
        mUsage, [this](std::shared_ptr<XC2Buffer>* one) { return allocateOne(one); }, buffer);
}

XC2Status XC2GraphicBufferPoolImpl::allocateOne(std::shared_ptr<XC2Buffer>* buffer) {
    std::shared_ptr<C2GraphicBlock> block;
    const c2_status_t status = mPool->fetchGraphicBlock(mResolution.width, mResolution.height,
                                                        mFormat, C2MemoryUsage(mUsage), &block);
    if (status == C2_OK) *buffer = std::make_shared<XC2Buffer>(std::move(block), mFormat);
    return passedOn(status);
}

}  // namespace xc2
