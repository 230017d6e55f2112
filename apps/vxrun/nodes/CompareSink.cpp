// sink/compare: compares two streams frame by frame: that of the first input is tested, that of the
// second is the expected one.
#include "BadFrames.h"
#include "FigureSeries.h"
#include "Files.h"
#include "FrameDiff.h"
#include "FrameFigures.h"
#include "FrameOffset.h"
#include "Text.h"

#include <vxkit/Node.h>

#include <algorithm>
#include <optional>

namespace vxrun {
namespace {

// A floor below these would pass any picture but an inverted one.
constexpr double kLeastPsnr = 1, kLeastSsim = 0.01;
constexpr uint64_t kMostCells = 256;       // frames whose wrong cells are kept
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
                    ConfigKey::NOT_BESIDE_EXCLUSIVE};
const RealKey kSsim{"ssim", kLeastSsim, 1,
                    "in place of tolerance: the lowest SSIM allowed for a plane, 0.01 to 1",
                    ConfigKey::NOT_BESIDE_EXCLUSIVE};
const FlagKey kMeasure{
    "measure", "true: measure PSNR and SSIM; without tolerance, psnr or ssim no sample is checked"};
const PathKey kCsv{"csv", "the file for the PSNR and SSIM of each frame"};
const NumberKey kAhead{"ahead", 1, 10000, 16,
                       "frames by which one input may be ahead of the other, default 16"};

// The planes that have columns in a CSV file; the last one is that of all.
constexpr const char* kCsvPlanes[] = {"Y", "Cb", "Cr", ""};

class CompareSink : public Node {
public:
    static bool checks(const vexa::VXNodeDescriptor& node) {
        return kTolerance.isGivenIn(node) || kPsnr.isGivenIn(node) || kSsim.isGivenIn(node) ||
               !kMeasure.valueOf(kMeasure.textIn(node));
    }

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
        const bool hasFloor = isGiven(kPsnr) || isGiven(kSsim);
        const bool measuresAll = config(kMeasure) || isGiven(kCsv);
        mHasPsnr = measuresAll || isGiven(kPsnr);
        mHasSsim = measuresAll || isGiven(kSsim);
        const bool isExact = !hasFloor && !isGiven(kTolerance);
        record().checking = !isExact || !config(kMeasure);
        mComparesSamples = record().checking && !hasFloor;
        if (isExact && record().checking) mError = vexa::CRC_MISMATCH;
        mTolerance = static_cast<uint32_t>(config(kTolerance));
        mBadFrames.emplace(config(kDumpBad), config(kDumpLimit), record().name,
                           [this](const std::string& text) { print(text); });
        setTotalDelay(config(kAhead));
    }

    void begin() override {
        if (!isGiven(kCsv)) return;
        mCsv.emplace(config(kCsv));
        std::string header = "frame,timestamp";
        for (const char* kind : {"psnr", "ssim"}) {
            for (const char* plane : kCsvPlanes) header += "," + figureName(kind, plane);
        }
        mCsv->write(header + "\n");
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
        mOffset.addFrames(actual, expected, isBad);
        if (!isBad) return;
        WrongFrame wrong;
        if (actual != nullptr && expected != nullptr) {
            const bool withCells = mWrong++ < kMostCells;
            wrong = wrongFrame(frame, *actual, *expected, mTolerance, withCells);
        } else {
            Mismatch count;
            count.kind = "count";
            count.text = actual == nullptr ? "the frame is missing" : "the frame is one too many";
            note(std::move(count), frame, actual);
            wrong.number = frame;
        }
        if (actual != nullptr) wrong.dump = mBadFrames->dump(frame, *actual, expected);
        countMismatch(std::move(wrong));
    }

    // As that of the first wrong frame, if it is.
    void note(Mismatch mismatch, uint64_t frame, const Frame* actual) {
        mismatch.frame = frame;
        if (actual != nullptr) mismatch.timestamp = actual->info.timestamp;
        record().setMismatch(mismatch);
    }

    bool differ(uint64_t frame, const Frame& actual, const Frame& expected) {
        if (record().checking) ++record().checked;
        const int peak = (1 << actual.format().pixels.depth) - 1;
        if (mTolerance >= static_cast<uint32_t>(peak)) {
            throw Failure(concat("config 'tolerance': no samples of ", actual.format().pixels.depth,
                                 " bits differ by more than ", mTolerance),
                          Verdict::NodeFailConfig);
        }
        const bool measured = (mHasPsnr || mHasSsim) && actual.size() > 0 &&
                              haveSamePlanes(actual.format(), expected.format());
        Mismatch mismatch;
        mismatch.kind = "quality";
        mismatch.text = measured ? measure(frame, actual, expected) : "";
        if (mComparesSamples || !measured) {
            if (!vxrun::differ(actual, expected, mTolerance)) return false;
            if (mBad == 0) mismatch = FrameDiff(actual, expected, mTolerance).mismatch();
        } else if (mismatch.text.empty()) {
            return false;
        }
        if (mBad++ == 0) {  // only the first one is shown
            failCheck(mError, concat("frame ", frame, " (timestamp ", actual.info.timestamp,
                                     "): ", mismatch.text));
            note(std::move(mismatch), frame, &actual);
        }
        return true;
    }

    // Returns what is below its floor; empty when nothing is.
    std::string measure(uint64_t frame, const Frame& actual, const Frame& expected) {
        Figures psnr, ssim;
        std::string text;
        if (mHasPsnr) {
            mDepth = actual.format().pixels.depth;
            const Figures errors = errorsOf(actual, expected);
            psnr = psnrOf(errors, mDepth);
            mErrors.add(frame, errors);
            mPsnr.add(frame, psnr);
            text = shortfall(kPsnr, psnr.back().value, psnr);
        }
        if (mHasSsim) {
            ssim = ssimOf(actual, expected);
            mSsim.add(frame, ssim);
            // The lowest plane counts: a small one must not hide behind a large one.
            const auto isLower = [](const Figure& a, const Figure& b) { return a.value < b.value; };
            const auto lowest = std::min_element(ssim.begin(), ssim.end() - 1, isLower);
            const std::string below = shortfall(kSsim, lowest->value, ssim);
            text += (text.empty() || below.empty() ? "" : "; ") + below;
        }
        if (mCsv) {
            mCsv->write(concat(frame, ",", actual.info.timestamp, csvOf(psnr), csvOf(ssim), "\n"));
        }
        return text;
    }

    std::string shortfall(const RealKey& floor, double value, const Figures& figures) {
        if (!isGiven(floor) || value >= config(floor)) return "";
        return concat(floor.name, " ", value, " ", planesText(figures), " is below ",
                      configText(floor));
    }

    static std::string csvOf(const Figures& figures) {
        constexpr int kDigits = 6;
        std::string text;
        for (const char* plane : kCsvPlanes) {
            const auto isSame = [&](const Figure& figure) { return figure.plane == plane; };
            const auto found = std::find_if(figures.begin(), figures.end(), isSame);
            text += "," + (found != figures.end() ? decimal(found->value, kDigits) : "");
        }
        return text;
    }

    void finish() {
        const uint64_t actual = mStreams[ACTUAL].frames;
        const uint64_t expected = mStreams[EXPECTED].frames;
        report();
        if (mCsv) mCsv->commit();
        if (mBad > 0 || actual != expected) {
            const std::string offset = mOffset.finding();
            record().setFinding(offset);
            failCheck(mError,
                      concat(mBad, " of ", std::min(actual, expected), " frames are wrong, actual ",
                             actual, ", expected ", expected, offset.empty() ? "" : "; ", offset));
        }
        record().endOfStream = true;
        signalComplete();
    }

    // The figures of the whole run, for people and for reports.
    void report() {
        std::vector<double> averages;
        for (const auto& errors : mErrors.summaries()) {
            averages.push_back(psnrOf(errors.mean, mDepth));
        }
        for (const FigureSeries* series : {&mPsnr, &mSsim}) {
            const auto summaries = series->summaries();
            for (size_t i = 0; i < summaries.size(); ++i) {
                const auto& summary = summaries[i];
                std::string text = summary.name + ":";
                const auto add = [&](const std::string& name, double value) {
                    record().setFigure(summary.name + "_" + name, value);
                    text += concat(" ", name, " ", value);
                };
                add("mean", summary.mean);
                if (series == &mPsnr) add("average", averages[i]);
                for (const size_t percent : {50, 5, 1}) {
                    add("p" + std::to_string(percent), summary.percentile(percent));
                }
                add("min", summary.sorted.front());
                print(concat(text, " in frame ", summary.lowestFrame));
            }
        }
    }

    bool mHasPsnr = false, mHasSsim = false;  // are measured
    bool mComparesSamples = false;
    uint32_t mTolerance = 0;
    vexa::VexaError mError = vexa::INFO_VALIDATION_FAIL;
    std::optional<BadFrames> mBadFrames;
    // [event thread]
    Stream mStreams[2];  // by Input
    FrameOffset mOffset;
    uint64_t mBad = 0;
    uint64_t mWrong = 0;  // of the frames that both streams have
    int mDepth = 8;       // of the samples that were measured
    FigureSeries mErrors{"error"}, mPsnr{"psnr"}, mSsim{"ssim"};
    std::optional<OutputFile> mCsv;
};

const Registered<CompareSink> kType(
    "sink/compare", "compares the frames of the first input with those of the second", 2, 0,
    {&kTolerance, &kPsnr, &kSsim, &kMeasure, &kCsv, &kAhead, &kDumpBad, &kDumpLimit});

}  // namespace
}  // namespace vxrun
