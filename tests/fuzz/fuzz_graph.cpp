// Graph files, and the options that change them.
#include "FuzzFile.h"

#include <GraphFile.h>

void readFile(const std::string& path) {
    vexa::VXGraphInfo graph = vxrun::readGraphFile(path);
    vxrun::GraphEdits{{graph.nodes.front()->name + ".file=x"}, {}}.applyTo(&graph);
}
