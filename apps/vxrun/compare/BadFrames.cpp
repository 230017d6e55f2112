#include "BadFrames.h"

#include "Files.h"
#include "FrameDiff.h"
#include "Png.h"
#include "Text.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <filesystem>

namespace vxrun {

const PathKey kDumpBad{"dump_bad", "the folder for frames that differ, as PNG and raw"};
const NumberKey kDumpLimit{"dump_limit", 1, 1000000, 8,
                           "the most frames to write there, default 8"};

namespace {

std::string fileNameOf(std::string name) {
    const auto isOther = [](unsigned char c) { return std::isalnum(c) == 0 && c != '-'; };
    std::replace_if(name.begin(), name.end(), isOther, '_');
    return name;
}

void writeFile(const std::string& path, const std::vector<uint8_t>& bytes) {
    OutputFile file(path);
    file.write(bytes.data(), bytes.size());
    file.commit();
}

void writeFrame(const std::string& path, const FrameView& frame) {
    OutputFile raw(path + ".raw");
    frame.forEachRow([&](const uint8_t* row, size_t bytes) { raw.write(row, bytes); });
    raw.commit();
    if (frame.isPicture()) writeFile(path + ".png", pngOf(frame));
}

}  // namespace

BadFrames::BadFrames(const std::string& folder, uint64_t limit, const std::string& node,
                     std::function<void(const std::string&)> print)
    : mPrint(std::move(print)),
      mStem(folder + "/" + fileNameOf(node)),
      mLeft(folder.empty() ? 0 : limit) {
    if (folder.empty()) return;
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    if (!error && !std::filesystem::is_directory(folder, error)) {
        error = std::make_error_code(std::errc::not_a_directory);
    }
    if (error) {
        throw Failure("config 'dump_bad': the folder " + quote(folder) +
                      " cannot be created: " + error.message());
    }
}

std::string BadFrames::dump(uint64_t frame, const FrameView& actual, const FrameView* expected) {
    if (mLeft == 0) return "";
    --mLeft;
    char number[32];
    std::snprintf(number, sizeof number, ".frame%06llu", static_cast<unsigned long long>(frame));
    try {
        write(mStem + number, actual, expected);
    } catch (const Failure& failure) {
        mPrint(std::string("no more frames are dumped: ") + failure.what());
        mLeft = 0;
        return "";
    }
    return mStem + number;
}

void BadFrames::write(const std::string& stem, const FrameView& actual, const FrameView* expected) {
    writeFrame(stem + ".actual", actual);
    if (expected == nullptr) return;
    writeFrame(stem + ".expected", *expected);
    const std::vector<uint8_t> difference = FrameDiff(actual, *expected, 0).picture();
    if (difference.empty() || !actual.isPicture()) return;
    writeFile(stem + ".diff.raw", difference);
    const PictureFormat& format = actual.format();
    writeFile(stem + ".diff.png", pngOf(difference, format.width, format.height));
}

}  // namespace vxrun
