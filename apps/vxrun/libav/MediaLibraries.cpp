// What the other rooms ask of FFmpeg's libraries.
#include "MediaLibraries.h"

#include "StreamCutter.h"
#include "StreamMapper.h"
#include "Text.h"
#include "VideoFile.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace vxrun {
namespace {

class LibavMuxer final : public Muxer {
public:
    explicit LibavMuxer(const AVOutputFormat& format) : mContext(made(avformat_alloc_context())) {
        mContext->oformat = &format;
        mContext->flags |= AVFMT_FLAG_BITEXACT;
    }

    void open(const std::string& path) override {
        check(avio_open(&mContext->pb, ("file:" + path).c_str(), AVIO_FLAG_WRITE));
    }

    void writeUnit(const Frame& frame) override {
        const AccessUnit unit(frame);
        const auto packet = packetOf(unit);
        if (mContext->nb_streams == 0) begin(unit.stream, packet.get());
        av_packet_rescale_ts(packet.get(), asLibav(unit.stream.timeBase),
                             mContext->streams[0]->time_base);
        packet->stream_index = 0;
        check(av_write_frame(mContext.get(), packet.get()));
    }

    void finish() override {
        check(av_write_trailer(mContext.get()));
        check(avio_closep(&mContext->pb));
    }

private:
    void begin(const BitstreamInfo& stream, AVPacket* first) {
        AVStream* const track = avformat_new_stream(mContext.get(), nullptr);
        if (track == nullptr) throw std::bad_alloc();
        check(avcodec_parameters_copy(track->codecpar, parametersOf(stream).get()));
        track->codecpar->codec_tag = 0;  // another container's
        track->time_base = asLibav(stream.timeBase);
        track->avg_frame_rate = asLibav(stream.frameRate);
        track->sample_aspect_ratio = asLibav(stream.sar);
        check(avformat_write_header(mContext.get(), nullptr), " does not accept " + stream.codec);
        addHeaders(*track->codecpar, first);
    }

    // Where a container has no place for headers they are part of the stream. Encoders deliver them
    // separately.
    void addHeaders(const AVCodecParameters& parameters, AVPacket* first) const {
        if ((mContext->oformat->flags & AVFMT_GLOBALHEADER) != 0) return;
        const uint8_t* const headers = parameters.extradata;
        const int size = parameters.extradata_size, bytes = first->size;
        const bool startCode = size > 4 && headers[0] == 0 && headers[1] == 0 &&
                               (headers[2] == 1 || (headers[2] == 0 && headers[3] == 1));
        const uint8_t* const end = first->data + bytes;
        if (!startCode ||
            std::search<const uint8_t*>(first->data, end, headers, headers + size) != end) {
            return;
        }
        if (av_grow_packet(first, size) < 0) throw std::bad_alloc();
        std::memmove(first->data + size, first->data, static_cast<size_t>(bytes));
        std::memcpy(first->data, headers, static_cast<size_t>(size));
    }

    void check(int result, const std::string& what = "") const {
        if (result >= 0) return;
        throw Failure(std::string("the container ") + mContext->oformat->name + what + ": " +
                      libavText(result));
    }

    const Libav<AVFormatContext> mContext;
};

std::string versions() {
    const auto text = [](const char* name, unsigned version) {
        return concat(name, " ", AV_VERSION_MAJOR(version), ".", AV_VERSION_MINOR(version), ".",
                      AV_VERSION_MICRO(version));
    };
    return joined(
        std::vector{text("libavcodec", avcodec_version()), text("libavformat", avformat_version()),
                    text("libavutil", avutil_version()), text("libswscale", swscale_version())});
}

std::unique_ptr<VideoProbe> probe(const std::string& path) {
    return std::make_unique<VideoFile>(path, "");
}

std::unique_ptr<Muxer> muxerFor(const std::string& container) {
    CodecLog::takeOver();
    // The name of a muxer, or else an extension that it has.
    const AVOutputFormat* const format =
        av_guess_format(container.c_str(), ("x." + container).c_str(), nullptr);
    if (format == nullptr || (format->flags & AVFMT_NOFILE) != 0) {
        throw Failure("config 'container': expected raw, y4m or one that libavformat writes, got " +
                      quote(container));
    }
    return std::make_unique<LibavMuxer>(*format);
}

const MediaLibraries kLibraries = {versions,       probe,          muxerFor,
                                   libavMapStream, libavHeadersOf, libavCutStream};
const bool kRegistered = registerMediaLibraries(kLibraries);

}  // namespace
}  // namespace vxrun
