// Archive: many files in one, a tar that is compressed with zstd.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace vxrun {

// Called between pieces of the work; ends it by throwing.
using Check = std::function<void()>;

// A file to pack: its name in the archive, where it is, and its size. A plain value.
struct PackedFile {
    std::string name, path;
    uint64_t size;
};
// Writes the archive `path` as a whole, in this order. Throws Failure, also for a file that is not
// of its size any more.
void pack(const std::string& path, const std::vector<PackedFile>& files, const Check& check);

// Takes the next bytes of a file, none at its end.
using TakeBytes = std::function<void(const char* data, size_t size)>;
// Reads the archive `path`: asks `take` about each file and gives it the bytes. Throws Failure
// "path: not a bundle: ..." for what is not such an archive, or holds anything but plain files.
void unpack(const std::string& path,
            const std::function<TakeBytes(const std::string& name, uint64_t size)>& take,
            const Check& check);

}  // namespace vxrun
