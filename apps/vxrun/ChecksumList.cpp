#include "ChecksumList.h"

#include "Failure.h"
#include "Json.h"

extern "C" {
#include <libavutil/adler32.h>
#include <libavutil/md5.h>
#include <libavutil/mem.h>
}

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>
#include <cinttypes>
#include <cstdio>
#include <filesystem>
#include <map>
#include <sstream>

namespace vxrun {

const char kMd5OfNothing[] = "d41d8cd98f00b204e9800998ecf8427e";

namespace {

constexpr size_t kMd5Size = 16;
constexpr size_t kMaxListSize = 64 << 20;  // about 700,000 rows

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

// ---- Reading ----------------------------------------------------------------------------------

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

// The first MD5 in a line of text, in lower case: "hash *file", "hash  file", "MD5 (file) = hash",
// "MD5=hash" or the bare hash, with one digit too many if need be. Empty in any other line.
std::string findMd5(const std::string& line) {
    std::string word;
    for (const char c : line + " ") {
        if (std::isalnum(static_cast<unsigned char>(c))) {
            word += static_cast<char>(std::tolower(c));
            continue;
        }
        const size_t digits =
            word.find_first_not_of("0123456789abcdef") == word.npos ? word.size() : 0;
        if (digits == 2 * kMd5Size || digits == 2 * kMd5Size + 1) return word;
        word.clear();
    }
    return {};
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
        const size_t start = line.find_first_not_of(" \t\r");
        if (start == std::string::npos || line[start] == '#' || line[start] == ';') continue;
        try {
            if (list.rows.empty() && line.find(',') != line.npos) isTable = true;
            ChecksumFormat format = ChecksumFormat::MD5_LIST;
            const ChecksumRow row =
                isTable ? parseRow(line, &format) : ChecksumRow{0, findMd5(line)};
            if (row.hash.empty()) continue;
            if (list.rows.empty()) list.format = format;
            if (list.format != format) throw Failure("MD5 and CRC rows in one list");
            if (row.hash == kMd5OfNothing) throw Failure("the MD5 of no data");
            list.rows.push_back(row);
            if (line.find(".yuv") != line.npos) yuvRows.push_back(row);
        } catch (const Failure& failure) {
            throw Failure(path + ":" + std::to_string(number) + ": " + failure.what());
        }
    }
    if (isTable) return list;
    if (yuvRows.size() == 1) list.rows = yuvRows;
    if (list.rows.size() == 1) list.format = ChecksumFormat::MD5;
    return list;
}

ChecksumList parseJson(const JsonDocument& document) {
    ChecksumList list;
    list.format = ChecksumFormat::JSON;
    const JsonValue& sums = document.member(document.root(), "md5_checksums", JsonValue::ARRAY);
    for (const JsonValue& sum : sums.items) {
        const std::string hash = findMd5(document.expect(sum, JsonValue::STRING).text);
        if (hash.empty()) document.fail(sum, "expected an MD5, got " + quote(sum.text));
        if (hash == kMd5OfNothing) document.fail(sum, "the MD5 of no data");
        list.rows.push_back({0, hash});
    }
    const JsonValue* const frames = document.root().find("num_frames");
    if (frames != nullptr && document.scalar(*frames) != std::to_string(list.rows.size())) {
        document.fail(*frames, "md5_checksums has " + std::to_string(list.rows.size()));
    }
    return list;
}

ChecksumList readJson(const std::string& path) {
    try {
        return parseJson(JsonDocument(path, "list"));
    } catch (const Failure& failure) {
        throw Failure(failure.what());  // for a node, not the graph's description
    }
}

// ---- Writing ----------------------------------------------------------------------------------

std::string tableHeader(ChecksumFormat format, const StreamInfo& stream) {
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

std::string tableRow(const StreamInfo& stream, uint64_t timestamp, const ChecksumRow& row) {
    char start[128];
    std::snprintf(start, sizeof start,
                  "0, %10" PRIu64 ", %10" PRIu64 ", %8" PRIu64 ", %8" PRIu64 ", ", timestamp,
                  timestamp, stream.duration, row.size);
    return start + row.hash + "\n";
}

}  // namespace

ChecksumFormat checksumFormat(const std::string& name) {
    static const std::map<std::string, ChecksumFormat> formats = {
        {"framemd5", ChecksumFormat::FRAMEMD5},
        {"framecrc", ChecksumFormat::FRAMECRC},
        {"md5", ChecksumFormat::MD5},
        {"md5-list", ChecksumFormat::MD5_LIST},
        {"json", ChecksumFormat::JSON}};
    const auto format = formats.find(name);
    if (format != formats.end()) return format->second;
    throw Failure("expected framemd5, framecrc, md5, md5-list or json, got " + quote(name));
}

std::string checksumFormatOf(const std::string& path) {
    const std::string extension = std::filesystem::path(path).extension();
    return extension == ".framecrc" ? "framecrc"
           : extension == ".md5"    ? "md5-list"
           : extension == ".json"   ? "json"
                                    : "framemd5";
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
    std::string hex;
    for (const uint8_t byte : digest) {
        hex += "0123456789abcdef"[byte >> 4];
        hex += "0123456789abcdef"[byte & 15];
    }
    return hex;
}

std::string checksum(ChecksumFormat format, const Payload& payload) {
    if (format == ChecksumFormat::FRAMECRC) return adler32(payload);
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

ChecksumWriter::ChecksumWriter(const std::string& path, ChecksumFormat format)
    : mFile(path), mFormat(format), mJson(std::make_unique<nlohmann::ordered_json>()) {}

ChecksumWriter::~ChecksumWriter() = default;

void ChecksumWriter::add(const Payload& payload, const StreamInfo& stream, uint64_t timestamp) {
    if (payload.size() == 0) throw Failure("a frame of no bytes, whose checksum says nothing");
    ++mFrames;
    if (mFormat == ChecksumFormat::MD5) return mWhole.add(payload);
    const ChecksumRow row = {payload.size(), checksum(mFormat, payload)};
    if (mFormat == ChecksumFormat::JSON) return addToJson(stream, row.hash);
    if (mFormat == ChecksumFormat::MD5_LIST) {
        char name[64];
        std::snprintf(name, sizeof name, "  frame-%" PRIu32 "x%" PRIu32 "-%04" PRIu64 "\n",
                      stream.picture.width, stream.picture.height, mFrames);
        return mFile.write(row.hash + name);
    }
    if (mFrames == 1) mFile.write(tableHeader(mFormat, stream));
    mFile.write(tableRow(stream, timestamp, row));
}

// What holds for the stream is the first frame's.
void ChecksumWriter::addToJson(const StreamInfo& stream, const std::string& hash) {
    nlohmann::ordered_json& json = *mJson;
    if (mFrames == 1) {
        if (!stream.profile.empty()) json["profile"] = stream.profile;
        json["bit_depth"] = stream.picture.depth();
        if (stream.timeBase.num != 0 && stream.duration != 0) {
            json["frame_rate"] = static_cast<double>(stream.timeBase.den) /
                                 static_cast<double>(stream.timeBase.num * stream.duration);
        }
        json["num_frames"] = 0;
        json["width"] = stream.picture.width;
        json["height"] = stream.picture.height;
    }
    json["num_frames"] = mFrames;
    json["md5_checksums"].push_back(hash);
}

void ChecksumWriter::commit() {
    if (mFrames == 0) throw Failure("no frame, so there is no checksum to write");
    if (mFormat == ChecksumFormat::MD5) mFile.write("MD5=" + mWhole.hex() + "\n");
    if (mFormat == ChecksumFormat::JSON) mFile.write(mJson->dump(2) + "\n");
    mFile.commit();
}

}  // namespace vxrun
