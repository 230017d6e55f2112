#include "ChecksumFormat.h"

#include "Md5.h"
#include "Text.h"

#include <algorithm>
#include <filesystem>

namespace vxrun {
namespace {

// In the order of their names.
std::vector<ChecksumFormat>& formats() {
    static std::vector<ChecksumFormat> all;  // made when the first format is registered
    return all;
}

}  // namespace

bool registerChecksumFormat(const ChecksumFormat& format) {
    const auto isAfter = [&](const ChecksumFormat& other) { return other.name > format.name; };
    formats().insert(std::find_if(formats().begin(), formats().end(), isAfter), format);
    return true;
}

const ChecksumFormat& checksumFormat(const std::string& name) {
    std::vector<std::string> known;
    for (const ChecksumFormat& format : formats()) {
        if (name == format.name) return format;
        known.push_back(format.name);
    }
    throw Failure("expected one of " + joined(known) + ", got " + quote(name));
}

std::string checksumFormatOf(const std::string& path) {
    const std::string extension = std::filesystem::path(path).extension();
    for (const ChecksumFormat& format : formats()) {
        if (!extension.empty() && extension == format.extension) return format.name;
    }
    return "framemd5";
}

bool ChecksumRow::matches(const ChecksumRow& actual) const {
    if (size != 0 && size != actual.size) return false;
    if (hash.size() != actual.hash.size() + 1) return hash == actual.hash;
    const auto differ = std::mismatch(actual.hash.begin(), actual.hash.end(), hash.begin());
    return std::equal(differ.first, actual.hash.end(), differ.second + 1);
}

ChecksumList readChecksumList(const std::string& path) {
    constexpr size_t kMaxListSize = 64 << 20;  // about 700,000 rows
    const std::string text = readTextFile(path, kMaxListSize);
    for (const ChecksumFormat& format : formats()) {
        auto rows = format.read(path, text);
        if (rows && !rows->empty()) return {&format, std::move(*rows)};
    }
    throw Failure(path + ": no row in the list");
}

void ChecksumWriter::writeFrame(const Frame& frame, const std::string& hash) {
    if (frame.size() == 0) throw Failure("an empty frame, which no checksum can identify");
    ++mFrames;
    addFrame(frame, hash);
}

void ChecksumWriter::commit() {
    if (mFrames == 0) throw Failure("no frame, so there is no checksum to write");
    addEnd();
    mFile.commit();
}

}  // namespace vxrun
