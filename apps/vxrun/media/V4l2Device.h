// V4l2Device: a codec device of the kernel, by its stateful memory-to-memory interface
// (Documentation/userspace-api/media/v4l/dev-decoder.rst and dev-encoder.rst).
#pragma once

#include "Vxkit.h"

#include <vxkit/FrameView.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

struct v4l2_buffer;
struct v4l2_plane;

namespace vxrun {

// How pictures or access units lie in the buffers of one side of a device. A plain value.
struct V4l2Format {
    uint32_t code = 0;    // V4L2_PIX_FMT_...
    uint32_t width = 0;   // as coded, which may be larger than what is visible
    uint32_t height = 0;  // rows from one plane to the next
    uint32_t stride = 0;  // bytes from one row to the next; 0 for access units
    uint32_t size = 0;    // bytes of a buffer
};

// Failures begin with the device's path, and name what was asked of it.
//
// Threads  one at a time; poll(2) on file() from any.
// Owns     the open device.
class V4l2Device {
public:
    enum Side { OUTPUT, CAPTURE };  // what the device reads, what it writes

    // What the device is to do, and how it is found.
    struct Search {
        bool isDecoder = true;
        std::string codec;  // libavcodec's name, or "fwht"
        std::string name;   // a path, or a part of the driver's or the card's name; empty: any
    };
    // The first device that fits. Verdict::NotSupported when there is none, with what was seen.
    explicit V4l2Device(const Search& search);
    ~V4l2Device();
    V4l2Device(const V4l2Device&) = delete;
    V4l2Device& operator=(const V4l2Device&) = delete;

    int file() const { return mFile; }
    uint32_t code() const { return mCode; }  // V4L2_PIX_FMT_... of the access units
    const std::string& path() const { return mPath; }
    const std::string& driver() const { return mDriver; }

    std::vector<uint32_t> formatCodes(Side side) const;
    V4l2Format format(Side side) const;
    // Asks for `wanted`; the driver's answer counts.
    V4l2Format setFormat(Side side, const V4l2Format& wanted) const;
    // The visible size of the pictures on that side: a decoder's answer, or what an encoder is
    // told, which it need not support.
    void visibleSize(uint32_t* width, uint32_t* height) const;
    void setVisibleSize(uint32_t width, uint32_t height) const;
    void setFrameRate(uint32_t num, uint32_t den) const;
    // Sets controls "ID=VALUE".
    void setControls(const std::vector<std::string>& controls) const;

    // Makes room for `count` buffers (0: none any more), which come as DMA-BUFs; how many it became.
    unsigned request(Side side, unsigned count) const;
    void stream(Side side, bool on) const;

    struct Buffer {
        unsigned index = 0;
        int fd = -1;  // a DMA-BUF
        size_t capacity = 0;
        size_t bytes = 0;        // filled
        uint64_t timestamp = 0;  // in microseconds; of what was made of it, too
        bool isKey = false;
        bool isLast = false;   // nothing comes after it until the queue is started again
        bool isError = false;  // its content is damaged
    };
    void queue(Side side, const Buffer& buffer) const;
    // A buffer that the device is done with; empty when there is none, or none any more after the
    // last.
    std::optional<Buffer> dequeue(Side side) const;

    // Subscribes to source changes and the end of the stream.
    void subscribe() const;
    // Handles what has happened; true when the source has changed.
    bool takeSourceChange() const;
    // Has the device finish what it was given; the last buffer is marked. False when it is still
    // doing so.
    bool startDrain() const;

private:
    std::string refusal(const Search& search);
    uint32_t typeOf(Side side) const;
    void call(unsigned long request, void* argument, const char* what) const;

    std::string mPath, mDriver;
    uint32_t mCode;
    int mFile = -1;
    bool mIsDecoder;
    bool mIsMultiPlanar = false;
};

// V4L2_PIX_FMT_... of a layout of pictures; 0 for an unknown one.
uint32_t v4l2CodeOf(const PixelFormat& pixels);
// The layout of pictures with such a code; empty for those that FrameView does not know.
std::optional<PixelFormat> pixelsOfV4l2(uint32_t code);
// Copies a picture out of, or into, a buffer with the driver's layout: planes one after another.
void copyStored(const V4l2Format& stored, const uint8_t* from, const FrameView& to);
void copyStored(const V4l2Format& stored, const FrameView& from, uint8_t* to);
// "NV12", for error lines.
std::string fourccText(uint32_t code);

}  // namespace vxrun
