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
#include <set>

namespace vxrun {
namespace {

constexpr uint64_t kMaxBitrate = INT_MAX;
constexpr uint64_t kMaxQuality = 31;
using Entry = vexa::VXNodeDescriptor::ConfigEntry;

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
    }

    bool feed(const vexa::VXSharedWork& work, uint64_t number) override {
        const StreamInfo* stream = nullptr;
        const auto picture = pictureOf(work, &stream);
        if (mContext == nullptr) openCodec(*stream);
        if (stream->picture != mFormat) {
            throw Failure("frame " + std::to_string(number) + " is " + stream->picture.text() +
                          " after " + mFormat.text() + ": an encoder takes one size and format");
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
                mForced.insert(picture->pts);
            }
        }
        check(avcodec_send_frame(mContext.get(), picture.get()));
        // Encoders do not say how many pictures they keep, so it is counted.
        mDelay = std::max(mDelay, static_cast<int64_t>(number + 1 - mUnits));
        setTotalDelay(static_cast<uint64_t>(mDelay));
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
        if (mForced.erase(packet->pts) != 0 && (packet->flags & AV_PKT_FLAG_KEY) == 0) {
            failCheck(vexa::INFO_VALIDATION_FAIL,
                      std::string("the encoder ") + mCodec->name +
                          " made no key frame of the picture with timestamp " +
                          std::to_string(packet->pts));
        }
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
        give(mPool, std::move(frame),
             [packet, size](const std::shared_ptr<vexa::VXBuffer>& buffer) {
                 std::memcpy(Payload(buffer, {}).planes().front().data, packet->data, size);
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
        mContext->pix_fmt = av_get_pix_fmt(stream.picture.pixels.c_str());
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
        for (const Entry& entry : entries()) {
            if (heeds(entry)) continue;
            throw Failure(
                "entry '" + entry.key + "': " + name + ", as it is set up, does not heed it",
                "NOT_SUPPORTED");
        }
        if (avcodec_parameters_from_context(mStream->parameters.get(), mContext.get()) < 0) {
            throw std::bad_alloc();
        }
        mFormat = stream.picture;
        static_cast<StreamInfo&>(*mStream) = stream;
        mStream->codec = avcodec_get_name(mCodec->id);
        mStream->picture.pixels.clear();
        mStream->timeBase = rational(mContext->time_base);
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
        if (result >= 0) return;
        const std::string logged = mLog.take();
        throw Failure(std::string("the encoder ") + mCodec->name + ": " +
                      (logged.empty() ? libavText(result) : logged));
    }

    CodecLog mLog;
    const AVCodec* mCodec = nullptr;
    // [event thread]
    Libav<AVCodecContext> mContext;  // from the first picture on
    PictureFormat mFormat;           // of all pictures
    const std::shared_ptr<BitstreamInfo> mStream = std::make_shared<BitstreamInfo>();
    std::set<int64_t> mForced;  // timestamps of pictures that are to become key frames
    std::shared_ptr<Pool> mPool;
    size_t mBlock = 1 << 16;  // bytes of the pool's blocks
    uint64_t mUnits = 0;      // that came out
    int64_t mDelay = 1;       // the most pictures that were in it at once
};

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
