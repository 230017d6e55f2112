// The fuzzers' main function: has readFile(), which each of them defines, read the input as a file
// in memory. It may throw a Failure; every other exception is a fault.
#pragma once

#include <sys/mman.h>
#include <unistd.h>
#include <vxkit/Failure.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

void readFile(const std::string& path);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const int file = memfd_create("fuzz", MFD_CLOEXEC);
    if (file < 0 || write(file, data, size) != static_cast<ssize_t>(size)) std::abort();
    try {
        readFile("/proc/self/fd/" + std::to_string(file));
    } catch (const vxkit::Failure&) {
    }
    close(file);
    return 0;
}
