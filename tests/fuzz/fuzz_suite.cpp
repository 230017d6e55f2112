// Conformance suites, and the filters over them.
#include "FuzzFile.h"

#include <Report.h>
#include <Selection.h>
#include <vxkit/Failure.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const FuzzFile file(data, size);
    try {
        vxrun::Suite suite = vxrun::readSuite(file.path());
        vxrun::profileTable(suite);
        vxrun::filterVectors(&suite, suite.name);
    } catch (const vxrun::Failure&) {  // every other exception is a fault
    }
    return 0;
}
