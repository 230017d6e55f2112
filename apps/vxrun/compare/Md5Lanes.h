// Md5Lanes: the MD5s of several frames at once. An MD5 is one chain of dependent steps, so a single
// one leaves most of a processor idle; the frames of a video are independent.
#pragma once

#include "Vxkit.h"

#include <vxkit/FrameView.h>

#include <cstddef>
#include <string>
#include <vector>

namespace vxrun {

constexpr size_t kMd5Lanes = 8;  // frames at once: what pays with vectors of 128 to 512 bits

// What the lanes are compiled for. BASE is what every processor of the architecture has: SSE2 or
// NEON.
enum class InstructionSet { BASE, AVX2, AVX512 };
// Those that this processor has, the fastest one last.
std::vector<InstructionSet> instructionSets();

// The MD5 of each frame's visible bytes, in hexadecimal. Any number of frames, of any sizes and
// formats.
std::vector<std::string> md5sOf(const std::vector<const FrameView*>& frames);
std::vector<std::string> md5sOf(const std::vector<const FrameView*>& frames, InstructionSet set);

}  // namespace vxrun
