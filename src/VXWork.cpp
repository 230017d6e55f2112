#include <VXWork.h>

#include <cstring>

namespace vexa {

static constexpr char kLogTag[] = "Vexa:VXWork";

size_t memcpy_s(void* dst, size_t dstSize, const void* src, size_t count) {
    if (dst == nullptr) {
        VX_LOGE("memcpy_s: invalid dst addr");
        return 0;
    }
    if (src == nullptr) {
        VX_LOGE("memcpy_s: invalid src addr");
        return 0;
    }
    if (dstSize < count) {
        VX_LOGE("memcpy_s: dst-size (%zu bytes) is shorter than copy-size (%zu bytes)", dstSize,
                count);
        return 0;
    }
    std::memcpy(dst, src, count);
    return count;
}

// Destructors stand here so that each type's virtual table and identity exist once, in this library.
VXAuxInfo::~VXAuxInfo() = default;
VXEditableAuxInfo::~VXEditableAuxInfo() = default;
VXInfo::~VXInfo() = default;
VXSharedWork::~VXSharedWork() = default;
VXWork::~VXWork() = default;

}  // namespace vexa
