// codec/decoder: the pictures of a bitstream, decoded by libavcodec, each in its own size and format.
#include "AppNode.h"
#include "Failure.h"
#include "Libav.h"

extern "C" {
#include <libavutil/pixdesc.h>
}

#include <algorithm>
#include <cctype>
#include <cstring>

namespace vxrun {
namespace {

const AVPixFmtDescriptor& descriptorOf(const AVFrame& frame) {
    const AVPixFmtDescriptor* const pixels =
        av_pix_fmt_desc_get(static_cast<AVPixelFormat>(frame.format));
    if (pixels == nullptr) throw Failure("a picture of no known pixel format");
    return *pixels;
}

// The geometry of a picture that Payload can carry: planes of whole samples, little endian.
PictureFormat formatOf(const AVFrame& frame) {
    const AVPixFmtDescriptor& pixels = descriptorOf(frame);
    const int depth = pixels.comp[0].depth;
    const int bytes = depth > 8 ? 2 : 1;
    constexpr uint64_t kOtherwise = AV_PIX_FMT_FLAG_PAL | AV_PIX_FMT_FLAG_BITSTREAM |
                                    AV_PIX_FMT_FLAG_HWACCEL | AV_PIX_FMT_FLAG_ALPHA |
                                    AV_PIX_FMT_FLAG_FLOAT;
    bool fits = (pixels.nb_components == 1 || pixels.nb_components == 3) && depth >= 8 &&
                depth <= 16 && (pixels.flags & kOtherwise) == 0 &&
                (bytes == 1 || (pixels.flags & AV_PIX_FMT_FLAG_BE) == 0);
    for (int i = 0; i < pixels.nb_components; ++i) {
        const AVComponentDescriptor& component = pixels.comp[i];
        fits = fits && component.depth == depth && component.step == bytes &&
               component.offset == 0 && component.shift == 0;
    }
    if (!fits ||
        av_pix_fmt_count_planes(static_cast<AVPixelFormat>(frame.format)) != pixels.nb_components) {
        throw Failure(std::string("the pixel format ") + pixels.name + " is not supported",
                      "NOT_SUPPORTED");
    }
    PictureFormat format;
    format.width = static_cast<uint32_t>(frame.width);
    format.height = static_cast<uint32_t>(frame.height);
    format.planes = pixels.nb_components;
    format.chromaDivX = 1u << pixels.log2_chroma_w;
    format.chromaDivY = 1u << pixels.log2_chroma_h;
    format.bytesPerSample = static_cast<uint32_t>(bytes);
    format.depth = static_cast<uint32_t>(depth);
    format.pixels = pixels.name;
    return format;
}

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

void copyPicture(const AVFrame& picture, const PictureFormat& format, const Payload& payload) {
    uint32_t plane = 0;
    size_t y = 0;
    payload.forEachRow([&](uint8_t* row, size_t bytes) {
        if (y == format.rows(plane)) {
            ++plane;
            y = 0;
        }
        const auto offset = static_cast<ptrdiff_t>(y++) * picture.linesize[plane];
        std::memcpy(row, picture.data[plane] + offset, bytes);
    });
}

// The decoder works in steps, each of which sends at most one picture. A picture is sent when it is
// known whether another one follows it. While one is to be sent, the node offers this instead of its
// pending inputs, and offers nothing while its pool has no buffer.
class Decoder final : public AppNode {
public:
    explicit Decoder(NodeArguments arguments) : AppNode(std::move(arguments)) {}
    ~Decoder() override { teardown(); }

    vexa::VXError countAvailablePendingInputWorks(unsigned long maxCount,
                                                  unsigned long* actualCount,
                                                  bool* hasEOS) override {
        if (!canSend()) {
            return AppNode::countAvailablePendingInputWorks(maxCount, actualCount, hasEOS);
        }
        if (actualCount == nullptr || hasEOS == nullptr || maxCount == 0) return vexa::VX_BAD_VALUE;
        *hasEOS = false;
        // Without memory it is offered all the same: process() says what is wrong.
        const bool wait = mBuffer == nullptr && mPool->fetch(&mBuffer) == vexa::VX_NO_FREE_SLOT;
        *actualCount = wait ? 0 : 1;
        return vexa::VX_OK;
    }

    vexa::VXError getPendingInputWorks(
        unsigned long requestedCount,
        std::list<std::shared_ptr<vexa::VXSharedWork>>* works) override {
        if (!canSend()) return AppNode::getPendingInputWorks(requestedCount, works);
        if (works == nullptr) return vexa::VX_BAD_VALUE;
        works->clear();
        if (requestedCount > 1) return vexa::VX_INVALID_OPERATION;
        works->push_back(
            std::make_shared<vexa::VXSharedWork>(vexa::VXAuxInfo(), vexa::VXFrameInfo()));
        return vexa::VX_OK;
    }

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

    void process(const SharedWorks& inputs, Works*) override {
        if (canSend()) {
            send();
        } else {
            mUnits.insert(mUnits.end(), inputs.begin(), inputs.end());
        }
        decode();
    }

    bool canSend() const { return mPicture != nullptr && (mFollowing != nullptr || mDrained); }

    // Decodes until a picture can be sent or the next access unit is missing.
    void decode() {
        constexpr int kMaxErrors = 1000;  // before a picture comes out: it will not get better
        for (int errors = 0; !canSend() && !mDrained;) {
            auto frame = made(av_frame_alloc());
            const int result = mContext == nullptr
                                   ? AVERROR(EAGAIN)
                                   : avcodec_receive_frame(mContext.get(), frame.get());
            if (result == 0) {
                take(std::move(frame));
            } else if (result == AVERROR(EAGAIN)) {
                if (mUnits.empty()) return;
                feed(*mUnits.front());
                mUnits.pop_front();
            } else if (result == AVERROR_EOF) {
                finish();
            } else {
                noteError(libavText(result));
                if (++errors == kMaxErrors) throw Failure("the decoder only fails; " + mFirstError);
            }
        }
    }

    void feed(const vexa::VXSharedWork& unit) {
        const auto buffer = bufferOf(unit);
        const auto* const stream = infoOf<BitstreamInfo>(unit.frameInfo());
        const auto* const info = infoOf<UnitInfo>(unit.frameInfo());
        if (buffer == nullptr || stream == nullptr || info == nullptr) {
            throw Failure("a work without an access unit of a source/bitstream");
        }
        if (mContext == nullptr) openCodec(*stream);
        // A copy, since decoders read on behind the end of what they are given.
        const auto packet = made(av_packet_alloc());
        Payload(*buffer, *stream).forEachRow([&](const uint8_t* row, size_t bytes) {
            if (av_new_packet(packet.get(), static_cast<int>(bytes)) < 0) throw std::bad_alloc();
            std::memcpy(packet->data, row, bytes);
        });
        if (av_packet_copy_props(packet.get(), info->properties.get()) < 0) throw std::bad_alloc();
        if ((packet->flags & AV_PKT_FLAG_CORRUPT) != 0) noteError("a damaged access unit");
        const int result = avcodec_send_packet(mContext.get(), packet.get());
        if (result < 0) noteError(libavText(result));
        if ((unit.frameInfo().flags & vexa::VXFrameInfo::FLAG_END_OF_STREAM) != 0) {
            avcodec_send_packet(mContext.get(), nullptr);
        }
    }

    void openCodec(const BitstreamInfo& stream) {
        if (mCodec == nullptr) mCodec = avcodec_find_decoder(stream.parameters->codec_id);
        if (mCodec == nullptr) throw Failure("no decoder for " + stream.codec, "NOT_SUPPORTED");
        mContext = made(avcodec_alloc_context3(mCodec));
        if (avcodec_parameters_to_context(mContext.get(), stream.parameters.get()) < 0) {
            throw std::bad_alloc();
        }
        mContext->pkt_timebase = {static_cast<int>(stream.timeBase.num),
                                  static_cast<int>(stream.timeBase.den)};
        mTimeBase = stream.frameRate.num > 0 ? av_inv_q(stream.frameRate) : mContext->pkt_timebase;
        mSar = stream.sar;
        mContext->thread_count = static_cast<int>(mThreads);
        mContext->flags |= AV_CODEC_FLAG_UNALIGNED;  // cropped to the sample, not to the alignment
        mContext->err_recognition = AV_EF_CRCCHECK;
        mLog.attach(mContext.get());
        const std::string text = config("options");
        AVDictionary* options = nullptr;
        int result = av_dict_parse_string(&options, text.c_str(), "=", ":", 0);
        if (result == 0) result = avcodec_open2(mContext.get(), mCodec, &options);
        const AVDictionaryEntry* const unknown =
            av_dict_get(options, "", nullptr, AV_DICT_IGNORE_SUFFIX);
        const std::string name = unknown != nullptr ? unknown->key : "";
        av_dict_free(&options);
        if (result < 0) {
            throw Failure(std::string("the decoder ") + mCodec->name + " does not open" +
                          (text.empty() ? "" : " with the options " + quote(text)) + ": " +
                          libavText(result));
        }
        if (!name.empty()) {
            throw Failure(std::string("config 'options': the decoder ") + mCodec->name +
                          " has no option " + quote(name));
        }
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
        if (mPicture != nullptr) {
            mFollowing = std::move(frame);
        } else {
            setPicture(std::move(frame));
        }
    }

    // The next picture to send, which may be the first of its size and format.
    void setPicture(Libav<AVFrame> frame) {
        if (frame != nullptr) {
            const PictureFormat format = formatOf(*frame);
            const std::string pixels = plainName(descriptorOf(*frame).name);
            if (!mFormat.empty() && pixels != mFormat) {
                throw Failure("the pictures are " + pixels + ", not " + quote(mFormat),
                              "NOT_SUPPORTED");
            }
            Rational sar = mSar;
            if (frame->sample_aspect_ratio.num > 0) {
                sar = {static_cast<uint64_t>(frame->sample_aspect_ratio.num),
                       static_cast<uint64_t>(frame->sample_aspect_ratio.den)};
            }
            if (mPool == nullptr || mStream->picture != format) {
                mPool = Pool::ofPictures(allocatorType(), format, slots(), newPoolRecord(),
                                         scheduleSelf());
                mStream.reset();
            }
            if (mStream == nullptr || mStream->sar != sar) {
                mStream = std::make_shared<StreamInfo>();
                mStream->media = "video";
                mStream->codec = "rawvideo";
                mStream->profile = profileOf(*mContext);
                mStream->picture = format;
                mStream->timeBase = {static_cast<uint64_t>(mTimeBase.num),
                                     static_cast<uint64_t>(mTimeBase.den)};
                mStream->sar = sar;
                mStream->duration = 1;
            }
        }
        mPicture = std::move(frame);
    }

    void send() {
        const auto picture = std::move(mPicture);  // gone also if something is thrown below
        if (mBuffer == nullptr) throw Failure("no memory for a buffer");
        copyPicture(*picture, mStream->picture, Payload(*mBuffer, *mStream));
        Works works;
        auto& work = *works.emplace_back(std::make_unique<vexa::VXWork>());
        vexa::VXFrameInfo& frame = work.frameInfo();
        frame.timestamp = timeOf(*picture);
        frame.mInfos.push_back(mStream);
        attach(&work, fenced(std::move(mBuffer), frame));
        if (mFollowing == nullptr) {
            frame.flags |= vexa::VXFrameInfo::FLAG_END_OF_STREAM;
            reportErrors();
        }
        countFrame(frame);
        returnWorks(std::move(works));
        setPicture(std::move(mFollowing));
    }

    uint64_t timeOf(const AVFrame& picture) {
        int64_t time = picture.best_effort_timestamp;
        time = time == AV_NOPTS_VALUE ? mTime + 1
                                      : av_rescale_q(time, mContext->pkt_timebase, mTimeBase);
        mTime = std::max<int64_t>(time, 0);
        return static_cast<uint64_t>(mTime);
    }

    void finish() {
        mDrained = true;
        const std::string logged = mLog.take();
        if (!logged.empty()) noteError(logged);
        if (mFrames > 0) return;
        throw Failure("no frame in the stream" + (mErrors > 0 ? "; " + mFirstError : ""),
                      errorName(vexa::INFO_VALIDATION_FAIL));
    }

    // What the log says of an error is better than what the call returned.
    void noteError(const std::string& text) {
        const std::string logged = mLog.take();
        if (mErrors++ > 0) return;
        mFirstError = "frame " + std::to_string(mFrames) + ": " + (logged.empty() ? text : logged);
        if (!mTolerant) noteBad(mFrames);
    }

    void reportErrors() {
        if (mErrors == 0 || mTolerant) return;
        failCheck(vexa::INFO_VALIDATION_FAIL,
                  "errors in decoding: " + std::to_string(mErrors) + ", first at " + mFirstError);
    }

    CodecLog mLog;
    const AVCodec* mCodec = nullptr;
    uint64_t mThreads = 1;
    bool mTolerant = false;
    std::string mFormat;  // the pixel format that pictures must have; empty: any
    // [event thread]
    Libav<AVCodecContext> mContext;  // from the first access unit on
    AVRational mTimeBase = {1, 1};   // of the pictures
    Rational mSar;                   // where the pictures have none of their own
    SharedWorks mUnits;              // to be decoded
    Libav<AVFrame> mPicture;         // the next to send
    Libav<AVFrame> mFollowing;       // the one after it
    bool mDrained = false;           // no more pictures come
    std::shared_ptr<Pool> mPool;     // for mPicture
    std::shared_ptr<StreamInfo> mStream;
    std::shared_ptr<vexa::VXBuffer> mBuffer;  // for mPicture
    uint64_t mFrames = 0;                     // that were decoded
    int64_t mTime = -1;                       // of the picture sent last
    uint64_t mErrors = 0;
    std::string mFirstError;
};

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
    makeNode<Decoder>};

}  // namespace vxrun
