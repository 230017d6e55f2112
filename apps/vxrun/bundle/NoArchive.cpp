// Archives where there is no libarchive: in a device build.
#include "Archive.h"
#include "Text.h"

namespace vxrun {

static Failure missing() {
    return Failure("vxrun: built without libarchive, which bundles need", Verdict::NotSupported);
}

void pack(const std::string&, const std::vector<PackedFile>&, const Check&) {
    throw missing();
}

void unpack(const std::string&,
            const std::function<TakeBytes(const std::string& name, uint64_t size)>&, const Check&) {
    throw missing();
}

}  // namespace vxrun
