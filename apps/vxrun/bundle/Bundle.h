// Bundle: one file that has all it takes to repeat runs that failed (docs/bundles.md).
#pragma once

#include "Archive.h"
#include "RunProcess.h"

#include <VXGraph.h>

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace vxrun {

// What a bundle may hold, at most.
constexpr size_t kMaxBundledFiles = 10000;
constexpr uint64_t kMaxBundledBytes = 8ull << 30;

using Facts = std::vector<std::pair<std::string, std::string>>;

// A file of a bundle, or one that is only named. A plain value.
struct BundledFile {
    std::string name;    // in the bundle
    std::string origin;  // where it was; empty: made for the bundle
    uint64_t size = 0;
    std::string sha256;
    bool isHere = true;  // in the bundle
};

// A run that failed. A plain value.
struct FailedRun {
    std::string name;
    std::string folder;  // of its files in the bundle
    FailureSignature signature;
    std::string message;                   // about it, one line
    RunOptions options;                    // its times and limits
    std::vector<std::string> environment;  // of its decoder, NAME=VALUE
    std::string md5;                       // that its pictures should have; empty: none is known
    bool isNegative = false;               // it failed because it did not fail
};

// A plain value.
struct Bundle {
    Facts facts;      // the versions of everything
    Facts variables;  // of the environment
    Facts libraries;  // node libraries: name and SHA-256, empty where it is not known
    std::vector<FailedRun> runs;
    std::vector<BundledFile> files;
};

// The SHA-256 of the file `path`, in hexadecimal.
std::string sha256Of(const std::string& path, const Check& check);

// BundleMaker: collects runs that failed, and writes the bundle.
//
// Threads  one at a time.
class BundleMaker {
public:
    // `refers`: the files that the runs read are named, and not part of the bundle.
    BundleMaker(bool refers, const Facts& facts, Check check);

    // Adds a run of `graph` with all files of the folder `files`, to which its graph file is added;
    // they stay there until write(). `more`: files that tell about it, which are always packed.
    void add(FailedRun run, vexa::VXGraphInfo graph, const std::string& files,
             const std::vector<std::string>& more);
    size_t size() const { return mBundle.runs.size(); }  // runs
    // Throws Failure.
    void write(const std::string& path);

private:
    BundledFile& addFile(const std::string& name, const std::string& path);
    std::string addInput(const std::string& folder, const std::string& path);

    const bool mRefers;
    const Check mCheck;
    Bundle mBundle;
    std::map<std::string, std::string> mPaths;  // of the files, by their names in the bundle
};

// Unpacks the bundle `path` into the empty folder `folder`, and checks all of it. Throws Failure
// "path: ...".
Bundle openBundle(const std::string& path, const std::string& folder, const Check& check);

// Puts links to the files that the bundle only names into `folder`: they are where they were, or
// somewhere in `resources` under their names. Throws Failure with those that are neither.
void findReferences(const Bundle& bundle, const std::string& path, const std::string& folder,
                    const std::string& resources, const Check& check);

}  // namespace vxrun
