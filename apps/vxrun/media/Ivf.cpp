#include "Ivf.h"

#include "Text.h"

#include <vxkit/Failure.h>

#include <algorithm>
#include <array>

namespace vxrun {
namespace {

constexpr size_t kHeader = 32, kUnitHeader = 12;
constexpr size_t kFourcc = 8, kWidth = 12, kHeight = 14, kRate = 16, kScale = 20, kCount = 24;

const std::pair<const char*, const char*> kCodecs[] = {{"VP80", "vp8"},  {"VP90", "vp9"},
                                                       {"AV01", "av1"},  {"H264", "h264"},
                                                       {"HEVC", "hevc"}, {"FWHT", "fwht"}};

uint64_t numberAt(const uint8_t* bytes, size_t count) {
    uint64_t number = 0;
    for (size_t i = count; i > 0; --i) number = number << 8 | bytes[i - 1];
    return number;
}

template <size_t Size>
void putNumber(std::array<uint8_t, Size>* bytes, size_t at, size_t count, uint64_t number) {
    for (size_t i = 0; i < count; ++i) (*bytes)[at + i] = static_cast<uint8_t>(number >> 8 * i);
}

}  // namespace

IvfReader::IvfReader(const std::string& path) : mFile(path) {
    std::array<uint8_t, kHeader> header{};
    if (mFile.read(header.data(), kHeader) != kHeader ||
        std::string(header.begin(), header.begin() + 4) != "DKIF") {
        mFile.fail("not an IVF file");
    }
    const std::string fourcc(header.begin() + kFourcc, header.begin() + kWidth);
    const auto* const known = std::find_if(std::begin(kCodecs), std::end(kCodecs),
                                           [&](const auto& row) { return fourcc == row.first; });
    if (known == std::end(kCodecs)) {
        throw Failure(path + ": unknown codec " + quote(fourcc), Verdict::NotSupported);
    }
    mStream.codec = known->second;
    mStream.picture = {{},
                       static_cast<int>(numberAt(&header[kWidth], 2)),
                       static_cast<int>(numberAt(&header[kHeight], 2))};
    const auto rate = static_cast<int>(numberAt(&header[kRate], 4) & INT32_MAX);
    const auto scale = static_cast<int>(numberAt(&header[kScale], 4) & INT32_MAX);
    if (rate > 0 && scale > 0) {
        mStream.timeBase = {scale, rate};
        mStream.frameRate = {rate, scale};
    } else {
        mStream.timeBase = {1, 25};
    }
    std::array<uint8_t, 65536> rest{};
    const size_t size = std::max<size_t>(numberAt(&header[6], 2), kHeader);
    mFile.read(rest.data(), size - kHeader);
}

bool IvfReader::next(std::vector<uint8_t>* bytes, int64_t* time) {
    constexpr uint64_t kMost = 1 << 30;
    std::array<uint8_t, kUnitHeader> header{};
    const size_t actual = mFile.read(header.data(), kUnitHeader);
    if (actual == 0) return false;
    const uint64_t size = numberAt(header.data(), 4);
    if (actual < kUnitHeader || size > kMost) {
        mFile.fail(concat("access unit ", mUnits, ": its header is cut or wrong"));
    }
    bytes->resize(size);
    const size_t filled = mFile.read(bytes->data(), size);
    if (filled != size) {
        mFile.fail(concat("access unit ", mUnits, ": truncated: expected ", size, " bytes, actual ",
                          filled));
    }
    *time = static_cast<int64_t>(numberAt(&header[4], 8));
    ++mUnits;
    return true;
}

IvfWriter::IvfWriter(const std::string& path, const BitstreamInfo& stream) : mFile(path) {
    const auto* const known =
        std::find_if(std::begin(kCodecs), std::end(kCodecs),
                     [&](const auto& row) { return stream.codec == row.second; });
    if (known == std::end(kCodecs)) {
        throw Failure("IVF does not accept " + stream.codec, Verdict::NotSupported);
    }
    std::array<uint8_t, kHeader> header{'D', 'K', 'I', 'F'};
    putNumber(&header, 6, 2, kHeader);
    std::copy_n(known->first, 4, &header[kFourcc]);
    putNumber(&header, kWidth, 2, static_cast<uint64_t>(stream.picture.width));
    putNumber(&header, kHeight, 2, static_cast<uint64_t>(stream.picture.height));
    putNumber(&header, kRate, 4, static_cast<uint64_t>(stream.timeBase.den));
    putNumber(&header, kScale, 4, static_cast<uint64_t>(stream.timeBase.num));
    mFile.write(header.data(), kHeader);
}

void IvfWriter::write(const uint8_t* bytes, size_t size, int64_t time) {
    std::array<uint8_t, kUnitHeader> header{};
    putNumber(&header, 0, 4, size);
    putNumber(&header, 4, 8, static_cast<uint64_t>(std::max<int64_t>(time, 0)));
    mFile.write(header.data(), kUnitHeader);
    mFile.write(bytes, size);
    ++mUnits;
}

void IvfWriter::commit() {
    std::array<uint8_t, 4> count{};
    putNumber(&count, 0, 4, mUnits);
    mFile.seek(kCount);
    mFile.write(count.data(), count.size());
    mFile.commit();
}

}  // namespace vxrun
