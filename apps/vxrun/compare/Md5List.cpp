// md5-list: a line "hash  name" per frame.
#include "Md5Lanes.h"
#include "RemarkList.h"
#include "Text.h"

namespace vxrun {
namespace {

class Writer final : public ChecksumWriter {
public:
    using ChecksumWriter::ChecksumWriter;

private:
    void addFrame(const Frame& frame, const std::string& hash) override {
        const PictureFormat& picture = frame.stream.picture;
        write(concat(hash, "  frame-", picture.width, "x", picture.height, "-", std::setfill('0'),
                     std::setw(4), frames(), "\n"));
    }
};

const bool kRegistered =
    registerChecksumFormat({"md5-list", ".md5", md5sOf, kMd5Lanes,
                            [](const std::string& path, const std::string& text) {
                                auto rows = readMd5s(path, text);
                                if (rows && rows->size() == 1)
                                    rows.reset();  // that of the whole stream
                                return rows;
                            },
                            [](const std::string& path) -> std::unique_ptr<ChecksumWriter> {
                                return std::make_unique<Writer>(path);
                            }});

}  // namespace
}  // namespace vxrun
