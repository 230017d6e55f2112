// StreamMapper: the answers of FFmpeg's libraries to StreamMap.h.
#pragma once

#include "StreamMap.h"

#include <string>
#include <vector>

namespace vxrun {

StreamMap libavMapStream(const std::string& path);
std::string libavHeadersOf(const std::string& path, const std::vector<size_t>& units);

}  // namespace vxrun
