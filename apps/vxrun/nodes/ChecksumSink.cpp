// sink/checksum: compares the frames' checksums with a list, writes such a list, or both.
#include "Alignment.h"
#include "AppNode.h"
#include "BadFrames.h"
#include "ChecksumList.h"
#include "Failure.h"

#include <cstdio>
#include <optional>

namespace vxrun {
namespace {

class ChecksumSink final : public Sink {
public:
    explicit ChecksumSink(NodeArguments arguments) : Sink(std::move(arguments)) {}
    ~ChecksumSink() override { teardown(); }

private:
    void open() override {
        mExpectPath = config("expect");
        if (!mExpectPath.empty()) mExpected = readChecksumList(mExpectPath);
        record().checking = mExpected.has_value();
        constexpr uint64_t kMaxDumped = 1000000;
        mBadFrames.emplace(config("dump_bad"), numberConfig("dump_limit", 1, kMaxDumped, 8),
                           record().name);
        mPrintsMd5 = flagConfig("print_md5");
        if (mExpected && !expectsWhole()) record().expected = mExpected->rows.size();
        const std::string format = config("format");
        ChecksumFormat written = ChecksumFormat::FRAMEMD5;
        try {
            if (!format.empty()) written = checksumFormat(format);
        } catch (const Failure& failure) {
            throw Failure(std::string("config 'format': ") + failure.what());
        }
        if (!config("write").empty()) mList.emplace(config("write"), written);
    }

    void consume(const Payload& payload, const StreamInfo& stream,
                 const vexa::VXFrameInfo& frame) override {
        if (mExpected && !expectsWhole()) compare(payload, frame);
        if (mPrintsMd5 || expectsWhole()) mWhole.add(payload);
        if (mList) mList->add(payload, stream, frame.timestamp);
        ++mFrames;
    }

    bool expectsWhole() const { return mExpected && mExpected->format == ChecksumFormat::MD5; }

    void compare(const Payload& payload, const vexa::VXFrameInfo& frame) {
        const ChecksumRow got = {payload.size(), checksum(mExpected->format, payload)};
        if (mFrames >= mExpected->rows.size()) {
            mAlignment.add(got.hash, "", true);
            mBadFrames->add(mFrames, payload, nullptr);
            return noteBad(mFrames);
        }
        const ChecksumRow& expected = mExpected->rows[mFrames];
        ++record().checked;
        const bool isBad = !expected.matches(got);
        mAlignment.add(got.hash, expected.hash, isBad);
        if (!isBad) return;
        if (mDiffering++ == 0) {
            const bool sizes = expected.size != 0 && got.size != expected.size;
            mFirstDifference = "frame " + std::to_string(mFrames) + ": expected " +
                               describe(expected, sizes) + ", got " + describe(got, sizes) +
                               " (timestamp " + std::to_string(frame.timestamp) + ")";
        }
        noteBad(mFrames);
        mBadFrames->add(mFrames, payload, nullptr);
    }

    static std::string describe(const ChecksumRow& row, bool withSize) {
        return withSize ? std::to_string(row.size) + " bytes " + row.hash : row.hash;
    }

    void finish() override {
        if (mList) mList->commit();
        const std::string md5 = mPrintsMd5 || expectsWhole() ? mWhole.hex() : "";
        if (mPrintsMd5) {
            std::printf("%s\n", md5.c_str());
            std::fflush(stdout);
        }
        if (expectsWhole()) return compareWhole(md5);
        if (!mExpected) return;
        const size_t rows = mExpected->rows.size();
        std::string text;
        if (mDiffering > 0) {
            text = std::to_string(mDiffering) + " of " + std::to_string(record().checked) +
                   " frames differ, first is " + mFirstDifference;
        }
        if (mFrames != rows) {
            if (mFrames < rows) noteBad(mFrames);  // the surplus ones are noted
            text += (text.empty() ? "" : "; ") + ("the stream has " + std::to_string(mFrames)) +
                    " frames, " + mExpectPath + " has " + std::to_string(rows);
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
        failCheck(vexa::CRC_MISMATCH, "the MD5 of all " + std::to_string(mFrames) +
                                          " frames differs: expected " + expected.hash + ", got " +
                                          md5);
    }

    std::optional<ChecksumList> mExpected;
    std::string mExpectPath;
    Alignment mAlignment;
    std::optional<BadFrames> mBadFrames;
    std::optional<ChecksumWriter> mList;
    bool mPrintsMd5 = false;
    Md5 mWhole;            // where it is printed or expected
    uint64_t mFrames = 0;  // that were consumed
    uint64_t mDiffering = 0;
    std::string mFirstDifference;
};

}  // namespace

extern const NodeType kChecksumSink = {
    "sink/checksum",
    "compares and writes lists of frame checksums",
    1,
    0,
    {{"expect", true, "the checksums to compare with; the format is found out"},
     {"write", true, "the list to write"},
     {"format", false, "of what is written: framemd5 (default), framecrc, md5, md5-list, json"},
     {"print_md5", false, "true: the MD5 of the whole stream goes to standard output"},
     {"dump_bad", true, "a folder for the frames that differ, as PNG and raw"},
     {"dump_limit", false, "how many frames to write there, default 8"}},
    makeNode<ChecksumSink>,
    {},
    "expect"};

}  // namespace vxrun
