// sink/compare: compares two streams frame by frame: the first input's is tested, the second one's is
// how it should be.
#include "Alignment.h"
#include "AppNode.h"
#include "BadFrames.h"
#include "Console.h"
#include "FrameDiff.h"
#include "Text.h"

#include <algorithm>
#include <limits>
#include <optional>

namespace vxrun {
namespace {

// A floor below these would let any pictures pass, but for the opposite of what they should be.
constexpr double kLeastPsnr = 1, kLeastSsim = 0.01;
constexpr double kMostPsnr = 6 * 16 + 12;  // that of equal pictures of 16 bits

class CompareSink : public AppNode {
public:
    static bool checks(const vexa::VXNodeDescriptor&) { return true; }

    using AppNode::AppNode;

private:
    enum Input : size_t { GOT = 0, WANTED = 1 };

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
        for (const std::string measure : {"psnr", "ssim", "tolerance"}) {  // one at most
            if (!config(measure).empty()) mMeasure = measure;
        }
        if (!mMeasure.empty()) mError = vexa::INFO_VALIDATION_FAIL;
        if (mMeasure == "psnr") mFloor = parseReal(config("psnr"), kLeastPsnr, kMostPsnr);
        if (mMeasure == "ssim") mFloor = parseReal(config("ssim"), kLeastSsim, 1);
        mTolerance = static_cast<uint32_t>(numberConfig("tolerance"));
        mBadFrames.emplace(config("dump_bad"), numberConfig("dump_limit"), record().name);
        record().checking = true;
        setTotalDelay(numberConfig("ahead"));
    }

    void process(const SharedWorks& inputs) override {
        for (const auto& work : inputs) mStreams[inputOf(*work)].works.push_back(work);
        Stream& got = mStreams[GOT];
        Stream& wanted = mStreams[WANTED];
        while (!(got.works.empty() && wanted.works.empty()) && (!got.works.empty() || got.ended) &&
               (!wanted.works.empty() || wanted.ended)) {
            compare(got.front().get(), wanted.front().get());
            got.advance();
            wanted.advance();
            if (got.ended && wanted.ended) finish();
        }
    }

    // A work says by which output it was sent, and this one to which inputs it is connected.
    size_t inputOf(const vexa::VXSharedWork& work) const {
        const auto* const route = infoOf<Route>(work.frameInfo());
        const auto port = route != nullptr ? route->port.lock() : nullptr;
        if (port == nullptr) throw Failure("a work of unknown origin");
        const auto& connected = port->downstreamPorts();
        const auto got = std::find(connected.begin(), connected.end(), inputPorts()[GOT]);
        return got != connected.end() ? GOT : WANTED;
    }

    // Either may be null.
    void compare(const Frame* got, const Frame* wanted) {
        const uint64_t frame = std::max(mStreams[GOT].frames, mStreams[WANTED].frames);
        const bool isBad = got == nullptr || wanted == nullptr || differ(frame, *got, *wanted);
        if (got != nullptr) ++record().frames;
        mAlignment.add(got != nullptr ? frameHash(*got) : "",
                       wanted != nullptr ? frameHash(*wanted) : "", isBad);
        if (!isBad) return;
        noteBad(frame);
        if (got != nullptr) mBadFrames->add(frame, *got, wanted);
    }

    bool differ(uint64_t frame, const Frame& got, const Frame& wanted) {
        ++record().checked;
        const int peak = (1 << got.format().depth()) - 1;
        if (mTolerance >= static_cast<uint32_t>(peak)) {
            throw Failure(concat("config 'tolerance': no samples of ", got.format().depth(),
                                 " bits differ by more than ", mTolerance),
                          errorName(vexa::NODE_FAIL_CONFIG));
        }
        const FrameDiff difference(got, wanted, mTolerance);
        const bool measured = mFloor > 0 && difference.sameFormat();
        bool isBad = difference.anyWrong();
        std::string text;
        if (measured) {
            const auto figures = mMeasure == "psnr" ? difference.psnr() : difference.ssim();
            isBad = figures.back() < mFloor;
            text = mMeasure + " " + difference.text(figures);
            if (figures.back() < mLowest) mLowestText = text + " in frame " + std::to_string(frame);
            mLowest = std::min(mLowest, figures.back());
        }
        if (isBad && mBad++ == 0) {  // only the first one is shown
            text = measured ? text + " is below " + config(mMeasure) : difference.text();
            failCheck(mError,
                      concat("frame ", frame, " (timestamp ", got.info.timestamp, "): ", text));
        }
        return isBad;
    }

    void finish() {
        const uint64_t got = mStreams[GOT].frames;
        const uint64_t wanted = mStreams[WANTED].frames;
        if (!mLowestText.empty()) {
            console::line("vxrun: node '" + record().name + "': the lowest is " + mLowestText);
        }
        if (mBad > 0 || got != wanted) {
            const std::string alignment = mAlignment.text();
            failCheck(mError,
                      concat(mBad, " of ", record().checked, " frames are wrong, got ", got,
                             ", wanted ", wanted, alignment.empty() ? "" : "; ", alignment));
        }
        record().endOfStream = true;
        signalComplete();
    }

    std::string mMeasure;  // the config that says what is compared; empty: all samples
    double mFloor = 0;     // of the figure; 0: samples are compared
    uint32_t mTolerance = 0;
    vexa::VexaError mError = vexa::CRC_MISMATCH;
    std::optional<BadFrames> mBadFrames;
    // [event thread]
    Stream mStreams[2];  // by Input
    Alignment mAlignment;
    uint64_t mBad = 0;
    double mLowest = std::numeric_limits<double>::infinity();
    std::string mLowestText;
};

const bool kAdded = addNodeType<CompareSink>(
    "sink/compare", "compares the frames of the first input with those of the second", 2, 0,
    {{"tolerance", number(0, 65534, 0),
      "the largest difference of a sample that is allowed, default 0; less than the peak", true},
     {"psnr", real(kLeastPsnr, kMostPsnr),
      "instead: the lowest PSNR of a frame that is allowed, in dB, 1 to 108", true},
     {"ssim", real(kLeastSsim, 1), "instead: the lowest SSIM of a plane that is allowed, 0.01 to 1",
      true},
     {"ahead", number(1, 10000, 16), "frames that one input may be ahead of the other, default 16"},
     {"dump_bad", kFile, "a folder for the frames that differ, as PNG and raw"},
     {"dump_limit", number(1, 10000, 8), "how many frames to write there, default 8"}});

}  // namespace
}  // namespace vxrun
