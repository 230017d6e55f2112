// source/bitstream: the access units of the best video stream of a file, as libavformat demuxes them.
#include "AppNode.h"
#include "Failure.h"
#include "Libav.h"

#include <algorithm>
#include <cstring>

namespace vxrun {
namespace {

class BitstreamSource final : public Source {
public:
    explicit BitstreamSource(NodeArguments arguments) : Source(std::move(arguments)) {}
    ~BitstreamSource() override { teardown(); }

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
        if (!hasNext()) throw Failure(mPath + ": no access unit in the file");
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
        mStream->media = "video";
        mStream->codec = avcodec_get_name(parameters.codec_id);
        mStream->picture.width = static_cast<uint32_t>(parameters.width);
        mStream->picture.height = static_cast<uint32_t>(parameters.height);
        mStream->timeBase = rational(mVideo->time_base);
        mStream->sar = rational(av_guess_sample_aspect_ratio(mFile.get(), mVideo, nullptr));
    }

    void fill(const std::shared_ptr<vexa::VXBuffer>& buffer, vexa::VXFrameInfo* frame) override {
        Payload(buffer, *mStream).forEachRow([this](uint8_t* row, size_t) {
            std::memcpy(row, mNext->data, static_cast<size_t>(mNext->size));
        });
        buffer->setFilledRange(0, static_cast<size_t>(mNext->size));
        // Time starts at 0, as it does for those who write lists.
        const int64_t start = mVideo->start_time == AV_NOPTS_VALUE ? 0 : mVideo->start_time;
        for (int64_t* time : {&mNext->dts, &mNext->pts}) {
            if (*time != AV_NOPTS_VALUE) *time -= start;
        }
        const int64_t time = mNext->pts != AV_NOPTS_VALUE ? mNext->pts : mNext->dts;
        frame->timestamp = static_cast<uint64_t>(std::max<int64_t>(time, 0));
        const auto unit = std::make_shared<UnitInfo>();
        if (av_packet_copy_props(unit->properties.get(), mNext.get()) < 0) throw std::bad_alloc();
        frame->mInfos = {mStream, unit};
    }

    // Reads ahead, since the last access unit has to say that it is.
    bool hasNext() override {
        do {
            av_packet_unref(mNext.get());
            const int result = av_read_frame(mFile.get(), mNext.get());
            // Many demuxers take a failing read for the end of the file.
            if (result == AVERROR_EOF && mFile->pb != nullptr) check(mFile->pb->error);
            if (result == AVERROR_EOF) return false;
            if (result < 0) {
                throw Failure(mPath + ": access unit " + std::to_string(mUnits) + ": " +
                              libavText(result));
            }
        } while (mNext->stream_index != mVideo->index || mNext->size == 0);
        ++mUnits;
        const size_t size = static_cast<size_t>(mNext->size);
        if (size > mBlock) {
            while (mBlock < size) mBlock *= 2;
            makeBlockPool(mBlock);
        } else if (mUnits == 1) {
            makeBlockPool(mBlock);
        }
        return true;
    }

    void check(int result) const {
        if (result < 0 && result != AVERROR_EOF) throw Failure(mPath + ": " + libavText(result));
    }

    std::string mPath;
    Libav<AVFormatContext> mFile;
    AVStream* mVideo = nullptr;  // of mFile
    const std::shared_ptr<BitstreamInfo> mStream = std::make_shared<BitstreamInfo>();
    const Libav<AVPacket> mNext = made(av_packet_alloc());
    uint64_t mUnits = 0;      // that were read
    size_t mBlock = 1 << 16;  // bytes of the pool's blocks
};

}  // namespace

extern const NodeType kBitstreamSource = {
    "source/bitstream",
    "the access units of a video file",
    0,
    1,
    {{"file", true, "the file to read: MP4, Matroska, IVF, Annex B, ..."},
     {"options", false, "of the demuxer: key=value:key=value"}},
    makeNode<BitstreamSource>};

}  // namespace vxrun
