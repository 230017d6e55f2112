// Runner: builds and runs one graph, and makes sure that the program ends.
#pragma once

#include "Limits.h"
#include "Vxkit.h"

#include <VXGraph.h>
#include <vxkit/Evidence.h>

#include <functional>
#include <string>

namespace vxrun {

struct RunOptions {
    double timeout = 0;    // seconds until the run is stopped; 0: none
    double stall = 30;     // seconds without any work moving until it is; 0: none
    double stop = 3;       // seconds for the next node to stop, before the graph is abandoned
    std::string progress;  // the target of progress, see Progress; empty: none
    std::string trace;     // the trace file; empty: none
    std::string dot;       // the folder for pictures of the graph; empty: none
    std::string logMask;   // of the library's log, in hexadecimal; empty: the system's setting
    bool stats = false;    // print what was measured
    Limits limits;         // that a run which gets to its end has to meet
};

// Reports the verdict of a run where it is expected, and returns the exit code. [any thread]
using Conclude = std::function<int(const Evidence& evidence)>;

// Prints the verdict line, the last one, on standard output or error, and returns the exit code.
int printVerdict(const Evidence& evidence, int fd);

// Builds the graph of `info`, runs it and fills `evidence`. Returns when the graph is gone. Throws
// Failure for bad options.
//
// The calling thread is the watchdog, outside the graph's threads: it shows progress, stops the run
// at the first SIGINT or SIGTERM, when it stalls and when its time is out, and exits at the second
// signal. A snapshot of the graph is shown when the run stalls, breaks off or runs out of time, and
// at SIGUSR1. A graph that does not stop is abandoned: the process ends with the exit code of
// `conclude`, which is not called otherwise. Once per process, on the main thread and before other
// threads start.
void runGraph(vexa::VXGraphInfo info, const RunOptions& options, Evidence* evidence,
              const Conclude& conclude);

// Calls `action` and returns its exit code. What it throws becomes an error line and the verdict,
// and the exit code is that of `conclude`.
int concluded(Evidence* evidence, const Conclude& conclude, const std::function<int()>& action);

}  // namespace vxrun
