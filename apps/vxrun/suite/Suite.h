// Suite: a conformance suite: vectors, each a file to decode and the MD5 of its pictures. How it is read
// (Suite.cpp), run, each vector in a process of its own (SuiteRun.cpp), and reported (Report.cpp).
#pragma once

#include "Decode.h"
#include "Failure.h"

#include <algorithm>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace vxrun {

// One vector, and what came of it.
struct Vector {
    enum State { NOT_RUN, SUCCESS, FAIL, TIMEOUT, ERROR, NOT_SUPPORTED, STATES };

    // From the suite file.
    std::string name;
    std::string inputFile;
    std::string format;   // a pixel format; empty, "None" or "Unknown": any
    std::string md5;      // in lower case; empty where none is known: of damaged streams
    std::string profile;  // may be empty

    State state = NOT_RUN;
    std::string type;     // of what went wrong, such as CRC_MISMATCH
    std::string message;  // about it, one line
    std::string log;      // what the process said
    double seconds = 0;
};

// How many vectors there are of each kind.
struct Sums {
    void add(const Vector& vector);
    size_t errors() const { return of[Vector::ERROR] + of[Vector::TIMEOUT]; }
    size_t skipped() const { return of[Vector::NOT_RUN] + of[Vector::NOT_SUPPORTED]; }

    size_t of[Vector::STATES] = {};
    size_t total = 0;
    double seconds = 0;
};

struct Suite {
    Sums sums() const;

    std::string name;
    std::string codec;       // as libavcodec calls it; empty: any
    std::string testMethod;  // other than md5: not supported
    bool negative = false;   // vectors succeed when they would fail
    std::vector<Vector> vectors;
};

// Reads a suite file. A Failure "file:line:column: place: text" for what is wrong with it as a whole. With
// what is wrong with one vector (its place in the file, where it has no name of its own) that vector is an
// error from the start; the MD5 of no data as a result is wrong, too.
Suite readSuite(const std::string& path);

// The name of a state as reports have it: "Success", "Not supported", ...
const char* stateName(Vector::State state);

// Leaves the vectors that `filter` selects: a list of globs, separated by colons; what matches one from
// the first "-" before a glob on is left out. They match a vector's name, or suite.name. Empty: all.
void filterVectors(Suite* suite, const std::string& filter);

struct Report {
    std::string (*textOf)(const Suite& suite);
    std::string file;  // that it goes to; empty: nowhere
};
using Reports = std::map<std::string, Report>;  // by kind

// All kinds of reports: junit, json, csv, markdown.
Reports makeReports();

// Writes the reports of `suite` as of now. Each appears whole, in place of the one before: whenever a
// run breaks off, the files are valid. Those that cannot be written fail, the others do not.
std::vector<Failure> writeReports(const Reports& reports, const Suite& suite);

// The table of sums for each profile, as text for a terminal.
std::string profileTable(const Suite& suite);

struct SuiteOptions {
    std::string file;
    std::string resources;  // <resources>/<suite>/<vector>/<input file> are the vectors' files
    std::string output;     // the raw videos are kept as <output>/<suite>/<vector>.out; empty: not
    std::string filter;     // see filterVectors(); empty: GTEST_FILTER
    std::string shard;      // "i/n", i from 1; empty: GTEST_SHARD_INDEX and GTEST_TOTAL_SHARDS
    uint32_t jobs = std::max(std::thread::hardware_concurrency(), 1u);  // vectors at once
    double timeout = 60;  // seconds that decoding a vector takes at most
    Reports reports = makeReports();
    bool list = false;  // print the names of the vectors instead
};

// Decodes one vector, within the time limit, and returns the exit code. It is called in that vector's
// process, a copy of this one.
using DecodeFunction = std::function<int(const DecodeOptions&)>;

// Runs what the options select, prints a line per vector on standard error, a table and the verdict on
// standard output, and returns the exit code. The reports are written before anything runs, soon after a
// vector starts or ends ("soon" keeps them to a small share of the time), and at the end. A process that
// exceeds its time limit is sent SIGTERM, and then SIGKILL. At SIGINT or SIGTERM the processes are ended,
// and their vectors stay in the reports as unfinished. They end with this process in any case.
//
// A Failure for a bad option, suite file or report file, before anything runs. Blocks the signals; on
// the main thread and before others start.
int runSuite(SuiteOptions options, const DecodeFunction& decode);

}  // namespace vxrun
