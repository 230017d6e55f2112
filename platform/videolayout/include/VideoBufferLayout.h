// <VideoBufferLayout.h>: how a picture lies in memory.
//
// A picture is one luma (or RGBA) plane, followed in the 4:2:0 forms by one plane of interleaved
// chroma, Cb first. Stride is counted in pixels, scanlines in rows of the first plane; a chroma row
// is as long as a luma row, one pair of samples for every two pixels, and there is one for every
// two luma rows, an odd number rounded up. The rules, a row per number:
//
//   number  picture                                   stride is a   scanlines are  bytes of a
//                                                     multiple of   a multiple of  luma row
//      0    8-bit 4:2:0                               128           32             stride
//      1    8-bit 4:2:0, compressed                   128           32             stride
//      2    8-bit 4:2:0, coarse alignment             512           512            stride
//      3    10-bit 4:2:0 in 16-bit words              64            32             stride * 2
//      5    10-bit 4:2:0, 3 samples in 4 bytes,
//           compressed                                192           16             stride / 3 * 4
//      6    10-bit 4:2:0 in 16-bit words, coarse      256           512            stride * 2
//      7    10-bit 4:2:0 in 16-bit words, compressed  64            32             stride * 2
//      8    RGBA 8888                                 64            16             stride * 4
//      9    RGBA 8888, compressed                     64            16             stride * 4
//     11    RGBA 1010102, compressed                  64            16             stride * 4
//     12    RGBA 1010102                              64            16             stride * 4
//     13    RGBA half float                           64            16             stride * 8
//
// In the linear forms the second plane begins where the rows of the first end. In the compressed
// forms every plane is rounded up to 4096 bytes and preceded by its state plane: one byte for every
// 256 bytes of the plane, rounded up to 4096. Every size is a multiple of 4096.
//
// A number that does not fit 32 bits becomes UINT32_MAX, which is not a multiple of 4096 and which
// no
// allocator here accepts. Numbers without a row give 0 everywhere.  All functions: [any thread]
#pragma once

#include <cstdint>

#pragma GCC visibility push(default)

enum VideoColorFormat : uint32_t {
    VIDEO_COLOR_YUV420_8 = 0,
    VIDEO_COLOR_YUV420_8_COMPRESSED = 1,
    VIDEO_COLOR_YUV420_8_COARSE = 2,
    VIDEO_COLOR_YUV420_10 = 3,
    VIDEO_COLOR_YUV420_10_PACKED_COMPRESSED = 5,
    VIDEO_COLOR_YUV420_10_COARSE = 6,
    VIDEO_COLOR_YUV420_10_COMPRESSED = 7,
    VIDEO_COLOR_RGBA8888 = 8,
    VIDEO_COLOR_RGBA8888_COMPRESSED = 9,
    VIDEO_COLOR_RGBA1010102_COMPRESSED = 11,
    VIDEO_COLOR_RGBA1010102 = 12,
    VIDEO_COLOR_RGBA_HALF_FLOAT = 13,
    VIDEO_COLOR_NONE = UINT32_MAX,  // no picture
};

// `width` or `height` rounded up by the table. The last argument belongs to the signature only:
// callers pass 1.
uint32_t VideoBufferLayout_GetStrideInPixels(VideoColorFormat format, uint32_t width, uint32_t);
uint32_t VideoBufferLayout_GetScanlines(VideoColorFormat format, uint32_t height, uint32_t);

// Bytes of a picture of that geometry, which need not be one that the two above would give.
uint32_t VideoBufferLayout_GetBufferSize(VideoColorFormat format, uint32_t stride,
                                         uint32_t scanlines);

// Bytes from the start of a picture of `width` by `height` to the end of its last row: of the last
// plane only the rows in use count. An interlaced picture uses as many rows for either field. A
// compressed picture uses its whole size. Never more than GetBufferSize of the rounded geometry.
uint32_t VideoBufferLayout_GetBufferSizeUsed(VideoColorFormat format, uint32_t width,
                                             uint32_t height, bool interlaced);

#pragma GCC visibility pop
