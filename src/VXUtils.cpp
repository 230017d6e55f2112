#include <VXUtils.h>

#include <cutils/properties.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>

namespace vexa {

static constexpr char kLogTag[] = "Vexa::Utils";

std::atomic<uint32_t> gVXLogLevel{0};

uint32_t vxUpdateLogLevel() {
    // The full size: property_get() may write as much, and on a device a smaller one does not
    // compile.
    char text[PROPERTY_VALUE_MAX] = {};
    property_get("vendor.vexa.log.msg", text, "3");
    const auto mask = static_cast<uint32_t>(std::strtoul(text, nullptr, 16));
    // Relaxed, as every message reads it: a new mask need not order anything else.
    gVXLogLevel.store(mask, std::memory_order_relaxed);
    return mask;
}

VXObject::~VXObject() = default;

bool ReadFileToString(const std::string& path, std::string* content) {
    VX_FAIL_IF(!content, false);
    content->clear();

    std::ifstream file(path, std::ios::in | std::ios::binary | std::ios::ate);
    if (!file.is_open()) {
        VX_LOGE("Failed to open file (%s) for reading", path.c_str());
        return false;
    }

    // The position is only a hint: a directory may state the largest off_t, and a file may grow.
    // What goes beyond the bound is grown into as it is read.
    constexpr std::streamoff kMaxReserve = std::streamoff{64} << 20;
    const std::streamoff size = file.tellg();
    if (size > 0) content->reserve(static_cast<size_t>(std::min(size, kMaxReserve)));
    file.seekg(0, std::ios::beg);

    char chunk[1024];
    // Until a read comes up short, and not for the stated size: a pipe states none.
    do {
        file.read(chunk, sizeof(chunk));
        content->append(chunk, static_cast<size_t>(file.gcount()));
    } while (file.good());
    return true;
}

}  // namespace vexa
