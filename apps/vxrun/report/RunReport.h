// RunReport: one run of one graph as files for people and programs (docs/reports.md).
#pragma once

#include "Limits.h"
#include "Report.h"

#include <vxkit/Evidence.h>

namespace vxrun {

// A plain value.
struct RunReport {
    ReportFiles files;  // of the kinds "html", "json" and "junit"
    // What the result depends on besides the graph, name and value.
    std::vector<std::pair<std::string, std::string>> facts;
    std::string graph;  // its name; empty when it could not be read
    std::string input;  // the graph file, or the video that is decoded
    Limits limits;
    std::vector<std::pair<std::string, std::string>> connections = {};  // from node to node
    std::string trace = {};                                             // its file; empty: none
    std::string failure = {};  // the member "failure", JSON; empty: none
};

// Writes the reports as writeReports() does. A run that has not ended is reported as one that did
// not finish, which is what remains when the process is killed.
std::vector<Failure> writeRunReports(const RunReport& report, const Evidence& evidence,
                                     bool hasEnded);

}  // namespace vxrun
