// Console: what vxrun says on standard error. Standard output belongs to the verdict.
//
// Threads  any; every line leaves in one write.
#pragma once

#include <string>

namespace vxrun::console {

// Silences line() and progress().
void setQuiet(bool quiet);

// Prints `text` as one line.
void line(const std::string& text);

// True when progress is to be shown: on a terminal, and not quiet.
bool showsProgress();

// Shows `text` in place of the last progress, until the next line() or progress().
void progress(const std::string& text);

}  // namespace vxrun::console
