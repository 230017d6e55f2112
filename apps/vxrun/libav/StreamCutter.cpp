#include "StreamCutter.h"

#include "Ivf.h"
#include "Text.h"
#include "VideoFile.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>

namespace vxrun {
namespace {

using Bytes = std::vector<uint8_t>;

// A NAL unit or OBU with what it is preceded by: a start code or its length.
struct Part {
    enum Kind { PICTURE, PARAMETERS, DELIMITER, OTHER };

    Bytes bytes;
    Kind kind = PICTURE;
};

struct Unit {
    std::vector<Part> parts;
    Libav<AVPacket> properties;  // without data
};

enum class Syntax { ANNEX_B, LENGTHS, OBU, WHOLE };

Part::Kind kindOf(AVCodecID codec, uint8_t header) {
    if (codec == AV_CODEC_ID_AV1) {
        constexpr unsigned kSequence = 1, kDelimiter = 2, kFrame = 6, kTiles = 4;
        const unsigned type = header >> 3 & 15;
        return type == kSequence                  ? Part::PARAMETERS
               : type == kDelimiter               ? Part::DELIMITER
               : type == kFrame || type == kTiles ? Part::PICTURE
                                                  : Part::OTHER;
    }
    if (codec == AV_CODEC_ID_H264) {
        constexpr unsigned kSlices = 5, kSps = 7, kPps = 8, kDelimiter = 9, kExtension = 13,
                           kSubset = 15;
        const unsigned type = header & 31;
        const bool isSet = type == kSps || type == kPps || type == kExtension || type == kSubset;
        return isSet                         ? Part::PARAMETERS
               : type == kDelimiter          ? Part::DELIMITER
               : type > 0 && type <= kSlices ? Part::PICTURE
                                             : Part::OTHER;
    }
    constexpr unsigned kSlices = 31, kVps = 32, kPps = 34, kDelimiter = 35;
    const unsigned type = header >> 1 & 63;
    return type <= kSlices                ? Part::PICTURE
           : type >= kVps && type <= kPps ? Part::PARAMETERS
           : type == kDelimiter           ? Part::DELIMITER
                                          : Part::OTHER;
}

// Where the first start code from `from` on begins, with the zero byte before it; `end` if none.
const uint8_t* startCode(const uint8_t* from, const uint8_t* end) {
    static const std::array<uint8_t, 3> kCode{0, 0, 1};
    const uint8_t* const at = std::search(from, end, kCode.begin(), kCode.end());
    return at != end && at > from && at[-1] == 0 ? at - 1 : at;
}

class StreamCutter final : public StreamCut {
public:
    explicit StreamCutter(const std::string& path) : mFile(path, "") {
        mContainer = mFile.file().iformat->name;
        const AVCodecParameters& codec = *mFile.track().codecpar;
        mCodec = codec.codec_id;
        const bool hasNals = mCodec == AV_CODEC_ID_H264 || mCodec == AV_CODEC_ID_HEVC;
        const size_t lengthAt = mCodec == AV_CODEC_ID_H264 ? 4 : 21;
        const auto size = static_cast<size_t>(codec.extradata_size);
        if (hasNals && size > lengthAt && codec.extradata[0] == 1) {
            mSyntax = Syntax::LENGTHS;
            mLengthBytes = (codec.extradata[lengthAt] & 3) + 1;
        } else if (hasNals) {
            mSyntax = Syntax::ANNEX_B;
        } else if (mCodec == AV_CODEC_ID_AV1) {
            mSyntax = Syntax::OBU;
        }
        const int64_t start = mFile.track().start_time;
        const auto packet = made(av_packet_alloc());
        while (mFile.next(packet.get())) {
            Unit unit = {partsOf(packet->data, packet->data + packet->size),
                         made(av_packet_alloc())};
            if (av_packet_copy_props(unit.properties.get(), packet.get()) < 0)
                throw std::bad_alloc();
            for (int64_t* time : {&unit.properties->dts, &unit.properties->pts}) {
                if (*time != AV_NOPTS_VALUE && start != AV_NOPTS_VALUE) *time += start;
            }
            const bool isKey = (packet->flags & AV_PKT_FLAG_KEY) != 0;
            const auto pictures = std::count_if(unit.parts.begin(), unit.parts.end(), isPicture);
            for (auto i = std::max<ptrdiff_t>(pictures, 1); i > 0; --i) {
                mPieces.push_back({mUnits.size(), isKey});
            }
            mUnits.push_back(std::move(unit));
        }
        if (mUnits.empty()) throw Failure(path + ": no access unit in the file");
    }

    const std::vector<StreamPiece>& pieces() const override { return mPieces; }

    void write(const std::vector<size_t>& kept, const std::string& path) const override {
        const auto write = writerTo(path);
        std::vector<Bytes> sets;  // of units that are not there
        for (size_t piece = 0, unit = 0; unit < mUnits.size(); ++unit) {
            const size_t begin = piece;
            while (piece < mPieces.size() && mPieces[piece].unit == unit) ++piece;
            const auto first = std::lower_bound(kept.begin(), kept.end(), begin);
            const auto last = std::lower_bound(first, kept.end(), piece);
            if (first == last) {
                for (const Part& part : mUnits[unit].parts) {
                    if (part.kind != Part::PARAMETERS) continue;
                    sets.erase(std::remove(sets.begin(), sets.end(), part.bytes), sets.end());
                    sets.push_back(part.bytes);
                }
                continue;
            }
            std::vector<size_t> numbers(first, last);
            for (size_t& number : numbers) number -= begin;
            write(mUnits[unit], bytesOf(mUnits[unit], numbers, sets));
            sets.clear();
        }
        write({}, {});
    }

private:
    // Takes a unit and its bytes; no bytes at the end.
    using Write = std::function<void(const Unit& unit, const Bytes& bytes)>;

    static bool isPicture(const Part& part) { return part.kind == Part::PICTURE; }

    // Their bytes together are those of the unit. One whole part where they cannot be told.
    std::vector<Part> partsOf(const uint8_t* begin, const uint8_t* end) const {
        std::vector<Part> parts;
        const uint8_t* at = begin;
        const auto add = [&](const uint8_t* header, const uint8_t* next) {
            parts.push_back({Bytes(at, next), kindOf(mCodec, *header)});
            at = next;
        };
        while (at < end && mSyntax != Syntax::WHOLE) {
            const uint8_t* header = at;
            uint64_t size = 0;
            if (mSyntax == Syntax::ANNEX_B) {
                header = std::find(at, end, 1) + 1;  // behind the start code
                if (startCode(at, end) != at || header >= end) break;
                add(header, startCode(header, end));
                continue;
            }
            if (mSyntax == Syntax::LENGTHS) {
                if (end - at <= mLengthBytes) break;
                for (int i = 0; i < mLengthBytes; ++i) size = size << 8 | *header++;
            } else {
                constexpr uint8_t kExtension = 4, kHasSize = 2;
                const uint8_t* length = at + ((*at & kExtension) != 0 ? 2 : 1);
                if ((*at & kHasSize) == 0) break;
                for (int shift = 0; length < end && shift < 56; shift += 7) {
                    size |= static_cast<uint64_t>(*length & 127) << shift;
                    if ((*length++ & 128) == 0) break;
                }
                size += static_cast<uint64_t>(length - at);
            }
            if (size == 0 || size > static_cast<uint64_t>(end - header)) break;
            add(header, header + size);
        }
        if (at != end) parts = {{Bytes(begin, end), Part::PICTURE}};
        return parts;
    }

    // Those of the unit with its pictures of these numbers only, and with these parameter sets
    // unless it has them. They come behind the delimiter.
    static Bytes bytesOf(const Unit& unit, const std::vector<size_t>& pictures,
                         const std::vector<Bytes>& sets) {
        Bytes bytes;
        size_t picture = 0;
        bool hasSets = false;
        const auto append = [&](const Bytes& more) {
            bytes.insert(bytes.end(), more.begin(), more.end());
        };
        for (const Part& part : unit.parts) {
            if (!hasSets && part.kind != Part::DELIMITER) {
                for (const Bytes& set : sets) {
                    const bool isThere =
                        std::any_of(unit.parts.begin(), unit.parts.end(),
                                    [&](const Part& own) { return own.bytes == set; });
                    if (!isThere) append(set);
                }
                hasSets = true;
            }
            const bool isKept =
                !isPicture(part) || std::binary_search(pictures.begin(), pictures.end(), picture);
            if (isPicture(part)) ++picture;
            if (isKept) append(part.bytes);
        }
        return bytes;
    }

    Write writerTo(const std::string& path) const {
        if (mContainer == "ivf") {
            const auto file = std::make_shared<IvfWriter>(path, *mFile.stream());
            return [file](const Unit& unit, const Bytes& bytes) {
                if (bytes.empty()) return file->commit();
                file->write(bytes.data(), bytes.size(), unit.properties->pts);
            };
        }
        if (mContainer == "obu" || mContainer == "h264" || mContainer == "hevc") {
            const auto file = std::make_shared<OutputFile>(path);
            return [file](const Unit&, const Bytes& bytes) {
                if (bytes.empty()) return file->commit();
                file->write(bytes.data(), bytes.size());
            };
        }
        return muxerTo(path);
    }

    Write muxerTo(const std::string& path) const {
        std::string name = mContainer.substr(0, mContainer.find(','));
        if (name == "mov") name = "mp4";
        const bool isWebm = name == "matroska" && lowerCase(path).rfind(".webm") + 5 == path.size();
        const AVOutputFormat* const format =
            av_guess_format(isWebm ? "webm" : name.c_str(), nullptr, nullptr);
        if (format == nullptr) {
            throw Failure(mFile.path() + ": the container " + mContainer + " cannot be written",
                          Verdict::NotSupported);
        }
        const auto check = [path](int result) {
            if (result < 0) throw Failure(path + ": " + libavText(result));
        };
        const std::shared_ptr<AVFormatContext> file(avformat_alloc_context(), [](auto* context) {
            avio_closep(&context->pb);
            avformat_free_context(context);
        });
        if (file == nullptr) throw std::bad_alloc();
        file->oformat = format;
        file->flags |= AVFMT_FLAG_BITEXACT;
        check(avio_open(&file->pb, ("file:" + path).c_str(), AVIO_FLAG_WRITE));
        AVStream* const track = avformat_new_stream(file.get(), nullptr);
        if (track == nullptr) throw std::bad_alloc();
        const AVStream& source = mFile.track();
        check(avcodec_parameters_copy(track->codecpar, source.codecpar));
        track->time_base = source.time_base;
        track->avg_frame_rate = source.avg_frame_rate;
        track->sample_aspect_ratio = source.sample_aspect_ratio;
        check(avformat_write_header(file.get(), nullptr));
        return [file, track, check, from = source.time_base](const Unit& unit, const Bytes& bytes) {
            if (bytes.empty()) {
                check(av_write_trailer(file.get()));
                return check(avio_closep(&file->pb));
            }
            const auto packet = made(av_packet_alloc());
            if (av_new_packet(packet.get(), static_cast<int>(bytes.size())) < 0 ||
                av_packet_copy_props(packet.get(), unit.properties.get()) < 0) {
                throw std::bad_alloc();
            }
            std::memcpy(packet->data, bytes.data(), bytes.size());
            av_packet_rescale_ts(packet.get(), from, track->time_base);
            packet->stream_index = 0;
            check(av_write_frame(file.get(), packet.get()));
        };
    }

    VideoFile mFile;
    std::string mContainer;  // libavformat's name
    AVCodecID mCodec;
    Syntax mSyntax = Syntax::WHOLE;
    int mLengthBytes = 0;  // of the length before a NAL unit
    std::vector<Unit> mUnits;
    std::vector<StreamPiece> mPieces;
};

}  // namespace

std::unique_ptr<StreamCut> libavCutStream(const std::string& path) {
    return std::make_unique<StreamCutter>(path);
}

}  // namespace vxrun
