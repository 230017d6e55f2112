// PictureBytes: pictures of a stream of bytes that arrives in pieces: Y4M, recognized by its first
// bytes, or raw video of one size and format.
#pragma once

#include "Vxkit.h"

#include <vxkit/FrameView.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace vxrun {

// Life     bytes go to room() and are announced by added(); while hasPicture(), takePicture().
// Threads  one at a time.
// Owns     the bytes of at least one picture.
class PictureBytes {
public:
    // `rawStream` is called once when the bytes are not Y4M. It may throw.
    explicit PictureBytes(std::function<StreamInfo()> rawStream)
        : mRawStream(std::move(rawStream)) {}

    // Where the next bytes belong, and how many fit; never none before the end.
    uint8_t* room(size_t* size);
    void added(size_t size) { mEnd += size; }

    // Whether the bytes so far hold a picture. Throws Failure for what is neither a picture nor the
    // beginning of one.
    bool hasPicture();
    // The stream of that picture.
    const std::shared_ptr<StreamInfo>& stream() const { return mStream; }
    // Copies it into `picture` and goes on behind it.
    void takePicture(const FrameView& picture);

    // The number of bytes of raw video that make no whole picture; takeRest() copies them.
    size_t rest() const { return mIsY4m ? 0 : mEnd - mAt; }
    void takeRest(uint8_t* to);
    // At the end: throws Failure when there are bytes that make no whole picture.
    void finish() const;

private:
    bool parseHeader();
    bool parseFrameLine();
    bool takeLine(std::string* line);

    const std::function<StreamInfo()> mRawStream;
    std::shared_ptr<StreamInfo> mStream;  // null before the header
    bool mIsY4m = false;
    bool mIsInFrame = false;  // the line before the picture is behind mAt
    std::vector<uint8_t> mBytes;
    size_t mAt = 0, mEnd = 0;  // what is left of mBytes
    uint64_t mPictures = 0;    // that were taken
};

}  // namespace vxrun
