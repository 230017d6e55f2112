// Progress: reports during a run how far it is: a line for people and blocks for programs.
#pragma once

#include "Outlet.h"
#include "Vxkit.h"

#include <vxkit/Evidence.h>

#include <chrono>
#include <optional>
#include <string>

namespace vxrun {

// Life     for one run.
// Threads  one.
// Owns     a descriptor for the target.
class Progress {
public:
    using Clock = std::chrono::steady_clock;

    // `target`: the file, or the number of an open file descriptor, that the blocks go to; empty
    // for none. `limit`: the end of the run's time, or Clock::time_point::max(). Throws Failure,
    // Verdict::BadOption, when the target cannot be written.
    Progress(const std::string& target, const Evidence& evidence, Clock::time_point limit);

    // Shows what is due.
    void step();
    // When step() is to be called again.
    Clock::time_point next() const { return std::min(mLineDue, mBlockDue); }
    // Writes the last block and clears the line.
    void finish();

private:
    void writeBlock(const char* progress, std::chrono::milliseconds patience);
    std::string lineText() const;

    const Evidence& mEvidence;
    const Clock::time_point mLimit;
    const Clock::time_point mStart = Clock::now();
    Clock::time_point mLineDue;
    Clock::time_point mBlockDue = mStart;
    std::optional<Outlet> mTarget;
};

}  // namespace vxrun
