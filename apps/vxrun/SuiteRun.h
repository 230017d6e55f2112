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
    double timeout = 60;    // seconds that decoding a vector takes at most
    ReportFiles reports;
    bool list = false;  // print the names of the vectors instead
};

// Decodes one vector, within the time limit, and returns the exit code. It is called in that vector's
// process, a copy of this one.
using DecodeFunction = std::function<int(const DecodeOptions&)>;

// Runs what the options select, prints a line per vector on standard error, a table and the verdict on
// standard output, and returns the exit code. A process that exceeds its time limit is sent SIGTERM, and
// then SIGKILL. At SIGINT or SIGTERM the processes are ended, and their vectors stay in the reports as
// unfinished. They end with this process in any case.
//
// A Failure for a bad option, suite file or report file. Blocks the signals; on the main thread and
// before others start.
int runSuite(SuiteOptions options, const DecodeFunction& decode);

}  // namespace vxrun
