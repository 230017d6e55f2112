// SuiteRun: runs the vectors of a suite, each in a process of its own.
#pragma once

#include "Decode.h"
#include "Report.h"

#include <cstdint>
#include <functional>
#include <string>

namespace vxrun {

struct SuiteOptions {
    std::string file;
    std::string resources;  // <resources>/<suite>/<vector>/<input file> are the vectors' files
    std::string output;     // the raw videos are kept as <output>/<suite>/<vector>.out; empty: not
    std::string filter;     // see filterVectors(); empty: GTEST_FILTER
    std::string shard;      // "i/n", i from 1; empty: GTEST_SHARD_INDEX and GTEST_TOTAL_SHARDS
    uint32_t jobs = 0;      // vectors at once; 0: one per processor
    ReportFiles reports;
    bool list = false;  // print the names of the vectors instead
};

// Runs what the options select, prints a line per vector on standard error, a table and the verdict on
// standard output, and returns the exit code. `decode` decodes one vector; it is called in that
// vector's process, a copy of this one, and returns its exit code after `timeout` seconds at most. A
// process that takes longer is sent SIGTERM, and then SIGKILL. At SIGINT or SIGTERM the processes are
// ended, and their vectors stay in the reports as unfinished. They end with this process in any case.
//
// A Failure for a bad option, suite file or report file. Blocks the signals; on the main thread and
// before others start.
int runSuite(SuiteOptions options, double timeout,
             const std::function<int(const DecodeOptions&)>& decode);

}  // namespace vxrun
