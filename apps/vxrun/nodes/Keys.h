// Keys: the configs that several node types share.
#pragma once

#include "Vxkit.h"

#include <vxkit/Config.h>

namespace vxrun {

inline const PathKey kFile{"file", "the file to read or to write"};
inline const NumberKey kThreads{"threads", 1, 64, 1, "threads of the codec, 1 to 64, default 1"};
inline const TextKey kOptions{"options", "options of the codec or demuxer: key=value:key=value"};

}  // namespace vxrun
