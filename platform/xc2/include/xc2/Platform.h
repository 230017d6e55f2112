// <xc2/Platform.h>: what the codec library knows about the platform's pictures.
#pragma once

#include <VideoBufferLayout.h>

#include <cstdint>

#pragma GCC visibility push(default)
namespace xc2::Platform {

// LyraBufferLayout: how a picture of a Codec 2.0 pixel format lies in its block. A plain value.
struct LyraBufferLayout {
    uint32_t stride;     // pixels
    uint32_t scanlines;  // rows
    uint32_t size;       // bytes; UINT32_MAX when they do not fit 32 bits

    // The number under which <VideoBufferLayout.h> knows `format`; VIDEO_COLOR_NONE when it does
    // not. The forms that leave the layout to the platform (0x23, 0x109, 0x7F000789) and the planar
    // one (0x32315659) are laid out like the plain 8-bit 4:2:0 one.  [any thread]
    static VideoColorFormat FormatMap(uint32_t format);

    // The layout of a picture, all zero when there is none for `format`.  [any thread]
    static LyraBufferLayout Of(uint32_t format, uint32_t width, uint32_t height);
};

}  // namespace xc2::Platform
#pragma GCC visibility pop
