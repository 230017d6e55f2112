// SuiteRun: runs the test vectors of a suite, each in a process of its own.
#pragma once

#include "Suite.h"
#include "TestedDecoder.h"
#include "VectorProcess.h"

#include <algorithm>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>

namespace vxrun {

struct SuiteRunOptions {
    std::string resources;  // <resources>/<suite>/<vector>/<input file> are the vectors' files
    std::string
        output;  // the raw videos are kept as <output>/<suite>/<vector>.out; empty: not at all
    uint32_t jobs = std::max(std::thread::hardware_concurrency(), 1u);  // vectors at once
    VectorOptions vectors;
    std::string lists;  // <lists>/<input file>.<kind> are checksum lists; empty: none
    const TestedDecoder* against = nullptr;  // whose pictures are expected, too; null: no one's
    std::string dumps;  // wrong frames are written to <dumps>/<vector>; empty: not at all
    std::string label;  // before the names of vectors in lines; may be empty
    std::function<void()> writeReports;  // those of the suite as it is now
};

// Decides how a vector's graph is made, before its process starts. The vector is an error when it
// throws Failure.
using PrepareVector = std::function<GraphMaker(const TestVector& vector)>;

// How `vector` of `suite` is decoded.
DecodeOptions decodeOptionsOf(const SuiteRunOptions& options, const Suite& suite,
                              const TestVector& vector);

// Runs the vectors that have no result yet and prints a line for each on standard error. Reports
// are written soon after a vector starts or ends ("soon" keeps them to a small share of the time).
// A process that exceeds its time limit is sent SIGTERM, and then SIGKILL. At SIGINT or SIGTERM the
// processes are ended, and their vectors stay unfinished. They end with this process in any case.
//
// The signal that ended it; else 0. Blocks the signals; on the main thread and before others start.
int runVectors(const SuiteRunOptions& options, const PrepareVector& prepare, Suite* suite);
// The same with `decoder`, which decodes the vectors.
int decodeVectors(const SuiteRunOptions& options, const TestedDecoder& decoder, Suite* suite);

}  // namespace vxrun
