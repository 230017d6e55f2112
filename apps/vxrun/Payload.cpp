#include "Payload.h"

#include "Failure.h"
#include "Pool.h"

#include <sys/mman.h>

#include <algorithm>
#include <tuple>

namespace vxrun {

using namespace vexa;

namespace {

constexpr size_t kPixelBytes = 4;  // of the surface

size_t divideUp(size_t value, size_t divisor) {
    return (value + divisor - 1) / divisor;
}

}  // namespace

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

std::string PictureFormat::text() const {
    return std::to_string(width) + "x" + std::to_string(height) + " " + pixels;
}

bool PictureFormat::operator!=(const PictureFormat& other) const {
    const auto members = [](const PictureFormat& f) {
        return std::tie(f.width, f.height, f.planes, f.chromaDivX, f.chromaDivY, f.bytesPerSample,
                        f.depth, f.pixels);
    };
    return members(*this) != members(other);
}

std::shared_ptr<VXBuffer> bufferOf(const VXSharedWork& work) {
    if (auto picture = work.payload<VXGraphicBuffer>()) return picture;
    return work.payload<VXBuffer>();
}

void attach(VXWork* work, std::shared_ptr<VXBuffer> buffer) {
    if (auto picture = std::dynamic_pointer_cast<VXGraphicBuffer>(buffer)) {
        work->setPayload(std::move(picture));
    } else {
        work->setPayload(std::move(buffer));
    }
}

uint32_t Payload::surfaceWidth(const PictureFormat& format) {
    return static_cast<uint32_t>(divideUp(format.rowBytes(0), kPixelBytes));  // the longest rows
}

uint32_t Payload::surfaceHeight(const PictureFormat& format) {
    size_t rows = 0;
    for (uint32_t plane = 0; plane < format.planes; ++plane) rows += format.rows(plane);
    return static_cast<uint32_t>(rows);
}

Payload::Payload(const std::shared_ptr<VXBuffer>& buffer, const StreamInfo& stream)
    : mMapping(Pool::mappingOf(buffer)),
      mIsPicture(dynamic_cast<VXGraphicBuffer*>(buffer.get()) != nullptr),
      mFormat(stream.picture) {
    uint8_t* data = mMapping->vaddr();
    if (data == MAP_FAILED) throw Failure("a buffer cannot be mapped: " + errnoText(errno));
    const auto* surface = dynamic_cast<const VXGraphicBuffer*>(buffer.get());
    if (surface == nullptr) {
        mPlanes.push_back({data + buffer->offset(), buffer->size(), buffer->size(), 1});
        mFormat = {};
        mFormat.planes = 1;
        mFormat.width = static_cast<uint32_t>(buffer->size());
        mFormat.height = 1;
        return;
    }
    const PictureFormat& format = stream.picture;
    if (surface->width() < surfaceWidth(format) || surface->height() < surfaceHeight(format)) {
        throw Failure("a buffer is too small for its picture");
    }
    const size_t stride = surface->stride() * kPixelBytes;
    for (uint32_t plane = 0; plane < format.planes; ++plane) {
        mPlanes.push_back({data, stride, format.rowBytes(plane), format.rows(plane)});
        data += stride * format.rows(plane);
    }
}

size_t Payload::size() const {
    size_t sum = 0;
    for (const Plane& plane : mPlanes) sum += plane.rowBytes * plane.rows;
    return sum;
}

}  // namespace vxrun
