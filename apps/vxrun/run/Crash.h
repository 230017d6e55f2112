// Crash: what is reported of a run that a signal such as SIGSEGV ends: the node that was at work.
#pragma once

#include "Vxkit.h"

#include <vxkit/Evidence.h>

namespace vxrun {

// Called with a line without an end, in the handler of the signal: async-signal-safe functions
// only.
using CrashReport = void (*)(const char* text, void* to);

// From now on a crash of this process is reported to `report`, with `to`, before the process ends
// as it would have without. A crash on a thread that runs no hook, such as a codec's own, is
// reported with all nodes that are at work. Once per process, on the main thread; the arguments
// live as long as it.
void reportCrashes(const Evidence& evidence, CrashReport report, void* to);

}  // namespace vxrun
