// md5: one MD5 over the visible bytes of all frames, in order.
#include "Md5.h"
#include "RemarkList.h"

namespace vxrun {
namespace {

class Writer final : public ChecksumWriter {
public:
    using ChecksumWriter::ChecksumWriter;

private:
    void addFrame(const Frame& frame, const std::string&) override { mMd5.addFrame(frame); }
    void addEnd() override { write("MD5=" + mMd5.hex() + "\n"); }

    Md5 mMd5;
};

const bool kRegistered =
    registerChecksumFormat({"md5", "", nullptr, 1,
                            [](const std::string& path, const std::string& text) {
                                auto rows = readMd5s(path, text);
                                if (rows && rows->size() != 1) rows.reset();
                                return rows;
                            },
                            [](const std::string& path) -> std::unique_ptr<ChecksumWriter> {
                                return std::make_unique<Writer>(path);
                            }});

}  // namespace
}  // namespace vxrun
