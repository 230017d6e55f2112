#include <VideoBufferLayout.h>

#include <algorithm>

namespace {

struct Rule {
    uint32_t strideMultiple;    // pixels
    uint32_t scanlineMultiple;  // rows
    uint32_t groupPixels;       // so many pixels of a row ...
    uint32_t groupBytes;        // ... take so many bytes
    bool chroma;                // a second plane
    bool compressed;            // state planes
};

// The table of the header; rows 4 and 10 are not in use.
constexpr Rule kRules[] = {
    {128, 32, 1, 1, true, false},   // 0
    {128, 32, 1, 1, true, true},    // 1
    {512, 512, 1, 1, true, false},  // 2
    {64, 32, 1, 2, true, false},    // 3
    {},                             // 4
    {192, 16, 3, 4, true, true},    // 5
    {256, 512, 1, 2, true, false},  // 6
    {64, 32, 1, 2, true, true},     // 7
    {64, 16, 1, 4, false, false},   // 8
    {64, 16, 1, 4, false, true},    // 9
    {},                             // 10
    {64, 16, 1, 4, false, true},    // 11
    {64, 16, 1, 4, false, false},   // 12
    {64, 16, 1, 8, false, false},   // 13
};

const Rule* ruleOf(VideoColorFormat format) {
    if (format >= sizeof(kRules) / sizeof(kRules[0])) return nullptr;
    const Rule& rule = kRules[format];
    return rule.groupPixels != 0 ? &rule : nullptr;
}

constexpr uint64_t kSizeMultiple = 4096;
constexpr uint64_t kBytesPerState = 256;

// Everything is computed in 64 bits from factors of at most 32, so that no step can wrap, and cut
// back to 32 bits before it becomes a factor of the next.
uint64_t saturated(uint64_t value) {
    return std::min<uint64_t>(value, UINT32_MAX);
}

uint64_t divideUp(uint64_t value, uint64_t by) {
    return (value + by - 1) / by;
}

uint64_t roundUp(uint64_t value, uint64_t multiple) {
    return divideUp(value, multiple) * multiple;
}

uint64_t planeSize(const Rule& rule, uint64_t rowBytes, uint64_t rows) {
    const uint64_t pixels = saturated(rowBytes * rows);
    if (!rule.compressed) return pixels;
    return roundUp(pixels, kSizeMultiple) +
           roundUp(divideUp(pixels, kBytesPerState), kSizeMultiple);
}

// Bytes of the planes of a picture, the first one with `lumaRows` rows, the second one with
// `chromaRows`.
uint64_t planesSize(const Rule& rule, uint64_t stride, uint64_t lumaRows, uint64_t chromaRows) {
    const uint64_t rowBytes = saturated(divideUp(stride * rule.groupBytes, rule.groupPixels));
    const uint64_t luma = planeSize(rule, rowBytes, lumaRows);
    if (!rule.chroma) return luma;
    const uint64_t pairs = divideUp(stride, 2);
    const uint64_t chromaRowBytes =
        saturated(divideUp(2 * pairs * rule.groupBytes, rule.groupPixels));
    return luma + planeSize(rule, chromaRowBytes, chromaRows);
}

uint32_t aligned(uint32_t value, uint32_t multiple) {
    return static_cast<uint32_t>(saturated(roundUp(value, multiple)));
}

}  // namespace

uint32_t VideoBufferLayout_GetStrideInPixels(VideoColorFormat format, uint32_t width, uint32_t) {
    const Rule* rule = ruleOf(format);
    return rule != nullptr ? aligned(width, rule->strideMultiple) : 0;
}

uint32_t VideoBufferLayout_GetScanlines(VideoColorFormat format, uint32_t height, uint32_t) {
    const Rule* rule = ruleOf(format);
    return rule != nullptr ? aligned(height, rule->scanlineMultiple) : 0;
}

uint32_t VideoBufferLayout_GetBufferSize(VideoColorFormat format, uint32_t stride,
                                         uint32_t scanlines) {
    const Rule* rule = ruleOf(format);
    if (rule == nullptr) return 0;
    const uint64_t size = planesSize(*rule, stride, scanlines, divideUp(scanlines, 2));
    return static_cast<uint32_t>(saturated(roundUp(size, kSizeMultiple)));
}

uint32_t VideoBufferLayout_GetBufferSizeUsed(VideoColorFormat format, uint32_t width,
                                             uint32_t height, bool interlaced) {
    const Rule* rule = ruleOf(format);
    if (rule == nullptr) return 0;
    const uint32_t stride = VideoBufferLayout_GetStrideInPixels(format, width, 1);
    const uint32_t scanlines = VideoBufferLayout_GetScanlines(format, height, 1);
    if (rule->compressed) return VideoBufferLayout_GetBufferSize(format, stride, scanlines);
    const uint64_t fields = interlaced ? 2 : 1;
    const uint64_t rows = divideUp(height, fields);  // of one field
    const uint64_t size = rule->chroma
                              ? planesSize(*rule, stride, scanlines, fields * divideUp(rows, 2))
                              : planesSize(*rule, stride, fields * rows, 0);
    return static_cast<uint32_t>(saturated(size));
}
