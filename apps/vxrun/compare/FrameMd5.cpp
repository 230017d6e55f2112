// framemd5: the table of FFmpeg's framemd5 muxer.
#include "Md5.h"
#include "TableList.h"

namespace vxrun {
namespace {

const ChecksumFormat kFrameMd5 = {"framemd5",
                                  ".framemd5",
                                  false,
                                  md5Of,
                                  [](const std::string& path, const std::string& text) {
                                      return readTable(TableHash::MD5, path, text);
                                  },
                                  [](const std::string& path) -> std::unique_ptr<ChecksumWriter> {
                                      return std::make_unique<TableWriter>(TableHash::MD5,
                                                                           kFrameMd5, path);
                                  }};

const bool kRegistered = registerChecksumFormat(kFrameMd5);

}  // namespace
}  // namespace vxrun
