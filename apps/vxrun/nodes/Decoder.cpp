// codec/decoder: the pictures of a bitstream, decoded by libavcodec, each in its own size and format.
#include "Producer.h"
#include "Text.h"

#include <algorithm>
#include <cctype>
#include <map>

namespace vxrun {
namespace {

// What a pixel format is called: those of full range, which libavcodec names apart, lie in memory like
// all others.
std::string plainName(std::string format) {
    return format.rfind("yuvj", 0) == 0 ? format.erase(3, 1) : format;
}

// The decoder that goes by `name`, or libavcodec's choice for the codec that does; null when there is
// none. Codecs go first: "av1" is also the name of a decoder that needs hardware.
const AVCodec* findDecoder(const std::string& name) {
    const std::string known = name == "h265" ? "hevc" : name;
    const AVCodecDescriptor* const codec = avcodec_descriptor_get_by_name(known.c_str());
    const AVCodec* const decoder = codec != nullptr ? avcodec_find_decoder(codec->id)
                                                    : avcodec_find_decoder_by_name(known.c_str());
    return decoder != nullptr && decoder->type == AVMEDIA_TYPE_VIDEO ? decoder : nullptr;
}

// The profile of a stream in the words of the lists that name it: H264PROFILE_BASELINE,
// HEVCPROFILE_MAIN10; empty where they have none.
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

class Decoder : public Producer {
public:
    using Producer::Producer;

private:
    void open() override {
        const std::string name = config("codec");
        if (name.empty()) return;
        mCodec = findDecoder(name);
        if (mCodec == nullptr) {
            throw Failure("config 'codec': no decoder " + quote(name), "NOT_SUPPORTED");
        }
    }

    bool feed(const vexa::VXSharedWork& unit, uint64_t number) override {
        const Frame frame(unit);
        if (!obey(number)) return false;
        const BitstreamInfo* stream = nullptr;
        // A copy, since decoders read on behind the end of what they are given.
        const auto packet = frame.unit(&stream);
        if (mContext == nullptr) openCodec(*stream);
        if ((packet->flags & AV_PKT_FLAG_CORRUPT) != 0) noteError("a damaged access unit");
        const int result = avcodec_send_packet(mContext.get(), packet.get());
        if (result < 0) noteError(libavText(result));
        return true;
    }

    // Obeys the commands at access unit `number`. False when it is to wait for a drain; what is left is
    // obeyed next time.
    bool obey(uint64_t number) {
        for (auto& command : configStore().commandsAt(number)) {
            mCommands.push_back(std::move(command.first));
        }
        while (!mCommands.empty()) {
            const std::string command = std::move(mCommands.front());
            mCommands.pop_front();
            if (mContext == nullptr) continue;  // nothing to flush or drain
            if (command == "drain") {
                feedEnd();
                return false;
            }
            avcodec_flush_buffers(mContext.get());
        }
        return true;
    }

    void feedEnd() override { avcodec_send_packet(mContext.get(), nullptr); }

    bool next() override {
        if (mContext == nullptr) return false;
        constexpr int kMaxErrors = 1000;  // before a picture comes out: it will not get better
        for (int errors = 0; errors < kMaxErrors; ++errors) {
            auto picture = made(av_frame_alloc());
            const int result = avcodec_receive_frame(mContext.get(), picture.get());
            if (result == AVERROR(EAGAIN)) return false;
            if (result == 0) {
                take(std::move(picture));
                return true;
            }
            if (result == AVERROR_EOF) {
                const std::string logged = mLog.take();
                if (!logged.empty()) noteError(logged);
                avcodec_flush_buffers(mContext.get());  // it may be a drain that has ended
                return false;
            }
            noteError(libavText(result));
        }
        throw Failure("the decoder only fails; " + mFirstError);
    }

    void openCodec(const BitstreamInfo& stream) {
        if (mCodec == nullptr) mCodec = avcodec_find_decoder(stream.parameters->codec_id);
        if (mCodec == nullptr) throw Failure("no decoder for " + stream.codec, "NOT_SUPPORTED");
        LibavOptions options(config("options"));
        mContext = made(avcodec_alloc_context3(mCodec));
        if (avcodec_parameters_to_context(mContext.get(), stream.parameters.get()) < 0) {
            throw std::bad_alloc();
        }
        mContext->pkt_timebase = stream.timeBase;
        mTimeBase = stream.frameRate.num > 0 ? av_inv_q(stream.frameRate) : stream.timeBase;
        mSar = stream.sar;
        mContext->thread_count = static_cast<int>(numberConfig("threads"));
        mContext->flags |= AV_CODEC_FLAG_UNALIGNED;  // cropped to the sample, not to the alignment
        mContext->err_recognition = AV_EF_CRCCHECK;
        mLog.attach(mContext.get());
        const int result = avcodec_open2(mContext.get(), mCodec, options.get());
        options.check(result, std::string("the decoder ") + mCodec->name);
    }

    void take(Libav<AVFrame> picture) {
        const bool flagged =
            picture->decode_error_flags != 0 || (picture->flags & AV_FRAME_FLAG_CORRUPT) != 0;
        const std::string wrong = mLog.take(flagged ? "the decoder calls it damaged" : "");
        if (!wrong.empty()) noteError(wrong);
        ++mFrames;
        // Known better only now: how many pictures it keeps to put them in order.
        const int kept = mContext->has_b_frames + mContext->thread_count;
        setTotalDelay(static_cast<uint64_t>(kept));
        const int64_t time = picture->best_effort_timestamp;
        mTime = time == AV_NOPTS_VALUE
                    ? mTime + 1
                    : std::max<int64_t>(av_rescale_q(time, mContext->pkt_timebase, mTimeBase), 0);
        const auto stream = std::make_shared<StreamInfo>();
        stream->picture =
            formatOf(static_cast<AVPixelFormat>(picture->format), picture->width, picture->height);
        const std::string got = plainName(stream->picture.description().name);
        const std::string wanted = plainName(config("format"));
        if (!wanted.empty() && got != wanted) {
            throw Failure("the pictures are " + got + ", not " + quote(wanted), "NOT_SUPPORTED");
        }
        stream->profile = profileOf(*mContext);
        stream->timeBase = mTimeBase;
        const Rational sar = picture->sample_aspect_ratio;
        stream->sar = sar.num > 0 ? sar : mSar;
        stream->duration = 1;
        givePicture(std::move(picture), stream, static_cast<uint64_t>(mTime));
    }

    void finish(bool nothing) override {
        if (nothing) {
            throw Failure("no frame in the stream" + (mErrors > 0 ? "; " + mFirstError : ""),
                          errorName(vexa::INFO_VALIDATION_FAIL));
        }
        if (mErrors > 0 && !flagConfig("tolerate_errors")) {
            failCheck(vexa::INFO_VALIDATION_FAIL,
                      concat("errors in decoding: ", mErrors, ", first at ", mFirstError));
        }
        Producer::finish(nothing);
    }

    // What the log says of an error is better than what the call returned.
    void noteError(const std::string& text) {
        const std::string wrong = mLog.take(text);
        if (mErrors++ == 0) mFirstError = concat("frame ", mFrames, ": ", wrong);
    }

    CodecLog mLog;
    const AVCodec* mCodec = nullptr;
    // [event thread]
    Libav<AVCodecContext> mContext;     // from the first access unit on
    Rational mTimeBase = {1, 1};        // of the pictures
    Rational mSar = {0, 1};             // where the pictures have none of their own
    std::deque<std::string> mCommands;  // still to be obeyed
    uint64_t mFrames = 0;               // that were decoded
    int64_t mTime = -1;                 // of the picture decoded last
    uint64_t mErrors = 0;
    std::string mFirstError;
};

constexpr uint32_t kCommand = vexa::VXNodeDescriptor::ConfigEntry::COMMAND;

const bool kAdded = addNodeType<Decoder>(
    "codec/decoder", "decodes a bitstream with libavcodec", 1, 1,
    {{"codec", kText, "the decoder, or the codec, to use; default is libavcodec's choice"},
     {"format", kText, "the pixel format that the pictures must have, such as yuv420p"},
     {"threads", number(1, 64, 1), "default 1"},
     {"options", kText, "of the decoder: key=value:key=value"},
     {"tolerate_errors", kFlag, "true: damaged pictures do not fail the run"}},
    {{kCommand, "flush", 1, 1, "command, 1: drops the pictures that the decoder still keeps back"},
     {kCommand, "drain", 1, 1, "command, 1: has the decoder give these first, then start anew"}});

}  // namespace
}  // namespace vxrun
