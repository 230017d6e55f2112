// sink/compare: compares two streams frame by frame: that of the first input is tested, that of the
// second is the expected one.
#include "BadFrames.h"
#include "FrameDiff.h"
#include "FrameOffset.h"
#include "Text.h"

#include <vxkit/Node.h>

#include <algorithm>
#include <limits>
#include <optional>

namespace vxrun {
namespace {

// A floor below these would pass any picture but an inverted one.
constexpr double kLeastPsnr = 1, kLeastSsim = 0.01;
constexpr double kMostPsnr = 6 * 16 + 12;  // that of equal pictures of 16 bits

const NumberKey kTolerance{
    "tolerance",
    0,
    65534,
    0,
    "the largest difference allowed for a sample, default 0; less than the peak",
    ConfigKey::EXCLUSIVE};
const RealKey kPsnr{"psnr", kLeastPsnr, kMostPsnr,
                    "in place of tolerance: the lowest PSNR allowed for a frame, in dB, 1 to 108",
                    ConfigKey::EXCLUSIVE};
const RealKey kSsim{"ssim", kLeastSsim, 1,
                    "in place of tolerance: the lowest SSIM allowed for a plane, 0.01 to 1",
                    ConfigKey::EXCLUSIVE};
const NumberKey kAhead{"ahead", 1, 10000, 16,
                       "frames by which one input may be ahead of the other, default 16"};

class CompareSink : public Node {
public:
    static bool checks(const vexa::VXNodeDescriptor&) { return true; }

    using Node::Node;

private:
    enum Input : size_t { ACTUAL = 0, EXPECTED = 1 };

    // One of the two streams.
    struct Stream {
        // The next frame, if there is one.
        std::unique_ptr<Frame> front() const {
            return works.empty() ? nullptr : std::make_unique<Frame>(*works.front());
        }
        void advance() {
            if (works.empty()) return;
            const auto& frame = works.front()->frameInfo();
            ended = (frame.flags & vexa::VXFrameInfo::FLAG_END_OF_STREAM) != 0;
            ++frames;
            works.pop_front();
        }

        SharedWorks works;    // that wait for their partners
        uint64_t frames = 0;  // that were compared, or had no partner
        bool ended = false;   // the last one among them
    };

    void open() override {
        if (isGiven(kPsnr)) mMeasure = &kPsnr;
        if (isGiven(kSsim)) mMeasure = &kSsim;
        if (mMeasure != nullptr) mFloor = config(*mMeasure);
        if (mMeasure != nullptr || isGiven(kTolerance)) mError = vexa::INFO_VALIDATION_FAIL;
        mTolerance = static_cast<uint32_t>(config(kTolerance));
        mBadFrames.emplace(config(kDumpBad), config(kDumpLimit), record().name,
                           [this](const std::string& text) { print(text); });
        record().checking = true;
        setTotalDelay(config(kAhead));
    }

    void process(const SharedWorks& inputs) override {
        for (const auto& work : inputs) mStreams[inputOf(*work)].works.push_back(work);
        Stream& actual = mStreams[ACTUAL];
        Stream& expected = mStreams[EXPECTED];
        while (!(actual.works.empty() && expected.works.empty()) &&
               (!actual.works.empty() || actual.ended) &&
               (!expected.works.empty() || expected.ended)) {
            compare(actual.front().get(), expected.front().get());
            actual.advance();
            expected.advance();
            if (actual.ended && expected.ended) finish();
        }
    }

    // A work carries the output that sent it, and that output lists the inputs it is connected to.
    size_t inputOf(const vexa::VXSharedWork& work) const {
        const auto* const route = infoOf<Route>(work.frameInfo());
        const auto port = route != nullptr ? route->port.lock() : nullptr;
        if (port == nullptr) throw Failure("a work of unknown origin");
        const auto& connected = port->downstreamPorts();
        const auto found = std::find(connected.begin(), connected.end(), inputPorts()[ACTUAL]);
        return found != connected.end() ? ACTUAL : EXPECTED;
    }

    // Either may be null.
    void compare(const Frame* actual, const Frame* expected) {
        const uint64_t frame = std::max(mStreams[ACTUAL].frames, mStreams[EXPECTED].frames);
        const bool isBad =
            actual == nullptr || expected == nullptr || differ(frame, *actual, *expected);
        if (actual != nullptr) ++record().frames;
        mOffset.addPair(actual != nullptr ? frameHash(*actual) : "",
                        expected != nullptr ? frameHash(*expected) : "", isBad);
        if (!isBad) return;
        countMismatch(frame);
        if (actual != nullptr) mBadFrames->dump(frame, *actual, expected);
    }

    bool differ(uint64_t frame, const Frame& actual, const Frame& expected) {
        ++record().checked;
        const int peak = (1 << actual.format().pixels.depth) - 1;
        if (mTolerance >= static_cast<uint32_t>(peak)) {
            throw Failure(concat("config 'tolerance': no samples of ", actual.format().pixels.depth,
                                 " bits differ by more than ", mTolerance),
                          Verdict::NodeFailConfig);
        }
        const FrameDiff difference(actual, expected, mTolerance);
        const bool measured = mMeasure != nullptr && difference.sameFormat();
        bool isBad = difference.anyWrong();
        std::string text;
        if (measured) {
            const auto figures = mMeasure == &kPsnr ? difference.psnr() : difference.ssim();
            isBad = figures.back() < mFloor;
            text = mMeasure->name + " " + difference.figuresText(figures);
            if (figures.back() < mLowest) mLowestText = text + " in frame " + std::to_string(frame);
            mLowest = std::min(mLowest, figures.back());
        }
        if (isBad && mBad++ == 0) {  // only the first one is shown
            text = measured ? text + " is below " + configText(*mMeasure) : difference.evidence();
            failCheck(mError,
                      concat("frame ", frame, " (timestamp ", actual.info.timestamp, "): ", text));
        }
        return isBad;
    }

    void finish() {
        const uint64_t actual = mStreams[ACTUAL].frames;
        const uint64_t expected = mStreams[EXPECTED].frames;
        if (!mLowestText.empty()) {
            print("the lowest is " + mLowestText);
        }
        if (mBad > 0 || actual != expected) {
            const std::string offset = mOffset.finding();
            failCheck(mError,
                      concat(mBad, " of ", record().checked, " frames are wrong, actual ", actual,
                             ", expected ", expected, offset.empty() ? "" : "; ", offset));
        }
        record().endOfStream = true;
        signalComplete();
    }

    const RealKey* mMeasure = nullptr;  // the figure that is compared; null: all samples
    double mFloor = 0;                  // of the figure
    uint32_t mTolerance = 0;
    vexa::VexaError mError = vexa::CRC_MISMATCH;
    std::optional<BadFrames> mBadFrames;
    // [event thread]
    Stream mStreams[2];  // by Input
    FrameOffset mOffset;
    uint64_t mBad = 0;
    double mLowest = std::numeric_limits<double>::infinity();
    std::string mLowestText;
};

const Registered<CompareSink> kType(
    "sink/compare", "compares the frames of the first input with those of the second", 2, 0,
    {&kTolerance, &kPsnr, &kSsim, &kAhead, &kDumpBad, &kDumpLimit});

}  // namespace
}  // namespace vxrun
