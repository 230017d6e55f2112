// Verdict: how a run ended, and the exit code that goes with it.  All functions: [any thread]
#pragma once

#include <VXUtils.h>

#include <optional>
#include <string>

namespace vxkit {

enum class Verdict {
    Pass,
    Done,  // nothing failed in a run that was not to check anything
    Fail,  // of a suite: some test vector did
    NoEndOfStream,
    Performance,  // slower or larger than it may be
    NothingChecked,
    NotSupported,
    Skipped,  // of a suite: no test vector could run
    BadOption,
    NotWritten,  // nothing failed, but a result, trace or report could not be written
    Stall,
    Timeout,
    Interrupted,  // by SIGINT
    Terminated,   // by SIGTERM
    // The library's errors, see vexa::VexaError.
    CorruptDescription,
    NodeNotFound,
    GraphBuildFail,
    NodeFailInit,
    NodeFailStart,
    NodeFailStop,
    NodeFailAsync,
    CrcMismatch,
    InfoValidationFail,
    NodeFailConfig,
    NodeFailFatal,
    UnknownError,
};

// The word of the verdict line, such as "PASS" or "CRC_MISMATCH".
const char* verdictName(Verdict verdict);

// 0 passed; 1 the test failed; 2 bad option, file or description; 3 could not run; 4 nothing was
// checked; 77 not supported; 124 stalled or out of time; 128 + n ended by signal n.
int exitCode(Verdict verdict);

// True for the verdicts of exit code 1: something was compared and found wrong.
inline bool isFailedTest(Verdict verdict) {
    return exitCode(verdict) == exitCode(Verdict::Fail);
}

// The verdict that a run with this error ends with.
Verdict verdictOf(vexa::VexaError error);
// The same for an error's name; empty for an unknown one.
std::optional<Verdict> verdictOfErrorName(const std::string& name);

}  // namespace vxkit
