#include <vxkit/Encoder.h>
#include <vxkit/Text.h>

namespace vxkit {

bool Encoder::feed(const vexa::VXSharedWork& work, uint64_t number) {
    const Frame frame(work);
    if (!mFormat) mFormat = frame.format();
    if (frame.format() != *mFormat) {
        throw Failure(concat("frame ", number, " is ", frame.format().description(), " after ",
                             mFormat->description(), ": an encoder accepts one size and format"));
    }
    encode(frame, number);
    return true;
}

}  // namespace vxkit
