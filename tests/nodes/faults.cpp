// A node library with a decoder that is right but for one planted fault, for what finds causes. It
// states the truth on standard error:
//
//     fault: block in unit 12, picture 14
//     fault: shown as frame 16
//
// The units and the pictures, in decoding order, are numbered from 0.
#include <vxkit/Decoder.h>
#include <vxkit/NodeType.h>
#include <vxkit/Text.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/pixdesc.h>
}
#include <dav1d/dav1d.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <optional>

namespace {

using namespace vxkit;

const ChoiceKey kFault{"fault",
                       {"none", "block", "drop", "swap", "nofilter", "crash", "hang", "error"},
                       "what is wrong from or at a picture, default none"};
const NumberKey kAt{"at", 0, 1000000, 0, "the access unit with the fault"};
const NumberKey kPicture{"picture", 0, 100, 0, "which picture of that unit, default 0"};
const PathKey kOf{"of", "the stream whose unit that is: the fault is where its bytes are"};

// A picture in the buffer of a codec. Its owner keeps the buffer from being used again, and is the
// buffer's identity.
struct Picture {
    std::shared_ptr<void> owner;
    const void* buffer;
    PictureFormat format;
    uint8_t* planes[3];
    ptrdiff_t strides[3];
    int64_t pts;
};

// Hears of buffers as a codec takes them, which is when the picture before is complete.
using Begin = std::function<void(Picture)>;

// A codec with one thread and without any delay but that of reordering.
class Codec {
public:
    virtual ~Codec() = default;
    // Decodes the unit, or what is held back for null, and appends the pictures that come out.
    // What is wrong; empty when nothing is.
    virtual std::string decode(const AccessUnit* unit, std::deque<Picture>* pictures) = 0;
    virtual void flush() = 0;
    virtual void stopFiltering() = 0;  // from the next unit on
};

PixelFormat pixelFormat(const std::string& name) {
    const auto pixels = findPixelFormat(name);
    if (!pixels) throw Failure("the pixel format " + name, Verdict::NotSupported);
    return *pixels;
}

std::string check(const char* what, int result) {
    return result < 0 ? concat(what, ": ", result) : "";
}

class LibavCodec : public Codec {
public:
    LibavCodec(const BitstreamInfo& stream, Begin begin) : mBegin(std::move(begin)) {
        const auto* const known = avcodec_descriptor_get_by_name(stream.codec.c_str());
        const AVCodec* const codec = known != nullptr ? avcodec_find_decoder(known->id) : nullptr;
        if (codec == nullptr) throw Failure("no decoder: " + stream.codec, Verdict::NotSupported);
        mContext = avcodec_alloc_context3(codec);
        mContext->opaque = this;
        mContext->get_buffer2 = [](AVCodecContext* context, AVFrame* frame, int flags) {
            const int result = avcodec_default_get_buffer2(context, frame, flags);
            auto* const self = static_cast<LibavCodec*>(context->opaque);
            if (result >= 0) self->mBegin(self->pictureOf(*frame));
            return result;
        };
        mContext->thread_count = 1;
        mContext->flags |= AV_CODEC_FLAG_UNALIGNED;
        mContext->pkt_timebase = {stream.timeBase.num, stream.timeBase.den};
        const size_t size = stream.headers.size();
        mContext->extradata =
            static_cast<uint8_t*>(av_mallocz(size + AV_INPUT_BUFFER_PADDING_SIZE));
        if (size > 0) std::memcpy(mContext->extradata, stream.headers.data(), size);
        mContext->extradata_size = static_cast<int>(size);
        if (avcodec_open2(mContext, codec, nullptr) < 0) throw Failure("the codec does not open");
    }
    ~LibavCodec() override { avcodec_free_context(&mContext); }

    std::string decode(const AccessUnit* unit, std::deque<Picture>* pictures) override {
        AVPacket* packet = av_packet_alloc();
        if (unit != nullptr) {
            av_new_packet(packet, static_cast<int>(unit->size));
            std::memcpy(packet->data, unit->data, unit->size);
            packet->pts = unit->info.pts;
            packet->dts = unit->info.dts;
            packet->duration = unit->info.duration;
        }
        std::string wrong = check("a unit", avcodec_send_packet(mContext, packet));
        av_packet_free(&packet);
        AVFrame* const frame = av_frame_alloc();
        int result = 0;
        while ((result = avcodec_receive_frame(mContext, frame)) != AVERROR(EAGAIN) &&
               result != AVERROR_EOF) {
            if (result == 0) pictures->push_back(pictureOf(*frame));
            if (result < 0) wrong = check("a picture", result);
        }
        av_frame_free(const_cast<AVFrame**>(&frame));
        if (unit == nullptr) flush();
        return wrong;
    }
    void flush() override { avcodec_flush_buffers(mContext); }
    void stopFiltering() override {
        if (mContext->codec_id == AV_CODEC_ID_VP9) {
            throw Failure("libavcodec's VP9 always filters", Verdict::NotSupported);
        }
        mContext->skip_loop_filter = AVDISCARD_ALL;
    }

private:
    static Picture pictureOf(const AVFrame& frame) {
        const std::shared_ptr<AVFrame> owner(av_frame_clone(&frame),
                                             [](AVFrame* copy) { av_frame_free(&copy); });
        const char* const name = av_get_pix_fmt_name(static_cast<AVPixelFormat>(frame.format));
        Picture picture = {
            owner, owner->buf[0]->data,        {pixelFormat(name), frame.width, frame.height}, {},
            {},    frame.best_effort_timestamp};
        std::copy_n(owner->data, 3, picture.planes);
        std::copy_n(owner->linesize, 3, picture.strides);
        return picture;
    }

    const Begin mBegin;
    AVCodecContext* mContext;
};

class Dav1dCodec : public Codec {
public:
    explicit Dav1dCodec(Begin begin) : mBegin(std::move(begin)) {
        dav1d_default_settings(&mSettings);
        mSettings.n_threads = mSettings.max_frame_delay = 1;
        mSettings.all_layers = 0;
        mSettings.allocator = {this, allocate, release};
        open();
    }
    ~Dav1dCodec() override { dav1d_close(&mContext); }

    std::string decode(const AccessUnit* unit, std::deque<Picture>* pictures) override {
        std::string wrong;
        Dav1dData data = {};
        if (unit != nullptr) {
            std::memcpy(dav1d_data_create(&data, unit->size), unit->data, unit->size);
            data.m.timestamp = unit->info.pts;
        }
        do {
            const int sent = data.sz > 0 ? dav1d_send_data(mContext, &data) : 0;
            if (sent < 0 && sent != DAV1D_ERR(EAGAIN)) {
                dav1d_data_unref(&data);
                wrong = check("a unit", sent);
            }
            for (int result = 0; result != DAV1D_ERR(EAGAIN);) {
                Dav1dPicture shown = {};
                result = dav1d_get_picture(mContext, &shown);
                if (result == 0) pictures->push_back(pictureOf(shown));
                if (result == 0) dav1d_picture_unref(&shown);
                if (result < 0 && result != DAV1D_ERR(EAGAIN)) wrong = check("a picture", result);
            }
        } while (data.sz > 0);
        return wrong;
    }
    void flush() override { dav1d_flush(mContext); }
    // The filters are chosen as it opens, which it can at a key frame.
    void stopFiltering() override {
        dav1d_close(&mContext);
        mSettings.inloop_filters = DAV1D_INLOOPFILTER_NONE;
        open();
    }

private:
    void open() {
        if (dav1d_open(&mContext, &mSettings) < 0) throw Failure("the codec does not open");
    }

    static Picture pictureOf(const Dav1dPicture& from) {
        static const char* const kLayouts[] = {"gray", "yuv420p", "yuv422p", "yuv444p"};
        const std::string layout = kLayouts[from.p.layout];
        const auto& owner = *static_cast<std::shared_ptr<void>*>(from.allocator_data);
        Picture picture = {owner, owner.get(), {}, {}, {}, from.m.timestamp};
        picture.format = {pixelFormat(from.p.bpc > 8 ? concat(layout, from.p.bpc, "le") : layout),
                          from.p.w, from.p.h};
        for (int plane = 0; plane < 3; ++plane) {
            picture.planes[plane] = static_cast<uint8_t*>(from.data[plane]);
            picture.strides[plane] = from.stride[plane > 0 ? 1 : 0];
        }
        return picture;
    }

    // Planes as large as those of 4:4:4, whatever the layout, and with room for two bytes a sample.
    static int allocate(Dav1dPicture* picture, void* self) {
        const auto aligned = [](size_t size) { return (size + 127) / 128 * 128; };
        const size_t stride =
            2 * aligned(static_cast<size_t>(picture->p.w)) + DAV1D_PICTURE_ALIGNMENT;
        const size_t size = stride * aligned(static_cast<size_t>(picture->p.h));
        void* const block = std::aligned_alloc(DAV1D_PICTURE_ALIGNMENT, 3 * size);
        if (block == nullptr) return DAV1D_ERR(ENOMEM);
        for (size_t plane = 0; plane < 3; ++plane) {
            picture->data[plane] = static_cast<uint8_t*>(block) + plane * size;
        }
        picture->stride[0] = picture->stride[1] = static_cast<ptrdiff_t>(stride);
        picture->allocator_data = new std::shared_ptr<void>(block, std::free);
        static_cast<Dav1dCodec*>(self)->mBegin(pictureOf(*picture));
        return 0;
    }
    static void release(Dav1dPicture* picture, void*) {
        delete static_cast<std::shared_ptr<void>*>(picture->allocator_data);
    }

    const Begin mBegin;
    Dav1dSettings mSettings = {};
    Dav1dContext* mContext = nullptr;
};

// The bytes of an access unit without the zero bytes around it, which move when others go.
std::string bytesOf(const uint8_t* data, size_t size) {
    std::string bytes(reinterpret_cast<const char*>(data), size);
    bytes.erase(0, bytes.find_first_not_of('\0'));
    bytes.erase(bytes.find_last_not_of('\0') + 1);
    return bytes;
}

// Whether `unit` is the one with those bytes; parameter sets may have come in front of them. A few
// bytes, which show a picture again, are at the end of others, too.
bool isUnit(const std::string& unit, const std::string& bytes) {
    constexpr size_t kFew = 32;
    return unit == bytes || (bytes.size() > kFew && unit.size() > bytes.size() &&
                             unit.compare(unit.size() - bytes.size(), bytes.size(), bytes) == 0);
}

std::string unitOf(const std::string& path, uint64_t number) {
    AVFormatContext* file = nullptr;
    if (avformat_open_input(&file, path.c_str(), nullptr, nullptr) < 0 ||
        avformat_find_stream_info(file, nullptr) < 0) {
        throw Failure(path + ": cannot be read");
    }
    const int video = av_find_best_stream(file, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    AVPacket* packet = av_packet_alloc();
    std::string bytes;
    for (uint64_t next = 0; next <= number; av_packet_unref(packet)) {
        if (av_read_frame(file, packet) < 0) throw Failure(path + ": fewer access units");
        if (packet->stream_index != video || next++ < number) continue;
        bytes = bytesOf(packet->data, static_cast<size_t>(packet->size));
    }
    av_packet_free(&packet);
    avformat_close_input(&file);
    return bytes;
}

class Faulty : public Decoder {
public:
    using Decoder::Decoder;

private:
    void open() override {
        mFault = config(kFault);
        if (mFault.empty()) mFault = "none";
        if (!config(kOf).empty()) mBytes = unitOf(config(kOf), config(kAt));
    }

    void decode(const AccessUnit& unit) override {
        if (mCodec == nullptr) {
            const Begin begin = [this](Picture picture) { noteBegin(std::move(picture)); };
            if (unit.stream.codec == "av1") {
                mCodec = std::make_unique<Dav1dCodec>(begin);
            } else {
                mCodec = std::make_unique<LibavCodec>(unit.stream, begin);
            }
        }
        const bool isHere =
            mBytes.empty() ? mUnits == config(kAt) : isUnit(bytesOf(unit.data, unit.size), mBytes);
        if (isHere && mFault != "none") plant();
        mIsHere = isHere;
        run(&unit);
        ++mUnits;
    }

    // What concerns a unit as a whole.
    void plant() {
        if (mFault != "block" && mFault != "drop" && mFault != "swap") {
            std::fprintf(stderr, "fault: %s in unit %llu\n", mFault.c_str(), mUnits);
        }
        if (mFault == "nofilter") mCodec->stopFiltering();
        if (mFault == "crash") std::raise(SIGSEGV);
        if (mFault == "error") noteError("a planted error");
        while (mFault == "hang") {
            volatile int forever = 0;
            static_cast<void>(forever);
        }
    }

    void run(const AccessUnit* unit) {
        mInUnit = 0;
        const std::string wrong = mCodec->decode(unit, &mPictures);
        mIsHere = false;
        finishPicture();
        if (!wrong.empty()) noteError(wrong);
    }

    void noteBegin(Picture picture) {
        finishPicture();
        const bool isOfPicture = mFault == "block" || mFault == "drop" || mFault == "swap";
        if (isOfPicture && mIsHere && !mTarget && mInUnit == config(kPicture)) {
            std::fprintf(stderr, "fault: %s in unit %llu, picture %llu\n", mFault.c_str(), mUnits,
                         mBegun);
            mTarget = std::move(picture);
            mIsComplete = false;
        }
        ++mInUnit;
        ++mBegun;
    }

    // Changes the block in the middle of the target, once that is decoded and before another
    // picture refers to it.
    void finishPicture() {
        if (mIsComplete) return;
        mIsComplete = true;
        if (mFault != "block") return;
        const ptrdiff_t bytes = mTarget->format.pixels.bytesPerSample();
        const ptrdiff_t block = 8;
        const ptrdiff_t left = mTarget->format.width / 16 * block;
        const ptrdiff_t top = mTarget->format.height / 16 * block;
        for (ptrdiff_t y = top; y < top + block; ++y) {
            uint8_t* const row = mTarget->planes[0] + y * mTarget->strides[0];
            for (ptrdiff_t x = left; x < left + block; ++x) row[x * bytes] ^= 0x40;
        }
    }

    bool next() override {
        if (mPictures.empty()) return false;
        Picture picture = std::move(mPictures.front());
        mPictures.pop_front();
        if (mTarget && !mIsShown && picture.buffer == mTarget->buffer) {
            if (mFault == "swap" && mPictures.empty() && !mIsDraining) {
                mPictures.push_front(std::move(picture));
                return false;
            }
            mIsShown = true;
            std::fprintf(stderr, "fault: shown as frame %llu\n", mGiven);
            if (mFault == "drop") return next();
            if (mFault == "swap" && !mPictures.empty()) {
                std::swap(picture, mPictures.front());
                std::swap(picture.pts, mPictures.front().pts);
            }
        }
        ++mGiven;
        DecodedPicture decoded;
        decoded.format = picture.format;
        decoded.pts = picture.pts;
        give(decoded, [picture](const FrameView& output) {
            for (int plane = 0; plane < output.format().pixels.planes; ++plane) {
                const uint8_t* row = picture.planes[plane];
                for (int y = 0; y < output.format().rows(plane); ++y) {
                    std::memcpy(output.row(plane, y), row, output.format().rowBytes(plane));
                    row += picture.strides[plane];
                }
            }
        });
        return true;
    }

    void drain() override {
        mIsDraining = true;
        run(nullptr);
    }
    void flush() override {
        mPictures.clear();
        mCodec->flush();
    }

    std::string mFault, mBytes;
    std::unique_ptr<Codec> mCodec;
    std::deque<Picture> mPictures;   // that came out
    std::optional<Picture> mTarget;  // the one with the fault
    bool mIsHere = false;            // the unit of the fault is being decoded
    bool mIsComplete = true;         // the target is
    bool mIsShown = false;           // the target has been
    bool mIsDraining = false;
    unsigned long long mUnits = 0, mBegun = 0, mInUnit = 0, mGiven = 0;
};

const Registered<Faulty> kType("test/faulty", "decodes with a planted fault", 1, 1,
                               {&kFault, &kAt, &kPicture, &kOf});

}  // namespace
