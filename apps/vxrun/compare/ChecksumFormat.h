// ChecksumList: what the frames of a stream are compared with: lists of their checksums, and checksums
// of the whole, as other programs write them (docs/reports.md).
#pragma once

#include "Files.h"
#include "Payload.h"

#include <memory>
#include <string>
#include <vector>

struct AVMD5;

namespace vxrun {

enum class ChecksumFormat {
    FRAMEMD5,  // FFmpeg's framemd5 muxer
    FRAMECRC,  // FFmpeg's framecrc muxer
    MD5,       // one MD5 over the visible bytes of all frames, in order
    MD5_LIST,  // a line "hash  name" per frame
    JSON       // an object with md5_checksums, one per frame
};

// The format that goes by `name` (framemd5, framecrc, md5, md5-list, json); a Failure for none.
ChecksumFormat checksumFormat(const std::string& name);
// The name that the extension of `path` stands for: .framecrc, .md5 (a list), .json, else framemd5.
std::string checksumFormatOf(const std::string& path);

// Md5: the MD5 of what was added.
class Md5 {
public:
    Md5();
    void add(const Payload& payload);  // its visible bytes
    std::string hex();                 // ends it

private:
    std::unique_ptr<AVMD5, void (*)(void*)> mState;
};

// The checksum of a payload's visible rows as a list of `format` spells it: the MD5 in hexadecimal, or
// the Adler-32 with both sums started at 0, as framecrc (and not zlib) has it, as "0x........".
std::string checksum(ChecksumFormat format, const Payload& payload);

struct ChecksumRow {
    // Whether a frame (or stream) is the expected one. A size of 0 is not known. A hash with a digit
    // too many, as published lists have them, stands for each hash that it becomes without one digit.
    bool matches(const ChecksumRow& got) const;

    uint64_t size = 0;
    std::string hash;
};

struct ChecksumList {
    ChecksumFormat format = ChecksumFormat::FRAMEMD5;
    std::vector<ChecksumRow> rows;  // in order; at least one, for MD5 just one
};

// Reads a list and finds out its format. Only sizes and hashes are kept. A Failure names file and
// line: what is no list, holds no row, mixes formats or streams, or expects the hash of nothing.
ChecksumList readChecksumList(const std::string& path);

// The MD5 of no data, which any producer matches that makes nothing: it is never an expectation.
extern const char kMd5OfNothing[];

// ChecksumWriter: writes a list, which appears when it is complete. FRAMEMD5 and FRAMECRC are what
// FFmpeg writes with -fflags +bitexact.
class ChecksumWriter {
public:
    ChecksumWriter(const std::string& path, ChecksumFormat format) : mFile(path), mFormat(format) {}

    // Adds a frame; a Failure when it is empty.
    void add(const Payload& payload, const StreamInfo& stream, uint64_t timestamp);
    void commit();

private:
    OutputFile mFile;
    const ChecksumFormat mFormat;
    uint64_t mFrames = 0;
    Md5 mWhole;  // MD5
    // JSON
    StreamInfo mFirst;  // the stream as it was at its first frame
    std::vector<std::string> mHashes;
};

}  // namespace vxrun
