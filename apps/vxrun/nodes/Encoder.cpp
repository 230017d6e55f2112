// codec/encoder: access units of the pictures that it is given, encoded by libavcodec.
#include "CodecNode.h"
#include "Failure.h"

extern "C" {
#include <libavutil/opt.h>
#include <libavutil/pixdesc.h>
}

#include <algorithm>
#include <climits>
#include <cstring>

namespace vxrun {
namespace {

constexpr uint64_t kMaxBitrate = INT_MAX;
constexpr uint64_t kMaxQuality = 31;

// Entries that only some encoders heed in mid-stream; the others would ignore them without a word.
const struct {
    const char* key;
    std::vector<std::string> encoders;
} kRare[] = {{"bitrate", {"libx264", "libx264rgb"}},
             {"quality", {"mpeg1video", "mpeg2video", "mpeg4", "mjpeg"}}};

class Encoder final : public CodecNode {
public:
    explicit Encoder(NodeArguments arguments) : CodecNode(std::move(arguments)) {}
    ~Encoder() override { teardown(); }

private:
    void open() override {
        const std::string name = requiredConfig("codec");
        mCodec = avcodec_find_encoder_by_name(name.c_str());
        if (mCodec == nullptr || mCodec->type != AVMEDIA_TYPE_VIDEO) {
            throw Failure("config 'codec': no video encoder " + quote(name), "NOT_SUPPORTED");
        }
        // What is wrong with the others is told now.
        constexpr uint64_t kMaxThreads = 64;
        numberConfig("bitrate", 1, kMaxBitrate, 1);
        numberConfig("gop", 0, INT_MAX, 0);
        numberConfig("threads", 1, kMaxThreads, 1);
        slots();
        LibavOptions(config("options"));
        for (const auto& entry : entries()) {
            for (const auto& [key, encoders] : kRare) {
                if (entry.key == key &&
                    std::find(encoders.begin(), encoders.end(), name) == encoders.end()) {
                    throw Failure("entry '" + entry.key + "': " + name + " does not heed it",
                                  "NOT_SUPPORTED");
                }
            }
        }
    }

    bool feed(const vexa::VXSharedWork& work, uint64_t number) override {
        const StreamInfo* stream = nullptr;
        const auto picture = pictureOf(work, &stream);
        if (mContext == nullptr) openCodec(*stream);
        if (stream->picture != mStream->picture) {
            throw Failure("frame " + std::to_string(number) + " is " + stream->picture.text() +
                          " after " + mStream->picture.text() +
                          ": an encoder takes one size and "
                          "format");
        }
        picture->pts = static_cast<int64_t>(work.frameInfo().timestamp);
        picture->quality = mContext->global_quality;
        for (const auto& [key, value] : configStore().tuningsAt(number)) {
            picture->quality = static_cast<int>(parseNumber(value, 1, kMaxQuality)) * FF_QP2LAMBDA;
        }
        for (const auto& [key, value] : configStore().commandsAt(number)) {
            if (key == "bitrate") {
                mContext->bit_rate = static_cast<int64_t>(parseNumber(value, 1, kMaxBitrate));
            } else {
                picture->pict_type = AV_PICTURE_TYPE_I;
            }
        }
        check(avcodec_send_frame(mContext.get(), picture.get()));
        // Encoders do not say how many pictures they keep, so it is counted.
        mDelay = std::max(mDelay, number + 1 - mUnits);
        setTotalDelay(mDelay);
        return true;
    }

    void feedEnd() override { check(avcodec_send_frame(mContext.get(), nullptr)); }

    Progress receive() override {
        if (mContext == nullptr) return Progress::NEEDS_INPUT;
        const std::shared_ptr<AVPacket> packet = made(av_packet_alloc());
        const int result = avcodec_receive_packet(mContext.get(), packet.get());
        if (result == AVERROR(EAGAIN)) return Progress::NEEDS_INPUT;
        if (result == AVERROR_EOF) return Progress::DRAINED;
        check(result);
        if (packet->size == 0) return receive();  // only tells something of the stream
        ++mUnits;
        const size_t size = static_cast<size_t>(packet->size);
        if (mPool == nullptr || size > mBlock) {
            while (mBlock < size) mBlock *= 2;
            mPool =
                Pool::ofBlocks(allocatorType(), mBlock, slots(), newPoolRecord(), scheduleSelf());
        }
        const auto unit = std::make_shared<UnitInfo>();
        if (av_packet_copy_props(unit->properties.get(), packet.get()) < 0) throw std::bad_alloc();
        vexa::VXFrameInfo frame;
        frame.timestamp = static_cast<uint64_t>(std::max<int64_t>(packet->pts, 0));
        frame.mInfos = {mStream, unit};
        give(mPool, std::move(frame), [packet, size](vexa::VXBuffer* buffer) {
            std::memcpy(Payload(*buffer, {}).planes().front().data, packet->data, size);
            buffer->setFilledRange(0, size);
        });
        return Progress::GAVE;
    }

    void openCodec(const StreamInfo& stream) {
        const std::string name = std::string("the encoder ") + mCodec->name;
        LibavOptions options(config("options"));
        options.preset("b", config("bitrate"));
        options.preset("g", config("gop"));
        options.preset("preset", config("preset"));
        options.preset("threads", std::to_string(numberConfig("threads", 1, INT_MAX, 1)));
        // A forced key frame is one to start from, and a library of its own prints only errors.
        for (const auto& [key, value] :
             {std::pair("forced-idr", "1"), std::pair("x265-params", "log-level=error")}) {
            const AVClass* known = mCodec->priv_class;
            if (av_opt_find(&known, key, nullptr, 0, AV_OPT_SEARCH_FAKE_OBJ) != nullptr) {
                options.preset(key, value);
            }
        }
        mContext = made(avcodec_alloc_context3(mCodec));
        mContext->width = static_cast<int>(stream.picture.width);
        mContext->height = static_cast<int>(stream.picture.height);
        mContext->pix_fmt = pixelFormat(stream.picture.pixels);
        mContext->time_base = rational(stream.timeBase);
        if (stream.duration > 0) {
            mStream->frameRate = av_inv_q(mContext->time_base);
            mStream->frameRate.den *= static_cast<int>(stream.duration);
        }
        mContext->framerate = mStream->frameRate;
        mContext->sample_aspect_ratio = rational(stream.sar);
        mContext->flags |= AV_CODEC_FLAG_GLOBAL_HEADER | AV_CODEC_FLAG_BITEXACT;
        mLog.attach(mContext.get());
        const int result = avcodec_open2(mContext.get(), mCodec, options.get());
        const std::string logged = mLog.take();
        options.check(result, logged.empty() ? name : name + " (" + logged + ")");
        for (const auto& entry : entries()) {
            if (entry.key == "quality" && (mContext->flags & AV_CODEC_FLAG_QSCALE) == 0) {
                throw Failure(
                    "tuning 'quality': needs the config 'options' with flags=+qscale and "
                    "global_quality");
            }
        }
        describe(stream);
    }

    AVPixelFormat pixelFormat(const std::string& name) const {
        const AVPixelFormat wanted = av_get_pix_fmt(name.c_str());
        std::string known;
        for (const auto* format = mCodec->pix_fmts; format != nullptr && *format >= 0; ++format) {
            if (*format == wanted) return wanted;
            known += std::string(" ") + av_get_pix_fmt_name(*format);
        }
        if (mCodec->pix_fmts == nullptr) return wanted;
        throw Failure(std::string("the encoder ") + mCodec->name + " does not take " + name +
                          " without a transform/convert, but:" + known,
                      "NOT_SUPPORTED");
    }

    void describe(const StreamInfo& stream) {
        if (avcodec_parameters_from_context(mStream->parameters.get(), mContext.get()) < 0) {
            throw std::bad_alloc();
        }
        mStream->media = stream.media;
        mStream->codec = avcodec_get_name(mCodec->id);
        mStream->picture = stream.picture;
        mStream->timeBase = rational(mContext->time_base);
        mStream->sar = stream.sar;
        mStream->duration = stream.duration;
    }

    void check(int result) {
        if (result >= 0) return;
        const std::string logged = mLog.take();
        throw Failure(std::string("the encoder ") + mCodec->name + ": " +
                      (logged.empty() ? libavText(result) : logged));
    }

    CodecLog mLog;
    const AVCodec* mCodec = nullptr;
    // [event thread]
    Libav<AVCodecContext> mContext;  // from the first picture on
    const std::shared_ptr<BitstreamInfo> mStream = std::make_shared<BitstreamInfo>();
    std::shared_ptr<Pool> mPool;
    size_t mBlock = 1 << 16;  // bytes of the pool's blocks
    uint64_t mUnits = 0;      // that came out
    uint64_t mDelay = 1;      // the most pictures that were in it at once
};

using Entry = vexa::VXNodeDescriptor::ConfigEntry;

}  // namespace

extern const NodeType kEncoder = {
    "codec/encoder",
    "encodes pictures with libavcodec",
    1,
    1,
    {{"codec", false, "the encoder to use, such as libx264"},
     {"bitrate", false, "bits per second, default is the encoder's"},
     {"gop", false, "pictures from key frame to key frame, default is the encoder's"},
     {"preset", false, "of the encoder, where it has such"},
     {"threads", false, "default 1"},
     {"options", false, "of the encoder: key=value:key=value"},
     {"slots", false, "buffers of the node's pool, default 8"}},
    makeNode<Encoder>,
    {{Entry::COMMAND, "force_key_frame", 1, 1, "command, 1: the picture becomes a key frame"},
     {Entry::COMMAND, "bitrate", 1, kMaxBitrate, "command: bits per second from here on"},
     {Entry::TUNING, "quality", 1, kMaxQuality, "tuning: the picture's quantizer"}}};

}  // namespace vxrun
