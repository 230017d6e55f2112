// SuiteOptions: the options of the commands that decode the test vectors of a suite.
#pragma once

#include "Command.h"
#include "Selection.h"
#include "SuiteRun.h"

namespace vxrun {

struct SuiteOptions {
    void addTo(CLI::App* command);
    // How to run each vector: these options with those of every run. Throws Failure.
    SuiteRunOptions runOptions(const CommonOptions& options) const;
    // The decoder's name and version become those of `suite`. `edits` are those of its
    // graphs. What it cannot do here is not run with it.
    static void prepare(TestedDecoder* decoder, const GraphEdits& edits, Suite* suite);

    std::string file;
    std::string resources;
    DecoderOptions decoders;
    Selection selection;
    uint32_t jobs = SuiteRunOptions().jobs;
};

// The verdict of a suite that `signal` has ended, unless it is 0.
Verdict verdictOf(const Counts& counts, int signal, bool anySelected);
// Prints `table` and the line with the verdict and the counts; the exit code.
int reportCounts(const std::string& table, const Counts& counts, Verdict verdict);

}  // namespace vxrun
