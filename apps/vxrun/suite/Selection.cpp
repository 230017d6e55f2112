#include "Selection.h"

#include "Text.h"

#include <fnmatch.h>

#include <algorithm>

namespace vxrun {

void filterVectors(Suite* suite, const std::string& filter) {
    if (filter.empty()) return;
    const auto isOut = [&](const TestVector& vector) {
        const std::string full = suite->name + "." + vector.name;
        bool negative = false, selected = filter.front() == '-';
        std::istringstream globs(filter);
        for (std::string glob, rest; std::getline(globs, glob, ':');) {
            // A colon with a backslash before it belongs to the name.
            while (!glob.empty() && glob.back() == '\\' && std::getline(globs, rest, ':')) {
                glob += ":" + rest;
            }
            negative = negative || glob.rfind('-', 0) == 0;
            const char* const pattern = glob.c_str() + (glob.rfind('-', 0) == 0 ? 1 : 0);
            const bool matches = fnmatch(pattern, vector.name.c_str(), 0) == 0 ||
                                 fnmatch(pattern, full.c_str(), 0) == 0;
            if (matches) selected = !negative;
        }
        return !selected;
    };
    auto& vectors = suite->vectors;
    vectors.erase(std::remove_if(vectors.begin(), vectors.end(), isOut), vectors.end());
}

// What is not given is read from the variables of GoogleTest's runners.
bool Selection::applyTo(Suite* suite) const {
    filterVectors(suite, filter.empty() ? variable("GTEST_FILTER") : filter);
    const bool any = !suite->vectors.empty();
    const bool given = !shard.empty();
    std::string index = variable("GTEST_SHARD_INDEX"), total = variable("GTEST_TOTAL_SHARDS");
    if (given) {
        const size_t slash = std::min(shard.find('/'), shard.size() - 1);
        index = shard.substr(0, slash);
        total = shard.substr(slash + 1);
    } else if (total.empty()) {
        return any;
    }
    try {
        constexpr uint64_t kMaxShards = 1'000'000;
        const uint64_t shards = parseNumber(total, 1, kMaxShards);
        const uint64_t first = given ? 1 : 0;
        std::vector<TestVector> part;
        for (uint64_t i = parseNumber(index, first, shards - 1 + first) - first;
             i < suite->vectors.size(); i += shards) {
            part.push_back(std::move(suite->vectors[i]));
        }
        suite->vectors = std::move(part);
    } catch (const Failure& failure) {
        throw badOption(given ? "--shard" : "GTEST_SHARD_INDEX, GTEST_TOTAL_SHARDS",
                        failure.what());
    }
    return any;
}

}  // namespace vxrun
