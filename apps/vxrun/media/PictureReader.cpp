#include "PictureReader.h"

#include "Text.h"

namespace vxrun {

void checkSize(const PictureFormat& picture) {
    constexpr size_t kMost = 1 << 30;
    const size_t size = picture.size();
    if (size > kMost) throw Failure(concat("a frame of ", size, " bytes is larger than 1 GiB"));
}

StreamInfo rawStream(const PictureFormat& picture) {
    checkSize(picture);
    StreamInfo stream;
    stream.picture = picture;
    stream.timeBase = {1, 25};
    stream.duration = 1;
    return stream;
}

void PictureReader::readFrame(const FrameView& picture) {
    const uint64_t offset = mFile.offset();
    size_t actual = 0;
    for (int plane = 0; plane < picture.format().pixels.planes; ++plane) {
        const size_t bytes = picture.format().rowBytes(plane);
        const int rows = picture.format().rows(plane);
        // Rows without padding between them are read at once, past the file's buffer.
        const int step = picture.stride() == bytes ? rows : 1;
        for (int y = 0; y < rows; y += step) {
            actual += mFile.read(picture.row(plane, y), bytes * static_cast<size_t>(step));
        }
    }
    if (actual != picture.size()) {
        failFrame(offset,
                  concat("truncated: expected ", picture.size(), " bytes, actual ", actual));
    }
    ++mFrame;
}

void PictureReader::failFrame(uint64_t offset, const std::string& text) const {
    mFile.fail(concat("frame ", mFrame, " at byte ", offset, ": ", text));
}

}  // namespace vxrun
