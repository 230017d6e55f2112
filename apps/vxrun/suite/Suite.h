// Suite: a conformance suite: test vectors, each a file to decode and the MD5 of its pictures.
#pragma once

#include "Vxkit.h"

#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace vxrun {

// A test vector, and its result.
struct TestVector {
    enum State { NOT_RUN, SUCCESS, FAIL, TIMEOUT, ERROR, NOT_SUPPORTED, STATES };

    bool hasFailed() const { return state == FAIL || state == TIMEOUT || state == ERROR; }

    // From the suite file.
    std::string name;
    std::string inputFile;
    std::string format;   // a pixel format; empty, "None" or "Unknown": any
    std::string md5;      // in lower case; empty where none is known: of damaged streams
    std::string profile;  // may be empty
    std::string frames;   // a checksum list, where the input file is; empty: none

    State state = NOT_RUN;
    std::string type;     // of what went wrong, such as CRC_MISMATCH
    std::string message;  // about it, one line
    std::string log;      // the last that its process wrote to standard error
    double seconds = 0;
    std::map<std::string, double> figures;  // that nodes have measured: "node.figure"
    std::string actualMd5;  // of the pictures, if the stream ended well; empty: none is known
    std::string failure;    // a JSON object, see docs/reports.md; empty: none
};

// How many test vectors there are in each state.
struct Counts {
    void add(const TestVector& vector);
    void add(const Counts& counts);
    size_t errors() const { return of[TestVector::ERROR] + of[TestVector::TIMEOUT]; }
    size_t skipped() const { return of[TestVector::NOT_RUN] + of[TestVector::NOT_SUPPORTED]; }

    size_t of[TestVector::STATES] = {};
    size_t total = 0;
    double seconds = 0;
};

struct Suite {
    Counts counts() const;

    std::string name;
    std::string codec;    // libavcodec's name for it; empty: any
    std::string decoder;  // that decodes the vectors, for reports, and its version if known
    std::string decoderVersion;
    std::string testMethod;  // other than md5: not supported
    bool negative = false;   // test vectors succeed when they would fail
    std::vector<TestVector> vectors;
};

// The largest suite file, in bytes: several 100,000 vectors.
constexpr size_t kMaxSuiteFile = 256 << 20;

// Reads a suite file. Throws Failure "file:line:column: place: text" for what is wrong with it as a
// whole. A test vector with a mistake of its own is an error from the start, under its place in the
// file where it has no name; the MD5 of no data as a result is such a mistake, and none at all
// unless `acceptsNone`.
Suite readSuite(const std::string& path, bool acceptsNone = false);

// The name of a state as reports have it: "Success", "Not supported", ...
const char* stateName(TestVector::State state);

}  // namespace vxrun
