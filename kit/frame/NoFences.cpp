// In place of Fences.cpp where fences come from drivers alone: on a device.
#include <vxkit/Fences.h>

namespace vxkit {

struct PictureFences::Pending {};

PictureFences::PictureFences() = default;
PictureFences::~PictureFences() = default;

std::shared_ptr<PoolBuffer> PictureFences::withFence(const std::shared_ptr<PoolBuffer>& buffer,
                                                     const StreamInfo&) {
    return buffer;
}

void PictureFences::fireNext() {}

}  // namespace vxkit
