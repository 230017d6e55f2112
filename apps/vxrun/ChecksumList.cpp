#include "ChecksumList.h"

#include "Failure.h"
#include "Files.h"

extern "C" {
#include <libavutil/adler32.h>
#include <libavutil/md5.h>
#include <libavutil/mem.h>
}

#include <cinttypes>
#include <cstdio>
#include <sstream>

namespace vxrun {
namespace {

constexpr size_t kMd5Size = 16;
constexpr size_t kMaxListSize = 64 << 20;  // about 700,000 rows

std::string md5(const Payload& payload) {
    const std::unique_ptr<AVMD5, void (*)(void*)> state(av_md5_alloc(), av_free);
    if (state == nullptr) throw std::bad_alloc();
    av_md5_init(state.get());
    payload.forEachRow(
        [&](const uint8_t* row, size_t bytes) { av_md5_update(state.get(), row, bytes); });
    uint8_t digest[kMd5Size];
    av_md5_final(state.get(), digest);
    std::string hex;
    for (const uint8_t byte : digest) {
        hex += "0123456789abcdef"[byte >> 4];
        hex += "0123456789abcdef"[byte & 15];
    }
    return hex;
}

std::string adler32(const Payload& payload) {
    AVAdler sum = 0;
    payload.forEachRow(
        [&](const uint8_t* row, size_t bytes) { sum = av_adler32_update(sum, row, bytes); });
    char text[16];
    std::snprintf(text, sizeof text, "0x%08" PRIx32, static_cast<uint32_t>(sum));
    return text;
}

std::string text(const Rational& value) {
    return std::to_string(value.num) + "/" + std::to_string(value.den);
}

// A row is: stream, dts, pts, duration, size, hash, and possibly more that is not compared. Only
// stream 0 will do. The hash of nothing would let a producer pass that makes nothing.
ChecksumRow parseRow(const std::string& line, ChecksumFormat* format) {
    constexpr size_t kCrcText = 10;
    uint64_t size = 0;
    char hash[2 * kMd5Size + 1] = "";
    int end = 0;
    std::sscanf(line.c_str(), " 0 , %*d , %*d , %*d , %" SCNu64 " , %32[0-9a-fx] %n", &size, hash,
                &end);
    const std::string text = hash;
    const bool isCrc = text.size() == kCrcText && text.rfind("0x", 0) == 0;
    const bool isMd5 = text.size() == 2 * kMd5Size && text.find('x') == std::string::npos;
    if (!(isCrc || isMd5) || size == 0 || (line[end] != ',' && line[end] != '\0')) {
        throw Failure("expected '0, dts, pts, duration, size, hash', got " + quote(line));
    }
    *format = isCrc ? ChecksumFormat::FRAMECRC : ChecksumFormat::FRAMEMD5;
    return {size, text};
}

}  // namespace

std::string checksum(ChecksumFormat format, const Payload& payload) {
    return format == ChecksumFormat::FRAMEMD5 ? md5(payload) : adler32(payload);
}

ChecksumList readChecksumList(const std::string& path) {
    std::istringstream lines(readTextFile(path, kMaxListSize));
    ChecksumList list;
    size_t number = 0;
    for (std::string line; std::getline(lines, line);) {
        ++number;
        const size_t start = line.find_first_not_of(" \t\r");
        if (start == std::string::npos || line[start] == '#') continue;
        try {
            ChecksumFormat format;
            list.rows.push_back(parseRow(line, &format));
            if (list.rows.size() == 1) list.format = format;
            if (list.format != format) throw Failure("MD5 and CRC rows in one list");
        } catch (const Failure& failure) {
            throw Failure(path + ":" + std::to_string(number) + ": " + failure.what());
        }
    }
    if (list.rows.empty()) throw Failure(path + ": no row in the list");
    return list;
}

std::string checksumListHeader(ChecksumFormat format, const StreamInfo& stream) {
    std::string header;
    if (format == ChecksumFormat::FRAMEMD5) {
        header += "#format: frame checksums\n#version: 2\n#hash: MD5\n";
    }
    header += "#tb 0: " + text(stream.timeBase) + "\n#media_type 0: " + stream.media +
              "\n#codec_id 0: " + stream.codec + "\n";
    if (stream.media == "video") {
        header += "#dimensions 0: " + std::to_string(stream.picture.width) + "x" +
                  std::to_string(stream.picture.height) + "\n#sar 0: " + text(stream.sar) + "\n";
    }
    if (format == ChecksumFormat::FRAMEMD5) {
        header += "#stream#, dts,        pts, duration,     size, hash\n";
    }
    return header;
}

std::string checksumListRow(const StreamInfo& stream, uint64_t timestamp, const ChecksumRow& row) {
    char start[128];
    std::snprintf(start, sizeof start,
                  "0, %10" PRIu64 ", %10" PRIu64 ", %8" PRIu64 ", %8" PRIu64 ", ", timestamp,
                  timestamp, stream.duration, row.size);
    return start + row.hash + "\n";
}

}  // namespace vxrun
