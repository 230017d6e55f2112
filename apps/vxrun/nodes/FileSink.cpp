// sink/file: the visible bytes of every frame, one after another, or in a container.
#include "Files.h"
#include "Keys.h"
#include "LibavFrames.h"
#include "Text.h"
#include "Y4m.h"

#include <vxkit/Sink.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <optional>

namespace vxrun {
namespace {

const TextKey kContainer{
    "container",
    "raw, y4m, ivf, h264, hevc, obu, mp4, matroska, ...; default by the file's "
    "extension, else raw"};

// Muxer: a file in a container that libavformat writes.
class Muxer {
public:
    Muxer(const AVOutputFormat& format, const std::string& path)
        : mContext(made(avformat_alloc_context())) {
        mContext->oformat = &format;
        mContext->flags |= AVFMT_FLAG_BITEXACT;
        check(avio_open(&mContext->pb, ("file:" + path).c_str(), AVIO_FLAG_WRITE));
    }

    void writeUnit(const Frame& frame) {
        const AccessUnit unit(frame);
        const auto packet = packetOf(unit);
        if (mContext->nb_streams == 0) begin(unit.stream, packet.get());
        av_packet_rescale_ts(packet.get(), asLibav(unit.stream.timeBase),
                             mContext->streams[0]->time_base);
        packet->stream_index = 0;
        check(av_write_frame(mContext.get(), packet.get()));
    }

    void finish() {
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

class FileSink : public Sink {
public:
    using Sink::Sink;

private:
    void open() override {
        CodecLog::takeOver();
        const std::string path = requiredConfig(kFile);
        mContainer = config(kContainer);
        const std::string extension = std::filesystem::path(path).extension();
        const bool known = std::strstr(" .y4m .ivf .264 .h264 .265 .hevc .obu .mp4 .mkv ",
                                       (" " + extension + " ").c_str()) != nullptr;
        if (mContainer.empty()) mContainer = known ? extension.substr(1) : "raw";
        if (mContainer == "raw" || mContainer == "y4m") return;
        // The name of a muxer, or else an extension that it has.
        mFormat = av_guess_format(mContainer.c_str(), ("x." + mContainer).c_str(), nullptr);
        if (mFormat == nullptr || (mFormat->flags & AVFMT_NOFILE) != 0) {
            throw Failure(
                "config 'container': expected raw, y4m or one that libavformat writes, got " +
                quote(mContainer));
        }
    }

    void begin() override {
        mFile.emplace(config(kFile));
        if (mFormat != nullptr) mMuxer.emplace(*mFormat, mFile->alias());
    }

    void consume(const Frame& frame) override {
        const PictureFormat& format = frame.stream.picture;
        if (mContainer != "raw" && mPicture && *mPicture != format) {
            throw Failure("a frame of " + format.description() + " after " +
                          mPicture->description() + ": the container " + mContainer +
                          " accepts one size and format");
        }
        if (mMuxer) {
            mMuxer->writeUnit(frame);
        } else {
            if (mContainer == "y4m") {
                mFile->write((mPicture ? "" : y4mHeader(frame.stream)) + "FRAME\n");
            }
            frame.forEachRow(
                [this](const uint8_t* row, size_t bytes) { mFile->write(row, bytes); });
        }
        mPicture = format;
    }

    void finish() override {
        if (mMuxer) mMuxer->finish();
        mFile->commit();
    }

    std::string mContainer;
    const AVOutputFormat* mFormat = nullptr;  // of mMuxer
    std::optional<OutputFile> mFile;          // that mMuxer, where there is one, writes to
    std::optional<Muxer> mMuxer;              // for all but raw and y4m
    std::optional<PictureFormat> mPicture;    // of the last frame
};

const Registered<FileSink> kType("sink/file",
                                 "writes every frame; the file appears when it is complete", 1, 0,
                                 {&kFile, &kContainer});

}  // namespace
}  // namespace vxrun
