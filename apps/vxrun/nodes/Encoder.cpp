// codec/encoder: access units of the pictures that it is given, encoded by libavcodec.
#include "Producer.h"
#include "Text.h"

extern "C" {
#include <libavutil/opt.h>
}

#include <algorithm>
#include <climits>
#include <cstring>
#include <set>

namespace vxrun {
namespace {

constexpr uint64_t kMaxBitrate = INT_MAX;
constexpr uint64_t kMaxQuality = 31;
using Entry = vexa::VXNodeDescriptor::ConfigEntry;

std::string nameOf(const AVCodec& codec) {
    return std::string("the encoder ") + codec.name;
}

const AVCodec& findEncoder(const std::string& name) {
    const AVCodec* const codec = avcodec_find_encoder_by_name(name.c_str());
    if (codec == nullptr || codec->type != AVMEDIA_TYPE_VIDEO) {
        throw Failure("config 'codec': no video encoder " + quote(name), "NOT_SUPPORTED");
    }
    return *codec;
}

// An encoder for pictures of `stream`. `config` gives a node's configs.
template <typename Config>
Libav<AVCodecContext> openEncoder(const AVCodec& codec, const StreamInfo& stream, CodecLog* log,
                                  Config config) {
    LibavOptions options(config("options"));
    options.preset("b", config("bitrate"));
    options.preset("g", config("gop"));
    options.preset("preset", config("preset"));
    options.preset("threads", config("threads"));
    options.preset("threads", "1");
    // A forced key frame is one to start from, and a library of its own prints only errors.
    for (const auto& [key, value] :
         {std::pair("forced-idr", "1"), std::pair("x265-params", "log-level=error")}) {
        const AVClass* known = codec.priv_class;
        if (av_opt_find(&known, key, nullptr, 0, AV_OPT_SEARCH_FAKE_OBJ) != nullptr) {
            options.preset(key, value);
        }
    }
    auto context = made(avcodec_alloc_context3(&codec));
    context->width = stream.picture.width;
    context->height = stream.picture.height;
    context->pix_fmt = stream.picture.pixels;
    context->time_base = stream.timeBase;
    if (stream.duration > 0) {
        const Rational frames = {1, static_cast<int>(stream.duration)};
        context->framerate = av_mul_q(av_inv_q(stream.timeBase), frames);
    }
    context->sample_aspect_ratio = stream.sar;
    context->flags |= AV_CODEC_FLAG_GLOBAL_HEADER | AV_CODEC_FLAG_BITEXACT;
    log->attach(context.get());
    const int result = avcodec_open2(context.get(), &codec, options.get());
    const std::string logged = log->take();
    options.check(result, nameOf(codec) + (logged.empty() ? "" : " (" + logged + ")"));
    return context;
}

class Encoder : public Producer {
public:
    using Producer::Producer;

    // An encoder tells nobody, so one is tried with small pictures.
    static uint64_t keeps(const vexa::VXNodeDescriptor& node) {
        constexpr int kMost = 500;
        try {
            const AVCodec& codec = findEncoder(configOf(node, "codec"));
            StreamInfo stream;
            stream.picture = {codec.pix_fmts != nullptr ? codec.pix_fmts[0] : AV_PIX_FMT_YUV420P,
                              64, 64};
            stream.timeBase = {1, 25};
            stream.duration = 1;
            CodecLog log;
            const auto context = openEncoder(codec, stream, &log,
                                             [&](const char* key) { return configOf(node, key); });
            const auto packet = made(av_packet_alloc());
            for (int kept = 0; kept < kMost; ++kept) {
                const auto picture = newPicture(stream.picture.pixels, 64, 64);
                for (int i = 0; picture->buf[i] != nullptr; ++i) {
                    std::memset(picture->buf[i]->data, 0, picture->buf[i]->size);
                }
                picture->pts = kept;
                if (avcodec_send_frame(context.get(), picture.get()) < 0) break;
                if (avcodec_receive_packet(context.get(), packet.get()) == 0) {
                    return Producer::keeps(node) + static_cast<uint64_t>(kept);
                }
            }
        } catch (const Failure&) {  // the node's to tell
        }
        return Producer::keeps(node);
    }

private:
    void open() override {
        mCodec = &findEncoder(requiredConfig("codec"));
        LibavOptions(config("options"));  // what is wrong with them is told now
    }

    bool feed(const vexa::VXSharedWork& work, uint64_t number) override {
        const Frame frame(work);
        const auto picture = frame.copy();
        if (mContext == nullptr) start(frame.stream);
        if (frame.format() != mFormat) {
            throw Failure(concat("frame ", number, " is ", frame.format().text(), " after ",
                                 mFormat.text(), ": an encoder takes one size and format"));
        }
        picture->pts = static_cast<int64_t>(frame.info.timestamp);
        picture->quality = mContext->global_quality;
        for (const auto& [key, value] : configStore().tuningsAt(number)) {
            picture->quality = static_cast<int>(parseNumber(value, 1, kMaxQuality)) * FF_QP2LAMBDA;
        }
        for (const auto& [key, value] : configStore().commandsAt(number)) {
            if (key == "bitrate") {
                mContext->bit_rate = static_cast<int64_t>(parseNumber(value, 1, kMaxBitrate));
            } else {
                picture->pict_type = AV_PICTURE_TYPE_I;
                mForced.insert(picture->pts);
            }
        }
        check(avcodec_send_frame(mContext.get(), picture.get()));
        // Encoders do not say how many pictures they keep, so it is counted.
        mDelay = std::max(mDelay, number + 1 - mUnits);
        setTotalDelay(mDelay);
        return true;
    }

    void feedEnd() override { check(avcodec_send_frame(mContext.get(), nullptr)); }

    bool next() override {
        if (mContext == nullptr) return false;
        auto packet = made(av_packet_alloc());
        const int result = avcodec_receive_packet(mContext.get(), packet.get());
        if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) return false;
        check(result);
        if (packet->size == 0) return next();  // only tells something of the stream
        ++mUnits;
        if (mForced.erase(packet->pts) != 0 && (packet->flags & AV_PKT_FLAG_KEY) == 0) {
            failCheck(vexa::INFO_VALIDATION_FAIL,
                      concat(nameOf(*mCodec), " made no key frame of the picture with timestamp ",
                             packet->pts));
        }
        giveUnit(std::move(packet), mStream);
        return true;
    }

    void start(const StreamInfo& stream) {
        mFormat = stream.picture;
        mContext =
            openEncoder(*mCodec, stream, &mLog, [this](const char* key) { return config(key); });
        for (const Entry& entry : entries()) {
            if (heeds(entry)) continue;
            throw Failure("entry '" + entry.key + "': " + nameOf(*mCodec) +
                              ", as it is set up, does not heed it",
                          "NOT_SUPPORTED");
        }
        if (avcodec_parameters_from_context(mStream->parameters.get(), mContext.get()) < 0) {
            throw std::bad_alloc();
        }
        static_cast<StreamInfo&>(*mStream) = stream;
        mStream->codec = avcodec_get_name(mCodec->id);
        mStream->picture.pixels = AV_PIX_FMT_NONE;
        mStream->timeBase = mContext->time_base;
        mStream->frameRate = mContext->framerate;
    }

    // Most encoders would ignore these entries in mid-stream without a word.
    bool heeds(const Entry& entry) const {
        const std::string name = std::string(" ") + mCodec->name + " ";
        if (entry.key == "quality") {
            return (mContext->flags & AV_CODEC_FLAG_QSCALE) != 0 &&
                   std::strstr(" mpeg1video mpeg2video mpeg4 mjpeg ", name.c_str()) != nullptr;
        }
        if (entry.key != "bitrate") return true;
        const int64_t limit = mContext->rc_buffer_size > 0 ? mContext->rc_max_rate : 0;
        return name == " libx264 " && mContext->bit_rate > 0 &&
               parseNumber(entry.value, 1, kMaxBitrate) <= static_cast<uint64_t>(limit);
    }

    void check(int result) {
        if (result < 0) throw Failure(nameOf(*mCodec) + ": " + mLog.take(libavText(result)));
    }

    CodecLog mLog;
    const AVCodec* mCodec = nullptr;
    // [event thread]
    Libav<AVCodecContext> mContext;  // from the first picture on
    PictureFormat mFormat;           // of all pictures
    const std::shared_ptr<BitstreamInfo> mStream = std::make_shared<BitstreamInfo>();
    std::set<int64_t> mForced;  // timestamps of pictures that are to become key frames
    uint64_t mUnits = 0;        // that came out
    uint64_t mDelay = 1;        // the most pictures that were in it at once
};

const bool kAdded = addNodeType<Encoder>(
    "codec/encoder", "encodes pictures with libavcodec", 1, 1,
    {{"codec", kText, "the encoder to use, such as libx264"},
     {"bitrate", number(1, kMaxBitrate, 0), "bits per second, default is the encoder's"},
     {"gop", number(0, INT_MAX, 0), "pictures from key frame to key frame, default the encoder's"},
     {"preset", kText, "of the encoder, where it has such"},
     {"threads", number(1, 64, 1), "default 1"},
     {"options", kText, "of the encoder: key=value:key=value"}},
    {{Entry::COMMAND, "force_key_frame", 1, 1, "command, 1: the picture becomes a key frame"},
     {Entry::COMMAND, "bitrate", 1, kMaxBitrate, "command: bits per second from here on"},
     {Entry::TUNING, "quality", 1, kMaxQuality, "tuning: the picture's quantizer"}});

}  // namespace
}  // namespace vxrun
