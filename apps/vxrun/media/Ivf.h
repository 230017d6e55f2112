// Ivf: IVF files: a header, then for each access unit its size, its time and its bytes. All numbers
// are little endian.
#pragma once

#include "Files.h"
#include "Vxkit.h"

#include <vxkit/Format.h>

#include <optional>
#include <string>
#include <vector>

namespace vxrun {

// Life     next() until it is false.
// Threads  one at a time.
// Owns     the open file.
class IvfReader {
public:
    // Opens `path` and reads its header. Verdict::NotSupported: a codec without a known name.
    explicit IvfReader(const std::string& path);

    const BitstreamInfo& stream() const { return mStream; }
    // Reads the next access unit, and its time in units of the stream's time base; false at the end
    // of the file.
    bool next(std::vector<uint8_t>* bytes, int64_t* time);

private:
    InputFile mFile;
    BitstreamInfo mStream;
    uint64_t mUnits = 0;  // that were read
};

// Life     write() for each access unit, then commit().
// Threads  one at a time.
// Owns     the file.
class IvfWriter {
public:
    // Throws Failure, Verdict::NotSupported, for a codec that IVF has no name for.
    IvfWriter(const std::string& path, const BitstreamInfo& stream);
    void write(const uint8_t* bytes, size_t size, int64_t time);
    void commit();

private:
    OutputFile mFile;
    uint32_t mUnits = 0;
};

}  // namespace vxrun
