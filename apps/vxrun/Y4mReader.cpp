#include "Y4mReader.h"

#include "Failure.h"

#include <algorithm>
#include <numeric>
#include <sstream>

namespace vxrun {
namespace {

constexpr size_t kMaxLine = 4096;        // comments (X...) make header lines long, not endless
constexpr uint64_t kMaxSide = 65535;     // of a picture
constexpr uint64_t kMaxFrame = 1 << 30;  // bytes
constexpr char kMagic[] = "YUV4MPEG2";

// "30000:1001"; 0:0 is the format's word for unknown.
Rational parseRatio(const std::string& text) {
    const size_t colon = text.find(':');
    if (colon == std::string::npos) throw Failure("expected N:M, got " + quote(text));
    return {parseNumber(text.substr(0, colon), 0, INT32_MAX),
            parseNumber(text.substr(colon + 1), 0, INT32_MAX)};
}

// "420jpeg", "444p10", "mono12": the sampling and, above 8 bits, the depth.
void parseColourSpace(const std::string& text, StreamInfo* stream) {
    for (const std::string sampling : {"420", "422", "444", "411", "mono"}) {
        // jpeg, mpeg2 and paldv say where the chroma samples lie, which does not change their number.
        for (const std::string form : {"", "jpeg", "mpeg2", "paldv", "9", "10", "12", "14", "16"}) {
            const bool mono = sampling == "mono";
            const bool deep = !form.empty() && form[0] <= '9';
            const std::string depthMark = deep && !mono ? "p" : "";
            if (text != std::string(sampling).append(depthMark).append(form)) continue;
            PictureFormat& picture = stream->picture;
            picture.planes = mono ? 1 : 3;
            picture.chromaDivX = sampling == "411" ? 4 : sampling == "444" ? 1 : 2;
            picture.chromaDivY = sampling == "420" ? 2 : 1;
            picture.bytesPerSample = deep ? 2 : 1;
            picture.depth = deep ? static_cast<uint32_t>(parseNumber(form, 9, 16)) : 8;
            picture.pixels = (mono ? "gray" : "yuv" + sampling + "p") + (deep ? form + "le" : "");
            return;
        }
    }
    if (text == "444alpha") throw Failure("not supported", "NOT_SUPPORTED");
    throw Failure("unknown colour space");
}

void parseField(char letter, const std::string& value, Rational* rate, StreamInfo* stream) {
    PictureFormat& picture = stream->picture;
    if (letter == 'W') {
        picture.width = static_cast<uint32_t>(parseNumber(value, 1, kMaxSide));
    } else if (letter == 'H') {
        picture.height = static_cast<uint32_t>(parseNumber(value, 1, kMaxSide));
    } else if (letter == 'F') {
        *rate = parseRatio(value);
    } else if (letter == 'A') {
        stream->sar = parseRatio(value);
    } else if (letter == 'C') {
        parseColourSpace(value, stream);
    } else if (letter != 'I' && letter != 'X') {  // interlacing, and comments of any kind
        throw Failure("no such field");
    }
}

}  // namespace

StreamInfo parseY4mHeader(const std::string& line) {
    std::istringstream fields(line);
    std::string field;
    fields >> field;
    if (field != kMagic) throw Failure(std::string("expected 'YUV4MPEG2', got ") + quote(line));

    StreamInfo stream;
    PictureFormat& picture = stream.picture;
    Rational rate;
    parseColourSpace("420", &stream);  // what a missing C field means
    while (fields >> field) {
        try {
            parseField(field[0], field.substr(1), &rate, &stream);
        } catch (const Failure& failure) {
            throw Failure("header field " + quote(field) + ": " + failure.what(),
                          failure.verdict());
        }
    }
    if (picture.width == 0) throw Failure("header has no width (W)");
    if (picture.height == 0) throw Failure("header has no height (H)");
    if (picture.size() > kMaxFrame) {
        throw Failure("a frame of " + std::to_string(picture.size()) +
                      " bytes is larger than 1 GiB");
    }

    // Unknown rates and aspect ratios count as FFmpeg counts them.
    if (rate.num == 0 || rate.den == 0) rate = {25, 1};
    const uint64_t common = std::gcd(rate.num, rate.den);
    stream.timeBase = {rate.den / common, rate.num / common};
    if (stream.sar.den == 0) stream.sar = {0, 1};
    stream.media = "video";
    stream.codec = "rawvideo";
    stream.duration = 1;
    return stream;
}

std::string y4mHeader(const StreamInfo& stream) {
    const PictureFormat& picture = stream.picture;
    // FFmpeg's names for full range are formats of their own.
    const bool full = picture.pixels.compare(0, 4, "yuvj") == 0;
    const std::string pixels = full ? "yuv" + picture.pixels.substr(4) : picture.pixels;
    const auto ratio = [](uint64_t num, uint64_t den) {
        return std::to_string(num) + ":" + std::to_string(den);
    };
    StreamInfo known;
    for (const std::string sampling : {"420", "422", "444", "411", "mono"}) {
        for (const std::string depth : {"", "9", "10", "12", "14", "16"}) {
            const std::string mark = sampling != "mono" && !depth.empty() ? "p" : "";
            const std::string text = std::string(sampling).append(mark).append(depth);
            parseColourSpace(text, &known);
            if (known.picture.pixels != pixels) continue;
            return std::string(kMagic) + " W" + std::to_string(picture.width) + " H" +
                   std::to_string(picture.height) + " F" +
                   ratio(stream.timeBase.den,
                         stream.timeBase.num * std::max<uint64_t>(stream.duration, 1)) +
                   " Ip A" + ratio(stream.sar.num, stream.sar.num == 0 ? 0 : stream.sar.den) +
                   " C" + text + (full ? " XCOLORRANGE=FULL" : "") + "\n";
        }
    }
    throw Failure("Y4M does not take " + stream.codec + " " + quote(picture.pixels),
                  "NOT_SUPPORTED");
}

namespace {

StreamInfo readHeader(InputFile* file) {
    std::string line;
    const bool complete = file->readLine(kMaxLine, &line);
    if (!complete && line.empty()) file->fail("empty file");
    // A file of another kind is told by its first bytes, however long its first line is.
    if (!complete && line.compare(0, sizeof kMagic - 1, kMagic) == 0) {
        file->fail(line.size() == kMaxLine ? "header line longer than 4096 bytes"
                                           : "header line ends with the file");
    }
    try {
        return parseY4mHeader(line);
    } catch (const Failure& failure) {
        throw Failure(file->path() + ": " + failure.what(), failure.verdict());
    }
}

}  // namespace

Y4mReader::Y4mReader(const std::string& path) : mFile(path), mStream(readHeader(&mFile)) {}

bool Y4mReader::nextFrame() {
    if (mFile.atEnd()) return false;
    const uint64_t offset = mFile.offset();
    std::string line;
    const bool complete = mFile.readLine(kMaxLine, &line);
    if (line != "FRAME" && line.compare(0, 6, "FRAME ") != 0) {
        failFrame(offset, "expected 'FRAME', got " + quote(line));
    }
    if (!complete) failFrame(offset, "the file ends, or goes on too long, within the FRAME line");
    return true;
}

void Y4mReader::readFrame(const Payload& picture) {
    const uint64_t offset = mFile.offset();
    size_t got = 0;
    picture.forEachRow([&](uint8_t* row, size_t bytes) { got += mFile.read(row, bytes); });
    if (got != picture.size()) {
        failFrame(offset, "truncated: expected " + std::to_string(picture.size()) + " bytes, got " +
                              std::to_string(got));
    }
    ++mFrame;
}

void Y4mReader::failFrame(uint64_t offset, const std::string& text) const {
    mFile.fail("frame " + std::to_string(mFrame) + " at byte " + std::to_string(offset) + ": " +
               text);
}

}  // namespace vxrun
