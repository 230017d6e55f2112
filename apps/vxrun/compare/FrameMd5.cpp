// framemd5: the table of FFmpeg's framemd5 muxer.
#include "Md5Lanes.h"
#include "TableList.h"

namespace vxrun {
namespace {

const ChecksumFormat kFrameMd5 = {"framemd5",
                                  ".framemd5",
                                  md5sOf,
                                  kMd5Lanes,
                                  [](const std::string& path, const std::string& text) {
                                      return readTable(TableHash::MD5, path, text);
                                  },
                                  [](const std::string& path) -> std::unique_ptr<ChecksumWriter> {
                                      return std::make_unique<TableWriter>(TableHash::MD5, path);
                                  }};

const bool kRegistered = registerChecksumFormat(kFrameMd5);

}  // namespace
}  // namespace vxrun
