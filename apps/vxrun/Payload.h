// Payload: what a work of vxrun carries, and the stream that it comes from.
#pragma once

#include <VXWork.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace vxrun {

struct Rational {
    uint64_t num = 0;
    uint64_t den = 1;
};

// StreamInfo: what holds for every frame of a stream. Sources attach one to the mInfos of each frame.
struct StreamInfo : public vexa::VXInfo {
    std::string media;        // "video" or "data"
    std::string codec;        // "rawvideo", or "none" for data
    std::string pixelFormat;  // FFmpeg's name, e.g. "yuv420p10le"; video only
    Rational timeBase;        // the unit of VXFrameInfo::timestamp, in seconds
    Rational sar;             // sample aspect ratio, 0/1 when unknown; video only
    uint64_t duration = 0;    // of one frame, in time-base units

    // The stream info of `frame`, as long as the frame lives; null when it carries none.
    static const StreamInfo* of(const vexa::VXFrameInfo& frame);
};

// PictureFormat: the geometry of a picture: one plane, or three of which the last two are chroma.
struct PictureFormat {
    uint32_t width = 0;  // visible samples of the first plane
    uint32_t height = 0;
    uint32_t planes = 3;
    uint32_t chromaDivX =
        1;  // luma columns per chroma column; an odd rest gets a column of its own
    uint32_t chromaDivY = 1;
    uint32_t bytesPerSample = 1;  // 2: little endian, value in the low bits

    // Of one plane, without padding. Nothing here overflows up to 65535 x 65535.
    size_t rowBytes(uint32_t plane) const;
    size_t rows(uint32_t plane) const;
    // The visible bytes of one picture.
    size_t size() const;
};

// Payload: a picture, or a block of bytes (which is one row). All access to bytes goes through here.
//
// Life     filled by the node that made it, read-only once its work is sent.
// Owns     its memory.
class Payload {
public:
    // Empty when there is not enough memory.
    static std::shared_ptr<Payload> ofPicture(const PictureFormat& format);
    static std::shared_ptr<Payload> ofBytes(size_t capacity);

    // The visible size in samples; 0 for bytes.
    uint32_t width() const { return mWidth; }
    uint32_t height() const { return mHeight; }

    // How many of a block's bytes count; at most its capacity.
    void setSize(size_t size);
    size_t size() const;  // visible bytes

    // Calls visit(row, bytes) for every visible row, plane by plane, top to bottom, without padding.
    template <typename Visitor>
    void forEachRow(Visitor visit) const {
        for (const Plane& plane : mPlanes) {
            const uint8_t* row = plane.data;
            for (size_t y = 0; y < plane.rows; ++y, row += plane.stride) visit(row, plane.rowBytes);
        }
    }
    // The same for writing.
    template <typename Visitor>
    void forEachRow(Visitor visit) {
        for (const Plane& plane : mPlanes) {
            uint8_t* row = plane.data;
            for (size_t y = 0; y < plane.rows; ++y, row += plane.stride) visit(row, plane.rowBytes);
        }
    }

private:
    struct Plane {
        uint8_t* data;
        size_t stride;    // bytes from row to row
        size_t rowBytes;  // visible bytes of a row
        size_t rows;
    };

    bool allocate(size_t size);

    std::unique_ptr<uint8_t[]> mMemory;
    std::vector<Plane> mPlanes;
    uint32_t mWidth = 0;
    uint32_t mHeight = 0;
};

}  // namespace vxrun
