#include "Types.h"

void writeTypes(vexa::VXEditableAuxInfo* info) {
    forEachType([info](const char* key, auto value) { info->put(key, value); });
}
