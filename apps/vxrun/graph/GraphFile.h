// GraphFile: the description of a graph as a JSON file (docs/graph-file.md).
#pragma once

#include "Failure.h"

#include <VXGraph.h>

#include <string>
#include <vector>

namespace vxrun {

// Reads and checks the graph file `path`. File configs of known node types that are relative are
// taken from the file's folder.
//
// A Failure "file:line:column: place: text" for the first thing that is wrong. Its verdict is
// NODE_NOT_FOUND for an unknown node type, GRAPH_BUILD_FAIL for a connection between different
// formats, else none, which is CORRUPT_DESCR to a run. Nothing has been built by then.
vexa::VXGraphInfo readGraphFile(const std::string& path);

// Everything that is wrong with the graph file `path` after overrideConfig() of each of `overrides`, in such
// failures: what readGraphFile() refuses, what its nodes would refuse in their descriptions, and what lets a
// run prove nothing or never move. Opens no other file.
std::vector<Failure> checkGraphFile(const std::string& path,
                                    const std::vector<std::string>& overrides);

// Sets one config by an option's text "NODE.KEY=VALUE". A Failure when it is none, or the graph has
// no such node.
void overrideConfig(vexa::VXGraphInfo* graph, const std::string& assignment);

// Sets the config `key` of every node whose type knows it.
void setWhereKnown(vexa::VXGraphInfo* graph, const std::string& key, const std::string& value);

}  // namespace vxrun
