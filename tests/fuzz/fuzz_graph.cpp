// Graph files, and the options that change them.
#include "FuzzFile.h"

#include <GraphFile.h>
#include <vxkit/Failure.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const FuzzFile file(data, size);
    try {
        vexa::VXGraphInfo graph = vxrun::readGraphFile(file.path());
        vxrun::GraphEdits({{graph.nodes.front()->name + ".file=x"}, {}}).applyTo(&graph);
    } catch (const vxrun::Failure&) {  // every other exception is a fault
    }
    return 0;
}
