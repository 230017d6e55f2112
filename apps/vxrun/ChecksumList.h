// ChecksumList: the lists of frame checksums that FFmpeg's framemd5 and framecrc muxers write.
#pragma once

#include "Payload.h"

#include <string>
#include <vector>

namespace vxrun {

enum class ChecksumFormat { FRAMEMD5, FRAMECRC };

// The checksum of a payload's visible rows as the lists spell it: the MD5 in hexadecimal, or the
// Adler-32 with both sums started at 0, as framecrc (and not zlib) has it, as "0x........".
std::string checksum(ChecksumFormat format, const Payload& payload);

struct ChecksumRow {
    uint64_t size = 0;
    std::string hash;
};

struct ChecksumList {
    ChecksumFormat format = ChecksumFormat::FRAMEMD5;
    std::vector<ChecksumRow> rows;  // in order; at least one
};

// Reads a list and finds out its format. Only sizes and hashes are kept. A Failure names file and
// line: what is no list, holds no row, mixes formats or streams, or expects the hash of nothing.
ChecksumList readChecksumList(const std::string& path);

// What FFmpeg writes with -fflags +bitexact: the lines before the first row, and a row. `stream` is
// the first frame's.
std::string checksumListHeader(ChecksumFormat format, const StreamInfo& stream);
std::string checksumListRow(const StreamInfo& stream, uint64_t timestamp, const ChecksumRow& row);

}  // namespace vxrun
