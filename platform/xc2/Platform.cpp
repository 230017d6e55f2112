#include <xc2/Platform.h>

namespace xc2::Platform {

VideoColorFormat LyraBufferLayout::FormatMap(uint32_t format) {
    switch (format) {
        case 0x23:
        case 0x109:
        case 0x32315659:
        case 0x7F000789:
        case 0x7FA30C04:
            return VIDEO_COLOR_YUV420_8;
        case 0x7FA30C06:
            return VIDEO_COLOR_YUV420_8_COMPRESSED;
        case 0x114:
            return VIDEO_COLOR_YUV420_8_COARSE;
        case 0x36:
            return VIDEO_COLOR_YUV420_10;
        case 0x7FA30C09:
            return VIDEO_COLOR_YUV420_10_PACKED_COMPRESSED;
        case 0x3C:
            return VIDEO_COLOR_YUV420_10_COARSE;
        case 0x133:
            return VIDEO_COLOR_YUV420_10_COMPRESSED;
        case 0x1:
            return VIDEO_COLOR_RGBA8888;
        case 0xC2000000:
            return VIDEO_COLOR_RGBA8888_COMPRESSED;
        case 0xC2000001:
            return VIDEO_COLOR_RGBA1010102_COMPRESSED;
        case 0x2B:
            return VIDEO_COLOR_RGBA1010102;
        case 0x16:
            return VIDEO_COLOR_RGBA_HALF_FLOAT;
        default:
            return VIDEO_COLOR_NONE;
    }
}

LyraBufferLayout LyraBufferLayout::Of(uint32_t format, uint32_t width, uint32_t height) {
    const VideoColorFormat color = FormatMap(format);
    const uint32_t stride = VideoBufferLayout_GetStrideInPixels(color, width, 1);
    const uint32_t scanlines = VideoBufferLayout_GetScanlines(color, height, 1);
    return {stride, scanlines, VideoBufferLayout_GetBufferSize(color, stride, scanlines)};
}

}  // namespace xc2::Platform
