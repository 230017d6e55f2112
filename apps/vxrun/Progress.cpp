#include "Progress.h"

#include "Console.h"
#include "Failure.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>

namespace vxrun {
namespace {

constexpr std::chrono::milliseconds kLiveStep(200);
constexpr std::chrono::seconds kPlainStep(30);  // where a line cannot be replaced
constexpr std::chrono::milliseconds kBlockStep(500);

std::string decimal(double value, const char* format) {
    char text[48];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

}  // namespace

Progress::Progress(const std::string& target, const Evidence& evidence, Clock::time_point limit)
    : mEvidence(evidence), mLimit(limit) {
    mLineDue = mStart + (console::showsProgress() ? Clock::duration(kLiveStep) : kPlainStep);
    if (target.empty()) return;
    constexpr size_t kMaxDigits = 9;  // of a descriptor
    if (target.find_first_not_of("0123456789") == std::string::npos &&
        target.size() <= kMaxDigits) {
        mTarget = std::stoi(target);
        if (fcntl(mTarget, F_GETFD) < 0) mTarget = -1;
    } else {
        mTarget = open(target.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NONBLOCK, 0666);
        mOwnsTarget = true;
    }
    if (mTarget < 0) {
        throw Failure("vxrun: --progress: " + target + ": " + errnoText(errno), "BAD_OPTION");
    }
}

Progress::~Progress() {
    if (mOwnsTarget) close(mTarget);
}

double Progress::seconds() const {
    return std::chrono::duration<double>(Clock::now() - mStart).count();
}

void Progress::step() {
    const auto now = Clock::now();
    if (mTarget >= 0 && now >= mBlockDue) {
        mBlockDue = now + kBlockStep;
        writeBlock(false);
    }
    if (now < mLineDue) return;
    if (console::showsProgress()) {
        mLineDue = now + kLiveStep;
        console::progress(lineText());
    } else {
        mLineDue = now + kPlainStep;
        console::note("vxrun: " + lineText());
    }
}

Progress::Clock::time_point Progress::next() const {
    return mTarget >= 0 ? std::min(mLineDue, mBlockDue) : mLineDue;
}

void Progress::finish() {
    if (mTarget >= 0) writeBlock(true);
    console::progress("");
}

std::string Progress::lineText() const {
    const auto totals = mEvidence.totals();
    const double rate = static_cast<double>(totals.frames) / seconds();
    const std::string mismatches = std::to_string(totals.mismatches) + " mismatches";
    std::string text =
        std::to_string(totals.frames) + " frames, " + std::to_string(totals.checked) +
        " checked, " +
        (totals.mismatches > 0 ? console::painted(mismatches, false, STDERR_FILENO) : mismatches);
    double left = INFINITY;
    if (totals.expected > totals.frames) {
        left = static_cast<double>(totals.expected - totals.frames) / rate;
    } else if (mLimit != Clock::time_point::max()) {
        left = std::chrono::duration<double>(mLimit - Clock::now()).count();
    }
    if (std::isfinite(left)) text += ", " + decimal(std::max(left, 0.0), "%.0f s left");
    return text + ", " + decimal(rate, "%.1f frames/s");
}

void Progress::writeBlock(bool last) {
    const auto totals = mEvidence.totals();
    const double elapsed = seconds();
    std::string text = "frame=" + std::to_string(totals.frames) +
                       "\nfps=" + decimal(static_cast<double>(totals.frames) / elapsed, "%.2f") +
                       "\nframes_checked=" + std::to_string(totals.checked) +
                       "\nmismatches=" + std::to_string(totals.mismatches) +
                       "\nelapsed_us=" + decimal(elapsed * 1e6, "%.0f") + "\n";
    for (const auto& node : mEvidence.nodes()) {
        text += "node." + node.record.name + ".queued=" + std::to_string(node.queued) + "\n";
    }
    text += last ? "progress=end\n" : "progress=continue\n";
    // A reader that does not read must not hold up the watchdog.
    pollfd target = {mTarget, POLLOUT, 0};
    if (poll(&target, 1, 0) != 1) return;
    // Nor is a run any worse when nobody reads any more.
    if (write(mTarget, text.data(), text.size()) < 0) mTarget = -1;
}

}  // namespace vxrun
