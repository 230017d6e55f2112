#include "Types.h"

std::string unreadTypes(const vexa::VXAuxInfo& info) {
    std::string unread;
    forEachType([&](const char* key, auto value) {
        if (info.get(key, &value) != vexa::VX_OK) unread += std::string(key) + " ";
    });
    return unread;
}

const std::string gEarlyName = vexa::errorName(vexa::CRC_MISMATCH);
