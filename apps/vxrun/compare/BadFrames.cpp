#include "BadFrames.h"

#include "Files.h"
#include "FrameDiff.h"
#include "LibavFrames.h"
#include "Text.h"

extern "C" {
#include <libavutil/imgutils.h>
}

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <filesystem>

namespace vxrun {

const PathKey kDumpBad{"dump_bad", "the folder for frames that differ, as PNG and raw"};
const NumberKey kDumpLimit{"dump_limit", 1, 1000000, 8,
                           "the most frames to write there, default 8"};

namespace {

std::string fileNameOf(std::string name) {
    const auto isOther = [](unsigned char c) { return std::isalnum(c) == 0 && c != '-'; };
    std::replace_if(name.begin(), name.end(), isOther, '_');
    return name;
}

void writeFile(const std::string& path, const void* data, size_t size) {
    OutputFile file(path);
    file.write(data, size);
    file.commit();
}

// Nothing is written where libswscale does not know the format.
void writePng(const std::string& path, const AVFrame& picture) {
    const auto pixels = static_cast<AVPixelFormat>(picture.format);
    if (sws_isSupportedInput(pixels) == 0) return;
    const AVPixFmtDescriptor& format = *av_pix_fmt_desc_get(pixels);
    const bool deep = format.comp[0].depth > 8;
    const AVPixelFormat gray = deep ? AV_PIX_FMT_GRAY16BE : AV_PIX_FMT_GRAY8;
    const AVPixelFormat rgb = deep ? AV_PIX_FMT_RGB48BE : AV_PIX_FMT_RGB24;
    const auto shown =
        newPicture(format.nb_components == 1 ? gray : rgb, picture.width, picture.height);
    const auto scaler = newScaler(picture, *shown, "bilinear+accurate_rnd");
    const AVCodec* const png = avcodec_find_encoder(AV_CODEC_ID_PNG);
    const auto context = made(avcodec_alloc_context3(png));
    context->width = shown->width;
    context->height = shown->height;
    context->pix_fmt = static_cast<AVPixelFormat>(shown->format);
    context->time_base = {1, 1};
    const auto packet = made(av_packet_alloc());
    int result = sws_scale_frame(scaler.get(), shown.get(), &picture);
    if (result >= 0) result = avcodec_open2(context.get(), png, nullptr);
    if (result >= 0) result = avcodec_send_frame(context.get(), shown.get());
    if (result >= 0) result = avcodec_receive_packet(context.get(), packet.get());
    if (result < 0) throw Failure(path + ": cannot make a PNG: " + libavText(result));
    writeFile(path, packet->data, static_cast<size_t>(packet->size));
}

void writeFrame(const std::string& path, const FrameView& frame) {
    OutputFile raw(path + ".raw");
    frame.forEachRow([&](const uint8_t* row, size_t bytes) { raw.write(row, bytes); });
    raw.commit();
    if (frame.isPicture()) writePng(path + ".png", *copyOf(frame));
}

}  // namespace

BadFrames::BadFrames(const std::string& folder, uint64_t limit, const std::string& node,
                     std::function<void(const std::string&)> print)
    : mPrint(std::move(print)),
      mStem(folder + "/" + fileNameOf(node)),
      mLeft(folder.empty() ? 0 : limit) {
    if (folder.empty()) return;
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    if (!error && !std::filesystem::is_directory(folder, error)) {
        error = std::make_error_code(std::errc::not_a_directory);
    }
    if (error) {
        throw Failure("config 'dump_bad': the folder " + quote(folder) +
                      " cannot be created: " + error.message());
    }
    CodecLog::takeOver();
}

void BadFrames::dump(uint64_t frame, const FrameView& actual, const FrameView* expected) {
    if (mLeft == 0) return;
    --mLeft;
    try {
        write(frame, actual, expected);
    } catch (const Failure& failure) {
        mPrint(std::string("no more frames are dumped: ") + failure.what());
        mLeft = 0;
    }
}

void BadFrames::write(uint64_t frame, const FrameView& actual, const FrameView* expected) const {
    char number[32];
    std::snprintf(number, sizeof number, ".frame%06llu.", static_cast<unsigned long long>(frame));
    writeFrame(mStem + number + "actual", actual);
    if (expected == nullptr) return;
    writeFrame(mStem + number + "expected", *expected);
    const std::vector<uint8_t> difference = FrameDiff(actual, *expected, 0).picture();
    if (difference.empty() || !actual.isPicture()) return;
    writeFile(mStem + number + "diff.raw", difference.data(), difference.size());
    const int width = actual.format().width, height = actual.format().height;
    const auto picture = newPicture(AV_PIX_FMT_GRAY8, width, height);
    av_image_copy_plane(picture->data[0], picture->linesize[0], difference.data(), width, width,
                        height);
    writePng(mStem + number + "diff.png", *picture);
}

}  // namespace vxrun
