// YUV4MPEG2 files, read into real buffers.
#include "FuzzFile.h"

#include <Y4m.h>

void readFile(const std::string& path) {
    constexpr uint64_t kLargest = 1 << 20;  // bytes of a picture; larger ones only cost time
    vxrun::Y4mReader reader(path);
    vxkit::PoolRecord record("fuzz", 1);
    std::shared_ptr<vxkit::PoolBuffer> buffer;
    while (reader.nextFrame()) {
        const vxkit::PictureFormat& format = reader.stream().picture;
        if (format.size() > kLargest) break;
        if (buffer == nullptr) {
            vxkit::Pool::make("xcodec2", format, 1, record, nullptr, [] {})->fetch(&buffer);
        }
        reader.readFrame(vxkit::FrameView(*buffer, reader.stream()));
    }
}
