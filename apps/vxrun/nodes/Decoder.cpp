// codec/decoder: the pictures of a bitstream, decoded by libavcodec, each in its own size and format.
#include "CodecNode.h"
#include "Failure.h"

#include <algorithm>
#include <cctype>

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
    const char* const name = avcodec_profile_name(codec.codec_id, codec.profile);
    std::string profile = name == nullptr ? "" : name;
    if (profile.rfind("Constrained ", 0) == 0) profile.erase(0, profile.find(' '));
    profile.erase(std::remove(profile.begin(), profile.end(), ' '), profile.end());
    for (char& c : profile) c = static_cast<char>(std::toupper(c));
    if (codec.codec_id == AV_CODEC_ID_VP8) return "VP8PROFILE_ANY";
    if (profile.empty()) return {};
    if (codec.codec_id == AV_CODEC_ID_H264) return "H264PROFILE_" + profile;
    if (codec.codec_id == AV_CODEC_ID_HEVC) return "HEVCPROFILE_" + profile;
    if (codec.codec_id == AV_CODEC_ID_VP9) return "VP9PROFILE_" + profile;
    return codec.codec_id == AV_CODEC_ID_AV1 ? "AV1PROFILE_PROFILE_" + profile : "";
}

class Decoder final : public CodecNode {
public:
    explicit Decoder(NodeArguments arguments) : CodecNode(std::move(arguments)) {}
    ~Decoder() override { teardown(); }

private:
    void open() override {
        constexpr uint64_t kMaxThreads = 64;
        mThreads = numberConfig("threads", 1, kMaxThreads, 1);
        mTolerant = flagConfig("tolerate_errors");
        mFormat = plainName(config("format"));
        slots();  // a bad number is told now
        const std::string name = config("codec");
        if (name.empty()) return;
        mCodec = findDecoder(name);
        if (mCodec == nullptr) {
            throw Failure("config 'codec': no decoder " + quote(name), "NOT_SUPPORTED");
        }
    }

    bool feed(const vexa::VXSharedWork& unit, uint64_t number) override {
        const auto buffer = bufferOf(unit);
        if (buffer == nullptr) throw Failure("a work without a payload");
        if (!obey(number)) return false;
        const BitstreamInfo* stream = nullptr;
        // A copy, since decoders read on behind the end of what they are given.
        const auto packet = unitOf(Payload(buffer, {}), unit.frameInfo(), &stream);
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
    void restart() override { avcodec_flush_buffers(mContext.get()); }

    Progress receive() override {
        if (mContext == nullptr) return Progress::NEEDS_INPUT;
        constexpr int kMaxErrors = 1000;  // before a picture comes out: it will not get better
        for (int errors = 0; errors < kMaxErrors; ++errors) {
            auto frame = made(av_frame_alloc());
            const int result = avcodec_receive_frame(mContext.get(), frame.get());
            if (result == AVERROR(EAGAIN)) return Progress::NEEDS_INPUT;
            if (result == 0) {
                take(std::move(frame));
                return Progress::GAVE;
            }
            if (result == AVERROR_EOF) {
                const std::string logged = mLog.take();
                if (!logged.empty()) noteError(logged);
                return Progress::DRAINED;
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
        mContext->pkt_timebase = rational(stream.timeBase);
        mTimeBase = stream.frameRate.num > 0 ? av_inv_q(stream.frameRate) : mContext->pkt_timebase;
        mSar = stream.sar;
        mContext->thread_count = static_cast<int>(mThreads);
        mContext->flags |= AV_CODEC_FLAG_UNALIGNED;  // cropped to the sample, not to the alignment
        mContext->err_recognition = AV_EF_CRCCHECK;
        mLog.attach(mContext.get());
        const int result = avcodec_open2(mContext.get(), mCodec, options.get());
        options.check(result, std::string("the decoder ") + mCodec->name);
    }

    void take(Libav<AVFrame> frame) {
        const std::string logged = mLog.take();
        const bool flagged =
            frame->decode_error_flags != 0 || (frame->flags & AV_FRAME_FLAG_CORRUPT) != 0;
        if (flagged || !logged.empty()) {
            noteError(logged.empty() ? "the decoder calls it damaged" : logged);
        }
        ++mFrames;
        // Known better only now: how many pictures it keeps to put them in order.
        setTotalDelay(static_cast<uint64_t>(mContext->has_b_frames) + mThreads);
        vexa::VXFrameInfo info;
        info.timestamp = timeOf(*frame);
        const auto pixels = static_cast<AVPixelFormat>(frame->format);
        const PictureFormat format = formatOf(pixels, frame->width, frame->height);
        if (!mFormat.empty() && plainName(format.pixels) != mFormat) {
            throw Failure(
                "the pictures are " + plainName(format.pixels) + ", not " + quote(mFormat),
                "NOT_SUPPORTED");
        }
        const Rational sar =
            frame->sample_aspect_ratio.num > 0 ? rational(frame->sample_aspect_ratio) : mSar;
        if (mStream == nullptr || mStream->picture != format || mStream->sar != sar) {
            mStream = std::make_shared<StreamInfo>();
            mStream->media = "video";
            mStream->codec = "rawvideo";
            mStream->profile = profileOf(*mContext);
            mStream->picture = format;
            mStream->timeBase = rational(mTimeBase);
            mStream->sar = sar;
            mStream->duration = 1;
        }
        givePicture(std::move(frame), mStream, std::move(info));
    }

    uint64_t timeOf(const AVFrame& picture) {
        int64_t time = picture.best_effort_timestamp;
        time = time == AV_NOPTS_VALUE ? mTime + 1
                                      : av_rescale_q(time, mContext->pkt_timebase, mTimeBase);
        mTime = std::max<int64_t>(time, 0);
        return static_cast<uint64_t>(mTime);
    }

    void finish(bool nothing) override {
        if (nothing) {
            throw Failure("no frame in the stream" + (mErrors > 0 ? "; " + mFirstError : ""),
                          errorName(vexa::INFO_VALIDATION_FAIL));
        }
        if (mErrors > 0 && !mTolerant) {
            failCheck(vexa::INFO_VALIDATION_FAIL, "errors in decoding: " + std::to_string(mErrors) +
                                                      ", first at " + mFirstError);
        }
        CodecNode::finish(nothing);
    }

    // What the log says of an error is better than what the call returned.
    void noteError(const std::string& text) {
        const std::string logged = mLog.take();
        if (mErrors++ > 0) return;
        mFirstError = "frame " + std::to_string(mFrames) + ": " + (logged.empty() ? text : logged);
        if (!mTolerant) noteBad(mFrames);
    }

    CodecLog mLog;
    const AVCodec* mCodec = nullptr;
    uint64_t mThreads = 1;
    bool mTolerant = false;
    std::string mFormat;  // the pixel format that pictures must have; empty: any
    // [event thread]
    Libav<AVCodecContext> mContext;     // from the first access unit on
    AVRational mTimeBase = {1, 1};      // of the pictures
    Rational mSar;                      // where the pictures have none of their own
    std::deque<std::string> mCommands;  // still to be obeyed
    std::shared_ptr<StreamInfo> mStream;
    uint64_t mFrames = 0;  // that were decoded
    int64_t mTime = -1;    // of the picture decoded last
    uint64_t mErrors = 0;
    std::string mFirstError;
};

constexpr uint32_t kCommand = vexa::VXNodeDescriptor::ConfigEntry::COMMAND;

}  // namespace

extern const NodeType kDecoder = {
    "codec/decoder",
    "decodes a bitstream with libavcodec",
    1,
    1,
    {{"codec", false, "the decoder, or the codec, to use; default is libavcodec's choice"},
     {"format", false, "the pixel format that the pictures must have, such as yuv420p"},
     {"threads", false, "default 1"},
     {"options", false, "of the decoder: key=value:key=value"},
     {"tolerate_errors", false, "true: damaged pictures do not fail the run"},
     {"slots", false, "buffers of the node's pool, default 8"},
     {"fence_ms", false, "before a transform/fence: when fences fire, default 1"}},
    makeNode<Decoder>,
    {{kCommand, "flush", 1, 1, "command, 1: drops the pictures that the decoder still keeps back"},
     {kCommand, "drain", 1, 1, "command, 1: has the decoder give these first, then start anew"}}};

}  // namespace vxrun
