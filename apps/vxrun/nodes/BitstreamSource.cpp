// source/bitstream: the access units of the best video stream of a file, as libavformat demuxes them.
#include "Producer.h"

#include <cstring>

namespace vxrun {
namespace {

class BitstreamSource : public Producer {
public:
    using Producer::Producer;

private:
    void open() override {
        CodecLog::takeOver();
        mPath = requiredConfig("file");
        openFile();
        const int best = av_find_best_stream(mFile.get(), AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
        if (best < 0) throw Failure(mPath + ": no video stream in the file");
        for (unsigned i = 0; i < mFile->nb_streams; ++i) {
            if (static_cast<int>(i) != best) mFile->streams[i]->discard = AVDISCARD_ALL;
        }
        mVideo = mFile->streams[best];
        describe();
        if (!next()) throw Failure(mPath + ": no access unit in the file");
    }

    void openFile() {
        // A file is a file, whatever its name looks like, and fetches nothing from elsewhere.
        LibavOptions options(config("options"));
        av_dict_set(options.get(), "protocol_whitelist", "file", 0);
        AVFormatContext* file = nullptr;
        const int result =
            avformat_open_input(&file, ("file:" + mPath).c_str(), nullptr, options.get());
        mFile.reset(file);
        // "tty" takes any text for a video, by the file's name.
        const bool unknown = result == AVERROR_INVALIDDATA ||
                             (result == 0 && std::strcmp(file->iformat->name, "tty") == 0);
        if (unknown) throw Failure(mPath + ": no video file that libavformat can read");
        check(result);
        options.check(0, std::string("the demuxer ") + file->iformat->name);
        check(avformat_find_stream_info(file, nullptr));
    }

    void describe() {
        const AVCodecParameters& parameters = *mVideo->codecpar;
        if (parameters.codec_id == AV_CODEC_ID_NONE) {
            throw Failure(mPath + ": a video stream of an unknown codec", "NOT_SUPPORTED");
        }
        const int result = avcodec_parameters_copy(mStream->parameters.get(), &parameters);
        if (result < 0) throw std::bad_alloc();
        mStream->frameRate = av_guess_frame_rate(mFile.get(), mVideo, nullptr);
        mStream->codec = avcodec_get_name(parameters.codec_id);
        mStream->picture = {AV_PIX_FMT_NONE, parameters.width, parameters.height};
        mStream->timeBase = mVideo->time_base;
        mStream->sar = av_guess_sample_aspect_ratio(mFile.get(), mVideo, nullptr);
    }

    bool next() override {
        auto unit = made(av_packet_alloc());
        do {
            av_packet_unref(unit.get());
            const int result = av_read_frame(mFile.get(), unit.get());
            // Many demuxers take a failing read for the end of the file.
            if (result == AVERROR_EOF && mFile->pb != nullptr) check(mFile->pb->error);
            if (result == AVERROR_EOF) return false;
            check(result, ": access unit " + std::to_string(mUnits));
        } while (unit->stream_index != mVideo->index || unit->size == 0);
        ++mUnits;
        // Time starts at 0, as it does for those who write lists.
        const int64_t start = mVideo->start_time == AV_NOPTS_VALUE ? 0 : mVideo->start_time;
        for (int64_t* time : {&unit->dts, &unit->pts}) {
            if (*time != AV_NOPTS_VALUE) *time -= start;
        }
        giveUnit(std::move(unit), mStream);
        return true;
    }

    void check(int result, const std::string& at = "") const {
        if (result < 0 && result != AVERROR_EOF) {
            throw Failure(mPath + at + ": " + libavText(result));
        }
    }

    std::string mPath;
    Libav<AVFormatContext> mFile;
    AVStream* mVideo = nullptr;  // of mFile
    const std::shared_ptr<BitstreamInfo> mStream = std::make_shared<BitstreamInfo>();
    uint64_t mUnits = 0;  // that were read
};

const bool kAdded = addNodeType<BitstreamSource>(
    "source/bitstream", "the access units of a video file", 0, 1,
    {{"file", kFile, "the file to read: MP4, Matroska, IVF, Annex B, ..."},
     {"options", kText, "of the demuxer: key=value:key=value"}});

}  // namespace
}  // namespace vxrun
