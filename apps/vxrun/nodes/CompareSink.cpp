// sink/compare: compares two streams frame by frame: the first input's is tested, the second one's is
// how it should be.
#include "Alignment.h"
#include "AppNode.h"
#include "BadFrames.h"
#include "Console.h"
#include "Failure.h"
#include "FrameDiff.h"

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <optional>

namespace vxrun {
namespace {

class CompareSink final : public AppNode {
public:
    explicit CompareSink(NodeArguments arguments) : AppNode(std::move(arguments)) {}
    ~CompareSink() override { teardown(); }

private:
    enum Input : size_t { GOT = 0, WANTED = 1 };

    // One of the two streams.
    struct Stream {
        SharedWorks works;    // that wait for their partners
        uint64_t frames = 0;  // that were compared, or had no partner
        bool ended = false;   // the last one among them
    };

    void open() override {
        constexpr uint64_t kMaxTolerance = 65535;
        constexpr uint64_t kMaxAhead = 10000;
        constexpr double kMaxPsnr = 6 * 16 + 12;
        if (!config("psnr").empty()) setFloor("psnr", kMaxPsnr);
        if (!config("ssim").empty()) setFloor("ssim", 1);
        if (!config("tolerance").empty()) setMeasure("tolerance");
        mTolerance = static_cast<uint32_t>(numberConfig("tolerance", 0, kMaxTolerance, 0));
        mBadFrames.emplace(config("dump_bad"), numberConfig("dump_limit", 1, kMaxAhead, 8),
                           record().name);
        record().checking = true;
        setTotalDelay(numberConfig("ahead", 1, kMaxAhead, 16));
    }

    void setMeasure(const std::string& measure) {
        if (!mMeasure.empty())
            throw Failure("configs '" + mMeasure + "' and '" + measure + "' exclude each other");
        mMeasure = measure;
        mError = vexa::INFO_VALIDATION_FAIL;
    }

    void setFloor(const std::string& measure, double highest) {
        setMeasure(measure);
        const std::string text = config(measure);
        char* end = nullptr;
        mFloor = std::strtod(text.c_str(), &end);
        if (*end == '\0' && mFloor > 0 && mFloor <= highest) return;
        throw Failure("config '" + measure + "': expected a number above 0, at most " +
                      std::to_string(static_cast<int>(highest)) + ", got " + quote(text));
    }

    void process(const SharedWorks& inputs, Works*) override {
        for (const auto& work : inputs) mStreams[inputOf(*work)].works.push_back(work);
        Stream& got = mStreams[GOT];
        Stream& wanted = mStreams[WANTED];
        while (!(got.works.empty() && wanted.works.empty()) && (!got.works.empty() || got.ended) &&
               (!wanted.works.empty() || wanted.ended)) {
            const auto gotFrame = payloadOf(got);
            const auto wantedFrame = payloadOf(wanted);
            if (gotFrame && wantedFrame) {
                compare(*gotFrame, *wantedFrame);
            } else {
                mAlignment.add(gotFrame ? frameHash(*gotFrame) : "",
                               wantedFrame ? frameHash(*wantedFrame) : "", true);
                noteBad(std::max(got.frames, wanted.frames));
                if (gotFrame) mBadFrames->add(got.frames, *gotFrame, nullptr);
            }
            if (gotFrame) ++record().frames;
            advance(&got);
            advance(&wanted);
            if (got.ended && wanted.ended) finish();
        }
    }

    // A work says by which output it was sent, and this one to which inputs it is connected.
    size_t inputOf(const vexa::VXSharedWork& work) const {
        const auto* const route = infoOf<Route>(work.frameInfo());
        const auto port = route != nullptr ? route->port.lock() : nullptr;
        if (port == nullptr) throw Failure("a work of unknown origin");
        const auto comesBy = [&](Input input) {
            const auto& connected = port->downstreamPorts();
            return std::find(connected.begin(), connected.end(), inputPorts()[input]) !=
                   connected.end();
        };
        if (comesBy(GOT) && comesBy(WANTED)) {
            throw Failure("both inputs are connected to the output '" + port->name() +
                          "', which would be compared with itself");
        }
        return comesBy(GOT) ? GOT : WANTED;
    }

    // The next frame, if there is one.
    static std::unique_ptr<Payload> payloadOf(const Stream& of) {
        if (of.works.empty()) return nullptr;
        const auto buffer = bufferOf(*of.works.front());
        const auto* const stream = infoOf<StreamInfo>(of.works.front()->frameInfo());
        if (buffer == nullptr || stream == nullptr) throw Failure("a work without a payload");
        return std::make_unique<Payload>(buffer, *stream);
    }

    void compare(const Payload& got, const Payload& wanted) {
        const FrameDiff difference(got, wanted, mTolerance);
        const std::string wrong = judge(difference);
        ++record().checked;
        mAlignment.add(frameHash(got), frameHash(wanted), !wrong.empty());
        if (wrong.empty()) return;
        const uint64_t frame = mStreams[GOT].frames;
        noteBad(frame);
        if (mBad++ == 0) {
            const uint64_t time = mStreams[GOT].works.front()->frameInfo().timestamp;
            failCheck(mError, "frame " + std::to_string(frame) + " (timestamp " +
                                  std::to_string(time) + "): " + wrong);
        }
        mBadFrames->add(frame, got, &wanted);
    }

    // What is wrong with a frame; empty when nothing is.
    std::string judge(const FrameDiff& difference) {
        if (mFloor == 0 || !difference.sameFormat()) {
            return difference.anyWrong() ? difference.text() : "";
        }
        const auto figures = mMeasure == "psnr" ? difference.psnr() : difference.ssim();
        const std::string text = mMeasure + " " + difference.text(figures);
        if (figures.back() < mLowest) {
            mLowest = figures.back();
            mLowestText = text + " in frame " + std::to_string(mStreams[GOT].frames);
        }
        return figures.back() < mFloor ? text + " is below " + config(mMeasure) : "";
    }

    static void advance(Stream* stream) {
        if (stream->works.empty()) return;
        const auto& frame = stream->works.front()->frameInfo();
        stream->ended = (frame.flags & vexa::VXFrameInfo::FLAG_END_OF_STREAM) != 0;
        ++stream->frames;
        stream->works.pop_front();
    }

    void finish() {
        const uint64_t got = mStreams[GOT].frames;
        const uint64_t wanted = mStreams[WANTED].frames;
        if (!mLowestText.empty()) {
            console::line("vxrun: node '" + record().name + "': the lowest is " + mLowestText);
        }
        if (mBad > 0 || got != wanted) {
            std::string text = std::to_string(mBad) + " of " + std::to_string(record().checked) +
                               " frames are wrong, got " + std::to_string(got) + ", wanted " +
                               std::to_string(wanted);
            const std::string alignment = mAlignment.text();
            failCheck(mError, text + (alignment.empty() ? "" : "; " + alignment));
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

}  // namespace

extern const NodeType kCompareSink = {
    "sink/compare",
    "compares the frames of the first input with those of the second",
    2,
    0,
    {{"tolerance", false, "the largest difference of a sample that is allowed, default 0"},
     {"psnr", false, "instead: the lowest PSNR of a frame that is allowed, in dB"},
     {"ssim", false, "instead: the lowest SSIM of a plane that is allowed, up to 1"},
     {"ahead", false, "frames that one input may be ahead of the other, default 16"},
     {"dump_bad", true, "a folder for the frames that differ, as PNG and raw"},
     {"dump_limit", false, "how many frames to write there, default 8"}},
    makeNode<CompareSink>,
    {},
    ""};

}  // namespace vxrun
