// RunProcess: a process that runs one graph and hands its result back.
#pragma once

#include "Files.h"
#include "Runner.h"

#include <sys/types.h>

#include <csignal>
#include <cstdint>
#include <functional>
#include <map>
#include <string>

namespace vxrun {

// What one run took, as its process has measured it.
struct RunFigures {
    double seconds = 0;      // from before the graph was built until it was gone
    uint64_t frames = 0;     // the most that any one sink consumed
    double cpuSeconds = 0;   // of the process and of the programs that it ran
    double peakBytes = 0;    // resident; of the largest one of these processes
    double preemptions = 0;  // involuntary switches to other threads, of all these processes
};

// Makes the graph of a run, in the process of the run. Throws Failure.
using GraphMaker = std::function<vexa::VXGraphInfo()>;

// How a run failed, as far as another run can fail in the same way. A plain value.
struct FailureSignature {
    std::string type;   // the verdict's word, or such as SIGNAL_11
    std::string kind;   // of a wrong frame, see Mismatch; else empty
    std::string shape;  // likewise

    bool operator==(const FailureSignature& other) const {
        return type == other.type && kind == other.kind && shape == other.shape;
    }
    // Such as "CRC_MISMATCH, samples in one 8x8 block".
    std::string text() const;
};
// The node that has found the first wrong frame, of several one that knows samples; null when none
// has.
const NodeRecord* failingNode(const Evidence& evidence);
// That of the run of `evidence`, which has failed or not.
FailureSignature signatureOf(const Evidence& evidence);

// How a run ended. A plain value.
struct RunResult {
    Verdict verdict = Verdict::UnknownError;  // also of a process that crashed
    std::string type;                         // the verdict's word, or such as SIGNAL_11
    std::string message;                      // the first error line, or what is known of its end
    std::string md5;  // of all pictures; empty if the stream did not end well
    RunFigures figures;
    std::map<std::string, double> nodeFigures;  // that nodes have measured: "node.figure"
    FailureSignature signature;
};

// Makes a text about a run that has ended, in the process of the run.
using Describe = std::function<std::string(const Evidence& evidence)>;

// The signals that a program with such processes waits for: SIGCHLD, and SIGINT and SIGTERM, which
// end it. Made before other threads start; blocks them.
struct ProcessSignals {
    ProcessSignals();
    // Throws Failure with the verdict of a signal that ends the program, when one has arrived.
    void check() const;

    sigset_t waited;
    sigset_t before;  // that were blocked before
};

// Life     start(), then hasEnded() until it is true, or wait(); then result(). The process ends
//          with this one in any case.
// Threads  the main one, and no other runs when start() is called.
// Owns     the log of the process, and memory that it shares with the process.
class RunProcess {
public:
    // If no descriptor or memory is left for it, start() fails.
    RunProcess();
    ~RunProcess();
    RunProcess(const RunProcess&) = delete;
    RunProcess& operator=(const RunProcess&) = delete;

    // Starts a copy of this process that calls `makeGraph` and runs its graph, which need not
    // compare anything. `describe`, unless empty, makes its description(). 0, or an errno number.
    int start(const GraphMaker& makeGraph, const RunOptions& options, const ProcessSignals& signals,
              const Describe& describe = {});
    void kill(int signal) const;
    // True when it has ended.
    bool hasEnded();
    // Waits for its end. The signal that has ended it before its time, the second one by force;
    // else 0.
    int wait(const ProcessSignals& signals);

    // After its end.
    RunResult result() const;
    // The last that it wrote to standard error.
    std::string log() const;
    // What `describe` has made; empty when the process came to no verdict.
    std::string description() const;

private:
    struct Shared;

    [[noreturn]] void runChild(const GraphMaker& makeGraph, const RunOptions& options,
                               const Describe& describe);

    FileHandle mLog, mDescription;
    Shared* mShared;  // null without memory
    pid_t mPid = -1;
    int mStatus = 0;  // of waitpid()
};

}  // namespace vxrun
