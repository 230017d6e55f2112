#include <vexa_testing/Faults.h>
#include <xc2/Buffer.h>
#include <xc2/Platform.h>

#include <atomic>
#include <utility>

namespace {

std::atomic<uint64_t> sLastUniqueId{0};
std::atomic<int> sLiveBuffers{0};

int descriptorOf(const C2Handle* handle) {
    return handle != nullptr && handle->numFds >= 1 ? handle->data[0] : -1;
}

}  // namespace

int vexa_testing::liveVendorBuffers() {
    return sLiveBuffers;
}

namespace xc2 {

XC2Buffer::XC2Buffer(Type type, std::shared_ptr<void> block)
    : mType(type), mUniqueId(++sLastUniqueId), mBlock(std::move(block)) {
    ++sLiveBuffers;
}

XC2Buffer::XC2Buffer(std::shared_ptr<C2LinearBlock> block, int32_t id) : XC2Buffer(LINEAR, block) {
    mLinear = {descriptorOf(block->handle()), id, block->capacity(), 0, 0};
}

XC2Buffer::XC2Buffer(std::shared_ptr<C2GraphicBlock> block, uint32_t format)
    : XC2Buffer(GRAPHIC, block) {
    const uint32_t width = block->width();
    const uint32_t height = block->height();
    const auto layout = Platform::LyraBufferLayout::Of(format, width, height);
    mGraphic = {descriptorOf(block->handle()),
                layout.size,
                0,
                width,
                height,
                layout.stride,
                layout.scanlines,
                format};
    mFrameWidth = width;
    mFrameHeight = height;
}

XC2Buffer::~XC2Buffer() {
    --sLiveBuffers;
}

XC2Status XC2Buffer::setRange(uint32_t offset, uint32_t size) {
    mLinear.offset = offset;
    mLinear.size = size;
    return XC2_OK;
}

XC2Status XC2Buffer::setCompressedSize(uint32_t size) {
    mCompressedSize = size;
    return XC2_OK;
}

XC2Status XC2Buffer::setFrameWidth(uint32_t width) {
    mFrameWidth = width;
    return XC2_OK;
}

XC2Status XC2Buffer::setFrameHeight(uint32_t height) {
    mFrameHeight = height;
    return XC2_OK;
}

XC2Status XC2Buffer::setCrop(const C2Rect& crop) {
    mCrop = crop;
    return XC2_OK;
}

XC2Status XC2Buffer::getInfo(uint32_t key, uint32_t* value) const {
    const auto info = mInfos.find(key);
    if (info == mInfos.end()) return XC2_NOT_FOUND;
    *value = info->second;
    return XC2_OK;
}

void XC2Buffer::setFence(std::shared_ptr<C2Fence> fence) {
    mFence = std::move(fence);
}

std::list<viewId_t> XC2Buffer::enumerateAuxViews() const {
    std::list<viewId_t> ids;
    for (const auto& view : mViews) ids.push_back(view.first);
    return ids;
}

std::shared_ptr<XC2Buffer> XC2Buffer::getView(viewId_t id) const {
    const auto view = mViews.find(id);
    return view != mViews.end() ? view->second : nullptr;
}

void XC2Buffer::addView(viewId_t id, std::shared_ptr<XC2Buffer> view) {
    mViews[id] = std::move(view);
}

}  // namespace xc2
