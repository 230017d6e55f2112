// sink/checksum: compares the frames' checksums with a list, writes such a list, or both.
#include "BadFrames.h"
#include "ChecksumFormat.h"
#include "Console.h"
#include "FrameOffset.h"
#include "Md5.h"
#include "Text.h"

#include <vxkit/Sink.h>

#include <optional>

namespace vxrun {
namespace {

const PathKey kExpect{"expect", "the list to compare with; its format is detected"};
const PathKey kWrite{"write", "the list to write"};
const TextKey kFormat{"format", "the format of the written list, default framemd5"};
const FlagKey kPrintMd5{"print_md5", "true: print the MD5 of the whole stream on standard output"};

class ChecksumSink : public Sink {
public:
    static bool checks(const vexa::VXNodeDescriptor& node) { return kExpect.isGivenIn(node); }

    using Sink::Sink;

private:
    void open() override {
        mExpectPath = config(kExpect);
        if (!mExpectPath.empty()) mExpected = readChecksumList(mExpectPath);
        record().checking = mExpected.has_value();
        mBadFrames.emplace(config(kDumpBad), config(kDumpLimit), record().name,
                           [this](const std::string& text) { print(text); });
        if (mExpected && !expectsWhole()) record().expected = mExpected->rows.size();
        const std::string format = config(kFormat);
        try {
            mWritten = &checksumFormat(format.empty() ? "framemd5" : format);
        } catch (const Failure& failure) {
            throw Failure(std::string("config 'format': ") + failure.what());
        }
    }

    void begin() override {
        if (isGiven(kWrite)) mList = mWritten->newWriter(config(kWrite));
    }

    void consume(const Frame& frame) override {
        if (mExpected && !expectsWhole()) compare(frame);
        if (needsWhole()) mWhole.addFrame(frame);
        if (mList != nullptr) mList->writeFrame(frame);
        ++mFrames;
    }

    bool expectsWhole() const { return mExpected && mExpected->format->isOfWholeStream; }
    bool needsWhole() { return config(kPrintMd5) || expectsWhole(); }

    void compare(const Frame& frame) {
        const ChecksumRow actual = {frame.size(), mExpected->format->hash(frame)};
        const bool surplus = mFrames >= mExpected->rows.size();
        const ChecksumRow expected = surplus ? ChecksumRow() : mExpected->rows[mFrames];
        if (!surplus) ++record().checked;
        const bool isBad = !expected.matches(actual);
        mOffset.addPair(actual.hash, expected.hash, isBad);
        if (!isBad) return;
        if (!surplus) ++mDiffering;
        // Only the first one is shown, and at once: the run may break off.
        if (record().mismatches == 0) {
            mFirstBad = mFrames;
            const bool sizes = expected.size != 0 && actual.size != expected.size;
            const std::string text =
                surplus ? concat(mExpectPath, " has ", mFrames, " frames, this is one more")
                        : "expected " + describe(expected, sizes) + ", actual " +
                              describe(actual, sizes);
            failCheck(vexa::CRC_MISMATCH,
                      concat("frame ", mFrames, " (timestamp ", frame.info.timestamp, "): ", text));
        }
        countMismatch(mFrames);
        mBadFrames->dump(mFrames, frame, nullptr);
    }

    static std::string describe(const ChecksumRow& row, bool withSize) {
        return withSize ? std::to_string(row.size) + " bytes " + row.hash : row.hash;
    }

    void finish() override {
        if (mList != nullptr) mList->commit();
        const std::string md5 = needsWhole() ? mWhole.hex() : "";
        evidence().setStreamMd5(md5);
        if (config(kPrintMd5) && !console::result(md5 + "\n", STDOUT_FILENO, console::kPatience)) {
            throw Failure("the MD5 could not be printed", Verdict::NotWritten);
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
            if (mFrames < rows) countMismatch(mFrames);  // the surplus ones are counted
            text += concat(text.empty() ? "" : "; ", "the stream has ", mFrames, " frames, ",
                           mExpectPath, " has ", rows);
        }
        if (text.empty()) return;
        for (size_t row = mFrames; row < rows; ++row) {
            mOffset.addPair("", mExpected->rows[row].hash, true);
        }
        const std::string offset = mOffset.finding();
        failCheck(vexa::CRC_MISMATCH, text + (offset.empty() ? "" : "; " + offset));
    }

    // A checksum of the whole does not show which frame differs.
    void compareWhole(const std::string& md5) {
        const ChecksumRow& expected = mExpected->rows.front();
        record().checked = mFrames;
        if (expected.matches({0, md5})) return;
        failCheck(vexa::CRC_MISMATCH,
                  concat("the MD5 of all ", mFrames, " frames differs: expected ", expected.hash,
                         ", actual ", md5));
    }

    std::optional<ChecksumList> mExpected;
    std::string mExpectPath;
    FrameOffset mOffset;
    std::optional<BadFrames> mBadFrames;
    const ChecksumFormat* mWritten = nullptr;  // of mList
    std::unique_ptr<ChecksumWriter> mList;     // null: none is written
    Md5 mWhole;                                // where it is printed or expected
    uint64_t mFrames = 0;                      // that were consumed
    uint64_t mDiffering = 0;
    uint64_t mFirstBad = 0;
};

const Registered<ChecksumSink> kType("sink/checksum",
                                     "compares and writes lists of frame checksums", 1, 0,
                                     {&kExpect, &kWrite, &kFormat, &kPrintMd5, &kDumpBad,
                                      &kDumpLimit});

}  // namespace
}  // namespace vxrun
