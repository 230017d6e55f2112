// Runner: builds and runs one graph, and sees to it that the program comes to an end.
#pragma once

#include "Evidence.h"

#include <VXGraph.h>

#include <chrono>

namespace vxrun {

// Builds the graph of `info`, runs it and fills `evidence`. Returns when the graph is gone.
//
// The calling thread is the watchdog, outside the graph's threads: it shows progress, stops the run
// at the first SIGINT or SIGTERM and after `limit` (none: no limit), and leaves the process at the
// second signal. A graph that does not stop is left behind: the process ends with its verdict.
// Once per process, on the main thread and before other threads start.
void runGraph(vexa::VXGraphInfo info, std::chrono::duration<double> limit, Evidence* evidence);

}  // namespace vxrun
