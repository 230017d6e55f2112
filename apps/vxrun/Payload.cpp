#include "Payload.h"

#include "Failure.h"
#include "Pool.h"
#include "Text.h"

#include <sys/mman.h>

#include <cstring>
#include <tuple>

namespace vxrun {

using namespace vexa;

constexpr size_t kPixelBytes = 4;  // of the surface

// ---- PictureFormat ----------------------------------------------------------------------------

const AVPixFmtDescriptor& PictureFormat::description() const {
    return *av_pix_fmt_desc_get(isPicture() ? pixels : AV_PIX_FMT_GRAY8);
}

int PictureFormat::columns(int plane) const {
    return plane == 0 ? width : AV_CEIL_RSHIFT(width, description().log2_chroma_w);
}

int PictureFormat::rows(int plane) const {
    return plane == 0 ? height : AV_CEIL_RSHIFT(height, description().log2_chroma_h);
}

size_t PictureFormat::rowBytes(int plane) const {
    return static_cast<size_t>(columns(plane)) * static_cast<size_t>(bytesPerSample());
}

size_t PictureFormat::size() const {
    size_t sum = 0;
    for (int p = 0; p < planes(); ++p) sum += rowBytes(p) * static_cast<size_t>(rows(p));
    return sum;
}

std::string PictureFormat::text() const {
    if (!isPicture()) return concat(size(), " bytes");
    return concat(width, "x", height, " ", description().name);
}

bool PictureFormat::operator!=(const PictureFormat& other) const {
    return std::tie(pixels, width, height) != std::tie(other.pixels, other.width, other.height);
}

PictureFormat formatOf(AVPixelFormat pixels, int width, int height) {
    const AVPixFmtDescriptor* const known = av_pix_fmt_desc_get(pixels);
    if (known == nullptr) throw Failure("a picture of no known pixel format");
    constexpr uint64_t kOtherwise = AV_PIX_FMT_FLAG_PAL | AV_PIX_FMT_FLAG_BITSTREAM |
                                    AV_PIX_FMT_FLAG_HWACCEL | AV_PIX_FMT_FLAG_ALPHA |
                                    AV_PIX_FMT_FLAG_FLOAT;
    const int depth = known->comp[0].depth;
    bool fits = depth >= 8 && depth <= 16 && (known->flags & kOtherwise) == 0 &&
                (depth == 8 || (known->flags & AV_PIX_FMT_FLAG_BE) == 0) &&
                (known->nb_components == 1 || known->nb_components == 3) &&
                av_pix_fmt_count_planes(pixels) == known->nb_components;
    for (int i = 0; i < known->nb_components; ++i) {
        const AVComponentDescriptor& component = known->comp[i];
        fits = fits && component.depth == depth && component.step == (depth > 8 ? 2 : 1) &&
               component.offset == 0 && component.shift == 0;
    }
    if (!fits) {
        throw Failure(std::string("the pixel format ") + known->name + " is not supported",
                      "NOT_SUPPORTED");
    }
    return {pixels, width, height};
}

// ---- Works ------------------------------------------------------------------------------------

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

// ---- Payload ----------------------------------------------------------------------------------

uint32_t Payload::surfaceWidth(const PictureFormat& format) {
    return static_cast<uint32_t>((format.rowBytes(0) + kPixelBytes - 1) / kPixelBytes);
}

uint32_t Payload::surfaceHeight(const PictureFormat& format) {
    int rows = 0;
    for (int plane = 0; plane < format.planes(); ++plane) rows += format.rows(plane);
    return static_cast<uint32_t>(rows);
}

Payload::Payload(const std::shared_ptr<VXBuffer>& buffer, const StreamInfo& stream)
    : mMapping(buffer != nullptr ? Pool::mappingOf(buffer) : nullptr), mFormat(stream.picture) {
    if (buffer == nullptr) throw Failure("a work without a payload");
    uint8_t* data = mMapping->vaddr();
    if (data == MAP_FAILED) throw Failure("a buffer cannot be mapped: " + errnoText(errno));
    size_t stride = 0;
    if (const auto* surface = dynamic_cast<const VXGraphicBuffer*>(buffer.get())) {
        if (surface->width() < surfaceWidth(mFormat) ||
            surface->height() < surfaceHeight(mFormat)) {
            throw Failure("a buffer is too small for its picture");
        }
        stride = surface->stride() * kPixelBytes;
    } else {
        data += buffer->offset();
        mFormat = {AV_PIX_FMT_NONE, static_cast<int>(buffer->size()), 1};
    }
    mView->format = mFormat.pixels;
    mView->width = mFormat.width;
    mView->height = mFormat.height;
    for (int plane = 0; plane < mFormat.planes(); ++plane) {
        mView->data[plane] = data;
        mView->linesize[plane] = static_cast<int>(stride);
        data += stride * static_cast<size_t>(mFormat.rows(plane));
    }
}

Libav<AVFrame> Payload::copy() const {
    if (!isPicture()) throw Failure("a work without a picture");
    auto picture = newPicture(mFormat.pixels, mFormat.width, mFormat.height);
    if (av_frame_copy(picture.get(), mView.get()) < 0) throw Failure("a picture of no size");
    return picture;
}

// ---- Frame ------------------------------------------------------------------------------------

static const StreamInfo& streamOf(const VXFrameInfo& frame) {
    const auto* const stream = infoOf<StreamInfo>(frame);
    if (stream == nullptr) throw Failure("a work without a stream");
    return *stream;
}

Frame::Frame(const VXSharedWork& work)
    : Payload(bufferOf(work), streamOf(work.frameInfo())),
      info(work.frameInfo()),
      stream(streamOf(info)) {}

Libav<AVPacket> Frame::unit(const BitstreamInfo** of) const {
    *of = infoOf<BitstreamInfo>(info);
    const auto* const unit = infoOf<UnitInfo>(info);
    if (*of == nullptr || unit == nullptr) {
        throw Failure("a work without an access unit of a source/bitstream or codec/encoder");
    }
    auto packet = made(av_packet_alloc());
    if (av_new_packet(packet.get(), format().width) < 0) throw std::bad_alloc();
    std::memcpy(packet->data, view().data[0], size());
    if (av_packet_copy_props(packet.get(), unit->properties.get()) < 0) throw std::bad_alloc();
    return packet;
}

}  // namespace vxrun
