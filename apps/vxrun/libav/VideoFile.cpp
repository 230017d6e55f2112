#include "VideoFile.h"

#include "Text.h"

#include <cstring>
#include <set>

namespace vxrun {

VideoFile::VideoFile(std::string path, const std::string& options) : mPath(std::move(path)) {
    CodecLog::takeOver();
    open(options);
    const int best = av_find_best_stream(mFile.get(), AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    if (best < 0) throw Failure(mPath + ": no video stream in the file");
    for (unsigned i = 0; i < mFile->nb_streams; ++i) {
        if (static_cast<int>(i) != best) mFile->streams[i]->discard = AVDISCARD_ALL;
    }
    mVideo = mFile->streams[best];
    describe();
}

void VideoFile::open(const std::string& text) {
    // The path is a file's, even if it looks like a URL, and a file must not fetch anything
    // from elsewhere.
    LibavOptions options(text);
    av_dict_set(options.get(), "protocol_whitelist", "file", 0);
    AVFormatContext* file = nullptr;
    const int result =
        avformat_open_input(&file, ("file:" + mPath).c_str(), nullptr, options.get());
    mFile.reset(file);
    // "tty" accepts any text as a video, because of the file's name.
    const bool unknown = result == AVERROR_INVALIDDATA ||
                         (result == 0 && std::strcmp(file->iformat->name, "tty") == 0);
    if (unknown) throw Failure(mPath + ": not a video file that libavformat can read");
    check(result);
    options.check(0, std::string("the demuxer ") + file->iformat->name);
    check(avformat_find_stream_info(file, nullptr));
}

void VideoFile::describe() {
    const AVCodecParameters& parameters = *mVideo->codecpar;
    if (parameters.codec_id == AV_CODEC_ID_NONE) {
        throw Failure(mPath + ": a video stream of an unknown codec", Verdict::NotSupported);
    }
    const int result = avcodec_parameters_copy(mStream->parameters.get(), &parameters);
    if (result < 0) throw std::bad_alloc();
    mStream->describe();
    mStream->frameRate = fromLibav(av_guess_frame_rate(mFile.get(), mVideo, nullptr));
    mStream->timeBase = fromLibav(mVideo->time_base);
    mStream->sar = fromLibav(av_guess_sample_aspect_ratio(mFile.get(), mVideo, nullptr));
}

bool VideoFile::next(AVPacket* unit) {
    do {
        av_packet_unref(unit);
        const int result = av_read_frame(mFile.get(), unit);
        // Many demuxers treat a failing read as the end of the file.
        if (result == AVERROR_EOF && mFile->pb != nullptr) check(mFile->pb->error);
        if (result == AVERROR_EOF) return false;
        check(result, ": access unit " + std::to_string(mUnits));
    } while (unit->stream_index != mVideo->index || unit->size == 0);
    ++mUnits;
    // Time starts at 0, as it does in the lists of other programs.
    const int64_t start = mVideo->start_time == AV_NOPTS_VALUE ? 0 : mVideo->start_time;
    for (int64_t* time : {&unit->dts, &unit->pts}) {
        if (*time != AV_NOPTS_VALUE) *time -= start;
    }
    return true;
}

PictureFormat VideoFile::picture() const {
    const AVCodecParameters& codec = *mVideo->codecpar;
    return formatOf(static_cast<AVPixelFormat>(codec.format), codec.width, codec.height);
}

bool VideoFile::changesSize() {
    const AVCodec* const codec = avcodec_find_decoder(mVideo->codecpar->codec_id);
    const auto context = made(avcodec_alloc_context3(codec));
    if (codec == nullptr || avcodec_parameters_to_context(context.get(), mVideo->codecpar) < 0 ||
        avcodec_open2(context.get(), codec, nullptr) < 0) {
        return false;
    }
    const auto unit = made(av_packet_alloc());
    const auto picture = made(av_frame_alloc());
    std::set<std::pair<int, int>> sizes;
    for (bool hasMore = true; hasMore;) {
        hasMore = next(unit.get());
        avcodec_send_packet(context.get(), hasMore ? unit.get() : nullptr);
        while (avcodec_receive_frame(context.get(), picture.get()) == 0) {
            sizes.insert({picture->width, picture->height});
        }
    }
    return sizes.size() > 1;
}

void VideoFile::check(int result, const std::string& at) const {
    if (result < 0 && result != AVERROR_EOF) {
        throw Failure(mPath + at + ": " + libavText(result));
    }
}

}  // namespace vxrun
