#include "Payload.h"

#include <algorithm>
#include <new>

namespace vxrun {
namespace {

size_t divideUp(size_t value, size_t divisor) {
    return (value + divisor - 1) / divisor;
}

}  // namespace

const StreamInfo* StreamInfo::of(const vexa::VXFrameInfo& frame) {
    for (const auto& info : frame.mInfos) {
        if (const auto* stream = dynamic_cast<const StreamInfo*>(info.get())) return stream;
    }
    return nullptr;
}

size_t PictureFormat::rowBytes(uint32_t plane) const {
    return divideUp(width, plane == 0 ? 1 : chromaDivX) * bytesPerSample;
}

size_t PictureFormat::rows(uint32_t plane) const {
    return divideUp(height, plane == 0 ? 1 : chromaDivY);
}

size_t PictureFormat::size() const {
    size_t sum = 0;
    for (uint32_t plane = 0; plane < planes; ++plane) sum += rowBytes(plane) * rows(plane);
    return sum;
}

bool Payload::allocate(size_t size) {
    mMemory.reset(new (std::nothrow) uint8_t[size]);
    return mMemory != nullptr;
}

std::shared_ptr<Payload> Payload::ofPicture(const PictureFormat& format) {
    auto payload = std::make_shared<Payload>();
    if (!payload->allocate(format.size())) return nullptr;
    uint8_t* data = payload->mMemory.get();
    for (uint32_t plane = 0; plane < format.planes; ++plane) {
        const size_t rowBytes = format.rowBytes(plane);
        payload->mPlanes.push_back({data, rowBytes, rowBytes, format.rows(plane)});
        data += rowBytes * format.rows(plane);
    }
    payload->mWidth = format.width;
    payload->mHeight = format.height;
    return payload;
}

std::shared_ptr<Payload> Payload::ofBytes(size_t capacity) {
    auto payload = std::make_shared<Payload>();
    if (!payload->allocate(capacity)) return nullptr;
    payload->mPlanes.push_back({payload->mMemory.get(), capacity, capacity, 1});
    return payload;
}

void Payload::setSize(size_t size) {
    mPlanes.front().rowBytes = std::min(size, mPlanes.front().stride);
}

size_t Payload::size() const {
    size_t sum = 0;
    for (const Plane& plane : mPlanes) sum += plane.rowBytes * plane.rows;
    return sum;
}

}  // namespace vxrun
