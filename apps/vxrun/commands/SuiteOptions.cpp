#include "SuiteOptions.h"

#include "Console.h"
#include "Text.h"

#include <csignal>

namespace vxrun {

void SuiteOptions::addTo(CLI::App* command) {
    command->fallthrough();
    addOption(command, "FILE SUITE.json", &file, "The suite")->required();
    addDecoderOptions(command, &decoders);
    addOption(command, "--resources DIR", &resources, "Where the vectors' files are");
    addOption(command, "--filter GLOBS", &selection.filter, "Run these: GLOB[:GLOB...][:-GLOB...]");
    addOption(command, "--jobs N", &jobs, "Vectors at once, default one per processor")
        ->check(CLI::Range(1, 1000));
}

SuiteRunOptions SuiteOptions::runOptions(const CommonOptions& options) const {
    constexpr double kVectorTimeout = 60;  // seconds, where none is given
    if (resources.empty()) throw badOption("--resources", "missing");
    SuiteRunOptions run;
    run.resources = resources;
    run.jobs = jobs;
    // Not the silence of --quiet: the logs of test vectors go into the reports.
    run.vectors = {options.run, options.edits()};
    if (options.run.timeout == 0) run.vectors.run.timeout = kVectorTimeout;
    return run;
}

void SuiteOptions::prepare(TestedDecoder* decoder, const GraphEdits& edits, Suite* suite) {
    // libavcodec's decoders are many.
    const bool isDefault = decoder->name() == TestedDecoder().name() && !suite->codec.empty();
    suite->decoder = decoder->name() + (isDefault ? "-" + suite->codec : "");
    std::string reason = decoder->probe();
    suite->decoderVersion = decoder->version();
    if (reason.empty()) reason = decoder->refusal(suite->codec);
    if (reason.empty()) {
        DecodeOptions decode;
        decode.codec = suite->codec;
        vexa::VXGraphInfo graph = decoder->graphFor(decode);
        edits.applyTo(&graph);
        reason = TestedDecoder::probe(graph);
    }
    if (reason.empty()) return;
    for (TestVector& vector : suite->vectors) {
        vector.state = TestVector::NOT_SUPPORTED;
        vector.message = reason;
    }
}

Verdict verdictOf(const Counts& counts, int signal, bool anySelected) {
    if (signal != 0) return signal == SIGINT ? Verdict::Interrupted : Verdict::Terminated;
    if (counts.of[TestVector::FAIL] + counts.errors() > 0) return Verdict::Fail;
    if (counts.of[TestVector::SUCCESS] > 0) return Verdict::Pass;
    // No vector at all is a mistake in the selection.
    return anySelected ? Verdict::Skipped : Verdict::NothingChecked;
}

int reportCounts(const std::string& table, const Counts& counts, Verdict verdict) {
    const std::string line =
        concat("verdict: ", verdictName(verdict), " passed=", counts.of[TestVector::SUCCESS],
               " failed=", counts.of[TestVector::FAIL], " errors=", counts.errors(),
               " skipped=", counts.skipped(), "\n");
    return console::exitWithResult(table + line, exitCode(verdict));
}

}  // namespace vxrun
