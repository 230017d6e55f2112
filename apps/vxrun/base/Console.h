// Console: what vxrun prints on standard error. Standard output belongs to the verdict and other
// results.
//
// Its state is global because standard output and error are: a process has one of each, and any
// thread may have to report something, down to the handler of std::terminate().
//
// Threads  any. Lines come out whole. If standard error is not read, lines are lost after a few
//          seconds: neither the run nor its watchdog hangs on it.
#pragma once

#include "Outlet.h"

#include <unistd.h>

#include <chrono>
#include <string>

namespace vxrun::console {

// `quiet` silences everything here. `color`: "always", "never" or "auto": on a terminal that has
// them, unless the environment overrides it. Call before other threads start; afterwards
// descriptors 1 and 2 may lead elsewhere.
void configure(bool quiet, const std::string& color);

// `text` in red, or in green when it is `good`, if what is written to `fd` is to have colors.
std::string painted(const std::string& text, bool good, int fd);

// Prints an error as one line, see printable().
void line(const std::string& text);
// Prints a text that is not an error; it may have several lines.
void note(const std::string& text);
// The first error that line() was given since configure(), printed or not.
std::string firstError();

// True when progress is to be shown: on a terminal, and not quiet.
bool showsProgress();

// Shows `text` in place of the last progress, until the next line() or progress().
void progress(const std::string& text);

// Prints `text`, a result that was asked for, on standard output (or error), at once and even when
// quiet. Waits at most `patience` for a reader that does not read: without limit only if no run is
// under way. False, after an error line, when it is not printed whole: a disk is full, a reader has
// gone.
constexpr std::chrono::seconds kPatience(5);
bool result(const std::string& text, int fd = STDOUT_FILENO,
            std::chrono::milliseconds patience = Outlet::kForever);

// The same, and the exit code: `code`, or in place of 0 that of Verdict::NotWritten.
int exitWithResult(const std::string& text, int code = 0, int fd = STDOUT_FILENO,
                   std::chrono::milliseconds patience = Outlet::kForever);

}  // namespace vxrun::console
