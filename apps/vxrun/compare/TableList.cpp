#include "TableList.h"

#include "ListLines.h"
#include "Md5.h"
#include "Text.h"

#include <cinttypes>
#include <cstdio>

namespace vxrun {
namespace {

bool isCrc(const std::string& hash) {
    constexpr size_t kCrcText = 10;
    return hash.size() == kCrcText && hash.rfind("0x", 0) == 0;
}

// A row is: stream, dts, pts, duration, size, hash, and possibly more that is not compared. Only
// stream 0 is accepted, and no frame of size 0, which a producer without output would match.
ChecksumRow parseRow(const std::string& line) {
    uint64_t size = 0;
    char text[kMd5Digits + 1] = "";
    int end = 0;
    std::sscanf(line.c_str(), " 0 , %*d , %*d , %*d , %" SCNu64 " , %32[0-9a-fx] %n", &size, text,
                &end);
    const std::string hash = text;
    const bool isWholeMd5 = hash.size() == kMd5Digits && hash.find('x') == hash.npos;
    if (!(isCrc(hash) || isWholeMd5) || size == 0 || (line[end] != ',' && line[end] != '\0')) {
        throw Failure("expected '0, dts, pts, duration, size, hash', got " + quote(line));
    }
    return {size, hash};
}

std::string ratioText(const Rational& value) {
    return concat(value.num, "/", value.den);
}

std::string header(TableHash hash, const StreamInfo& stream) {
    const bool isMd5 = hash == TableHash::MD5;
    std::string header = isMd5 ? "#format: frame checksums\n#version: 2\n#hash: MD5\n" : "";
    header += concat("#tb 0: ", ratioText(stream.timeBase), "\n#media_type 0: ", stream.media,
                     "\n#codec_id 0: ", stream.codec, "\n");
    if (stream.media == "video") {
        header += concat("#dimensions 0: ", stream.picture.width, "x", stream.picture.height,
                         "\n#sar 0: ", ratioText(stream.sar), "\n");
    }
    return header + (isMd5 ? "#stream#, dts,        pts, duration,     size, hash\n" : "");
}

}  // namespace

std::optional<ChecksumRows> readTable(TableHash hash, const std::string& path,
                                      const std::string& text) {
    if (!isTable(path, text)) return std::nullopt;
    const bool hasHeader = text.find("#tb 0:") != text.npos;
    ChecksumRows rows;
    bool isOther = false;
    forEachLine(path, text, [&](const std::string& line) {
        if (rows.empty() && !hasHeader && line.find(',') == line.npos) return true;
        const ChecksumRow row = parseRow(line);
        if (!rows.empty() && isCrc(row.hash) != (hash == TableHash::CRC)) {
            throw Failure("MD5 and CRC rows in one list");
        }
        if (row.hash == kMd5OfNothing) throw Failure("the MD5 of no data");
        rows.push_back(row);
        isOther = isCrc(row.hash) != (hash == TableHash::CRC);
        return !isOther;
    });
    if (isOther) return std::nullopt;
    return rows;
}

void TableWriter::addFrame(const Frame& frame, const std::string& hash) {
    if (frames() == 1) write(header(mHash, frame.stream));
    const auto ten = std::setw(10);
    const auto eight = std::setw(8);
    write(concat("0, ", ten, frame.info.timestamp, ", ", ten, frame.info.timestamp, ", ", eight,
                 frame.stream.duration, ", ", eight, frame.size(), ", ", hash, "\n"));
}

}  // namespace vxrun
