// GraphFile: the description of a graph as a JSON file (docs/graph-file.md).
#pragma once

#include "Limits.h"
#include "Vxkit.h"

#include <VXGraph.h>
#include <vxkit/Failure.h>

#include <map>
#include <string>
#include <vector>

namespace vxrun {

// Reads and checks the graph file `path`, and loads the node libraries that it names. Relative
// paths in the configs of known node types are relative to the file's folder.
//
// Throws Failure "file:line:column: place: text" for the first mistake. Its verdict is NodeNotFound
// for an unknown node type, GraphBuildFail for a connection between different formats, else none,
// which is CorruptDescription to a run. Nothing has been built by then.
//
// `values`: of placeholders in the values of configs, such as {input}. `limits`, unless null,
// becomes those of the file.
using GraphValues = std::map<std::string, std::string>;
vexa::VXGraphInfo readGraphFile(const std::string& path, const GraphValues& values = {},
                                Limits* limits = nullptr);

// The graph file of `graph`: readGraphFile() makes the same of it.
std::string graphText(const vexa::VXGraphInfo& graph);

// The formats of ports for access units and pictures.
constexpr char kUnits[] = "video/bitstream", kPictures[] = "video/raw";

// Adds a node with an input NAME.in and an output NAME.out of these formats, null for none.
vexa::VXNodeDescriptor& addNode(vexa::VXGraphInfo* graph, const std::string& type,
                                const std::string& name, const char* input, const char* output);

// GraphEdits: what options change in a graph.
struct GraphEdits {
    // Throws Failure when an assignment is malformed or names no node of the graph.
    void applyTo(vexa::VXGraphInfo* graph) const;

    std::vector<std::string> assignments;           // "NODE.KEY=VALUE": a config of one node
    std::map<std::string, std::string> whereKnown;  // configs of every node whose type has them
};

// Everything that is wrong with the graph file `path` after `assignments`, see GraphEdits, in such
// failures: what readGraphFile() refuses, what its nodes would refuse in their descriptions, and
// what lets a run prove nothing or never move. Opens no other files than node libraries.
std::vector<Failure> checkGraphFile(const std::string& path,
                                    const std::vector<std::string>& assignments);

}  // namespace vxrun
