#include <vxkit/Verdict.h>

#include <algorithm>
#include <csignal>
#include <iterator>

namespace vxkit {
namespace {

struct Row {
    Verdict verdict;
    int exitCode;
    const char* name;
};

// The one table of verdicts, in the order of the enumeration.
constexpr Row kRows[] = {
    {Verdict::Pass, 0, "PASS"},
    {Verdict::Done, 0, "DONE"},
    {Verdict::Fail, 1, "FAIL"},
    {Verdict::NoEndOfStream, 1, "NO_END_OF_STREAM"},
    {Verdict::Performance, 1, "PERFORMANCE"},
    {Verdict::NothingChecked, 4, "NOTHING_CHECKED"},
    {Verdict::NotSupported, 77, "NOT_SUPPORTED"},
    {Verdict::Skipped, 77, "SKIPPED"},
    {Verdict::BadOption, 2, "BAD_OPTION"},
    {Verdict::NotWritten, 3, "NOT_WRITTEN"},
    {Verdict::Stall, 124, "STALL"},
    {Verdict::Timeout, 124, "TIMEOUT"},
    {Verdict::Interrupted, 128 + SIGINT, "SIGINT"},
    {Verdict::Terminated, 128 + SIGTERM, "SIGTERM"},
    {Verdict::CorruptDescription, 2, "CORRUPT_DESCR"},
    {Verdict::NodeNotFound, 2, "NODE_NOT_FOUND"},
    {Verdict::GraphBuildFail, 3, "GRAPH_BUILD_FAIL"},
    {Verdict::NodeFailInit, 3, "NODE_FAIL_INIT"},
    {Verdict::NodeFailStart, 3, "NODE_FAIL_START"},
    {Verdict::NodeFailStop, 3, "NODE_FAIL_STOP"},
    {Verdict::NodeFailAsync, 3, "NODE_FAIL_ASYNC"},
    {Verdict::CrcMismatch, 1, "CRC_MISMATCH"},
    {Verdict::InfoValidationFail, 1, "INFO_VALIDATION_FAIL"},
    {Verdict::NodeFailConfig, 3, "NODE_FAIL_CONFIG"},
    {Verdict::NodeFailFatal, 3, "NODE_FAIL_FATAL"},
    {Verdict::UnknownError, 3, "UNKNOWN_ERROR"},
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
