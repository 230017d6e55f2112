// json: an object with "md5_checksums", one per frame.
#include "ChecksumFormat.h"
#include "Json.h"
#include "ListLines.h"
#include "Md5.h"
#include "Md5Lanes.h"
#include "Text.h"

#include <nlohmann/json.hpp>

namespace vxrun {
namespace {

std::optional<ChecksumRows> readRows(const std::string& path, const std::string& text) {
    if (!isJson(text)) return std::nullopt;
    const JsonDocument document(path, "list", text.size());
    ChecksumRows rows;
    const JsonValue& list = document.member(document.root(), "md5_checksums", JsonValue::ARRAY);
    for (const JsonValue& item : list.items) {
        const std::string hash = lowerCase(document.expect(item, JsonValue::STRING).text);
        if (!isMd5(hash)) document.fail(item, "expected an MD5, got " + quote(item.text));
        if (hash == kMd5OfNothing) document.fail(item, "the MD5 of no data");
        rows.push_back({0, hash});
    }
    const JsonValue* const frames = document.root().find("num_frames");
    if (frames != nullptr && document.scalar(*frames) != std::to_string(rows.size())) {
        document.fail(*frames, concat("md5_checksums has ", rows.size()));
    }
    return rows;
}

class Writer final : public ChecksumWriter {
public:
    using ChecksumWriter::ChecksumWriter;

private:
    void addFrame(const Frame& frame, const std::string& hash) override {
        if (frames() == 1) mFirst = frame.stream;
        mHashes.push_back(hash);
    }

    void addEnd() override {
        nlohmann::ordered_json json;
        if (!mFirst.profile.empty()) json["profile"] = mFirst.profile;
        json["bit_depth"] = mFirst.picture.pixels.depth;
        const double duration = mFirst.timeBase.num * static_cast<double>(mFirst.duration);
        if (duration != 0) json["frame_rate"] = mFirst.timeBase.den / duration;
        json["num_frames"] = mHashes.size();
        json["width"] = mFirst.picture.width;
        json["height"] = mFirst.picture.height;
        json["md5_checksums"] = mHashes;
        write(json.dump(2) + "\n");
    }

    StreamInfo mFirst;  // the stream as it was at its first frame
    std::vector<std::string> mHashes;
};

const bool kRegistered =
    registerChecksumFormat({"json", ".json", md5sOf, kMd5Lanes, readRows,
                            [](const std::string& path) -> std::unique_ptr<ChecksumWriter> {
                                return std::make_unique<Writer>(path);
                            }});

}  // namespace
}  // namespace vxrun
