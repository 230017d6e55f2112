// ProcessCopy: a copy of this process that goes on in its place, while this one watches its end.
#pragma once

#include "RunProcess.h"

#include <optional>
#include <string>

namespace vxrun {

// How the copy ended. A plain value.
struct CopyEnd {
    int status;       // as waitpid(2) has it
    std::string log;  // the last that it, and what it started, wrote to standard error
};

// Copies this process. Returns nothing in the copy, whose standard error passes through this
// process; here how it ended. Signals that end this process, and SIGUSR1, are passed on to the
// copy, which ends with this process in any case. Throws Failure when there is no copy.
// [main thread, and no other runs]
std::optional<CopyEnd> goOnInCopy(const ProcessSignals& signals);

}  // namespace vxrun
