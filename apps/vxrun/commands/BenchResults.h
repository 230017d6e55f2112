// BenchResults: what vxrun bench has measured, as a table and as a JSON file that it reads again.
#pragma once

#include "RunProcess.h"
#include "Statistics.h"

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace vxrun {

constexpr size_t kFewestRounds = 3;  // that show how far they differ

// What a run gave.
struct Pictures {
    std::string md5;  // empty: not known
    uint64_t frames = 0;
};

// A decoder or graph, and what each round of it took.
struct BenchCandidate {
    std::vector<double> seconds() const;

    std::string name;
    std::string version;  // empty: not known
    Pictures pictures;    // of every run
    std::vector<RunFigures> rounds;
    std::optional<Ratio> toBaseline;  // of the seconds
};

struct BenchResults {
    const BenchCandidate* find(const std::string& name) const;

    std::string input;
    std::vector<BenchCandidate> candidates;  // with as many rounds each
    // What the results depend on besides the candidates, name and value.
    std::vector<std::pair<std::string, std::string>> facts;
    // What the processors of the machine did meanwhile, in parts of their time.
    double load = 0;   // for other processes
    double steal = 0;  // nothing, since the host of this virtual machine ran others
    std::vector<std::string> remarks;
    std::string verdict;
};

// A row per candidate and figure, with ratios to the first candidate; then the ratios to a baseline
// and the remarks.
std::string benchTable(const BenchResults& results);
std::string benchJson(const BenchResults& results);
// What comparing with the results in the file `path` needs: of the rounds, the seconds. Throws
// Failure, with the place, for a file that is not such a one.
BenchResults readBench(const std::string& path);

}  // namespace vxrun
