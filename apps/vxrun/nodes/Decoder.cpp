// codec/decoder: the pictures of a bitstream, decoded by libavcodec, each in its own size and
// format.
#include "Keys.h"
#include "LibavFrames.h"
#include "Text.h"

#include <vxkit/Decoder.h>

#include <algorithm>
#include <cctype>
#include <map>

namespace vxrun {
namespace {

const TextKey kCodec{"codec", "the codec or the decoder to use, default libavcodec's choice"};

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

private:
    void open() override {
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
        const int result = avcodec_open2(mContext.get(), mCodec, options.get());
        options.check(result, std::string("the decoder ") + mCodec->name);
    }

    void givePicture(std::shared_ptr<AVFrame> picture) {
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
    void note(const std::string& text) { noteError(mLog.takeFirstError(text)); }

    CodecLog mLog;
    const AVCodec* mCodec = nullptr;
    Libav<AVCodecContext> mContext;  // from the first access unit on  [event thread]
};

const Registered<LibavDecoder> kType("codec/decoder", "decodes a bitstream with libavcodec", 1, 1,
                                     {&kCodec, &kThreads, &kOptions});

}  // namespace
}  // namespace vxrun
