#include "StreamMapper.h"

#include "HeaderTrace.h"
#include "PictureTracker.h"
#include "Text.h"
#include "VideoFile.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <map>
#include <optional>
#include <thread>

namespace vxrun {
namespace {

// Finds access units in the file that they come from: demuxers state where a packet's block begins,
// or nothing.
class UnitFinder {
public:
    explicit UnitFinder(const std::string& path) : mFile(std::fopen(path.c_str(), "rb")) {}
    ~UnitFinder() {
        if (mFile != nullptr) std::fclose(mFile);
    }
    UnitFinder(const UnitFinder&) = delete;
    UnitFinder& operator=(const UnitFinder&) = delete;

    uint64_t find(const AVPacket& unit) {
        for (const int64_t start : {unit.pos, mNext}) {
            if (start < 0) continue;
            const auto found = findBehind(static_cast<uint64_t>(start), unit);
            if (!found) continue;
            mNext = static_cast<int64_t>(*found) + unit.size;
            return *found;
        }
        return StreamUnit::kNoOffset;
    }

private:
    // The headers of blocks are shorter than this.
    static constexpr size_t kHeader = 64;

    std::optional<uint64_t> findBehind(uint64_t start, const AVPacket& unit) {
        const auto size = static_cast<size_t>(unit.size);
        mBytes.resize(size + kHeader);
        if (mFile == nullptr || std::fseek(mFile, static_cast<long>(start), SEEK_SET) != 0)
            return {};
        mBytes.resize(std::fread(mBytes.data(), 1, mBytes.size(), mFile));
        const auto found = std::search(mBytes.begin(), mBytes.end(), unit.data, unit.data + size);
        if (found == mBytes.end()) return {};
        return start + static_cast<uint64_t>(found - mBytes.begin());
    }

    std::FILE* const mFile;
    std::vector<uint8_t> mBytes;
    int64_t mNext = 0;  // where the last unit ends
};

// Decodes, to learn in which order pictures come out.
class OutputOrder {
public:
    // Does nothing for a codec that libavcodec does not decode.
    explicit OutputOrder(const LibavStreamInfo& stream) {
        const AVCodec* const codec = avcodec_find_decoder(stream.parameters->codec_id);
        if (codec == nullptr) return;
        mContext = made(avcodec_alloc_context3(codec));
        if (avcodec_parameters_to_context(mContext.get(), stream.parameters.get()) < 0) {
            throw std::bad_alloc();
        }
        mContext->pkt_timebase = asLibav(stream.timeBase);
        mContext->thread_count =
            static_cast<int>(std::max(std::thread::hardware_concurrency(), 1U));
        // Of the samples nothing is used.
        mContext->skip_loop_filter = AVDISCARD_ALL;
        mLog.attach(mContext.get());
        if (avcodec_open2(mContext.get(), codec, nullptr) < 0) mContext = nullptr;
    }

    // Null: the end.
    void add(size_t number, const AVPacket* unit) {
        if (mContext == nullptr) return;
        Libav<AVPacket> packet;
        if (unit != nullptr) {
            packet = made(av_packet_clone(unit));
            packet->pos = static_cast<int64_t>(number);  // which its picture carries, too
            mLast = packet->pos;
        }
        avcodec_send_packet(mContext.get(), packet.get());
        const auto picture = made(av_frame_alloc());
        // A decoder that returns nothing but errors ends, too.
        for (int errors = 0; errors < kMostErrors;) {
            const int result = avcodec_receive_frame(mContext.get(), picture.get());
            if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) return;
            errors += result < 0;
            if (result == 0) note(*picture);
        }
    }

    // For each frame the access unit that it comes out for, and the type of its picture.
    const std::vector<std::pair<size_t, char>>& frames() const { return mFrames; }

private:
    static constexpr int kMostErrors = 1000;

    void note(const AVFrame& picture) {
        const char type = av_get_picture_type_char(picture.pict_type);
        const int64_t unit = std::clamp<int64_t>(picture.pkt_pos, 0, mLast);
        mFrames.emplace_back(static_cast<size_t>(unit), type == '?' ? '\0' : type);
    }

    CodecLog mLog;
    Libav<AVCodecContext> mContext;  // null: it does not decode
    int64_t mLast = 0;               // unit that was decoded
    std::vector<std::pair<size_t, char>> mFrames;
};

int64_t timeOf(int64_t time) {
    return time == AV_NOPTS_VALUE ? UnitInfo::kNoTime : time;
}

// The last picture of the access units up to `unit`.
size_t lastPictureUntil(const std::vector<CodedPicture>& pictures, size_t unit) {
    const auto isBehind = [](size_t number, const CodedPicture& picture) {
        return number < picture.unit;
    };
    const auto behind = std::upper_bound(pictures.begin(), pictures.end(), unit, isBehind);
    return static_cast<size_t>(behind - pictures.begin()) - 1;
}

bool isParameterSet(const TracedHeader& header) {
    return header.name.find("Parameter Set") != std::string::npos ||
           header.name == "Sequence Header";
}

}  // namespace

StreamMap libavMapStream(const std::string& path) {
    VideoFile file(path, "");
    const LibavStreamInfo& stream = *file.stream();
    StreamMap map;
    map.codec = stream.codec;
    map.timeBase = stream.timeBase;
    UnitFinder finder(path);
    OutputOrder order(stream);
    HeaderTrace trace(stream);
    const auto tracker = PictureTracker::make(map.codec);
    tracker->readOutOfBand(trace.outOfBand());
    const auto unit = made(av_packet_alloc());
    while (file.next(unit.get())) {
        StreamUnit& added = map.units.emplace_back();
        added.offset = finder.find(*unit);
        added.bytes = static_cast<uint64_t>(unit->size);
        added.pts = timeOf(unit->pts);
        added.dts = timeOf(unit->dts);
        added.isKey = (unit->flags & AV_PKT_FLAG_KEY) != 0;
        tracker->readUnit(map.units.size() - 1, trace.read(*unit));
        order.add(map.units.size() - 1, unit.get());
    }
    order.add(0, nullptr);
    map.pictures = std::move(tracker->pictures());
    // What an access unit shows comes out in the order in which it is shown. Of layers that are
    // shown together only the last ones do.
    std::vector<size_t> count(map.units.size()), taken(map.units.size());
    for (const auto& frame : order.frames()) ++count[frame.first];
    for (const auto& [number, type] : order.frames()) {
        const auto& shown = tracker->shown()[number];
        const size_t first = shown.size() - std::min(shown.size(), count[number]);
        const size_t at = first + taken[number]++;
        // A decoder that shows more than the headers do conceals something.
        const size_t picture =
            at < shown.size() ? shown[at] : lastPictureUntil(map.pictures, number);
        if (picture >= map.pictures.size()) continue;
        map.frames.push_back(picture);
        if (map.pictures[picture].type == 0) map.pictures[picture].type = type;
    }
    return map;
}

std::string libavHeadersOf(const std::string& path, const std::vector<size_t>& units) {
    VideoFile file(path, "");
    HeaderTrace trace(*file.stream());
    UnitFinder finder(path);
    std::map<std::string, TracedHeader> parameters;  // the last of each name, before a unit
    for (const TracedHeader& header : trace.outOfBand()) {
        if (isParameterSet(header)) parameters[header.name] = header;
    }
    std::string text;
    const size_t last = units.empty() ? 0 : *std::max_element(units.begin(), units.end());
    const auto unit = made(av_packet_alloc());
    for (size_t number = 0; number <= last && file.next(unit.get()); ++number) {
        const auto headers = trace.read(*unit);
        const bool isAsked = std::find(units.begin(), units.end(), number) != units.end();
        if (isAsked) {
            for (const auto& [name, header] : parameters) {
                text += name + ", from before access unit " + std::to_string(number) + "\n" +
                        header.text();
            }
            parameters.clear();  // they are shown once
            const uint64_t offset = finder.find(*unit);
            text +=
                concat("access unit ", number, ": ", unit->size, " bytes",
                       offset != StreamUnit::kNoOffset ? concat(" at byte ", offset) : "", "\n");
            if (headers.empty()) text += "  no header that libavcodec's trace_headers shows\n";
        }
        for (const TracedHeader& header : headers) {
            if (isAsked) {
                text += " " + header.name + "\n" + header.text();
            } else if (isParameterSet(header)) {
                parameters[header.name] = header;
            }
        }
    }
    return text;
}

}  // namespace vxrun
