// Lists of checksums in every format that is read.
#include "FuzzFile.h"

#include <ChecksumFormat.h>
#include <vxkit/Failure.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const FuzzFile file(data, size);
    try {
        if (vxrun::readChecksumList(file.path()).rows.empty()) std::abort();  // nothing to compare
    } catch (const vxrun::Failure&) {  // every other exception is a fault
    }
    return 0;
}
