// Version: what this program is, for --version and reports.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace vxrun {

// "1.0.0 (commit 0123456789ab)"; no commit where it was not built from a repository.
std::string programVersion();

// What a result depends on besides the decoder, name and value: the program's version, its
// libraries', the kernel and the machine.
std::vector<std::pair<std::string, std::string>> environmentFacts();

}  // namespace vxrun
