// sink/file: the visible bytes of every frame, one after another, or in a container.
#include "AppNode.h"
#include "Failure.h"
#include "Files.h"
#include "Libav.h"
#include "Y4mReader.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <optional>

namespace vxrun {
namespace {

// Muxer: a file in a container that libavformat writes.
class Muxer {
public:
    Muxer(const AVOutputFormat& format, OutputFile* file)
        : mContext(avformat_alloc_context()), mFile(*file) {
        constexpr int kBuffer = 1 << 16;
        auto* const buffer = static_cast<uint8_t*>(av_malloc(kBuffer));
        if (mContext == nullptr || buffer == nullptr) throw std::bad_alloc();
        mContext->oformat = &format;
        mContext->flags |= AVFMT_FLAG_BITEXACT;
        mContext->pb = avio_alloc_context(buffer, kBuffer, 1, this, nullptr, write, seek);
        if (mContext->pb == nullptr) throw std::bad_alloc();
    }
    ~Muxer() {
        av_freep(&mContext->pb->buffer);
        avio_context_free(&mContext->pb);
        avformat_free_context(mContext);
    }
    Muxer(const Muxer&) = delete;
    Muxer& operator=(const Muxer&) = delete;

    void add(const Payload& payload, const vexa::VXFrameInfo& frame) {
        const BitstreamInfo* stream = nullptr;
        const auto packet = unitOf(payload, frame, &stream);
        if (mContext->nb_streams == 0) begin(*stream, packet.get());
        av_packet_rescale_ts(packet.get(), rational(stream->timeBase),
                             mContext->streams[0]->time_base);
        packet->stream_index = 0;
        check(av_write_frame(mContext, packet.get()));
    }

    void finish() {
        check(av_write_trailer(mContext));
        avio_flush(mContext->pb);
        check(mContext->pb->error);
    }

private:
    void begin(const BitstreamInfo& stream, AVPacket* first) {
        AVStream* const track = avformat_new_stream(mContext, nullptr);
        if (track == nullptr) throw std::bad_alloc();
        check(avcodec_parameters_copy(track->codecpar, stream.parameters.get()));
        track->codecpar->codec_tag = 0;  // another container's
        track->time_base = rational(stream.timeBase);
        track->avg_frame_rate = stream.frameRate;
        track->sample_aspect_ratio = rational(stream.sar);
        check(avformat_write_header(mContext, nullptr), " does not take " + stream.codec);
        // Where a container has no place for headers they stand in the stream. An encoder gives them
        // apart.
        if ((mContext->oformat->flags & AVFMT_GLOBALHEADER) != 0) return;
        const uint8_t* const headers = track->codecpar->extradata;
        const int size = track->codecpar->extradata_size, bytes = first->size;
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
                      (mError.empty() ? libavText(result) : mError));
    }

    // No exception passes through the libraries.
    template <typename Action>
    int guarded(int result, Action action) {
        try {
            action();
            return result;
        } catch (const Failure& failure) {
            mError = failure.what();
            return AVERROR(EIO);
        }
    }
    static int write(void* muxer, uint8_t* data, int size) {
        auto& self = *static_cast<Muxer*>(muxer);
        return self.guarded(size, [&] { self.mFile.write(data, static_cast<size_t>(size)); });
    }
    static int64_t seek(void* muxer, int64_t offset, int whence) {
        if (whence != SEEK_SET) return AVERROR(ENOSYS);
        auto& self = *static_cast<Muxer*>(muxer);
        const int result = self.guarded(0, [&] { self.mFile.seek(static_cast<uint64_t>(offset)); });
        return result < 0 ? result : offset;
    }

    AVFormatContext* mContext;
    OutputFile& mFile;
    std::string mError;  // of the file
};

class FileSink final : public Sink {
public:
    explicit FileSink(NodeArguments arguments) : Sink(std::move(arguments)) {}
    ~FileSink() override { teardown(); }

private:
    void open() override {
        const std::string path = requiredConfig("file");
        mContainer = config("container");
        const std::string extension = std::filesystem::path(path).extension();
        const bool known = std::strstr(" .y4m .ivf .264 .h264 .265 .hevc .obu .mp4 .mkv ",
                                       (" " + extension + " ").c_str()) != nullptr;
        if (mContainer.empty()) mContainer = known ? extension.substr(1) : "raw";
        const AVOutputFormat* format = nullptr;
        if (mContainer != "raw" && mContainer != "y4m") {
            // The name of a muxer, or else an extension that it has.
            format = av_guess_format(mContainer.c_str(), ("x." + mContainer).c_str(), nullptr);
            if (format == nullptr || (format->flags & AVFMT_NOFILE) != 0) {
                throw Failure(
                    "config 'container': expected raw, y4m or one that libavformat writes, got " +
                    quote(mContainer));
            }
        }
        CodecLog::takeOver();
        mFile.emplace(path);
        if (format != nullptr) mMuxer.emplace(*format, &*mFile);
    }

    void consume(const Payload& payload, const StreamInfo& stream,
                 const vexa::VXFrameInfo& frame) override {
        if (mContainer != "raw" && mFormat && *mFormat != stream.picture) {
            throw Failure("a frame of " + stream.picture.text() + " after " + mFormat->text() +
                          ": the container " + mContainer + " takes one size and format");
        }
        if (mMuxer) {
            mMuxer->add(payload, frame);
        } else {
            if (mContainer == "y4m") {
                if (!mFormat) mFile->write(y4mHeader(stream));
                mFile->write("FRAME\n");
            }
            payload.forEachRow(
                [this](const uint8_t* row, size_t bytes) { mFile->write(row, bytes); });
        }
        mFormat = stream.picture;
    }

    void finish() override {
        if (mMuxer) mMuxer->finish();
        mFile->commit();
    }

    std::string mContainer;
    std::optional<OutputFile> mFile;
    std::optional<Muxer> mMuxer;           // for all but raw and y4m
    std::optional<PictureFormat> mFormat;  // of the last frame
};

}  // namespace

extern const NodeType kFileSink = {
    "sink/file",
    "writes every frame; the file appears when it is complete",
    1,
    0,
    {{"file", true, "the file to write"},
     {"container", false,
      "raw, y4m, ivf, h264, hevc, obu, mp4, matroska, ...; default by the "
      "file's extension, else raw"}},
    makeNode<FileSink>};

}  // namespace vxrun
