#include <vxkit/Failure.h>
#include <vxkit/FrameView.h>
#include <vxkit/Text.h>

#include <sys/mman.h>

#include <cerrno>

namespace vxkit {

using namespace vexa;

// A payload is found by the type that it was set with, and pictures are set as such.
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

FrameView::FrameView(const VXBuffer* buffer, std::shared_ptr<VXBuffer::Mapping> mapping,
                     const StreamInfo& stream)
    : mMapping(std::move(mapping)), mFormat(stream.picture) {
    if (buffer == nullptr) throw Failure("a work without a payload");
    constexpr size_t kPixelBytes = 4;  // of the surface
    uint8_t* data = mMapping->vaddr();
    if (data == MAP_FAILED) throw Failure("a buffer cannot be mapped: " + errnoText(errno));
    if (const auto* surface = dynamic_cast<const VXGraphicBuffer*>(buffer)) {
        if (surface->width() < mFormat.surfaceWidth() ||
            surface->height() < mFormat.surfaceHeight()) {
            throw Failure("a buffer is too small for its picture");
        }
        mStride = surface->stride() * kPixelBytes;
    } else {
        data += buffer->offset();
        mFormat = PictureFormat::block(static_cast<int>(buffer->size()));
    }
    for (int p = 0; p < mFormat.pixels.planes; ++p) {
        mPlanes[static_cast<size_t>(p)] = data;
        data += mStride * static_cast<size_t>(mFormat.rows(p));
    }
}

static const StreamInfo& streamOf(const VXFrameInfo& frame) {
    const auto* const stream = infoOf<StreamInfo>(frame);
    if (stream == nullptr) throw Failure("a work without a stream");
    return *stream;
}

static std::shared_ptr<VXBuffer::Mapping> mappingOf(const VXFrameInfo& frame, VXBuffer* buffer) {
    if (buffer == nullptr) return nullptr;
    // Buffers of nodes that do not use vxkit have no origin and are mapped for this view alone.
    const auto* const origin = infoOf<PoolBuffer>(frame);
    return origin != nullptr ? origin->mapping() : buffer->map();
}

Frame::Frame(const VXSharedWork& work) : Frame(work, bufferOf(work)) {}

Frame::Frame(const VXSharedWork& work, const std::shared_ptr<VXBuffer>& buffer)
    : FrameView(buffer.get(), mappingOf(work.frameInfo(), buffer.get()),
                streamOf(work.frameInfo())),
      info(work.frameInfo()),
      stream(streamOf(info)) {}

// The info of the type `Info`, which every access unit has.
template <typename Info>
static const Info& unitInfo(const Frame& frame) {
    const auto* const info = infoOf<Info>(frame.info);
    if (info == nullptr) {
        throw Failure("a work without an access unit of a source/bitstream or codec/encoder");
    }
    return *info;
}

AccessUnit::AccessUnit(const Frame& frame)
    : data(frame.plane(0)),
      size(frame.size()),
      info(unitInfo<UnitInfo>(frame)),
      stream(unitInfo<BitstreamInfo>(frame)) {}

}  // namespace vxkit
