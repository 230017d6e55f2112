#include "Y4mReader.h"

#include "Failure.h"

#include <algorithm>
#include <regex>
#include <sstream>

namespace vxrun {
namespace {

constexpr size_t kMaxLine = 4096;        // comments (X...) make header lines long, not endless
constexpr uint64_t kMaxSide = 65535;     // of a picture
constexpr uint64_t kMaxFrame = 1 << 30;  // bytes
const std::string kMagic = "YUV4MPEG2";

// "30000:1001"; 0:0 is the format's word for unknown, for which `unknown` stands.
Rational parseRatio(const std::string& text, Rational unknown) {
    const size_t colon = text.find(':');
    if (colon == std::string::npos) throw Failure("expected N:M, got " + quote(text));
    const auto part = [](const std::string& digits) {
        return static_cast<int>(parseNumber(digits, 0, INT32_MAX));
    };
    Rational ratio = {part(text.substr(0, colon)), part(text.substr(colon + 1))};
    return ratio.num == 0 || ratio.den == 0 ? unknown : ratio;
}

// "420jpeg", "444p10", "mono12": the sampling and, above 8 bits, the depth.
AVPixelFormat parseColourSpace(const std::string& text) {
    // jpeg, mpeg2 and paldv say where the chroma samples lie, which does not change their number.
    static const std::regex known(
        "(420|422|444|411)(?:jpeg|mpeg2|paldv|p(9|10|12|14|16))?|mono(\\d+)?");
    std::smatch part;
    if (text == "444alpha") throw Failure("not supported", "NOT_SUPPORTED");
    AVPixelFormat pixels = AV_PIX_FMT_NONE;
    if (std::regex_match(text, part, known)) {
        const std::string depth = part[2].str() + part[3].str();
        const std::string name = part[1].matched ? "yuv" + part[1].str() + "p" : "gray";
        pixels = av_get_pix_fmt((name + (depth.empty() ? "" : depth + "le")).c_str());
    }
    if (pixels == AV_PIX_FMT_NONE) throw Failure("unknown colour space");
    return formatOf(pixels, 1, 1).pixels;
}

void parseField(char letter, const std::string& value, StreamInfo* stream) {
    if (letter == 'W' || letter == 'H') {
        PictureFormat& picture = stream->picture;
        (letter == 'W' ? picture.width : picture.height) =
            static_cast<int>(parseNumber(value, 1, kMaxSide));
    } else if (letter == 'F') {
        const Rational rate = parseRatio(value, {25, 1});  // as FFmpeg counts unknown ones
        av_reduce(&stream->timeBase.num, &stream->timeBase.den, rate.den, rate.num, INT32_MAX);
    } else if (letter == 'A') {
        stream->sar = parseRatio(value, {0, 1});
    } else if (letter == 'C') {
        stream->picture.pixels = parseColourSpace(value);
    } else if (letter != 'I' && letter != 'X') {  // interlacing, and comments of any kind
        throw Failure("no such field");
    }
}

StreamInfo parseHeader(const std::string& line) {
    std::istringstream fields(line);
    std::string field;
    fields >> field;
    if (field != kMagic) throw Failure("expected 'YUV4MPEG2', got " + quote(line));
    StreamInfo stream;
    stream.picture.pixels = AV_PIX_FMT_YUV420P;
    stream.timeBase = {1, 25};
    stream.duration = 1;
    while (fields >> field) {
        try {
            parseField(field[0], field.substr(1), &stream);
        } catch (const Failure& failure) {
            throw Failure("header field " + quote(field) + ": " + failure.what(),
                          failure.verdict());
        }
    }
    if (stream.picture.width == 0) throw Failure("header has no width (W)");
    if (stream.picture.height == 0) throw Failure("header has no height (H)");
    const size_t size = stream.picture.size();
    if (size <= kMaxFrame) return stream;
    throw Failure("a frame of " + std::to_string(size) + " bytes is larger than 1 GiB");
}

}  // namespace

std::string y4mHeader(const StreamInfo& stream) {
    // FFmpeg's names for full range (yuvj) are formats of their own.
    static const std::regex known("yuv(j?)(420|422|444|411)p(?:(\\d+)le)?|gray(?:(\\d+)le)?");
    std::smatch part;
    const PictureFormat& picture = stream.picture;
    const std::string name = picture.isPicture() ? picture.description().name : "";
    if (!std::regex_match(name, part, known)) {
        throw Failure("Y4M does not take " + stream.codec + " " + quote(name), "NOT_SUPPORTED");
    }
    const std::string sampling = part[2].matched ? part[2].str() : "mono";
    const std::string depth = (part[3].matched ? "p" : "") + part[3].str() + part[4].str();
    const auto ratio = [](uint64_t num, uint64_t den) {
        return std::to_string(num) + ":" + std::to_string(den);
    };
    const uint64_t num = stream.timeBase.num, den = stream.timeBase.den;
    return kMagic + " W" + std::to_string(picture.width) + " H" + std::to_string(picture.height) +
           " F" + ratio(den, num * std::max<uint64_t>(stream.duration, 1)) + " Ip A" +
           ratio(stream.sar.num, stream.sar.num == 0 ? 0 : stream.sar.den) + " C" + sampling +
           depth + (part[1].length() > 0 ? " XCOLORRANGE=FULL" : "") + "\n";
}

Y4mReader::Y4mReader(const std::string& path) : mFile(path) {
    std::string line;
    const bool complete = mFile.readLine(kMaxLine, &line);
    if (!complete && line.empty()) mFile.fail("empty file");
    // A file of another kind is told by its first bytes, however long its first line is.
    if (!complete && line.rfind(kMagic, 0) == 0) {
        mFile.fail(line.size() == kMaxLine ? "header line longer than 4096 bytes"
                                           : "header line ends with the file");
    }
    try {
        mStream = parseHeader(line);
    } catch (const Failure& failure) {
        throw Failure(path + ": " + failure.what(), failure.verdict());
    }
}

bool Y4mReader::nextFrame() {
    if (mFile.atEnd()) return false;
    const uint64_t offset = mFile.offset();
    std::string line;
    const bool complete = mFile.readLine(kMaxLine, &line);
    if (line != "FRAME" && line.rfind("FRAME ", 0) != 0) {
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
