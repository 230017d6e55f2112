// One knob for the counts of thread-heavy tests: slow runs (sanitizers, an emulator) turn it down.
#pragma once

#include <algorithm>
#include <cstdlib>

// `n` times the percentage in the environment variable VX_TEST_SCALE (100 when it is not set), but
// at least 1.
inline int scaled(int n) {
    const char* percent = std::getenv("VX_TEST_SCALE");
    const long long share = percent != nullptr ? std::strtol(percent, nullptr, 10) : 100;
    return static_cast<int>(std::max(n * share / 100, 1LL));
}
