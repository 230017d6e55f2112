// Png: a picture as a PNG file.
#pragma once

#include "Vxkit.h"

#include <vxkit/FrameView.h>

#include <cstdint>
#include <vector>

namespace vxrun {

// The bytes of a PNG file that shows the picture: gray, or RGB by the matrix of BT.601, each pixel
// with the chroma sample that it lies in. Its samples have 8 bits, or 16 where the picture's have
// more.
std::vector<uint8_t> pngOf(const FrameView& picture);

// The same of gray samples, row by row.
std::vector<uint8_t> pngOf(const std::vector<uint8_t>& samples, int width, int height);

}  // namespace vxrun
