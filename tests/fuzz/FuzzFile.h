// FuzzFile: a fuzzer's input as a file in memory, for parsers that read files.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

class FuzzFile {
public:
    FuzzFile(const uint8_t* data, size_t size) : mFd(memfd_create("fuzz", MFD_CLOEXEC)) {
        if (mFd < 0 || write(mFd, data, size) != static_cast<ssize_t>(size)) std::abort();
    }
    ~FuzzFile() { close(mFd); }
    FuzzFile(const FuzzFile&) = delete;
    FuzzFile& operator=(const FuzzFile&) = delete;

    std::string path() const { return "/proc/self/fd/" + std::to_string(mFd); }

private:
    const int mFd;
};
