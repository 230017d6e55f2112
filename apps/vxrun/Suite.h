// Suite: a conformance suite: vectors, each a file to decode and the MD5 of its pictures.
#pragma once

#include <string>
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

// Reads a suite file. A Failure "file:line:column: place: text" for what is wrong, the MD5 of no data
// as a result among it.
Suite readSuite(const std::string& path);

// The name of a state as reports have it: "Success", "Not supported", ...
const char* stateName(Vector::State state);

// Leaves the vectors that `filter` selects: a list of globs, separated by colons; what matches one from
// the first "-" before a glob on is left out. They match a vector's name, or suite.name. Empty: all.
void filterVectors(Suite* suite, const std::string& filter);

}  // namespace vxrun
