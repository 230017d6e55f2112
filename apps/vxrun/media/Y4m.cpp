#include "Y4m.h"

#include "Text.h"

#include <algorithm>
#include <map>
#include <numeric>
#include <sstream>

namespace vxrun {

const std::string kY4mMagic = "YUV4MPEG2";

namespace {

constexpr uint64_t kMaxSide = 65535;  // of a picture

// "30000:1001"; 0:0, which means unknown in this format, becomes `unknown`.
Rational parseRatio(const std::string& text, Rational unknown) {
    const size_t colon = text.find(':');
    if (colon == std::string::npos) throw Failure("expected N:M, got " + quote(text));
    const auto part = [](const std::string& digits) {
        return static_cast<int>(parseNumber(digits, 0, INT32_MAX));
    };
    Rational ratio = {part(text.substr(0, colon)), part(text.substr(colon + 1))};
    return ratio.num == 0 || ratio.den == 0 ? unknown : ratio;
}

// By the values of C without the place of the chroma samples: "420", "444p10", "mono12".
const std::map<std::string, PixelFormat>& colorSpaces() {
    static const std::map<std::string, PixelFormat> all = [] {
        std::map<std::string, PixelFormat> known;
        for (const std::string sampling : {"420", "422", "444", "411", "mono"}) {
            for (const std::string depth : {"", "9", "10", "12", "14", "16"}) {
                const bool mono = sampling == "mono";
                const auto pixels = findPixelFormat(concat(mono ? "gray" : "yuv" + sampling + "p",
                                                           depth, depth.empty() ? "" : "le"));
                if (!pixels) continue;
                known[concat(sampling, mono || depth.empty() ? "" : "p", depth)] = *pixels;
            }
        }
        return known;
    }();
    return all;
}

PixelFormat parseColorSpace(const std::string& text) {
    if (text == "444alpha") throw Failure("not supported", Verdict::NotSupported);
    std::string sampling = text;
    // These give the position of the chroma samples, which does not change their number.
    for (const char* place : {"jpeg", "mpeg2", "paldv"}) {
        if (text == text.substr(0, 3) + place) sampling = text.substr(0, 3);
    }
    const auto found = colorSpaces().find(sampling);
    if (found == colorSpaces().end()) throw Failure("unknown color space");
    return found->second;
}

void parseField(char letter, const std::string& value, StreamInfo* stream) {
    if (letter == 'W' || letter == 'H') {
        PictureFormat& picture = stream->picture;
        (letter == 'W' ? picture.width : picture.height) =
            static_cast<int>(parseNumber(value, 1, kMaxSide));
    } else if (letter == 'F') {
        const Rational rate = parseRatio(value, {25, 1});  // as FFmpeg counts unknown ones
        const int divisor = std::gcd(rate.num, rate.den);
        stream->timeBase = {rate.den / divisor, rate.num / divisor};
    } else if (letter == 'A') {
        stream->sar = parseRatio(value, {0, 1});
    } else if (letter == 'C') {
        stream->picture.pixels = parseColorSpace(value);
    } else if (letter != 'I' && letter != 'X') {  // interlacing, and comments of any kind
        throw Failure("no such field");
    }
}

}  // namespace

StreamInfo y4mStream(const std::string& line) {
    std::istringstream fields(line);
    std::string field;
    fields >> field;
    if (field != kY4mMagic) throw Failure("expected 'YUV4MPEG2', got " + quote(line));
    StreamInfo stream;
    stream.picture.pixels = *findPixelFormat("yuv420p");
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
    checkSize(stream.picture);
    return stream;
}

bool isY4mFrame(const std::string& line) {
    return line == "FRAME" || line.rfind("FRAME ", 0) == 0;
}

std::string y4mHeader(const StreamInfo& stream) {
    const PictureFormat& picture = stream.picture;
    const std::string pixels = picture.pixels.rangelessName();
    const bool full = pixels != picture.pixels.name;
    const auto& known = colorSpaces();
    const auto space = std::find_if(known.begin(), known.end(),
                                    [&](const auto& entry) { return entry.second.name == pixels; });
    if (space == known.end()) {
        throw Failure("Y4M does not accept " + stream.codec + " " + quote(pixels),
                      Verdict::NotSupported);
    }
    const uint64_t num =
        static_cast<uint64_t>(stream.timeBase.num) * std::max<uint64_t>(stream.duration, 1);
    const Rational sar = stream.sar.num == 0 ? Rational{0, 0} : stream.sar;
    return concat(kY4mMagic, " W", picture.width, " H", picture.height, " F", stream.timeBase.den,
                  ":", num, " Ip A", sar.num, ":", sar.den, " C", space->first,
                  full ? " XCOLORRANGE=FULL" : "", "\n");
}

Y4mReader::Y4mReader(const std::string& path) : PictureReader(path) {
    std::string line;
    const bool complete = mFile.readLine(kY4mLine, &line);
    if (!complete && line.empty()) mFile.fail("empty file");
    // A file of another kind is recognized by its first bytes, however long its first line is.
    if (!complete && line.rfind(kY4mMagic, 0) == 0) {
        mFile.fail(line.size() == kY4mLine ? "header line longer than 4096 bytes"
                                           : "header line ends with the file");
    }
    try {
        mStream = y4mStream(line);
    } catch (const Failure& failure) {
        throw Failure(path + ": " + failure.what(), failure.verdict());
    }
}

bool Y4mReader::nextFrame() {
    if (mFile.atEnd()) return false;
    const uint64_t offset = mFile.offset();
    std::string line;
    const bool complete = mFile.readLine(kY4mLine, &line);
    if (!isY4mFrame(line)) {
        failFrame(offset, "expected 'FRAME', got " + quote(line));
    }
    if (!complete) failFrame(offset, "the FRAME line is truncated or too long");
    return true;
}

}  // namespace vxrun
