// sink/checksum: compares the frames' checksums with a list, writes such a list, or both.
#include "BadFrames.h"
#include "ChecksumFormat.h"
#include "Console.h"
#include "FrameOffset.h"
#include "Md5.h"
#include "Text.h"

#include <vxkit/Node.h>

#include <algorithm>
#include <list>
#include <optional>
#include <utility>

namespace vxrun {
namespace {

const PathKey kExpect{"expect", "the list to compare with; its format is detected"};
const PathKey kWrite{"write", "the list to write"};
const TextKey kFormat{"format", "the format of the written list, default framemd5"};
const FlagKey kPrintMd5{"print_md5", "true: print the MD5 of the whole stream on standard output"};

// Frames are kept until it pays to hash them, see ChecksumFormat::atOnce.
class ChecksumSink : public Node {
public:
    static bool checks(const vexa::VXNodeDescriptor& node) { return kExpect.isGivenIn(node); }

    using Node::Node;

private:
    // A frame that waits to be hashed with others.
    struct Kept {
        explicit Kept(std::shared_ptr<vexa::VXSharedWork> kept)
            : work(std::move(kept)), frame(*work) {}

        std::shared_ptr<vexa::VXSharedWork> work;
        Frame frame;
    };

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
        if (mExpected) mMost = mExpected->format->atOnce;
        if (isGiven(kWrite)) mMost = std::max(mMost, mWritten->atOnce);
        if (mMost > 1) setTotalDelay(mMost);
    }

    void begin() override {
        if (isGiven(kWrite)) mList = mWritten->newWriter(config(kWrite));
    }

    void process(const SharedWorks& inputs) override {
        for (const auto& work : inputs) keep(work);
        mPauses = 0;
        if (!mKept.empty() && !std::exchange(mIsWatching, true)) wakeUp(kLook);
    }

    // Frames that nothing follows are hashed, too: after a while, and at once when nothing can
    // follow since they are the last free buffers of their pool. Then fewer are kept from now on.
    void wake() override {
        mIsWatching = false;
        if (mKept.empty()) return;
        const auto* const buffer = infoOf<PoolBuffer>(mKept.back().frame.info);
        const bool isStarved = buffer != nullptr && buffer->record().out == buffer->record().slots;
        if (isStarved && mPauses > 0) mMost = mKept.size();
        if (mPauses++ > (isStarved ? 0 : kPause / kLook)) return hashKept();
        mIsWatching = true;
        wakeUp(kLook);
    }

    void end() override { hashKept(); }

    void keep(const std::shared_ptr<vexa::VXSharedWork>& work) {
        try {
            mKept.emplace_back(work);
        } catch (...) {  // no frame: those before it are evidence all the same
            hashKept();
            throw;
        }
        const auto& info = mKept.back().frame.info;
        const bool isLast = (info.flags & vexa::VXFrameInfo::FLAG_END_OF_STREAM) != 0;
        // The node that fills the buffers needs as many again, to go on meanwhile.
        const auto* const buffer = infoOf<PoolBuffer>(info);
        const size_t half = buffer != nullptr ? buffer->record().slots / 2 : 0;
        if (isLast || mKept.size() >= std::min(mMost, half)) hashKept();
        if (isLast) signalComplete();
    }

    void hashKept() {
        const std::list<Kept> kept = std::move(mKept);
        mKept.clear();
        std::vector<const FrameView*> frames;
        for (const Kept& one : kept) frames.push_back(&one.frame);
        const auto hashesOf = [&](const ChecksumFormat& format) {
            return format.isOfWholeStream() ? std::vector<std::string>(frames.size())
                                            : format.hashes(frames);
        };
        std::vector<std::string> actual, written;
        if (mExpected) actual = hashesOf(*mExpected->format);
        if (mList != nullptr) {
            const bool isSame = mExpected && mExpected->format == mWritten;
            written = isSame ? actual : hashesOf(*mWritten);
        }
        size_t i = 0;
        for (const auto& [work, frame] : kept) {
            if (mExpected && !expectsWhole()) compare(frame, actual[i]);
            if (needsWhole()) mWhole.addFrame(frame);
            if (mList != nullptr) mList->writeFrame(frame, written[i]);
            ++i;
            ++mFrames;
            if ((frame.info.flags & vexa::VXFrameInfo::FLAG_END_OF_STREAM) != 0) finish();
            countFrame(frame.info);
        }
    }

    bool expectsWhole() const { return mExpected && mExpected->format->isOfWholeStream(); }
    bool needsWhole() { return config(kPrintMd5) || expectsWhole(); }

    void compare(const Frame& frame, const std::string& hash) {
        const ChecksumRow actual = {frame.size(), hash};
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
            note(surplus ? "count" : "checksum", text, frame.info.timestamp);
        }
        WrongFrame wrong;
        wrong.number = mFrames;
        wrong.dump = mBadFrames->dump(mFrames, frame, nullptr);
        countMismatch(std::move(wrong));
    }

    // As how the first wrong frame differs, this one if it is.
    void note(const char* kind, const std::string& text, uint64_t timestamp) {
        Mismatch mismatch;
        mismatch.kind = kind;
        mismatch.text = text;
        mismatch.frame = mFrames;
        mismatch.timestamp = timestamp;
        record().setMismatch(mismatch);
    }

    static std::string describe(const ChecksumRow& row, bool withSize) {
        return withSize ? std::to_string(row.size) + " bytes " + row.hash : row.hash;
    }

    void finish() {
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
            text += concat(text.empty() ? "" : "; ", "the stream has ", mFrames, " frames, ",
                           mExpectPath, " has ", rows);
        }
        if (text.empty()) return;
        note("count", text, 0);
        for (size_t row = mFrames; row < rows; ++row) {
            countMismatch(row);
            mOffset.addPair("", mExpected->rows[row].hash, true);
        }
        const std::string offset = mOffset.finding();
        record().setFinding(offset);
        failCheck(vexa::CRC_MISMATCH, text + (offset.empty() ? "" : "; " + offset));
    }

    // A checksum of the whole does not show which frame differs.
    void compareWhole(const std::string& md5) {
        const ChecksumRow& expected = mExpected->rows.front();
        record().checked = mFrames;
        if (expected.matches({0, md5})) return;
        const std::string text = concat("the MD5 of all ", mFrames, " frames differs: expected ",
                                        expected.hash, ", actual ", md5);
        failCheck(vexa::CRC_MISMATCH, text);
        note("checksum", text, 0);
    }

    static constexpr unsigned kLook = 20, kPause = 300;  // milliseconds

    std::optional<ChecksumList> mExpected;
    std::string mExpectPath;
    FrameOffset mOffset;
    std::optional<BadFrames> mBadFrames;
    const ChecksumFormat* mWritten = nullptr;  // of mList
    std::unique_ptr<ChecksumWriter> mList;     // null: none is written
    // [event thread]
    size_t mMost = 1;  // frames that are kept
    std::list<Kept> mKept;
    bool mIsWatching = false;  // wake() will be called
    unsigned mPauses = 0;      // calls of it since the last frame came
    Md5 mWhole;                // where it is printed or expected
    uint64_t mFrames = 0;      // that were consumed
    uint64_t mDiffering = 0;
    uint64_t mFirstBad = 0;
};

const Registered<ChecksumSink> kType("sink/checksum",
                                     "compares and writes lists of frame checksums", 1, 0,
                                     {&kExpect, &kWrite, &kFormat, &kPrintMd5, &kDumpBad,
                                      &kDumpLimit});

}  // namespace
}  // namespace vxrun
