// VectorProcess: a process that decodes one test vector and hands its result back.
#pragma once

#include "Files.h"
#include "GraphFile.h"
#include "Runner.h"
#include "Suite.h"
#include "TestedDecoder.h"

#include <sys/types.h>

#include <csignal>
#include <memory>

namespace vxrun {

// How every test vector of a suite is decoded.
struct VectorOptions {
    RunOptions run;  // its timeout is the limit of each
    GraphEdits edits;
};

// Life     start(), then hasEnded() until it is true, then judge(). The process ends with this one
//          in any case.
// Threads  the main one, and no other runs when start() is called.
// Owns     the log of the process, and memory that it shares with the process.
class VectorProcess {
public:
    // If no descriptor or memory is left for it, start() fails.
    explicit VectorProcess(TestVector* vector);
    ~VectorProcess();
    VectorProcess(const VectorProcess&) = delete;
    VectorProcess& operator=(const VectorProcess&) = delete;

    // Starts a copy of this process that decodes `decode` with the signals `signals` blocked. 0, or
    // an errno number.
    int start(const TestedDecoder& decoder, const DecodeOptions& decode,
              const VectorOptions& options, const sigset_t& signals);

    TestVector& vector() { return mVector; }
    void kill(int signal);

    // True when it has ended; `*status` is that of waitpid().
    bool hasEnded(int* status) const;
    // The result of the test vector after the process has ended with `status`. `negative`: see
    // Suite.
    void judge(int status, bool negative);

private:
    struct Result;

    [[noreturn]] void runChild(const TestedDecoder& decoder, const DecodeOptions& decode,
                               const VectorOptions& options);
    void judgePictures(bool negative);

    TestVector& mVector;
    FileHandle mLog;  // what the process writes to standard error
    Result* mResult;  // shared with the process; null without memory
    pid_t mPid = -1;
    int mSent = 0;  // the last signal
};

}  // namespace vxrun
