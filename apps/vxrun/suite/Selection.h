// Selection: which test vectors of a suite are run.
#pragma once

#include "Suite.h"

#include <string>

namespace vxrun {

// Leaves the test vectors that `filter` selects: a list of globs, separated by colons; what matches
// one from the first "-" before a glob on is left out. They match a vector's name, or suite.name.
// Empty: all.
void filterVectors(Suite* suite, const std::string& filter);

struct Selection {
    // Applies both. True when the filter selects something, even if none of it is in this shard.
    // Throws Failure for a bad shard.
    bool applyTo(Suite* suite) const;

    std::string filter;  // see filterVectors(); empty: GTEST_FILTER
    std::string shard;   // "i/n", i from 1; empty: GTEST_SHARD_INDEX and GTEST_TOTAL_SHARDS
};

}  // namespace vxrun
