#include "Libav.h"

#include "Failure.h"

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/pixdesc.h>
}

#include <cstdio>
#include <cstring>
#include <utility>

namespace vxrun {

std::string libavText(int error) {
    char text[AV_ERROR_MAX_STRING_SIZE] = "";
    av_strerror(error, text, sizeof text);
    return text;
}

LibavOptions::LibavOptions(const std::string& text) : mText(text) {
    const int result = av_dict_parse_string(&mOptions, text.c_str(), "=", ":", 0);
    if (result == 0) return;
    av_dict_free(&mOptions);
    throw Failure("config 'options': expected key=value:key=value, got " + quote(text));
}

void LibavOptions::preset(const char* key, const std::string& value) {
    if (!value.empty()) av_dict_set(&mOptions, key, value.c_str(), AV_DICT_DONT_OVERWRITE);
}

void LibavOptions::check(int result, const std::string& who) const {
    if (result < 0) {
        throw Failure(who + " does not open" +
                      (mText.empty() ? "" : " with the options " + quote(mText)) + ": " +
                      libavText(result));
    }
    const AVDictionaryEntry* const left = av_dict_get(mOptions, "", nullptr, AV_DICT_IGNORE_SUFFIX);
    if (left != nullptr) {
        throw Failure(who + " has no option " + quote(left->key));
    }
}

PictureFormat formatOf(AVPixelFormat pixels, int width, int height) {
    const AVPixFmtDescriptor* const known = av_pix_fmt_desc_get(pixels);
    if (known == nullptr) throw Failure("a picture of no known pixel format");
    const int depth = known->comp[0].depth;
    const int bytes = depth > 8 ? 2 : 1;
    constexpr uint64_t kOtherwise = AV_PIX_FMT_FLAG_PAL | AV_PIX_FMT_FLAG_BITSTREAM |
                                    AV_PIX_FMT_FLAG_HWACCEL | AV_PIX_FMT_FLAG_ALPHA |
                                    AV_PIX_FMT_FLAG_FLOAT;
    bool fits = (known->nb_components == 1 || known->nb_components == 3) && depth >= 8 &&
                depth <= 16 && (known->flags & kOtherwise) == 0 &&
                (bytes == 1 || (known->flags & AV_PIX_FMT_FLAG_BE) == 0);
    for (int i = 0; i < known->nb_components; ++i) {
        const AVComponentDescriptor& component = known->comp[i];
        fits = fits && component.depth == depth && component.step == bytes &&
               component.offset == 0 && component.shift == 0;
    }
    if (!fits || av_pix_fmt_count_planes(pixels) != known->nb_components) {
        throw Failure(std::string("the pixel format ") + known->name + " is not supported",
                      "NOT_SUPPORTED");
    }
    PictureFormat format;
    format.width = static_cast<uint32_t>(width);
    format.height = static_cast<uint32_t>(height);
    format.planes = known->nb_components;
    format.chromaDivX = 1u << known->log2_chroma_w;
    format.chromaDivY = 1u << known->log2_chroma_h;
    format.bytesPerSample = static_cast<uint32_t>(bytes);
    format.depth = static_cast<uint32_t>(depth);
    format.pixels = known->name;
    return format;
}

Libav<AVFrame> newPicture(const PictureFormat& format) {
    auto picture = made(av_frame_alloc());
    picture->format = av_get_pix_fmt(format.pixels.c_str());
    picture->width = static_cast<int>(format.width);
    picture->height = static_cast<int>(format.height);
    if (picture->format == AV_PIX_FMT_NONE) {
        throw Failure("no pixel format " + quote(format.pixels), "NOT_SUPPORTED");
    }
    if (av_frame_get_buffer(picture.get(), 0) < 0) throw std::bad_alloc();
    return picture;
}

namespace {

enum class Direction { TO_PAYLOAD, TO_PICTURE };

void copy(const Payload& payload, const AVFrame& picture, Direction direction) {
    int i = 0;
    for (const Payload::Plane& plane : payload.planes()) {
        std::pair to(plane.data, static_cast<int>(plane.stride));
        std::pair from(picture.data[i], picture.linesize[i]);
        if (direction == Direction::TO_PICTURE) std::swap(to, from);
        av_image_copy_plane(to.first, to.second, from.first, from.second,
                            static_cast<int>(plane.rowBytes), static_cast<int>(plane.rows));
        ++i;
    }
}

}  // namespace

void copyPicture(const AVFrame& picture, const Payload& payload) {
    copy(payload, picture, Direction::TO_PAYLOAD);
}

Libav<AVFrame> pictureOf(const vexa::VXSharedWork& work, const StreamInfo** stream) {
    const auto buffer = work.payload<vexa::VXGraphicBuffer>();
    *stream = infoOf<StreamInfo>(work.frameInfo());
    if (buffer == nullptr || *stream == nullptr) throw Failure("a work without a picture");
    auto picture = newPicture((*stream)->picture);
    copy(Payload(buffer, **stream), *picture, Direction::TO_PICTURE);
    return picture;
}

Libav<AVPacket> unitOf(const Payload& payload, const vexa::VXFrameInfo& frame,
                       const BitstreamInfo** stream) {
    *stream = infoOf<BitstreamInfo>(frame);
    const auto* const info = infoOf<UnitInfo>(frame);
    if (*stream == nullptr || info == nullptr) {
        throw Failure("a work without an access unit of a source/bitstream or codec/encoder");
    }
    auto packet = made(av_packet_alloc());
    const Payload::Plane& bytes = payload.planes().front();
    if (av_new_packet(packet.get(), static_cast<int>(bytes.rowBytes)) < 0) throw std::bad_alloc();
    std::memcpy(packet->data, bytes.data, bytes.rowBytes);
    if (av_packet_copy_props(packet.get(), info->properties.get()) < 0) throw std::bad_alloc();
    return packet;
}

void CodecLog::attach(AVCodecContext* codec) {
    takeOver();
    codec->opaque = this;  // the copies that a codec makes for its threads keep it
}

std::string CodecLog::take() {
    std::lock_guard<std::mutex> lock(mLock);
    return std::exchange(mFirst, {});
}

void CodecLog::write(void* object, int level, const char* format, va_list arguments) {
    // What logs is an object that begins with a pointer to its class.
    if (level > AV_LOG_ERROR || object == nullptr) return;
    if (*static_cast<const AVClass**>(object) != avcodec_get_class()) return;
    auto* const log = static_cast<CodecLog*>(static_cast<AVCodecContext*>(object)->opaque);
    if (log == nullptr) return;  // a codec of the demuxer's
    char text[256];
    std::vsnprintf(text, sizeof text, format, arguments);
    std::string line = text;
    line.erase(line.find_last_not_of(" \n") + 1);
    std::lock_guard<std::mutex> lock(log->mLock);
    if (log->mFirst.empty()) log->mFirst = line;
}

void CodecLog::takeOver() {
    static std::once_flag once;
    std::call_once(once, [] { av_log_set_callback(CodecLog::write); });
}

}  // namespace vxrun
