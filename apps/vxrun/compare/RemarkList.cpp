#include "RemarkList.h"

#include "ListLines.h"
#include "Md5.h"
#include "Text.h"

namespace vxrun {
std::optional<ChecksumRows> readMd5s(const std::string& path, const std::string& text) {
    if (isJson(text) || isTable(path, text)) return std::nullopt;
    ChecksumRows rows, yuvRows;
    forEachLine(path, text, [&](const std::string& line) {
        const std::string hash = findMd5(line);
        if (hash == kMd5OfNothing) throw Failure("the MD5 of no data");
        if (!hash.empty()) rows.push_back({0, hash});
        if (!hash.empty() && line.find(".yuv") != line.npos) yuvRows.push_back({0, hash});
        return true;
    });
    return yuvRows.size() == 1 ? yuvRows : rows;
}

}  // namespace vxrun
