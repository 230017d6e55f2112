// YUV4MPEG2 files, read into real buffers.
#include "FuzzFile.h"

#include <Y4m.h>
#include <vxkit/Failure.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    constexpr uint64_t kLargest = 1 << 20;  // bytes of a picture; larger ones only cost time
    const FuzzFile file(data, size);
    try {
        vxrun::Y4mReader reader(file.path());
        vxrun::PoolRecord record("fuzz", 1);
        std::shared_ptr<vxkit::PoolBuffer> buffer;
        while (reader.nextFrame()) {
            const vxrun::PictureFormat& format = reader.stream().picture;
            if (format.size() > kLargest) break;
            if (buffer == nullptr) {
                vxrun::Pool::make("xcodec2", format, 1, record, nullptr, [] {})->fetch(&buffer);
            }
            reader.readFrame(vxrun::FrameView(*buffer, reader.stream()));
        }
    } catch (const vxrun::Failure&) {  // every other exception is a fault
    }
    return 0;
}
