// Snapshot: the state of a graph at one moment, to find out why it does not move.
#pragma once

#include "Vxkit.h"

#include <VXGraph.h>
#include <vxkit/Evidence.h>

#include <chrono>
#include <string>

namespace vxrun {

// SnapshotMaker: draws one graph with the present state of its nodes.
//
// Life     made from a description before the graph is built from it.
// Threads  any.
class SnapshotMaker {
public:
    // `folder`: where the pictures go; empty for none. It is made when it is not there; throws
    // Failure, Verdict::BadOption, when it cannot be.
    SnapshotMaker(const vexa::VXGraphInfo& info, const Evidence& evidence, std::string folder);

    // The state of every node and pool, in indented lines.
    std::string graphText(std::chrono::milliseconds age) const;

    // Writes the graph in its present state, in the DOT language, to the file
    // "h.mm.ss.mmm-reason.dot", named after the age of the run.
    void draw(std::chrono::milliseconds age, const std::string& reason) const;

private:
    std::string dot(const std::string& title) const;

    vexa::VXGraphInfo mInfo;
    const Evidence& mEvidence;
    const std::string mFolder;
};

}  // namespace vxrun
