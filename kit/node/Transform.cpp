#include <vxkit/Transform.h>

namespace vxkit {

bool Transform::feed(const vexa::VXSharedWork& work, uint64_t number) {
    transform(Frame(work), number);
    return true;
}

}  // namespace vxkit
