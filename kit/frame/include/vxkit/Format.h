// Format: the geometry of pictures, and what is known about a stream.
#pragma once

#include <VXWork.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vxkit {

// Rational: num / den. A plain value.
struct Rational {
    int num, den;
};

// PixelFormat: the planes of a picture: one, or three of which the last two may be subsampled, or
// two (semi-planar), of which the second has the samples of both in turn. All samples have the same
// depth; above 8 bits they are two bytes, little endian, value in the low bits unless `shift` is
// set. A format without a name is that of a block of bytes. A plain value.
struct PixelFormat {
    bool operator==(const PixelFormat& other) const { return name == other.name; }
    bool operator!=(const PixelFormat& other) const { return !(*this == other); }

    int bytesPerSample() const { return depth > 8 ? 2 : 1; }
    bool isSemiPlanar() const { return planes == 2; }
    // The format with the same samples in planes of their own: "yuv420p10le" for "p010le".
    PixelFormat planar() const;
    // The name of the format with the same planes in limited range: "yuv420p" for "yuvj420p".
    std::string rangelessName() const;

    std::string name;  // as FFmpeg spells it: "yuv420p", "gray10le", "gbrp"
    int planes = 1;
    int depth = 8;                           // bits of a sample's value
    int chromaShiftX = 0, chromaShiftY = 0;  // log2 of the subsampling of chroma
    // Of semi-planar formats: the bits below a value, and whether Cr comes before Cb.
    int shift = 0;
    bool crFirst = false;
};

// The format with this name, such as "yuv422p10le": gray, yuv4xxp, yuvj4xxp (full range) and gbrp,
// of 8 or, as "NNle", 9, 10, 12, 14 and 16 bits if FFmpeg has it; nv12, nv21, nv16, p010le, p016le.
// Empty for any other name.
std::optional<PixelFormat> findPixelFormat(const std::string& name);

// The system's code of the pools' pixel format that holds such pictures as they are; else that of
// RGBA 8888, see FrameView.
uint32_t poolFormatOf(const PixelFormat& pixels);
constexpr uint32_t kSurfaceFormat = 0x1;

// PictureFormat: pixel format and size of a picture. A block of bytes is one plane of a single row.
// A plain value.
struct PictureFormat {
    // A block of `bytes` bytes.
    static PictureFormat block(int bytes) { return {{}, bytes, 1}; }

    bool operator!=(const PictureFormat& other) const;

    bool isPicture() const { return !pixels.name.empty(); }
    // Of one plane, without padding. Nothing here overflows up to 65535 x 65535.
    int columns(int plane) const;
    int rows(int plane) const;
    size_t rowBytes(int plane) const;
    // The visible bytes.
    size_t size() const;
    // For an error line: "35x27 yuv420p", "99 bytes".
    std::string description() const;

    // The size of the RGBA 8888 surface that holds such a picture, in pixels, see FrameView.
    uint32_t surfaceWidth() const;
    uint32_t surfaceHeight() const;

    PixelFormat pixels;
    int width = 0;  // visible samples of the first plane
    int height = 0;
};

// StreamInfo: what holds for every frame of a stream, or of a part of it. Sources and codecs attach
// one to the mInfos of each frame.
//
// Life     shared by the frames; not changed once a frame carries it.
// Threads  any, for reading.
// Owns     nothing.
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

// BitstreamInfo: the stream of access units, for the decoder. As StreamInfo.
struct BitstreamInfo : public StreamInfo {
    Rational frameRate = {0, 1};   // 0/1 when unknown
    std::vector<uint8_t> headers;  // out-of-band codec headers as the container stores them
};

// UnitInfo: what the container states about one access unit besides its bytes. As StreamInfo.
struct UnitInfo : public vexa::VXInfo {
    static constexpr int64_t kNoTime = INT64_MIN;

    int64_t pts = kNoTime;  // presentation and decoding time in time-base units
    int64_t dts = kNoTime;
    int64_t duration = 0;
    bool isKey = false;
    bool isCorrupt = false;  // the container knows it to be damaged
    char pictureType = 0;    // 'I', 'P' or 'B'; 0 when the maker does not state it
};

// The info of the type `Info` that `frame` carries, as long as the frame lives; null without one.
template <typename Info>
const Info* infoOf(const vexa::VXFrameInfo& frame) {
    for (const auto& info : frame.mInfos) {
        if (const auto* found = dynamic_cast<const Info*>(info.get())) return found;
    }
    return nullptr;
}

}  // namespace vxkit
