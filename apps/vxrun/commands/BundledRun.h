// BundledRun: a run that leaves a bundle when it fails, in whatever way: a copy of this process
// makes the run, and this one packs what is left.
#pragma once

#include "Bundle.h"
#include "Command.h"
#include "Files.h"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace vxrun {

// Throws Failure, Verdict::BadOption, when the bundle cannot be written from the start.
void checkBundleFile(const BundleOptions& options);
// Writes `bundle`, unless it is empty, and tells so. What cannot be done is an error line.
void writeBundle(const BundleOptions& options, BundleMaker* bundle);

// Life     made, then run() once, then handBack() in the copy.
// Threads  the main one; handBack(): any one.
// Owns     a folder for what the run leaves, and memory that both processes share.
class BundledRun {
public:
    // Changes `task` and `run`, which are complete but for that and outlive it, so that the run
    // leaves what a bundle has. Throws Failure.
    BundledRun(const CommonOptions& options, Task* task, RunOptions* run);
    ~BundledRun();
    BundledRun(const BundledRun&) = delete;
    BundledRun& operator=(const BundledRun&) = delete;

    // In the copy: nothing. Here, with the bundle of a run that has failed written, its exit code;
    // a signal that has ended the run ends this process, too.
    std::optional<int> run();
    // In the copy, when the run has ended.
    void handBack(RunReport report, const Evidence& evidence);

private:
    struct Shared;

    std::optional<FailedRun> failedRun(int status) const;
    void collect(const std::string& from, const std::string& to) const;
    void pack(FailedRun run, const std::string& log);

    const CommonOptions& mOptions;
    Task& mTask;
    const RunOptions& mRun;
    const ProcessSignals mSignals;
    const TemporaryFolder mFolder;
    const std::filesystem::file_time_type mStart = std::filesystem::file_time_type::clock::now();
    std::vector<std::string> mDumps;  // the folders of wrong frames
    Facts mFacts;
    Shared* mShared;
};

}  // namespace vxrun
