// FrameDiff: how two frames differ: where, by how much, and in what shape.
#pragma once

#include "Vxkit.h"

#include <vxkit/FrameView.h>
#include <vxkit/Mismatch.h>

#include <string>
#include <vector>

namespace vxrun {

// The samples of a plane, row by row.
std::vector<uint16_t> samplesOf(const FrameView& frame, int plane);

// Whether frames have the same planes. What their samples mean is ignored: full range is no
// difference.
bool haveSamePlanes(const PictureFormat& actual, const PictureFormat& expected);

// Whether any sample differs by more than `tolerance`, or the planes do.
bool differ(const FrameView& actual, const FrameView& expected, uint32_t tolerance);

// Wrong frame `number`; with the cells of 64x64 samples that are wrong if `withCells`.
WrongFrame wrongFrame(uint64_t number, const FrameView& actual, const FrameView& expected,
                      uint32_t tolerance, bool withCells);

// The evidence of that. Compares at construction, and slowly. A block of bytes is one plane of
// 8-bit samples in one row. Frames of different sizes or formats have no planes here.
//
// Threads  one at a time.
// Owns     copies of the samples of planes that differ.
class FrameDiff {
public:
    // `tolerance`: the largest difference of a sample that is not wrong.
    FrameDiff(const FrameView& actual, const FrameView& expected, uint32_t tolerance);

    // The evidence in one line; for frames that differ.
    std::string evidence() const;
    // The same, as a node's record has it, but for the frame.
    Mismatch mismatch() const;
    // A byte for each sample of the first plane: 0 where all planes are equal, else 64 + 8 times
    // the largest difference there, at most 255. Empty for frames of different formats.
    std::vector<uint8_t> picture() const;

private:
    struct Plane {
        size_t at(size_t x, size_t y) const { return y * columns + x; }
        uint32_t difference(size_t at) const;

        std::string name;  // "Y", "Cb", "Cr", or "byte" for a block
        size_t columns, rows;
        std::vector<uint16_t> actual, expected;  // samples; none where all are equal
        uint64_t wrong = 0;                      // samples
        uint32_t largest = 0;                    // difference
        // The first wrong sample in reading order, and what all of them lie in, both ends included.
        size_t x = 0, y = 0;
        size_t left = SIZE_MAX, right = 0, bottom = 0;
    };

    struct Shape {
        // `places`: what the name leaves out, with coordinates.
        std::string text() const { return places.empty() ? name : places; }

        std::string name, places;
    };

    void compare(Plane* plane) const;
    // That with the first wrong sample.
    const Plane& firstPlane() const;
    Shape shape(const Plane& first) const;
    static std::string shift(const Plane& plane);
    static bool isShifted(const Plane& plane, int dx, int dy);

    const PictureFormat mFormat;
    const uint32_t mTolerance;
    std::string mFormats;  // how they differ; empty when they do not
    std::vector<Plane> mPlanes;
};

}  // namespace vxrun
