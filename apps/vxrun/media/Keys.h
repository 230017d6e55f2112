// Keys: the configs that several node types share.
#pragma once

#include "Text.h"
#include "Vxkit.h"

#include <vxkit/Config.h>
#include <vxkit/Format.h>

namespace vxrun {

inline const PathKey kFile{"file", "the file to read or to write"};
inline const NumberKey kThreads{"threads", 1, 64, 1, "threads of the codec, 1 to 64, default 1"};
inline const TextKey kOptions{"options", "options of the codec or demuxer: key=value:key=value"};

// The value of a config "format" of raw video. Throws Failure for an unknown one.
inline PixelFormat pixelFormatOf(const std::string& name) {
    const auto pixels = findPixelFormat(name);
    if (!pixels) throw Failure("config 'format': unknown format " + quote(name));
    return *pixels;
}

}  // namespace vxrun
