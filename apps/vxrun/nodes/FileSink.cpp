// sink/file: the visible bytes of every frame, one after another, or in a container.
#include "Files.h"
#include "Keys.h"
#include "MediaLibraries.h"
#include "Y4m.h"

#include <vxkit/Sink.h>

#include <cstring>
#include <filesystem>
#include <optional>

namespace vxrun {
namespace {

const TextKey kContainer{
    "container",
    "raw, y4m, or of libavformat's ivf, h264, hevc, obu, mp4, matroska, ...; default by the file's "
    "extension, else raw"};

class FileSink : public Sink {
public:
    using Sink::Sink;

private:
    void open() override {
        const std::string path = requiredConfig(kFile);
        mContainer = config(kContainer);
        const std::string extension = std::filesystem::path(path).extension();
        const bool known = std::strstr(" .y4m .ivf .264 .h264 .265 .hevc .obu .mp4 .mkv ",
                                       (" " + extension + " ").c_str()) != nullptr;
        if (mContainer.empty()) mContainer = known ? extension.substr(1) : "raw";
        if (mContainer != "raw" && mContainer != "y4m") mMuxer = newMuxer(mContainer);
    }

    void begin() override {
        mFile.emplace(config(kFile));
        if (mMuxer) mMuxer->open(mFile->alias());
    }

    void consume(const Frame& frame) override {
        const PictureFormat& format = frame.stream.picture;
        if (mContainer != "raw" && mPicture && *mPicture != format) {
            throw Failure("a frame of " + format.description() + " after " +
                          mPicture->description() + ": the container " + mContainer +
                          " accepts one size and format");
        }
        if (mMuxer) {
            mMuxer->writeUnit(frame);
        } else {
            if (mContainer == "y4m") {
                mFile->write((mPicture ? "" : y4mHeader(frame.stream)) + "FRAME\n");
            }
            frame.forEachRow(
                [this](const uint8_t* row, size_t bytes) { mFile->write(row, bytes); });
        }
        mPicture = format;
    }

    void finish() override {
        if (mMuxer) mMuxer->finish();
        mFile->commit();
    }

    std::string mContainer;
    std::optional<OutputFile> mFile;        // that mMuxer, where there is one, writes to
    std::unique_ptr<Muxer> mMuxer;          // for all but raw and y4m
    std::optional<PictureFormat> mPicture;  // of the last frame
};

const Registered<FileSink> kType("sink/file",
                                 "writes every frame; the file appears when it is complete", 1, 0,
                                 {&kFile, &kContainer});

}  // namespace
}  // namespace vxrun
