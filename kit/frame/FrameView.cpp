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
        const bool isStored = surface->pixelFormat() != kSurfaceFormat &&
                              surface->pixelFormat() == poolFormatOf(mFormat.pixels);
        const auto width = static_cast<uint32_t>(mFormat.width);
        const auto height = static_cast<uint32_t>(mFormat.height);
        if (surface->width() < (isStored ? width : mFormat.surfaceWidth()) ||
            surface->height() < (isStored ? height : mFormat.surfaceHeight())) {
            throw Failure("a buffer is too small for its picture");
        }
        mStride = surface->stride() *
                  (isStored ? static_cast<size_t>(mFormat.pixels.bytesPerSample()) : kPixelBytes);
        if (isStored) {
            mPlanes = {data, data + mStride * surface->sliceHeight(), nullptr};
            return;
        }
    } else {
        data += buffer->offset();
        mFormat = PictureFormat::block(static_cast<int>(buffer->size()));
    }
    for (int p = 0; p < mFormat.pixels.planes; ++p) {
        mPlanes[static_cast<size_t>(p)] = data;
        data += mStride * static_cast<size_t>(mFormat.rows(p));
    }
}

void FrameView::readAsPlanes() {
    mNeedsPlanes = mFormat.pixels.isSemiPlanar();
    mStored = mFormat.pixels;
    mFormat.pixels = mFormat.pixels.planar();
}

// Copies the samples of `stored`, of which each row has `columns`, that are `step` apart.
template <typename Sample>
static void copyRow(const uint8_t* stored, uint8_t* to, size_t columns, size_t step, int shift) {
    const auto* const from = reinterpret_cast<const Sample*>(stored);
    auto* const samples = reinterpret_cast<Sample*>(to);
    for (size_t x = 0; x < columns; ++x) samples[x] = static_cast<Sample>(from[x * step] >> shift);
}

void FrameView::makePlanes() const {
    const auto bytes = static_cast<size_t>(mStored.bytesPerSample());
    const size_t stride = mFormat.rowBytes(0);
    const auto rows =
        static_cast<size_t>(mFormat.rows(0)) + 2 * static_cast<size_t>(mFormat.rows(1));
    mCopies = std::make_shared<std::vector<uint8_t>>(stride * rows);
    uint8_t* to = mCopies->data();
    std::array<uint8_t*, 3> planes{};
    for (int p = 0; p < 3; ++p) {
        planes[static_cast<size_t>(p)] = to;
        const bool isSecond = p > 0 && (p == 2) != mStored.crFirst;
        const uint8_t* from = mPlanes[p == 0 ? 0 : 1] + (isSecond ? bytes : 0);
        const auto columns = static_cast<size_t>(mFormat.columns(p));
        for (int y = 0; y < mFormat.rows(p); ++y, from += mStride, to += stride) {
            const size_t step = p == 0 ? 1 : 2;
            bytes == 1 ? copyRow<uint8_t>(from, to, columns, step, 0)
                       : copyRow<uint16_t>(from, to, columns, step, mStored.shift);
        }
    }
    mPlanes = planes;
    mStride = stride;
    mNeedsPlanes = false;
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
      stream(streamOf(info)) {
    readAsPlanes();
}

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
