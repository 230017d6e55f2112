// FrameDiff: how two frames differ: where, by how much, and in what shape.
#pragma once

#include "Payload.h"

#include <string>
#include <vector>

namespace vxrun {

// Compares when it is made; both payloads outlive it. A block of bytes is one plane of 8-bit samples in
// one row. Frames of different sizes or formats differ, and have no planes here.
class FrameDiff {
public:
    // `tolerance`: the largest difference of a sample that is not wrong.
    FrameDiff(const Payload& got, const Payload& wanted, uint32_t tolerance);

    bool sameFormat() const { return mFormats.empty(); }
    bool anyWrong() const;

    // A figure for each plane, in dB: 10 log10(peak^2 / mse), at most 6 * bits + 12, which equal planes
    // have. Last that of all samples together.
    std::vector<double> psnr() const;
    // The mean structural similarity of each plane over windows of 8x8 samples, 4 apart; the last ones
    // end with the row or column, and a smaller plane is one window. 1 for equal planes. Constants
    // (0.01 peak)^2 and (0.03 peak)^2, population variances. Last the lowest of them.
    std::vector<double> ssim() const;
    // Such figures: "41.2 (Y 40 Cb 44 Cr 43.81)".
    std::string text(const std::vector<double>& figures) const;

    // The evidence in one line; for frames that differ.
    std::string text() const;

    // Whether frames have the same planes. What their samples mean is not looked at: full range is no
    // difference.
    static bool comparable(const Payload& got, const Payload& wanted);
    // The value of a sample of a row.
    static uint32_t sample(const Payload& payload, const uint8_t* row, size_t x);

private:
    struct Plane {
        std::string name;      // "Y", "Cb", "Cr", or "byte" for a block
        uint64_t samples = 0;  // in all
        uint64_t wrong = 0;    // of these
        uint64_t squares = 0;  // the sum of all differences squared
        uint32_t largest = 0;  // difference
        // The first wrong sample in reading order, and what all of them lie in, both ends included.
        size_t x = 0, y = 0;
        uint32_t got = 0, wanted = 0;
        size_t left = SIZE_MAX, right = 0, bottom = 0;
    };

    void compareRow(Plane* plane, size_t y, const uint8_t* got, const uint8_t* wanted);
    std::string shape(const Plane& first) const;
    bool swapped() const;

    const Payload& mGot;
    const Payload& mWanted;
    const uint32_t mTolerance;
    std::string mFormats;  // how they differ; empty when they do not
    std::vector<Plane> mPlanes;
};

}  // namespace vxrun
