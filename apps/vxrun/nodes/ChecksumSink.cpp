// sink/checksum: compares every frame's checksum with a list, writes such a list, or both.
#include "Alignment.h"
#include "AppNode.h"
#include "BadFrames.h"
#include "ChecksumList.h"
#include "Failure.h"
#include "Files.h"

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
        const std::string format = config("format");
        if (!format.empty() && format != "framemd5" && format != "framecrc") {
            throw Failure("config 'format': expected framemd5 or framecrc, got " + quote(format));
        }
        if (format == "framecrc") mFormat = ChecksumFormat::FRAMECRC;
        if (!config("write").empty()) mList.emplace(config("write"));
    }

    void consume(const Payload& payload, const StreamInfo& stream,
                 const vexa::VXFrameInfo& frame) override {
        if (mExpected) compare(payload, frame);
        if (mList) writeRow(payload, stream, frame);
        ++mFrames;
    }

    void compare(const Payload& payload, const vexa::VXFrameInfo& frame) {
        const ChecksumRow got = {payload.size(), checksum(mExpected->format, payload)};
        if (mFrames >= mExpected->rows.size()) {
            mAlignment.add(got.hash, "", true);
            mBadFrames->add(mFrames, payload, nullptr);
            return noteBad();
        }
        const ChecksumRow& expected = mExpected->rows[mFrames];
        ++record().checked;
        const bool isBad = got.size != expected.size || got.hash != expected.hash;
        mAlignment.add(got.hash, expected.hash, isBad);
        if (!isBad) return;
        if (mDiffering++ == 0) {
            const bool sizes = got.size != expected.size;
            mFirstDifference = "frame " + std::to_string(mFrames) + ": expected " +
                               describe(expected, sizes) + ", got " + describe(got, sizes) +
                               " (timestamp " + std::to_string(frame.timestamp) + ")";
        }
        noteBad();
        mBadFrames->add(mFrames, payload, nullptr);
    }

    static std::string describe(const ChecksumRow& row, bool withSize) {
        return withSize ? std::to_string(row.size) + " bytes " + row.hash : row.hash;
    }

    void noteBad() {
        if (record().firstBad == NodeRecord::kNone) record().firstBad = mFrames;
    }

    void writeRow(const Payload& payload, const StreamInfo& stream,
                  const vexa::VXFrameInfo& frame) {
        if (mFrames == 0) mList->write(checksumListHeader(mFormat, stream));
        const ChecksumRow row = {payload.size(), checksum(mFormat, payload)};
        mList->write(checksumListRow(stream, frame.timestamp, row));
    }

    void finish() override {
        if (mList) mList->commit();
        if (!mExpected) return;
        const size_t rows = mExpected->rows.size();
        std::string text;
        if (mDiffering > 0) {
            text = std::to_string(mDiffering) + " of " + std::to_string(record().checked) +
                   " frames differ, first is " + mFirstDifference;
        }
        if (mFrames != rows) {
            noteBad();
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

    std::optional<ChecksumList> mExpected;
    std::string mExpectPath;
    Alignment mAlignment;
    std::optional<BadFrames> mBadFrames;
    std::optional<OutputFile> mList;
    ChecksumFormat mFormat = ChecksumFormat::FRAMEMD5;  // of mList
    uint64_t mFrames = 0;                               // that were consumed
    uint64_t mDiffering = 0;
    std::string mFirstDifference;
};

}  // namespace

extern const NodeType kChecksumSink = {
    "sink/checksum",
    "compares and writes lists of frame checksums",
    1,
    0,
    {{"expect", true, "the framemd5 or framecrc list to compare with"},
     {"write", true, "the list to write"},
     {"format", false, "of the list to write: framemd5 (default) or framecrc"},
     {"dump_bad", true, "a folder for the frames that differ, as PNG and raw"},
     {"dump_limit", false, "how many frames to write there, default 8"}},
    makeNode<ChecksumSink>};

}  // namespace vxrun
