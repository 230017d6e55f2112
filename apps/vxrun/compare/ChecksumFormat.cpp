#include "ChecksumList.h"

#include "Failure.h"
#include "Json.h"
#include "Text.h"

extern "C" {
#include <libavutil/adler32.h>
#include <libavutil/md5.h>
#include <libavutil/mem.h>
}

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <filesystem>

namespace vxrun {

const char kMd5OfNothing[] = "d41d8cd98f00b204e9800998ecf8427e";

namespace {

constexpr size_t kMd5Size = 16;
constexpr size_t kMaxListSize = 64 << 20;  // about 700,000 rows

struct FormatName {
    ChecksumFormat format;
    const char* name;
    const char* extension;  // of files in this format; the first one has any other, too
};
const FormatName kFormats[] = {{ChecksumFormat::FRAMEMD5, "framemd5", ".framemd5"},
                               {ChecksumFormat::FRAMECRC, "framecrc", ".framecrc"},
                               {ChecksumFormat::MD5, "md5", ""},
                               {ChecksumFormat::MD5_LIST, "md5-list", ".md5"},
                               {ChecksumFormat::JSON, "json", ".json"}};

std::string text(const Rational& value) {
    return concat(value.num, "/", value.den);
}

// ---- Reading ----------------------------------------------------------------------------------

// A row is: stream, dts, pts, duration, size, hash, and possibly more that is not compared. Only
// stream 0 will do. The hash of nothing would let a producer pass that makes nothing.
ChecksumRow parseRow(const std::string& line) {
    constexpr size_t kCrcText = 10;
    uint64_t size = 0;
    char text[2 * kMd5Size + 1] = "";
    int end = 0;
    std::sscanf(line.c_str(), " 0 , %*d , %*d , %*d , %" SCNu64 " , %32[0-9a-fx] %n", &size, text,
                &end);
    const std::string hash = text;
    const bool isCrc = hash.size() == kCrcText && hash.rfind("0x", 0) == 0;
    const bool isMd5 = hash.size() == 2 * kMd5Size && hash.find('x') == hash.npos;
    if (!(isCrc || isMd5) || size == 0 || (line[end] != ',' && line[end] != '\0')) {
        throw Failure("expected '0, dts, pts, duration, size, hash', got " + quote(line));
    }
    return {size, hash};
}

// Whether `word`, in lower case, is an MD5, with one digit too many if need be.
bool isMd5(const std::string& word) {
    return word.size() / 2 == kMd5Size && word.find_first_not_of("0123456789abcdef") == word.npos;
}

// Whether `word`, in lower case, was meant to be a hash: half an MD5 or more in hexadecimal, but for a
// damaged character or two. A number, which has no letters, was not.
bool looksLikeHash(const std::string& word) {
    size_t digits = 0, letters = 0, others = 0;
    for (const char c : word) {
        ++(c >= '0' && c <= '9' ? digits : c >= 'a' && c <= 'f' ? letters : others);
    }
    return digits > 0 && letters > 0 && digits + letters + others >= kMd5Size && others <= 2 &&
           (others == 0 || word.size() >= 2 * kMd5Size - 4);
}

// The MD5 in a line of text, in lower case: "hash *file", "hash  file", "MD5 (file) = hash", "MD5=hash" or
// the bare hash. Empty in a line of other text. A Failure for two, and for a damaged one: taken for a
// remark, it would drop a frame from the comparison.
std::string findMd5(const std::string& line) {
    std::string found, word;
    for (const char c : lowerCase(line) + " ") {
        if (std::isalnum(static_cast<unsigned char>(c))) {
            word += c;
            continue;
        }
        if (isMd5(word)) {
            if (!found.empty()) throw Failure("more than one MD5 in the line " + quote(line));
            found = word;
        } else if (looksLikeHash(word)) {
            throw Failure("expected an MD5 of 32 digits, got " + quote(word));
        }
        word.clear();
    }
    return found;
}

// Lines of any kind of list but JSON. In what is no table of FFmpeg's, lines without an MD5 are taken
// for remarks. One MD5 is that of the whole stream, and so is the only one of a .yuv file among others
// (of the bitstream, for instance); several are one per frame.
ChecksumList parseLines(const std::string& path, const std::string& text) {
    std::istringstream lines(text);
    ChecksumList list;
    std::vector<ChecksumRow> yuvRows;
    bool isTable = text.find("#tb 0:") != text.npos;
    size_t number = 0;
    for (std::string line; std::getline(lines, line);) {
        ++number;
        if (!line.empty() && line.back() == '\r') line.pop_back();
        const size_t start = line.find_first_not_of(" \t");
        try {
            if (line.find('\r') != line.npos) {
                throw Failure("a carriage return within a line; lines end with LF or CR LF");
            }
            if (start == std::string::npos || line[start] == '#' || line[start] == ';') continue;
            if (list.rows.empty() && line.find(',') != line.npos) isTable = true;
            const ChecksumRow row = isTable ? parseRow(line) : ChecksumRow{0, findMd5(line)};
            if (row.hash.empty()) continue;
            list.rows.push_back(row);
            if (isTable && row.hash.size() != list.rows.front().hash.size()) {
                throw Failure("MD5 and CRC rows in one list");
            }
            if (row.hash == kMd5OfNothing) throw Failure("the MD5 of no data");
            if (line.find(".yuv") != line.npos) yuvRows.push_back(row);
        } catch (const Failure& failure) {
            throw Failure(concat(path, ":", number, ": ", failure.what()));
        }
    }
    if (!isTable && yuvRows.size() == 1) list.rows = yuvRows;
    if (isTable) {
        const bool isCrc = !list.rows.empty() && list.rows.front().hash.rfind("0x", 0) == 0;
        list.format = isCrc ? ChecksumFormat::FRAMECRC : ChecksumFormat::FRAMEMD5;
    } else {
        list.format = list.rows.size() == 1 ? ChecksumFormat::MD5 : ChecksumFormat::MD5_LIST;
    }
    return list;
}

ChecksumList readJson(const std::string& path) {
    const JsonDocument document(path, "list", kMaxListSize);
    ChecksumList list = {ChecksumFormat::JSON, {}};
    const JsonValue& sums = document.member(document.root(), "md5_checksums", JsonValue::ARRAY);
    for (const JsonValue& sum : sums.items) {
        const std::string hash = lowerCase(document.expect(sum, JsonValue::STRING).text);
        if (!isMd5(hash)) document.fail(sum, "expected an MD5, got " + quote(sum.text));
        if (hash == kMd5OfNothing) document.fail(sum, "the MD5 of no data");
        list.rows.push_back({0, hash});
    }
    const JsonValue* const frames = document.root().find("num_frames");
    if (frames != nullptr && document.scalar(*frames) != std::to_string(list.rows.size())) {
        document.fail(*frames, concat("md5_checksums has ", list.rows.size()));
    }
    return list;
}

// ---- Writing ----------------------------------------------------------------------------------

std::string tableHeader(ChecksumFormat format, const StreamInfo& stream) {
    const bool isMd5 = format == ChecksumFormat::FRAMEMD5;
    std::string header = isMd5 ? "#format: frame checksums\n#version: 2\n#hash: MD5\n" : "";
    header += concat("#tb 0: ", text(stream.timeBase), "\n#media_type 0: ", stream.media,
                     "\n#codec_id 0: ", stream.codec, "\n");
    if (stream.media == "video") {
        header += concat("#dimensions 0: ", stream.picture.width, "x", stream.picture.height,
                         "\n#sar 0: ", text(stream.sar), "\n");
    }
    return header + (isMd5 ? "#stream#, dts,        pts, duration,     size, hash\n" : "");
}

std::string jsonText(const StreamInfo& stream, const std::vector<std::string>& hashes) {
    nlohmann::ordered_json json;
    if (!stream.profile.empty()) json["profile"] = stream.profile;
    json["bit_depth"] = stream.picture.depth();
    if (stream.timeBase.num != 0 && stream.duration != 0) {
        json["frame_rate"] = static_cast<double>(stream.timeBase.den) /
                             static_cast<double>(stream.timeBase.num * stream.duration);
    }
    json["num_frames"] = hashes.size();
    json["width"] = stream.picture.width;
    json["height"] = stream.picture.height;
    json["md5_checksums"] = hashes;
    return json.dump(2) + "\n";
}

}  // namespace

ChecksumFormat checksumFormat(const std::string& name) {
    for (const FormatName& format : kFormats) {
        if (name == format.name) return format.format;
    }
    throw Failure("expected framemd5, framecrc, md5, md5-list or json, got " + quote(name));
}

std::string checksumFormatOf(const std::string& path) {
    const std::string extension = std::filesystem::path(path).extension();
    for (const FormatName& format : kFormats) {
        if (!extension.empty() && extension == format.extension) return format.name;
    }
    return kFormats[0].name;
}

Md5::Md5() : mState(av_md5_alloc(), av_free) {
    if (mState == nullptr) throw std::bad_alloc();
    av_md5_init(mState.get());
}

void Md5::add(const Payload& payload) {
    payload.forEachRow(
        [&](const uint8_t* row, size_t bytes) { av_md5_update(mState.get(), row, bytes); });
}

std::string Md5::hex() {
    uint8_t digest[kMd5Size];
    av_md5_final(mState.get(), digest);
    std::ostringstream hex;
    for (const unsigned byte : digest) hex << std::hex << std::setfill('0') << std::setw(2) << byte;
    return hex.str();
}

std::string checksum(ChecksumFormat format, const Payload& payload) {
    if (format == ChecksumFormat::FRAMECRC) {
        AVAdler sum = 0;
        payload.forEachRow(
            [&](const uint8_t* row, size_t bytes) { sum = av_adler32_update(sum, row, bytes); });
        return concat("0x", std::hex, std::setfill('0'), std::setw(8), sum);
    }
    Md5 md5;
    md5.add(payload);
    return md5.hex();
}

bool ChecksumRow::matches(const ChecksumRow& got) const {
    if (size != 0 && size != got.size) return false;
    if (hash.size() != got.hash.size() + 1) return hash == got.hash;
    const auto differ = std::mismatch(got.hash.begin(), got.hash.end(), hash.begin());
    return std::equal(differ.first, got.hash.end(), differ.second + 1);
}

ChecksumList readChecksumList(const std::string& path) {
    const std::string text = readTextFile(path, kMaxListSize);
    const size_t start = text.find_first_not_of(" \t\r\n");
    const bool isJson = start != text.npos && text[start] == '{';
    ChecksumList list = isJson ? readJson(path) : parseLines(path, text);
    if (list.rows.empty()) throw Failure(path + ": no row in the list");
    return list;
}

void ChecksumWriter::add(const Payload& payload, const StreamInfo& stream, uint64_t timestamp) {
    if (payload.size() == 0) throw Failure("a frame of no bytes, whose checksum says nothing");
    if (mFrames++ == 0) mFirst = stream;
    if (mFormat == ChecksumFormat::MD5) return mWhole.add(payload);
    const std::string hash = checksum(mFormat, payload);
    if (mFormat == ChecksumFormat::JSON) return mHashes.push_back(hash);
    if (mFormat == ChecksumFormat::MD5_LIST) {
        return mFile.write(concat(hash, "  frame-", stream.picture.width, "x",
                                  stream.picture.height, "-", std::setfill('0'), std::setw(4),
                                  mFrames, "\n"));
    }
    if (mFrames == 1) mFile.write(tableHeader(mFormat, stream));
    const auto ten = std::setw(10);
    const auto eight = std::setw(8);
    mFile.write(concat("0, ", ten, timestamp, ", ", ten, timestamp, ", ", eight, stream.duration,
                       ", ", eight, payload.size(), ", ", hash, "\n"));
}

void ChecksumWriter::commit() {
    if (mFrames == 0) throw Failure("no frame, so there is no checksum to write");
    if (mFormat == ChecksumFormat::MD5) mFile.write("MD5=" + mWhole.hex() + "\n");
    if (mFormat == ChecksumFormat::JSON) mFile.write(jsonText(mFirst, mHashes));
    mFile.commit();
}

}  // namespace vxrun
