// VideoFile: the best video stream of a file, as libavformat demuxes it.
#pragma once

#include "LibavFrames.h"
#include "MediaLibraries.h"

#include <memory>
#include <string>

namespace vxrun {

// Failures begin with the path.
//
// Threads  one at a time.
// Owns     the open file.
class VideoFile final : public VideoProbe {
public:
    // Opens `path` with options of the demuxer, key=value:key=value. Verdict::NotSupported: the
    // codec is not known.
    VideoFile(std::string path, const std::string& options);

    const std::string& path() const { return mPath; }
    const std::shared_ptr<LibavStreamInfo>& stream() const { return mStream; }
    const AVFormatContext& file() const { return *mFile; }
    const AVStream& track() const { return *mVideo; }
    std::string codec() const override { return mStream->codec; }
    PictureFormat picture() const override;
    bool changesSize() override;
    // Reads the next access unit; false at the end of the file.
    bool next(AVPacket* unit);

private:
    void open(const std::string& options);
    void describe();
    void check(int result, const std::string& at = "") const;

    const std::string mPath;
    Libav<AVFormatContext> mFile;
    AVStream* mVideo = nullptr;  // of mFile
    const std::shared_ptr<LibavStreamInfo> mStream = std::make_shared<LibavStreamInfo>();
    uint64_t mUnits = 0;  // that were read
};

}  // namespace vxrun
