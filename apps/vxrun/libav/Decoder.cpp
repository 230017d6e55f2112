// codec/decoder: the pictures of a bitstream, decoded by libavcodec, each in its own size and
// format.
#include "Keys.h"
#include "LibavFrames.h"
#include "Text.h"

#include <vxkit/Decoder.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <map>

namespace vxrun {
namespace {

const TextKey kCodec{"codec", "the codec or the decoder to use, default libavcodec's choice"};

const TextKey kHwaccel{"hwaccel",
                       "the device that decodes, KIND or KIND:DEVICE: vaapi, vdpau, cuda, ..."};

// The device that the config 'hwaccel' names; null for an empty one.
std::shared_ptr<AVBufferRef> newDevice(const std::string& name) {
    if (name.empty()) return nullptr;
    const size_t colon = name.find(':');
    const std::string kind = name.substr(0, colon);
    const std::string device = colon != name.npos ? name.substr(colon + 1) : "";
    const AVHWDeviceType type = av_hwdevice_find_type_by_name(kind.c_str());
    if (type == AV_HWDEVICE_TYPE_NONE) {
        std::string known;
        for (auto t = AV_HWDEVICE_TYPE_NONE;
             (t = av_hwdevice_iterate_types(t)) != AV_HWDEVICE_TYPE_NONE;) {
            known.append(" ").append(av_hwdevice_get_type_name(t));
        }
        throw Failure("config 'hwaccel': no kind " + quote(kind) + ", libavutil has" + known,
                      Verdict::NotSupported);
    }
    CodecLog log;
    log.listenHere();
    AVBufferRef* made = nullptr;
    const int result =
        av_hwdevice_ctx_create(&made, type, device.empty() ? nullptr : device.c_str(), nullptr, 0);
    if (result < 0) {
        throw Failure(
            concat("no device ", quote(name), ": ", log.takeFirstError(libavText(result))),
            Verdict::NotSupported);
    }
    return {made, [](AVBufferRef* reference) { av_buffer_unref(&reference); }};
}

// The format of pictures that `decoder` leaves on devices of this kind; AV_PIX_FMT_NONE when it knows none.
AVPixelFormat deviceFormat(const AVCodec& decoder, AVHWDeviceType kind) {
    for (int i = 0;; ++i) {
        const AVCodecHWConfig* const config = avcodec_get_hw_config(&decoder, i);
        if (config == nullptr) return AV_PIX_FMT_NONE;
        if (config->device_type == kind &&
            (config->methods & AV_CODEC_HW_CONFIG_METHOD_HW_DEVICE_CTX) != 0) {
            return config->pix_fmt;
        }
    }
}

// libavcodec's choice for the codec `name`, else the decoder `name`; null when there is neither.
// Codecs come first: "av1" is also the name of a decoder that needs hardware.
const AVCodec* findDecoder(const std::string& name) {
    const std::string known = name == "h265" ? "hevc" : name;
    const AVCodecDescriptor* const codec = avcodec_descriptor_get_by_name(known.c_str());
    const AVCodec* const decoder = codec != nullptr ? avcodec_find_decoder(codec->id)
                                                    : avcodec_find_decoder_by_name(known.c_str());
    return decoder != nullptr && decoder->type == AVMEDIA_TYPE_VIDEO ? decoder : nullptr;
}

// The profile of a stream as lists name it: H264PROFILE_BASELINE,
// HEVCPROFILE_MAIN10; empty where they have no name.
std::string profileOf(const AVCodecContext& codec) {
    if (codec.codec_id == AV_CODEC_ID_VP8) return "VP8PROFILE_ANY";
    static const std::map<AVCodecID, std::string> prefixes = {
        {AV_CODEC_ID_H264, "H264PROFILE_"},
        {AV_CODEC_ID_HEVC, "HEVCPROFILE_"},
        {AV_CODEC_ID_VP9, "VP9PROFILE_"},
        {AV_CODEC_ID_AV1, "AV1PROFILE_PROFILE_"}};
    const auto prefix = prefixes.find(codec.codec_id);
    const char* const name = avcodec_profile_name(codec.codec_id, codec.profile);
    if (prefix == prefixes.end() || name == nullptr) return "";
    std::string profile = name;
    if (profile.rfind("Constrained ", 0) == 0) profile.erase(0, profile.find(' '));
    profile.erase(std::remove(profile.begin(), profile.end(), ' '), profile.end());
    for (char& c : profile) c = static_cast<char>(std::toupper(c));
    return prefix->second + profile;
}

class LibavDecoder : public Decoder {
public:
    using Decoder::Decoder;

    static void probe(const vexa::VXNodeDescriptor& node) { newDevice(kHwaccel.textIn(node)); }

private:
    void open() override {
        mDevice = newDevice(config(kHwaccel));
        const std::string name = config(kCodec);
        if (name.empty()) return;
        mCodec = findDecoder(name);
        if (mCodec == nullptr) {
            throw Failure("config 'codec': no decoder " + quote(name), Verdict::NotSupported);
        }
    }

    void decode(const AccessUnit& unit) override {
        const auto packet = packetOf(unit);
        if (mContext == nullptr) openCodec(unit.stream);
        const int result = avcodec_send_packet(mContext.get(), packet.get());
        if (result < 0) note(libavText(result));
    }

    void drain() override { avcodec_send_packet(mContext.get(), nullptr); }
    void flush() override { avcodec_flush_buffers(mContext.get()); }

    bool next() override {
        if (mContext == nullptr) return false;
        constexpr int kMaxErrors = 1000;  // without a picture between them: it would not recover
        for (int errors = 0; errors < kMaxErrors; ++errors) {
            auto picture = made(av_frame_alloc());
            const int result = avcodec_receive_frame(mContext.get(), picture.get());
            if (result == AVERROR(EAGAIN)) return false;
            if (result == 0) {
                givePicture(std::move(picture));
                return true;
            }
            if (result == AVERROR_EOF) {
                const std::string logged = mLog.takeFirstError();
                if (!logged.empty()) noteError(logged);
                avcodec_flush_buffers(mContext.get());  // it may be a drain that has ended
                return false;
            }
            note(libavText(result));
        }
        throw Failure("the decoder returns nothing but errors; " + firstError());
    }

    void openCodec(const BitstreamInfo& stream) {
        const auto parameters = parametersOf(stream);
        if (mCodec == nullptr) mCodec = avcodec_find_decoder(parameters->codec_id);
        if (mCodec == nullptr)
            throw Failure("no decoder for " + stream.codec, Verdict::NotSupported);
        // The kernel's decoders, as libavcodec uses them, do not go on after either.
        const std::string wrapper = mCodec->wrapper_name != nullptr ? mCodec->wrapper_name : "";
        if (wrapper == "v4l2m2m" && !entries().empty()) {
            throw Failure(
                concat("the decoder ", mCodec->name, " has no flush or drain; codec/v4l2 has"),
                Verdict::NotSupported);
        }
        LibavOptions options(config(kOptions));
        mContext = made(avcodec_alloc_context3(mCodec));
        if (avcodec_parameters_to_context(mContext.get(), parameters.get()) < 0) {
            throw std::bad_alloc();
        }
        mContext->pkt_timebase = asLibav(stream.timeBase);
        mContext->thread_count = static_cast<int>(config(kThreads));
        mContext->flags |= AV_CODEC_FLAG_UNALIGNED;  // cropped to the sample, not to the alignment
        mContext->err_recognition = AV_EF_CRCCHECK;
        mLog.attach(mContext.get());
        if (mDevice != nullptr) useDevice();
        const int result = avcodec_open2(mContext.get(), mCodec, options.get());
        options.check(result, std::string("the decoder ") + mCodec->name);
    }

    void useDevice() {
        auto& device = *reinterpret_cast<AVHWDeviceContext*>(mDevice->data);
        mOnDevice = deviceFormat(*mCodec, device.type);
        if (mOnDevice == AV_PIX_FMT_NONE) {
            throw Failure(concat("the decoder ", mCodec->name, " does not use ", config(kHwaccel)),
                          Verdict::NotSupported);
        }
        device.user_opaque = this;
        mContext->hw_device_ctx = av_buffer_ref(mDevice.get());
        mContext->get_format = [](AVCodecContext* context, const AVPixelFormat* offered) {
            auto* const used = reinterpret_cast<AVHWDeviceContext*>(context->hw_device_ctx->data);
            return static_cast<LibavDecoder*>(used->user_opaque)->chosenOf(offered);
        };
    }

    // None but the device's format: a test of it must not decode in software.  [any thread]
    AVPixelFormat chosenOf(const AVPixelFormat* offered) {
        while (*offered != mOnDevice && *offered != AV_PIX_FMT_NONE) ++offered;
        if (*offered == AV_PIX_FMT_NONE) mIsRefused = true;
        return *offered;
    }

    static std::shared_ptr<AVFrame> downloaded(const AVFrame& picture) {
        auto copy = made(av_frame_alloc());
        int result = av_hwframe_transfer_data(copy.get(), &picture, 0);
        if (result >= 0) result = av_frame_copy_props(copy.get(), &picture);
        if (result < 0) throw Failure("downloading a picture: " + libavText(result));
        return copy;
    }

    void givePicture(std::shared_ptr<AVFrame> picture) {
        if (picture->format == mOnDevice) picture = downloaded(*picture);
        const bool flagged =
            picture->decode_error_flags != 0 || (picture->flags & AV_FRAME_FLAG_CORRUPT) != 0;
        const std::string wrong =
            mLog.takeFirstError(flagged ? "the decoder marks it as damaged" : "");
        if (!wrong.empty()) noteError(wrong);
        // Only now is it known how many pictures are held back for reordering.
        const int held = mContext->has_b_frames + mContext->thread_count;
        setTotalDelay(static_cast<uint64_t>(held));
        const int64_t time = picture->best_effort_timestamp;
        DecodedPicture decoded;
        decoded.format =
            formatOf(static_cast<AVPixelFormat>(picture->format), picture->width, picture->height);
        decoded.pts = time == AV_NOPTS_VALUE ? UnitInfo::kNoTime : time;
        decoded.profile = profileOf(*mContext);
        decoded.sar = fromLibav(picture->sample_aspect_ratio);
        give(decoded, [picture](const FrameView& output) { copyTo(output, *picture); });
    }

    // The log is more precise about an error than the value that the call returned.
    void note(const std::string& text) {
        const std::string error = mLog.takeFirstError(text);
        if (mIsRefused) {
            throw Failure(
                "the device " + quote(config(kHwaccel)) + " does not decode this stream: " + error,
                Verdict::NotSupported);
        }
        noteError(error);
    }

    CodecLog mLog;
    const AVCodec* mCodec = nullptr;
    std::shared_ptr<AVBufferRef> mDevice;       // null: none, it decodes in software
    AVPixelFormat mOnDevice = AV_PIX_FMT_NONE;  // of pictures that are on the device
    std::atomic<bool> mIsRefused{false};        // the device does not decode such streams
    Libav<AVCodecContext> mContext;             // from the first access unit on  [event thread]
};

const Registered<LibavDecoder> kType("codec/decoder", "decodes a bitstream with libavcodec", 1, 1,
                                     {&kCodec, &kThreads, &kOptions, &kHwaccel});

}  // namespace
}  // namespace vxrun
