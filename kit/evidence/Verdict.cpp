#include <vxkit/Verdict.h>

#include <algorithm>
#include <csignal>
#include <iterator>

namespace vxkit {
namespace {

struct Row {
    Verdict verdict;
    const char* name;
    int exitCode;
};

// The one table of verdicts, in the order of the enumeration.
constexpr Row kRows[] = {
    {Verdict::Pass, "PASS", 0},
    {Verdict::Done, "DONE", 0},
    {Verdict::Fail, "FAIL", 1},
    {Verdict::NoEndOfStream, "NO_END_OF_STREAM", 1},
    {Verdict::NothingChecked, "NOTHING_CHECKED", 4},
    {Verdict::NotSupported, "NOT_SUPPORTED", 77},
    {Verdict::Skipped, "SKIPPED", 77},
    {Verdict::BadOption, "BAD_OPTION", 2},
    {Verdict::NotWritten, "NOT_WRITTEN", 3},
    {Verdict::Stall, "STALL", 124},
    {Verdict::Timeout, "TIMEOUT", 124},
    {Verdict::Interrupted, "SIGINT", 128 + SIGINT},
    {Verdict::Terminated, "SIGTERM", 128 + SIGTERM},
    {Verdict::CorruptDescription, "CORRUPT_DESCR", 2},
    {Verdict::NodeNotFound, "NODE_NOT_FOUND", 2},
    {Verdict::GraphBuildFail, "GRAPH_BUILD_FAIL", 3},
    {Verdict::NodeFailInit, "NODE_FAIL_INIT", 3},
    {Verdict::NodeFailStart, "NODE_FAIL_START", 3},
    {Verdict::NodeFailStop, "NODE_FAIL_STOP", 3},
    {Verdict::NodeFailAsync, "NODE_FAIL_ASYNC", 3},
    {Verdict::CrcMismatch, "CRC_MISMATCH", 1},
    {Verdict::InfoValidationFail, "INFO_VALIDATION_FAIL", 1},
    {Verdict::NodeFailConfig, "NODE_FAIL_CONFIG", 3},
    {Verdict::NodeFailFatal, "NODE_FAIL_FATAL", 3},
    {Verdict::UnknownError, "UNKNOWN_ERROR", 3},
};

constexpr bool isInOrder() {
    for (size_t i = 0; i < std::size(kRows); ++i) {
        if (kRows[i].verdict != static_cast<Verdict>(i)) return false;
    }
    return std::size(kRows) == static_cast<size_t>(Verdict::UnknownError) + 1;
}
static_assert(isInOrder(), "rows are found by their number");

const Row& rowOf(Verdict verdict) {
    return kRows[static_cast<size_t>(verdict)];
}

}  // namespace

const char* verdictName(Verdict verdict) {
    return rowOf(verdict).name;
}

int exitCode(Verdict verdict) {
    return rowOf(verdict).exitCode;
}

Verdict verdictOf(vexa::VexaError error) {
    return verdictOfErrorName(vexa::errorName(error)).value_or(Verdict::UnknownError);
}

std::optional<Verdict> verdictOfErrorName(const std::string& name) {
    const auto* const first = &rowOf(Verdict::CorruptDescription);
    const auto* const row =
        std::find_if(first, std::end(kRows), [&](const Row& error) { return error.name == name; });
    return row != std::end(kRows) ? std::optional(row->verdict) : std::nullopt;
}

}  // namespace vxkit
