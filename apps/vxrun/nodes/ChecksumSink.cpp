// sink/checksum: compares the frames' checksums with a list, writes such a list, or both.
#include "Alignment.h"
#include "AppNode.h"
#include "BadFrames.h"
#include "ChecksumList.h"
#include "Console.h"
#include "Text.h"

#include <optional>

namespace vxrun {
namespace {

class ChecksumSink : public Sink {
public:
    static bool checks(const vexa::VXNodeDescriptor& node) {
        return !configOf(node, "expect").empty();
    }

    using Sink::Sink;

private:
    void open() override {
        mExpectPath = config("expect");
        if (!mExpectPath.empty()) mExpected = readChecksumList(mExpectPath);
        record().checking = mExpected.has_value();
        mBadFrames.emplace(config("dump_bad"), numberConfig("dump_limit"), record().name);
        if (mExpected && !expectsWhole()) record().expected = mExpected->rows.size();
        const std::string format = config("format");
        try {
            if (!format.empty()) mWritten = checksumFormat(format);
        } catch (const Failure& failure) {
            throw Failure(std::string("config 'format': ") + failure.what());
        }
    }

    void begin() override {
        if (!config("write").empty()) mList.emplace(config("write"), mWritten);
    }

    void consume(const Frame& frame) override {
        if (mExpected && !expectsWhole()) compare(frame);
        if (needsWhole()) mWhole.add(frame);
        if (mList) mList->add(frame, frame.stream, frame.info.timestamp);
        ++mFrames;
    }

    bool expectsWhole() const { return mExpected && mExpected->format == ChecksumFormat::MD5; }
    bool needsWhole() { return flagConfig("print_md5") || expectsWhole(); }

    void compare(const Frame& frame) {
        const ChecksumRow got = {frame.size(), checksum(mExpected->format, frame)};
        const bool surplus = mFrames >= mExpected->rows.size();
        const ChecksumRow expected = surplus ? ChecksumRow() : mExpected->rows[mFrames];
        if (!surplus) ++record().checked;
        const bool isBad = !expected.matches(got);
        mAlignment.add(got.hash, expected.hash, isBad);
        if (!isBad) return;
        if (!surplus) ++mDiffering;
        // Only the first one is shown, and at once: the run may break off.
        if (record().mismatches == 0) {
            mFirstBad = mFrames;
            const bool sizes = expected.size != 0 && got.size != expected.size;
            const std::string text =
                surplus ? concat(mExpectPath, " has ", mFrames, " frames, this is one more")
                        : "expected " + describe(expected, sizes) + ", got " + describe(got, sizes);
            failCheck(vexa::CRC_MISMATCH,
                      concat("frame ", mFrames, " (timestamp ", frame.info.timestamp, "): ", text));
        }
        noteBad(mFrames);
        mBadFrames->add(mFrames, frame, nullptr);
    }

    static std::string describe(const ChecksumRow& row, bool withSize) {
        return withSize ? std::to_string(row.size) + " bytes " + row.hash : row.hash;
    }

    void finish() override {
        if (mList) mList->commit();
        const std::string md5 = needsWhole() ? mWhole.hex() : "";
        if (flagConfig("print_md5") &&
            !console::result(md5 + "\n", STDOUT_FILENO, console::kPatience)) {
            throw Failure("the MD5 could not be printed", kNotWritten);
        }
        if (expectsWhole()) return compareWhole(md5);
        if (!mExpected) return;
        const size_t rows = mExpected->rows.size();
        std::string text;
        if (mDiffering > 0) {
            text = concat(mDiffering, " of ", record().checked, " frames differ, first is frame ",
                          mFirstBad);
        }
        if (mFrames != rows) {
            if (mFrames < rows) noteBad(mFrames);  // the surplus ones are noted
            text += concat(text.empty() ? "" : "; ", "the stream has ", mFrames, " frames, ",
                           mExpectPath, " has ", rows);
        }
        if (text.empty()) return;
        for (size_t row = mFrames; row < rows; ++row) {
            mAlignment.add("", mExpected->rows[row].hash, true);
        }
        const std::string alignment = mAlignment.text();
        failCheck(vexa::CRC_MISMATCH, text + (alignment.empty() ? "" : "; " + alignment));
    }

    // Which frame differs, a checksum of the whole cannot tell.
    void compareWhole(const std::string& md5) {
        const ChecksumRow& expected = mExpected->rows.front();
        record().checked = mFrames;
        if (expected.matches({0, md5})) return;
        failCheck(vexa::CRC_MISMATCH,
                  concat("the MD5 of all ", mFrames, " frames differs: expected ", expected.hash,
                         ", got ", md5));
    }

    std::optional<ChecksumList> mExpected;
    std::string mExpectPath;
    Alignment mAlignment;
    std::optional<BadFrames> mBadFrames;
    ChecksumFormat mWritten = ChecksumFormat::FRAMEMD5;
    std::optional<ChecksumWriter> mList;
    Md5 mWhole;            // where it is printed or expected
    uint64_t mFrames = 0;  // that were consumed
    uint64_t mDiffering = 0;
    uint64_t mFirstBad = 0;
};

const bool kAdded = addNodeType<ChecksumSink>(
    "sink/checksum", "compares and writes lists of frame checksums", 1, 0,
    {{"expect", kFile, "the checksums to compare with; the format is found out"},
     {"write", kFile, "the list to write"},
     {"format", kText, "of what is written: framemd5 (default), framecrc, md5, md5-list, json"},
     {"print_md5", kFlag, "true: the MD5 of the whole stream goes to standard output"},
     {"dump_bad", kFile, "a folder for the frames that differ, as PNG and raw"},
     {"dump_limit", number(1, 1000000, 8), "how many frames to write there, default 8"}});

}  // namespace
}  // namespace vxrun
