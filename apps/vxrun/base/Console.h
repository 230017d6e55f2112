// Console: what vxrun prints on standard error. Standard output belongs to the verdict and other results.
//
// Threads  any. Lines come out whole. Where standard error is not read, lines are lost after a few seconds:
//          neither the run nor its watchdog hangs on it.
#pragma once

#include "Outlet.h"

#include <unistd.h>

#include <string>

namespace vxrun::console {

// `quiet` silences everything here. `color`: "always", "never" or "auto": on a terminal that has them,
// unless the environment says otherwise. Before other threads start; from then on descriptors 1 and 2 may
// lead elsewhere.
void set(bool quiet, const std::string& color);

// `text` in red, or in green when it is `good`, if what is written to `fd` is to have colours.
std::string painted(const std::string& text, bool good, int fd);

// Prints an error as one line, see printable().
void line(const std::string& text);
// Prints what is no error; `text` may have several lines.
void note(const std::string& text);

// True when progress is to be shown: on a terminal, and not quiet.
bool showsProgress();

// Shows `text` in place of the last progress, until the next line() or progress().
void progress(const std::string& text);

// Prints `text`, what was asked for, on standard output (or error), at once and even when quiet. Waits for a
// reader that does not read for `patience` at most: without limit only where no run is under way. False,
// after an error line, when it does not get there whole: a disk is full, a reader has gone.
constexpr std::chrono::seconds kPatience(5);
bool result(const std::string& text, int fd = STDOUT_FILENO,
            std::chrono::milliseconds patience = Outlet::kForever);

}  // namespace vxrun::console
