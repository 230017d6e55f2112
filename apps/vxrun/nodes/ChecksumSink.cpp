// sink/checksum: compares every frame's checksum with a list, writes such a list, or both.
#include "AppNode.h"
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
        const std::string format = config("format");
        if (!format.empty() && format != "framemd5" && format != "framecrc") {
            throw Failure("config 'format': expected framemd5 or framecrc, got " + quote(format));
        }
        if (format == "framecrc") mFormat = ChecksumFormat::FRAMECRC;
        if (!config("write").empty()) mList.emplace(config("write"));
    }

    void consume(const Payload& payload, const StreamInfo& stream,
                 const vexa::VXFrameInfo& frame) override {
        if (mExpected) compare(payload);
        if (mList) writeRow(payload, stream, frame);
        ++mFrames;
    }

    void compare(const Payload& payload) {
        if (mFrames >= mExpected->rows.size()) return noteBad();
        const ChecksumRow& expected = mExpected->rows[mFrames];
        const ChecksumRow got = {payload.size(), checksum(mExpected->format, payload)};
        ++record().checked;
        if (got.size == expected.size && got.hash == expected.hash) return;
        if (mDiffering++ == 0) {
            const bool sizes = got.size != expected.size;
            mFirstDifference = "frame " + std::to_string(mFrames) + ": expected " +
                               describe(expected, sizes) + ", got " + describe(got, sizes);
        }
        noteBad();
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
        if (!text.empty()) failCheck(vexa::CRC_MISMATCH, text);
    }

    std::optional<ChecksumList> mExpected;
    std::string mExpectPath;
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
     {"format", false, "of the list to write: framemd5 (default) or framecrc"}},
    makeNode<ChecksumSink>};

}  // namespace vxrun
