// framecrc: the table of FFmpeg's framecrc muxer.
#include "TableList.h"
#include "Text.h"

#include <zlib.h>

namespace vxrun {
namespace {

// The Adler-32 with both sums started at 0, as framecrc (and not zlib) has it, as "0x........".
std::vector<std::string> crcsOf(const std::vector<const FrameView*>& frames) {
    std::vector<std::string> crcs;
    for (const FrameView* frame : frames) {
        uLong sum = 0;
        frame->forEachRow(
            [&](const uint8_t* row, size_t bytes) { sum = adler32_z(sum, row, bytes); });
        crcs.push_back(concat("0x", std::hex, std::setfill('0'), std::setw(8), sum));
    }
    return crcs;
}

const ChecksumFormat kFrameCrc = {"framecrc",
                                  ".framecrc",
                                  crcsOf,
                                  1,
                                  [](const std::string& path, const std::string& text) {
                                      return readTable(TableHash::CRC, path, text);
                                  },
                                  [](const std::string& path) -> std::unique_ptr<ChecksumWriter> {
                                      return std::make_unique<TableWriter>(TableHash::CRC, path);
                                  }};

const bool kRegistered = registerChecksumFormat(kFrameCrc);

}  // namespace
}  // namespace vxrun
