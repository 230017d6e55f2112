// Payload: the bytes that works of vxrun carry, as libavutil sees pictures, and what is known of their
// stream.
#pragma once

#include "Libav.h"

#include <VXBuffer.h>
#include <VXWork.h>

extern "C" {
#include <libavutil/pixdesc.h>
}

#include <cstdint>
#include <memory>
#include <string>

namespace vxrun {

using Rational = AVRational;

// PictureFormat: the geometry of a picture: one plane, or three of which the last two are chroma. A block
// of bytes is one plane of a single row, of no pixel format.
struct PictureFormat {
    AVPixelFormat pixels = AV_PIX_FMT_NONE;
    int width = 0;  // visible samples of the first plane
    int height = 0;

    bool isPicture() const { return pixels != AV_PIX_FMT_NONE; }
    const AVPixFmtDescriptor& description() const;
    int planes() const { return description().nb_components; }
    int depth() const { return description().comp[0].depth; }  // bits of a sample's value
    // 2: little endian, value in the low bits.
    int bytesPerSample() const { return description().comp[0].step; }

    // Of one plane, without padding. Nothing here overflows up to 65535 x 65535.
    int columns(int plane) const;
    int rows(int plane) const;
    size_t rowBytes(int plane) const;
    // The visible bytes.
    size_t size() const;
    // For an error line: "35x27 yuv420p", "99 bytes".
    std::string text() const;
    bool operator!=(const PictureFormat& other) const;
};

// The format of such pictures; a Failure with the verdict NOT_SUPPORTED for those that Payload cannot
// carry: it takes planes of whole samples, little endian.
PictureFormat formatOf(AVPixelFormat pixels, int width, int height);

// StreamInfo: what holds for every frame of a stream, or of a part of it. Sources and codecs attach one
// to the mInfos of each frame.
struct StreamInfo : public vexa::VXInfo {
    std::string media = "video";     // or "data"
    std::string codec = "rawvideo";  // or the name of another, or "none" for data
    std::string profile;             // of the codec that the pictures come from: H264PROFILE_MAIN;
                                     // may be empty
    PictureFormat picture;           // of access units only its size
    Rational timeBase = {0, 1};      // the unit of VXFrameInfo::timestamp, in seconds
    Rational sar = {0, 1};           // sample aspect ratio, 0/1 when unknown; video only
    uint64_t duration = 0;           // of one frame, in time-base units
};

// BitstreamInfo: the stream of access units, for the decoder.
struct BitstreamInfo : public StreamInfo {
    Libav<AVCodecParameters> parameters = made(avcodec_parameters_alloc());
    AVRational frameRate = {0, 1};  // 0/1 when unknown
};

// UnitInfo: what the demuxer says of one access unit besides its bytes.
struct UnitInfo : public vexa::VXInfo {
    Libav<AVPacket> properties = made(av_packet_alloc());  // without data
};

// The info of the type `Info` that `frame` carries, as long as the frame lives; null when it has none.
template <typename Info>
const Info* infoOf(const vexa::VXFrameInfo& frame) {
    for (const auto& info : frame.mInfos) {
        if (const auto* found = dynamic_cast<const Info*>(info.get())) return found;
    }
    return nullptr;
}

// The buffer that `work` carries, of either kind; null when it carries none.
std::shared_ptr<vexa::VXBuffer> bufferOf(const vexa::VXSharedWork& work);
// Has `work` carry `buffer`, as the kind that it is.
void attach(vexa::VXWork* work, std::shared_ptr<vexa::VXBuffer> buffer);

// Payload: the visible bytes of a buffer: the planes of a picture, or the filled range of a block. All
// access to bytes goes through here.
//
// The pools have no format for planar pictures of any depth and sampling, so a picture lies in an
// RGBA 8888 surface as so many bytes: each row of each plane in a row of the surface of its own, plane
// after plane. Stride and height of the surface are the allocator's.
//
// Life     a view: the buffer outlives it. Pictures are written before their work is sent, and only
//          read from then on.
// Owns     a share of the buffer's mapping.
class Payload {
public:
    // A Failure when there is no buffer, or it cannot be mapped or is too small for the stream's pictures.
    Payload(const std::shared_ptr<vexa::VXBuffer>& buffer, const StreamInfo& stream);

    const PictureFormat& format() const { return mFormat; }
    bool isPicture() const { return mFormat.isPicture(); }
    size_t size() const { return mFormat.size(); }  // visible bytes

    // The size of the surface that holds a picture, in its pixels.
    static uint32_t surfaceWidth(const PictureFormat& format);
    static uint32_t surfaceHeight(const PictureFormat& format);

    // The planes as libavutil has them. They are not padded, as libswscale and encoders want them.
    AVFrame& view() const { return *mView; }
    // A copy of the picture that is padded. A Failure when it is none.
    Libav<AVFrame> copy() const;

    // Calls visit(row, bytes) for every visible row, plane by plane, top to bottom, without padding.
    template <typename Visitor>
    void forEachRow(Visitor visit) const {
        for (int plane = 0; plane < mFormat.planes(); ++plane) {
            uint8_t* row = mView->data[plane];
            const size_t bytes = mFormat.rowBytes(plane);
            for (int y = 0; y < mFormat.rows(plane); ++y) {
                visit(row, bytes);
                row += mView->linesize[plane];
            }
        }
    }

private:
    const std::shared_ptr<vexa::VXBuffer::Mapping> mMapping;
    PictureFormat mFormat;
    const Libav<AVFrame> mView = made(av_frame_alloc());
};

// Frame: what a work brings. A view: the work outlives it.
struct Frame : public Payload {
    // A Failure for a work that lacks something.
    explicit Frame(const vexa::VXSharedWork& work);

    // A copy of the access unit that the payload is, with its properties; `*of` is its stream. A Failure
    // when it is none.
    Libav<AVPacket> unit(const BitstreamInfo** of) const;

    const vexa::VXFrameInfo& info;
    const StreamInfo& stream;
};

}  // namespace vxrun
