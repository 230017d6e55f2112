#include <vxkit/Format.h>
#include <vxkit/Text.h>

#include <algorithm>
#include <tuple>

namespace vxkit {
namespace {

constexpr size_t kPixelBytes = 4;  // of the surface

int shiftedUp(int value, int shift) {
    return (value + (1 << shift) - 1) >> shift;
}

// The depths of a family, a bit each.
constexpr unsigned kEight = 1u << 8;
constexpr unsigned kUpTo12 = kEight | 1u << 10 | 1u << 12;
constexpr unsigned kUpTo16 = kUpTo12 | 1u << 9 | 1u << 14 | 1u << 16;

// Those that FFmpeg has a name for.
struct Family {
    const char* name;
    int planes, chromaShiftX, chromaShiftY;
    unsigned depths;
};
constexpr Family kFamilies[] = {{"gray", 1, 0, 0, kUpTo16},    {"gbrp", 3, 0, 0, kUpTo16},
                                {"yuv410p", 3, 2, 2, kEight},  {"yuv411p", 3, 2, 0, kEight},
                                {"yuv420p", 3, 1, 1, kUpTo16}, {"yuv422p", 3, 1, 0, kUpTo16},
                                {"yuv440p", 3, 0, 1, kUpTo12}, {"yuv444p", 3, 0, 0, kUpTo16}};

std::string withoutRange(std::string name) {
    return name.rfind("yuvj", 0) == 0 ? name.erase(3, 1) : name;
}

}  // namespace

std::string PixelFormat::rangelessName() const {
    return withoutRange(name);
}

std::optional<PixelFormat> findPixelFormat(const std::string& name) {
    const std::string plain = withoutRange(name);
    for (const Family& family : kFamilies) {
        for (int depth = 8; depth <= 16; ++depth) {
            const bool exists = (family.depths >> depth & 1u) != 0 &&
                                (plain == name || (depth == 8 && plain != "yuv410p"));
            if (!exists || plain != concat(family.name, depth == 8 ? "" : concat(depth, "le"))) {
                continue;
            }
            return PixelFormat{name, family.planes, depth, family.chromaShiftX,
                               family.chromaShiftY};
        }
    }
    return std::nullopt;
}

int PictureFormat::columns(int plane) const {
    return plane == 0 ? width : shiftedUp(width, pixels.chromaShiftX);
}

int PictureFormat::rows(int plane) const {
    return plane == 0 ? height : shiftedUp(height, pixels.chromaShiftY);
}

size_t PictureFormat::rowBytes(int plane) const {
    return static_cast<size_t>(columns(plane)) * static_cast<size_t>(pixels.bytesPerSample());
}

size_t PictureFormat::size() const {
    size_t sum = 0;
    for (int p = 0; p < pixels.planes; ++p) sum += rowBytes(p) * static_cast<size_t>(rows(p));
    return sum;
}

std::string PictureFormat::description() const {
    if (!isPicture()) return concat(size(), " bytes");
    return concat(width, "x", height, " ", pixels.name);
}

bool PictureFormat::operator!=(const PictureFormat& other) const {
    return std::tie(pixels, width, height) != std::tie(other.pixels, other.width, other.height);
}

uint32_t PictureFormat::surfaceWidth() const {
    return static_cast<uint32_t>((rowBytes(0) + kPixelBytes - 1) / kPixelBytes);
}

uint32_t PictureFormat::surfaceHeight() const {
    int sum = 0;
    for (int plane = 0; plane < pixels.planes; ++plane) sum += rows(plane);
    return static_cast<uint32_t>(sum);
}

}  // namespace vxkit
