// codec/encoder: access units of pictures, encoded by libavcodec.
#include "Keys.h"
#include "LibavFrames.h"
#include "Text.h"

#include <vxkit/Encoder.h>

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

const TextKey kCodec{"codec", "the encoder to use, such as libx264"};
const NumberKey kBitrate{"bitrate", 1, kMaxBitrate, 0, "bits per second, default the encoder's"};
const NumberKey kGop{"gop", 0, INT_MAX, 0,
                     "pictures from one key frame to the next, default the encoder's"};
const TextKey kPreset{"preset", "the encoder's preset, if it has presets"};

std::string nameOf(const AVCodec& codec) {
    return std::string("the encoder ") + codec.name;
}

const AVCodec& findEncoder(const std::string& name) {
    const AVCodec* const codec = avcodec_find_encoder_by_name(name.c_str());
    if (codec == nullptr || codec->type != AVMEDIA_TYPE_VIDEO) {
        throw Failure("config 'codec': no video encoder " + quote(name), Verdict::NotSupported);
    }
    return *codec;
}

// An encoder for pictures of `stream`. `textOf` gives the configs of its node.
template <typename TextOf>
Libav<AVCodecContext> openEncoder(const AVCodec& codec, const StreamInfo& stream, CodecLog* log,
                                  TextOf textOf) {
    LibavOptions options(textOf(kOptions));
    options.preset("b", textOf(kBitrate));
    options.preset("g", textOf(kGop));
    options.preset("preset", textOf(kPreset));
    options.preset("threads", textOf(kThreads));
    options.preset("threads", "1");
    // A forced key frame is one to start decoding from, and a library with its own log prints
    // errors only.
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
    context->pix_fmt = pixelsOf(stream.picture);
    context->time_base = asLibav(stream.timeBase);
    if (stream.duration > 0) {
        const AVRational frames = {1, static_cast<int>(stream.duration)};
        context->framerate = av_mul_q(av_inv_q(context->time_base), frames);
    }
    context->sample_aspect_ratio = asLibav(stream.sar);
    context->flags |= AV_CODEC_FLAG_GLOBAL_HEADER | AV_CODEC_FLAG_BITEXACT;
    log->attach(context.get());
    const int result = avcodec_open2(context.get(), &codec, options.get());
    const std::string logged = log->takeFirstError();
    options.check(result, nameOf(codec) + (logged.empty() ? "" : " (" + logged + ")"));
    return context;
}

class LibavEncoder : public Encoder {
public:
    using Encoder::Encoder;

    // Encoders do not report their look-ahead, so it is measured with a trial encode of small
    // pictures.
    static uint64_t leastFramesHeld(const vexa::VXNodeDescriptor& node) {
        constexpr int kMost = 500;
        try {
            const AVCodec& codec = findEncoder(kCodec.textIn(node));
            StreamInfo stream;
            const AVPixelFormat pixels =
                codec.pix_fmts != nullptr ? codec.pix_fmts[0] : AV_PIX_FMT_YUV420P;
            stream.picture = formatOf(pixels, 64, 64);
            stream.timeBase = {1, 25};
            stream.duration = 1;
            CodecLog log;
            const auto context = openEncoder(
                codec, stream, &log, [&](const ConfigKey& key) { return key.textIn(node); });
            const auto packet = made(av_packet_alloc());
            for (int held = 0; held < kMost; ++held) {
                const auto picture = newPicture(pixels, 64, 64);
                for (int i = 0; picture->buf[i] != nullptr; ++i) {
                    std::memset(picture->buf[i]->data, 0, picture->buf[i]->size);
                }
                picture->pts = held;
                if (avcodec_send_frame(context.get(), picture.get()) < 0) break;
                if (avcodec_receive_packet(context.get(), packet.get()) == 0) {
                    return Encoder::leastFramesHeld(node) + static_cast<uint64_t>(held);
                }
            }
        } catch (const Failure&) {  // the node reports it
        }
        return Encoder::leastFramesHeld(node);
    }

private:
    void open() override {
        mCodec = &findEncoder(requiredConfig(kCodec));
        LibavOptions(config(kOptions));  // what is wrong with them is reported now
    }

    void encode(const Frame& frame, uint64_t number) override {
        const auto picture = copyOf(frame);
        if (mContext == nullptr) start(frame.stream);
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
        // Encoders do not report how many pictures they hold back, so they are counted.
        mDelay = std::max(mDelay, number + 1 - mUnits);
        setTotalDelay(mDelay);
    }

    void drain() override { check(avcodec_send_frame(mContext.get(), nullptr)); }

    bool next() override {
        if (mContext == nullptr) return false;
        const std::shared_ptr<AVPacket> packet = made(av_packet_alloc());
        const int result = avcodec_receive_packet(mContext.get(), packet.get());
        if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) return false;
        check(result);
        if (packet->size == 0) return next();  // carries nothing but side data
        ++mUnits;
        if (mForced.erase(packet->pts) != 0 && (packet->flags & AV_PKT_FLAG_KEY) == 0) {
            failCheck(vexa::INFO_VALIDATION_FAIL,
                      concat(nameOf(*mCodec), " made no key frame of the picture with timestamp ",
                             packet->pts));
        }
        giveUnit(mStream, std::make_shared<LibavUnitInfo>(*packet),
                 static_cast<size_t>(packet->size),
                 [packet](uint8_t* bytes) { std::memcpy(bytes, packet->data, packet->size); });
        return true;
    }

    void start(const StreamInfo& stream) {
        mContext = openEncoder(*mCodec, stream, &mLog,
                               [this](const ConfigKey& key) { return configText(key); });
        for (const Entry& entry : entries()) {
            if (obeys(entry)) continue;
            throw Failure(
                "entry '" + entry.key + "': " + nameOf(*mCodec) + ", as it is set up, ignores it",
                Verdict::NotSupported);
        }
        if (avcodec_parameters_from_context(mStream->parameters.get(), mContext.get()) < 0) {
            throw std::bad_alloc();
        }
        static_cast<StreamInfo&>(*mStream) = stream;
        mStream->describe();
        mStream->timeBase = fromLibav(mContext->time_base);
        mStream->frameRate = fromLibav(mContext->framerate);
    }

    // Most encoders silently ignore these entries in mid-stream.
    bool obeys(const Entry& entry) const {
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
        if (result < 0)
            throw Failure(nameOf(*mCodec) + ": " + mLog.takeFirstError(libavText(result)));
    }

    CodecLog mLog;
    const AVCodec* mCodec = nullptr;
    // [event thread]
    Libav<AVCodecContext> mContext;  // from the first picture on
    const std::shared_ptr<LibavStreamInfo> mStream = std::make_shared<LibavStreamInfo>();
    std::set<int64_t> mForced;  // timestamps of pictures that are to become key frames
    uint64_t mUnits = 0;        // that came out
    uint64_t mDelay = 1;        // the most pictures that were in it at once
};

const Registered<LibavEncoder> kType("codec/encoder", "encodes pictures with libavcodec", 1, 1,
                                     {&kCodec, &kBitrate, &kGop, &kPreset, &kThreads, &kOptions},
                                     {{Entry::COMMAND, "force_key_frame", 1, 1,
                                       "command, 1: makes the picture a key frame"},
                                      {Entry::COMMAND, "bitrate", 1, kMaxBitrate,
                                       "command: sets the bits per second from this picture on"},
                                      {Entry::TUNING, "quality", 1, kMaxQuality,
                                       "tuning, 1 to 31: sets the quantizer of the picture"}});

}  // namespace
}  // namespace vxrun
