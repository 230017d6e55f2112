// TableList: the tables of FFmpeg's framemd5 and framecrc muxers, which differ in the hash.
#pragma once

#include "ChecksumFormat.h"

#include <string>

namespace vxrun {

// Whether the rows of such a table hold a CRC: "0x" and 8 digits.
enum class TableHash { MD5, CRC };

// The rows of a table of that hash; empty when `text` is no table, or one of the other.
std::optional<ChecksumRows> readTable(TableHash hash, const std::string& path,
                                      const std::string& text);

// TableWriter: writes what FFmpeg writes with -fflags +bitexact.
//
// Life, threads and owns: as ChecksumWriter.
class TableWriter final : public ChecksumWriter {
public:
    TableWriter(TableHash hash, const std::string& path) : ChecksumWriter(path), mHash(hash) {}

private:
    void addFrame(const Frame& frame, const std::string& hash) override;

    const TableHash mHash;
};

}  // namespace vxrun
