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

struct SemiPlanar {
    const char *name, *planar;
    int shift;
    bool crFirst;
};
constexpr SemiPlanar kSemiPlanar[] = {{"nv12", "yuv420p", 0, false},
                                      {"nv21", "yuv420p", 0, true},
                                      {"nv16", "yuv422p", 0, false},
                                      {"p010le", "yuv420p10le", 6, false},
                                      {"p016le", "yuv420p16le", 0, false}};

std::string withoutRange(std::string name) {
    return name.rfind("yuvj", 0) == 0 ? name.erase(3, 1) : name;
}

}  // namespace

std::string PixelFormat::rangelessName() const {
    return withoutRange(name);
}

std::optional<PixelFormat> findPixelFormat(const std::string& name) {
    for (const SemiPlanar& layout : kSemiPlanar) {
        if (name != layout.name) continue;
        PixelFormat format = *findPixelFormat(layout.planar);
        format.name = name;
        format.planes = 2;
        format.shift = layout.shift;
        format.crFirst = layout.crFirst;
        return format;
    }
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

uint32_t poolFormatOf(const PixelFormat& pixels) {
    constexpr uint32_t kNv12 = 0x7FA30C04, kP010 = 0x36;
    return pixels.name == "nv12" ? kNv12 : pixels.name == "p010le" ? kP010 : kSurfaceFormat;
}

PixelFormat PixelFormat::planar() const {
    for (const SemiPlanar& layout : kSemiPlanar) {
        if (name == layout.name) return *findPixelFormat(layout.planar);
    }
    return *this;
}

int PictureFormat::columns(int plane) const {
    if (plane == 0) return width;
    return shiftedUp(width, pixels.chromaShiftX) * (pixels.isSemiPlanar() ? 2 : 1);
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
    const size_t bytes = std::max(rowBytes(0), rowBytes(1));  // of odd sizes and two planes
    return static_cast<uint32_t>((bytes + kPixelBytes - 1) / kPixelBytes);
}

uint32_t PictureFormat::surfaceHeight() const {
    int sum = 0;
    for (int plane = 0; plane < pixels.planes; ++plane) sum += rows(plane);
    return static_cast<uint32_t>(sum);
}

}  // namespace vxkit
