// Mismatch: what is wrong with the frames that a checking node compares.
#pragma once

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

namespace vxkit {

// How the first wrong frame of a node differs. A plain value.
struct Mismatch {
    // "samples", "checksum", "format" (the frames' sizes or formats differ), "quality" (below a
    // floor of PSNR or SSIM) or "count" (a frame is missing or one too many).
    std::string kind;
    // Of samples: where the wrong ones lie, without coordinates, such as "in one 8x8 block"; else
    // empty. Two failures of one kind and shape are taken for the same one.
    std::string shape;
    std::string text;  // the evidence, one line
    uint64_t frame = 0;
    uint64_t timestamp = 0;
    // Of samples: the first wrong one in reading order.
    std::string plane;
    uint64_t x = 0, y = 0;
    uint64_t actual = 0, expected = 0;
};

// A wrong frame, the first or a later one. A plain value.
struct WrongFrame {
    uint64_t number = 0;             // in output order
    double psnr = std::nan("");      // over all planes, in dB; NaN when not known
    uint32_t cellSize = 0;           // in samples of the first plane; 0: no cells are known
    uint32_t columns = 0, rows = 0;  // of cells
    std::vector<bool> cells;         // row by row: those with a wrong sample in any plane
    std::string dump;                // the files with its pictures begin so; empty: there are none
};

}  // namespace vxkit
