#include "Progress.h"

#include "Console.h"
#include "Files.h"
#include "Text.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace vxrun {
namespace {

using Seconds = std::chrono::duration<double>;

constexpr std::chrono::milliseconds kLiveStep(200);
constexpr std::chrono::milliseconds kPlainStep(30000);  // where a line cannot be replaced
constexpr std::chrono::milliseconds kBlockStep(500);

}  // namespace

Progress::Progress(const std::string& target, const Evidence& evidence, Clock::time_point limit)
    : mEvidence(evidence),
      mLimit(limit),
      mLineDue(mStart + (console::showsProgress() ? kLiveStep : kPlainStep)) {
    constexpr size_t kMaxDigits = 9;  // of a descriptor
    if (target.empty()) {
        mBlockDue = Clock::time_point::max();
    } else if (target.find_first_not_of("0123456789") != target.npos ||
               target.size() > kMaxDigits) {
        const int file = openOutput("--progress", target);
        mTarget.emplace(file);
        close(file);
    } else {
        mTarget.emplace(std::stoi(target));
    }
    if (mTarget && !mTarget->isOpen()) {
        throw badOption("--progress", target + ": " + errnoText(errno));
    }
}

void Progress::step() {
    const auto now = Clock::now();
    if (now >= mBlockDue) {
        mBlockDue = now + kBlockStep;
        writeBlock("continue", std::chrono::milliseconds(0));
    }
    if (now < mLineDue) return;
    const bool isLive = console::showsProgress();
    mLineDue = now + (isLive ? kLiveStep : kPlainStep);
    isLive ? console::progress(lineText()) : console::note("vxrun: " + lineText());
}

void Progress::finish() {
    writeBlock("end", std::chrono::seconds(1));
    console::progress("");
}

std::string Progress::lineText() const {
    const auto totals = mEvidence.totals();
    const auto now = Clock::now();
    const double rate = static_cast<double>(totals.frames) / Seconds(now - mStart).count();
    const std::string bad = concat(totals.mismatches, " mismatches");
    std::string left;
    if (totals.expected > totals.frames && totals.frames > 0) {
        left = decimal(static_cast<double>(totals.expected - totals.frames) / rate, 0);
    } else if (mLimit != Clock::time_point::max()) {
        left = decimal(Seconds(std::max(mLimit, now) - now).count(), 0);
    }
    return concat(totals.frames, " frames, ", totals.checked, " checked, ",
                  totals.mismatches > 0 ? console::painted(bad, false, STDERR_FILENO) : bad,
                  left.empty() ? "" : ", " + left + " s left", ", ", decimal(rate, 1), " frames/s");
}

void Progress::writeBlock(const char* progress, std::chrono::milliseconds patience) {
    if (!mTarget) return;
    const auto totals = mEvidence.totals();
    const double elapsed = Seconds(Clock::now() - mStart).count();
    std::string text =
        concat("frame=", totals.frames,  //
               "\nfps=", decimal(static_cast<double>(totals.frames) / elapsed, 2),
               "\nframes_checked=", totals.checked, "\nmismatches=", totals.mismatches,
               "\nelapsed_us=", decimal(elapsed * 1e6, 0), "\n");
    for (const auto& node : mEvidence.nodes()) {
        text += concat("node.", printable(node.record.name), ".queued=", node.queued, "\n");
    }
    text += concat("progress=", progress, "\n");
    mTarget->write(text, patience);  // a run does not fail because its progress is not read
}

}  // namespace vxrun
