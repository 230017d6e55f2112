// FrameView: the bytes that works carry, as planes or as an access unit.
#pragma once

#include <VXBuffer.h>
#include <VXWork.h>
#include <vxkit/Format.h>
#include <vxkit/Pool.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace vxkit {

// The buffer that `work` carries, of either kind; null when it carries none.
std::shared_ptr<vexa::VXBuffer> bufferOf(const vexa::VXSharedWork& work);
// Makes `buffer`, of either kind, the payload of `work`.
void attach(vexa::VXWork* work, std::shared_ptr<vexa::VXBuffer> buffer);

// FrameView: the visible bytes of a buffer: the planes of a picture, or the filled range of a
// block. All access to bytes goes through here.
//
// The pools have no format for planar pictures of any depth and sampling, so a picture is stored in
// an RGBA 8888 surface as plain bytes: each row of each plane in a row of the surface of its own,
// plane after plane. Stride and height of the surface are the allocator's. Where the pools have the
// layout, of nv12 and p010le, the picture is stored in it.
//
// Life     a view: the buffer outlives it. Pictures are written before their work is sent, and only
//          read from then on.
// Threads  one at a time.
// Owns     a share of the buffer's mapping.
class FrameView {
public:
    // For writing a picture of the stream, or a block. Throws Failure when the buffer cannot be
    // mapped or is too small for the stream's pictures.
    FrameView(const PoolBuffer& buffer, const StreamInfo& stream)
        : FrameView(&buffer.buffer(), buffer.mapping(), stream) {}

    const PictureFormat& format() const { return mFormat; }
    bool isPicture() const { return mFormat.isPicture(); }
    size_t size() const { return mFormat.size(); }  // visible bytes

    // The first byte of a plane, and the bytes from the start of one of its rows to the next.
    uint8_t* plane(int number) const {
        if (mNeedsPlanes) makePlanes();
        return mPlanes[static_cast<size_t>(number)];
    }
    size_t stride() const {
        if (mNeedsPlanes) makePlanes();
        return mStride;
    }
    uint8_t* row(int number, int y) const {
        return plane(number) + static_cast<size_t>(y) * mStride;
    }

    // Calls visit(row, bytes) for every visible row, plane by plane, top to bottom, without
    // padding.
    template <typename Visitor>
    void forEachRow(Visitor visit) const {
        for (int p = 0; p < mFormat.pixels.planes; ++p) {
            const size_t bytes = mFormat.rowBytes(p);
            for (int y = 0; y < mFormat.rows(p); ++y) visit(row(p, y), bytes);
        }
    }

protected:
    FrameView(const vexa::VXBuffer* buffer, std::shared_ptr<vexa::VXBuffer::Mapping> mapping,
              const StreamInfo& stream);
    // From now on a semi-planar picture is one with three planes, which are copies: whoever reads
    // samples needs to know no layout.
    void readAsPlanes();

private:
    void makePlanes() const;

    const std::shared_ptr<vexa::VXBuffer::Mapping> mMapping;
    PictureFormat mFormat;
    PixelFormat mStored;  // where mNeedsPlanes
    // Made at the first access; a view has one reader.
    mutable bool mNeedsPlanes = false;
    mutable std::shared_ptr<std::vector<uint8_t>> mCopies;
    mutable std::array<uint8_t*, 3> mPlanes{};
    mutable size_t mStride = 0;
};

// Frame: the content of a work, for reading: a semi-planar picture as three planes.
//
// Life     a view: the work outlives it.
// Threads  any.
// Owns     as FrameView.
struct Frame : public FrameView {
    // Throws Failure for a work without a buffer or a stream.
    explicit Frame(const vexa::VXSharedWork& work);

    const vexa::VXFrameInfo& info;
    const StreamInfo& stream;

private:
    Frame(const vexa::VXSharedWork& work, const std::shared_ptr<vexa::VXBuffer>& buffer);
};

// AccessUnit: the bytes of a frame of a bitstream, and their properties.
//
// Life     a view: the frame outlives it.
// Threads  any.
// Owns     nothing.
struct AccessUnit {
    // Throws Failure when the frame is no access unit of a bitstream.
    explicit AccessUnit(const Frame& frame);

    const uint8_t* data;
    size_t size;
    const UnitInfo& info;
    const BitstreamInfo& stream;
};

}  // namespace vxkit
