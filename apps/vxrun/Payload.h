// Payload: the buffer that a work of vxrun carries, and the stream that it comes from.
//
// A work on a "video/raw" port carries a VXGraphicBuffer, on any other port a VXBuffer.
#pragma once

#include <VXBuffer.h>
#include <VXWork.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace vxrun {

struct Rational {
    uint64_t num = 0;
    uint64_t den = 1;

    bool operator!=(const Rational& other) const { return num != other.num || den != other.den; }
};

// PictureFormat: the geometry of a picture: one plane, or three of which the last two are chroma.
struct PictureFormat {
    uint32_t width = 0;  // visible samples of the first plane
    uint32_t height = 0;
    uint32_t planes = 3;
    uint32_t chromaDivX = 1;  // luma columns per chroma column; an odd rest has one of its own
    uint32_t chromaDivY = 1;
    uint32_t bytesPerSample = 1;  // 2: little endian, value in the low bits
    uint32_t depth = 8;           // bits of a sample's value
    std::string pixels;           // FFmpeg's name of the pixel format

    // Of one plane, without padding. Nothing here overflows up to 65535 x 65535.
    size_t rowBytes(uint32_t plane) const;
    size_t rows(uint32_t plane) const;
    // The visible bytes of one picture.
    size_t size() const;
    // For an error line: "35x27 yuv420p".
    std::string text() const;
    bool operator!=(const PictureFormat& other) const;
};

// StreamInfo: what holds for every frame of a stream, or of a part of it. Sources and codecs attach one
// to the mInfos of each frame.
struct StreamInfo : public vexa::VXInfo {
    std::string media;  // "video" or "data"
    std::string codec;  // "rawvideo", the name of a codec, or "none" for data
    std::string
        profile;  // of the codec that the pictures come from: H264PROFILE_MAIN; may be empty
    PictureFormat picture;  // video only
    Rational timeBase;      // the unit of VXFrameInfo::timestamp, in seconds
    Rational sar;           // sample aspect ratio, 0/1 when unknown; video only
    uint64_t duration = 0;  // of one frame, in time-base units
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

// Payload: the visible bytes of a buffer: the planes of a picture, or the filled range of a block,
// which is one row. All access to bytes goes through here.
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
    // A Failure when the buffer cannot be mapped or is too small for the stream's pictures.
    Payload(const std::shared_ptr<vexa::VXBuffer>& buffer, const StreamInfo& stream);

    // Of the picture; a block counts as one row of samples of 8 bits.
    const PictureFormat& format() const { return mFormat; }
    bool isPicture() const { return mIsPicture; }

    // The size of the surface that holds a picture, in its pixels.
    static uint32_t surfaceWidth(const PictureFormat& format);
    static uint32_t surfaceHeight(const PictureFormat& format);

    struct Plane {
        uint8_t* data;
        size_t stride;    // bytes from row to row
        size_t rowBytes;  // visible bytes of a row
        size_t rows;
    };
    const std::vector<Plane>& planes() const { return mPlanes; }

    size_t size() const;  // visible bytes

    // Calls visit(row, bytes) for every visible row, plane by plane, top to bottom, without padding.
    template <typename Visitor>
    void forEachRow(Visitor visit) const {
        for (const Plane& plane : mPlanes) {
            uint8_t* row = plane.data;
            for (size_t y = 0; y < plane.rows; ++y, row += plane.stride) visit(row, plane.rowBytes);
        }
    }

private:
    const std::shared_ptr<vexa::VXBuffer::Mapping> mMapping;
    const bool mIsPicture;
    PictureFormat mFormat;
    std::vector<Plane> mPlanes;
};

}  // namespace vxrun
