// StreamCutter: the answer to cutStream().
#pragma once

#include "StreamCut.h"

namespace vxrun {

std::unique_ptr<StreamCut> libavCutStream(const std::string& path);

}  // namespace vxrun
