// YUV4MPEG2 files, read into real buffers.
#include "FuzzFile.h"

#include <Failure.h>
#include <Pool.h>
#include <Y4mReader.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    constexpr uint64_t kLargest = 1 << 20;  // bytes of a picture; larger ones only cost time
    const FuzzFile file(data, size);
    try {
        vxrun::Y4mReader reader(file.path());
        vxrun::PoolRecord record("fuzz", 1);
        std::shared_ptr<vexa::VXBuffer> buffer;
        while (reader.nextFrame()) {
            const vxrun::PictureFormat& format = reader.stream().picture;
            if (format.size() > kLargest) break;
            if (buffer == nullptr) {
                vxrun::Pool::make("xcodec2", format, 1, record, [] {})->fetch(&buffer);
            }
            reader.readFrame(vxrun::Payload(buffer, reader.stream()));
        }
    } catch (const vxrun::Failure&) {  // every other exception is a fault
    }
    return 0;
}
