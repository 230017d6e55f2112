// RemarkList: lines of text with an MD5 each, among comments, in the layouts of md5sum and similar
// programs.
#pragma once

#include "ChecksumFormat.h"

#include <string>

namespace vxrun {

// The MD5s of such a text, at most one in a line, see findMd5(). Of several the only one of a .yuv
// file stands for the stream: the others are of the bitstream, for instance. Empty when `text` is
// of another kind.
std::optional<ChecksumRows> readMd5s(const std::string& path, const std::string& text);

}  // namespace vxrun
