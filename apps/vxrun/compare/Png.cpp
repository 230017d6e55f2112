#include "Png.h"

#include "FrameDiff.h"

#include <zlib.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>

namespace vxrun {
namespace {

using Bytes = std::vector<uint8_t>;

void addNumber(Bytes* bytes, uint32_t number) {
    for (int shift = 24; shift >= 0; shift -= 8) {
        bytes->push_back(static_cast<uint8_t>(number >> shift));
    }
}

void addChunk(Bytes* file, const char* type, const Bytes& content) {
    addNumber(file, static_cast<uint32_t>(content.size()));
    const size_t start = file->size();
    file->insert(file->end(), type, type + std::strlen(type));
    file->insert(file->end(), content.begin(), content.end());
    addNumber(file, static_cast<uint32_t>(
                        crc32_z(crc32_z(0, nullptr, 0), &(*file)[start], file->size() - start)));
}

// `rows`: each row's samples, big endian, behind a byte 0, which stands for no filter.
Bytes fileOf(const Bytes& rows, int width, int height, uint8_t depth, bool isGray) {
    constexpr uint8_t kGray = 0, kRgb = 2;
    Bytes header;
    addNumber(&header, static_cast<uint32_t>(width));
    addNumber(&header, static_cast<uint32_t>(height));
    header.insert(header.end(), {depth, isGray ? kGray : kRgb, 0, 0, 0});
    uLongf size = compressBound(rows.size());
    Bytes packed(size);
    if (compress(packed.data(), &size, rows.data(), rows.size()) != Z_OK) throw std::bad_alloc();
    packed.resize(size);
    Bytes file = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
    addChunk(&file, "IHDR", header);
    addChunk(&file, "IDAT", packed);
    addChunk(&file, "IEND", {});
    return file;
}

// The samples of a picture, and what they stand for: 0 to 1, and chroma from -0.5 to 0.5.
class Samples {
public:
    explicit Samples(const FrameView& picture) : mFormat(picture.format()) {
        for (int p = 0; p < mFormat.pixels.planes; ++p) mPlanes.push_back(samplesOf(picture, p));
    }

    // The red, green and blue, or gray, of a pixel.
    std::vector<double> at(int x, int y) const {
        if (isGray()) return {full(0, x, y)};
        if (mFormat.pixels.name.rfind("gbr", 0) == 0) {
            return {full(2, x, y), full(0, x, y), full(1, x, y)};
        }
        constexpr double kRed = 0.299, kGreen = 0.587, kBlue = 0.114;  // their shares of luma
        const double luma = isFull() ? full(0, x, y) : (in8Bits(0, x, y) - 16) / 219;
        const double red = 2 * (1 - kRed) * chroma(2, x, y),
                     blue = 2 * (1 - kBlue) * chroma(1, x, y);
        return {luma + red, luma - (kRed * red + kBlue * blue) / kGreen, luma + blue};
    }
    bool isGray() const { return mFormat.pixels.planes == 1; }

private:
    bool isFull() const { return mFormat.pixels.rangelessName() != mFormat.pixels.name; }
    double value(int plane, int x, int y) const {
        const PixelFormat& pixels = mFormat.pixels;
        const int column = plane == 0 ? x : x >> pixels.chromaShiftX;
        const int row = plane == 0 ? y : y >> pixels.chromaShiftY;
        return mPlanes[static_cast<size_t>(plane)]
                      [static_cast<size_t>(row) * static_cast<size_t>(mFormat.columns(plane)) +
                       static_cast<size_t>(column)];
    }
    double full(int plane, int x, int y) const {
        return value(plane, x, y) / ((1 << mFormat.pixels.depth) - 1);
    }
    double in8Bits(int plane, int x, int y) const {
        return value(plane, x, y) / (1 << (mFormat.pixels.depth - 8));
    }
    double chroma(int plane, int x, int y) const {
        return (in8Bits(plane, x, y) - 128) / (isFull() ? 255 : 224);
    }

    const PictureFormat mFormat;
    std::vector<std::vector<uint16_t>> mPlanes;
};

}  // namespace

std::vector<uint8_t> pngOf(const FrameView& picture) {
    const PictureFormat& format = picture.format();
    const Samples samples(picture);
    const uint8_t depth = format.pixels.depth > 8 ? 16 : 8;
    Bytes rows;
    for (int y = 0; y < format.height; ++y) {
        rows.push_back(0);
        for (int x = 0; x < format.width; ++x) {
            for (const double value : samples.at(x, y)) {
                const auto sample = static_cast<uint32_t>(
                    std::lround(std::clamp(value, 0.0, 1.0) * ((1 << depth) - 1)));
                if (depth == 16) rows.push_back(static_cast<uint8_t>(sample >> 8));
                rows.push_back(static_cast<uint8_t>(sample));
            }
        }
    }
    return fileOf(rows, format.width, format.height, depth, samples.isGray());
}

std::vector<uint8_t> pngOf(const std::vector<uint8_t>& samples, int width, int height) {
    Bytes rows;
    for (auto row = samples.begin(); row != samples.end(); row += width) {
        rows.push_back(0);
        rows.insert(rows.end(), row, row + width);
    }
    return fileOf(rows, width, height, 8, true);
}

}  // namespace vxrun
