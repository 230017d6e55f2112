#include "BadFrames.h"

#include "Failure.h"
#include "Files.h"
#include "FrameDiff.h"
#include "Libav.h"

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <filesystem>

namespace vxrun {
namespace {

std::string fileNameOf(std::string name) {
    const auto isOther = [](unsigned char c) { return std::isalnum(c) == 0 && c != '-'; };
    std::replace_if(name.begin(), name.end(), isOther, '_');
    return name;
}

Libav<AVFrame> newFrame(AVPixelFormat pixels, int width, int height) {
    auto frame = made(av_frame_alloc());
    frame->format = pixels;
    frame->width = width;
    frame->height = height;
    if (av_frame_get_buffer(frame.get(), 0) < 0) throw std::bad_alloc();
    return frame;
}

// Nothing is written where libswscale does not know the format.
void writePng(const std::string& path, AVPixelFormat pixels,
              const std::vector<Payload::Plane>& planes, const PictureFormat& format) {
    if (sws_isSupportedInput(pixels) == 0) return;
    const int width = static_cast<int>(format.width);
    const int height = static_cast<int>(format.height);
    const auto picture = newFrame(pixels, width, height);  // padded, since libswscale reads on
    for (size_t p = 0; p < planes.size(); ++p) {
        av_image_copy_plane(picture->data[p], picture->linesize[p], planes[p].data,
                            static_cast<int>(planes[p].stride),
                            static_cast<int>(planes[p].rowBytes), static_cast<int>(planes[p].rows));
    }
    const bool deep = av_pix_fmt_desc_get(pixels)->comp[0].depth > 8;
    const AVPixelFormat gray = deep ? AV_PIX_FMT_GRAY16BE : AV_PIX_FMT_GRAY8;
    const AVPixelFormat rgb = deep ? AV_PIX_FMT_RGB48BE : AV_PIX_FMT_RGB24;
    const auto shown = newFrame(planes.size() == 1 ? gray : rgb, width, height);
    const std::unique_ptr<SwsContext, void (*)(SwsContext*)> scaler(
        sws_getContext(width, height, pixels, width, height,
                       static_cast<AVPixelFormat>(shown->format), SWS_BILINEAR | SWS_ACCURATE_RND,
                       nullptr, nullptr, nullptr),
        sws_freeContext);
    int result = scaler == nullptr ? AVERROR(EINVAL)
                                   : sws_scale_frame(scaler.get(), shown.get(), picture.get());
    const AVCodec* const png = avcodec_find_encoder(AV_CODEC_ID_PNG);
    const auto context = made(avcodec_alloc_context3(png));
    context->width = width;
    context->height = height;
    context->pix_fmt = static_cast<AVPixelFormat>(shown->format);
    context->time_base = {1, 1};
    const auto packet = made(av_packet_alloc());
    if (result >= 0) result = avcodec_open2(context.get(), png, nullptr);
    if (result >= 0) result = avcodec_send_frame(context.get(), shown.get());
    if (result >= 0) result = avcodec_receive_packet(context.get(), packet.get());
    if (result < 0) throw Failure(path + ": no picture can be made: " + libavText(result));
    OutputFile file(path);
    file.write(packet->data, static_cast<size_t>(packet->size));
    file.commit();
}

// A byte for each sample of the first plane.
std::vector<uint8_t> differenceOf(const Payload& got, const Payload& wanted) {
    constexpr uint32_t kVisible = 64;
    constexpr uint32_t kFactor = 8;
    const PictureFormat& format = got.format();
    std::vector<uint8_t> picture;
    for (size_t y = 0; y < format.height; ++y) {
        for (size_t x = 0; x < format.width; ++x) {
            uint32_t largest = 0;
            for (size_t p = 0; p < got.planes().size(); ++p) {
                const auto sample = [&](const Payload& payload) {
                    const Payload::Plane& plane = payload.planes()[p];
                    const size_t row = y / (p == 0 ? 1 : format.chromaDivY);
                    return FrameDiff::sample(payload, plane.data + row * plane.stride,
                                             x / (p == 0 ? 1 : format.chromaDivX));
                };
                const auto [low, high] = std::minmax({sample(got), sample(wanted)});
                largest = std::max(largest, high - low);
            }
            picture.push_back(static_cast<uint8_t>(
                largest == 0 ? 0 : std::min(kVisible + kFactor * largest, 255u)));
        }
    }
    return picture;
}

}  // namespace

BadFrames::BadFrames(const std::string& folder, uint64_t limit, const std::string& node)
    : mStem(folder + "/" + fileNameOf(node)), mLeft(folder.empty() ? 0 : limit) {
    if (folder.empty()) return;
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    if (!error && !std::filesystem::is_directory(folder, error)) {
        error = std::make_error_code(std::errc::not_a_directory);
    }
    if (error) {
        throw Failure("config 'dump_bad': the folder " + quote(folder) +
                      " cannot be made: " + error.message());
    }
}

void BadFrames::add(uint64_t frame, const Payload& got, const Payload* wanted) {
    if (mLeft == 0) return;
    --mLeft;
    CodecLog::takeOver();
    char number[32];
    std::snprintf(number, sizeof number, ".frame%06llu.", static_cast<unsigned long long>(frame));
    write(mStem + number + "got", got);
    if (wanted == nullptr) return;
    write(mStem + number + "wanted", *wanted);
    const PictureFormat& format = got.format();
    if (!got.isPicture() || !FrameDiff::comparable(got, *wanted)) return;
    std::vector<uint8_t> difference = differenceOf(got, *wanted);
    OutputFile raw(mStem + number + "diff.raw");
    raw.write(difference.data(), difference.size());
    raw.commit();
    writePng(mStem + number + "diff.png", AV_PIX_FMT_GRAY8,
             {{difference.data(), format.width, format.width, format.height}}, format);
}

void BadFrames::write(const std::string& path, const Payload& payload) {
    OutputFile raw(path + ".raw");
    payload.forEachRow([&](const uint8_t* row, size_t bytes) { raw.write(row, bytes); });
    raw.commit();
    if (!payload.isPicture()) return;
    const PictureFormat& format = payload.format();
    writePng(path + ".png", av_get_pix_fmt(format.pixels.c_str()), payload.planes(), format);
}

}  // namespace vxrun
