// VectorProcess: a process that runs the graph of one test vector and hands its result back.
#pragma once

#include "GraphFile.h"
#include "RunProcess.h"
#include "Suite.h"

namespace vxrun {

// How every test vector of a suite is run.
struct VectorOptions {
    RunOptions run;  // its timeout is the limit of each
    GraphEdits edits;
    // The input file of a vector, and the command line that runs it alone. No command: failures
    // are not described.
    std::function<std::string(const TestVector&)> inputOf = {}, commandOf = {};
    std::string bundle = {};  // the file that has all failures; empty: none
};

// Life     start(), then hasEnded() until it is true, then judge(). See RunProcess.
// Threads  the main one, and no other runs when start() is called.
// Owns     the process.
class VectorProcess {
public:
    explicit VectorProcess(TestVector* vector) : mVector(*vector) {}

    // Starts a copy of this process that runs the graph. 0, or an errno number.
    int start(const GraphMaker& makeGraph, const VectorOptions& options,
              const ProcessSignals& signals);

    TestVector& vector() { return mVector; }
    void kill(int signal);
    // True when it has ended.
    bool hasEnded() { return mProcess.hasEnded(); }
    // The result of the test vector after the process has ended. `negative`: see Suite.
    void judge(bool negative, const VectorOptions& options);

private:
    void describe(const RunResult& result, const VectorOptions& options);
    void judgePictures(const RunResult& result, bool negative);

    TestVector& mVector;
    RunProcess mProcess;
    bool mWasSignaled = false;
};

}  // namespace vxrun
