#include "LibavFrames.h"

#include "Text.h"

#include <cstring>

namespace vxrun {

AVRational asLibav(Rational value) {
    return {value.num, value.den};
}

Rational fromLibav(AVRational value) {
    return {value.num, value.den};
}

PictureFormat formatOf(AVPixelFormat pixels, int width, int height) {
    const char* const name = av_get_pix_fmt_name(pixels);
    if (name == nullptr) throw Failure("a picture of an unknown pixel format");
    const auto format = findPixelFormat(name);
    if (!format) {
        throw Failure(std::string("the pixel format ") + name + " is not supported",
                      Verdict::NotSupported);
    }
    return {*format, width, height};
}

AVPixelFormat pixelsOf(const PictureFormat& format) {
    return format.isPicture() ? av_get_pix_fmt(format.pixels.name.c_str()) : AV_PIX_FMT_NONE;
}

// The planes as libavutil has them, which are not padded.
static Libav<AVFrame> viewOf(const FrameView& picture) {
    auto view = made(av_frame_alloc());
    view->format = pixelsOf(picture.format());
    view->width = picture.format().width;
    view->height = picture.format().height;
    for (int plane = 0; plane < picture.format().pixels.planes; ++plane) {
        view->data[plane] = picture.plane(plane);
        view->linesize[plane] = static_cast<int>(picture.stride());
    }
    return view;
}

Libav<AVFrame> copyOf(const FrameView& picture) {
    if (!picture.isPicture()) throw Failure("a work without a picture");
    const PictureFormat& format = picture.format();
    auto copy = newPicture(pixelsOf(format), format.width, format.height);
    if (av_frame_copy(copy.get(), viewOf(picture).get()) < 0) {
        throw Failure("a picture without a size");
    }
    return copy;
}

void copyTo(const FrameView& picture, const AVFrame& source) {
    av_frame_copy(viewOf(picture).get(), &source);
}

void LibavStreamInfo::describe() {
    codec = avcodec_get_name(parameters->codec_id);
    picture = {{}, parameters->width, parameters->height};
    const uint8_t* const extra = parameters->extradata;
    headers.assign(extra, extra + parameters->extradata_size);
}

// As libavcodec's encoders state it in a packet's side data: 4 bytes of quality, then the type.
static char pictureTypeOf(const AVPacket& packet) {
    constexpr size_t kType = 4;
    size_t size = 0;
    const uint8_t* const stats = av_packet_get_side_data(&packet, AV_PKT_DATA_QUALITY_STATS, &size);
    if (stats == nullptr || size <= kType) return 0;
    const auto type = static_cast<AVPictureType>(stats[kType]);
    const bool isKnown =
        type == AV_PICTURE_TYPE_I || type == AV_PICTURE_TYPE_P || type == AV_PICTURE_TYPE_B;
    return isKnown ? av_get_picture_type_char(type) : '\0';
}

LibavUnitInfo::LibavUnitInfo(const AVPacket& packet) {
    if (av_packet_copy_props(properties.get(), &packet) < 0) throw std::bad_alloc();
    static_assert(kNoTime == AV_NOPTS_VALUE, "times are copied as they are");
    pts = packet.pts;
    dts = packet.dts;
    duration = packet.duration;
    isKey = (packet.flags & AV_PKT_FLAG_KEY) != 0;
    isCorrupt = (packet.flags & AV_PKT_FLAG_CORRUPT) != 0;
    pictureType = pictureTypeOf(packet);
}

Libav<AVPacket> packetOf(const AccessUnit& unit) {
    auto packet = made(av_packet_alloc());
    if (av_new_packet(packet.get(), static_cast<int>(unit.size)) < 0) throw std::bad_alloc();
    std::memcpy(packet->data, unit.data, unit.size);
    if (const auto* info = dynamic_cast<const LibavUnitInfo*>(&unit.info)) {
        if (av_packet_copy_props(packet.get(), info->properties.get()) < 0) throw std::bad_alloc();
        return packet;
    }
    packet->pts = unit.info.pts;
    packet->dts = unit.info.dts;
    packet->duration = unit.info.duration;
    packet->flags =
        (unit.info.isKey ? AV_PKT_FLAG_KEY : 0) | (unit.info.isCorrupt ? AV_PKT_FLAG_CORRUPT : 0);
    return packet;
}

Libav<AVCodecParameters> parametersOf(const BitstreamInfo& stream) {
    auto parameters = made(avcodec_parameters_alloc());
    if (const auto* info = dynamic_cast<const LibavStreamInfo*>(&stream)) {
        if (avcodec_parameters_copy(parameters.get(), info->parameters.get()) < 0) {
            throw std::bad_alloc();
        }
        return parameters;
    }
    const auto* const codec = avcodec_descriptor_get_by_name(stream.codec.c_str());
    parameters->codec_type = AVMEDIA_TYPE_VIDEO;
    parameters->codec_id = codec != nullptr ? codec->id : AV_CODEC_ID_NONE;
    parameters->width = stream.picture.width;
    parameters->height = stream.picture.height;
    const size_t size = stream.headers.size();
    parameters->extradata = static_cast<uint8_t*>(av_mallocz(size + AV_INPUT_BUFFER_PADDING_SIZE));
    if (parameters->extradata == nullptr) throw std::bad_alloc();
    std::memcpy(parameters->extradata, stream.headers.data(), size);
    parameters->extradata_size = static_cast<int>(size);
    return parameters;
}

}  // namespace vxrun
