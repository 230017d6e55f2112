// Runner: builds and runs one graph, and sees to it that the program comes to an end.
#pragma once

#include "Evidence.h"

#include <VXGraph.h>

#include <string>

namespace vxrun {

struct RunOptions {
    double timeout = 0;    // seconds until the run is stopped; 0: none
    double stall = 30;     // seconds without any work moving until it is; 0: none
    std::string progress;  // where progress goes, see Progress; empty: nowhere
    std::string trace;     // the file that the trace goes to; empty: none
    std::string dot;       // the folder that pictures of the graph go to; empty: none
};

// Builds the graph of `info`, runs it and fills `evidence`. Returns when the graph is gone. A Failure
// for options that are no good.
//
// The calling thread is the watchdog, outside the graph's threads: it shows progress, stops the run
// at the first SIGINT or SIGTERM, when it stalls and when its time is out, and leaves the process at
// the second signal. A graph that does not stop is left behind: the process ends with its verdict.
// A snapshot of the graph is shown when the run stalls, breaks off or runs out of time, and at SIGUSR1.
// Once per process, on the main thread and before other threads start.
void runGraph(vexa::VXGraphInfo info, const RunOptions& options, Evidence* evidence);

}  // namespace vxrun
