// sink/bitrate: measures an encoded stream: its bit rate, frame sizes and key frames.
#include "Files.h"
#include "Text.h"

#include <vxkit/Sink.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <numeric>
#include <optional>
#include <vector>

namespace vxrun {
namespace {

constexpr uint64_t kMostBits = INT64_MAX;
constexpr double kMostPercent = 1e6, kShortestWindow = 0.001, kLongestWindow = 1e6;

const NumberKey kTarget{"target", 1, kMostBits, 0, "the bit rate to expect, in bits per second"};
const RealKey kMaxDeviation{"max_deviation", 0, kMostPercent,
                            "the most that the bit rate may deviate from the target, in percent"};
const RealKey kWindow{"window", kShortestWindow, kLongestWindow,
                      "seconds of a sliding window, default 1"};
const RealKey kMaxWindowDeviation{
    "max_window_deviation", 0, kMostPercent,
    "the most that the bit rate of a window may deviate from the target, in percent"};
const NumberKey kMaxFrameBits{"max_frame_bits", 0, kMostBits, 0,
                              "the most bits that a frame may have"};
const NumberKey kMaxKeyDistance{"max_key_distance", 1, kMostBits, 0,
                                "the most frames from one key frame to the next"};
const TextKey kKeyFrames{"key_frames",
                         "frames that must be key frames, from 0 in the order of display: 0,48,96"};
const PathKey kCsv{"csv", "the file for a row per frame: frame, pts, bits, key, type"};

const ConfigKey* const kLimits[] = {&kMaxDeviation, &kMaxWindowDeviation, &kMaxFrameBits,
                                    &kMaxKeyDistance, &kKeyFrames};

class BitrateSink : public Sink {
public:
    static bool checks(const vexa::VXNodeDescriptor& node) {
        return std::any_of(std::begin(kLimits), std::end(kLimits),
                           [&](const ConfigKey* key) { return key->isGivenIn(node); });
    }

    using Sink::Sink;

private:
    // One access unit, in the order of decoding.
    struct Unit {
        int64_t pts, duration;
        uint64_t bits;
        bool isKey;
        char type;  // see UnitInfo::pictureType
    };
    // The sizes of the frames of one type.
    struct Sizes {
        void add(uint64_t bits) {
            ++count;
            sum += bits;
            largest = std::max(largest, bits);
        }
        double mean() const { return static_cast<double>(sum) / static_cast<double>(count); }

        uint64_t count = 0, sum = 0, largest = 0;
    };

    void open() override {
        for (const ConfigKey* key : kLimits) record().checking = isGiven(*key) || record().checking;
        if (isGiven(kMaxDeviation) || isGiven(kMaxWindowDeviation)) requiredConfig(kTarget);
        if (isGiven(kWindow)) mWindow = config(kWindow);
        std::istringstream list(config(kKeyFrames));
        for (std::string number; std::getline(list, number, ',');) {
            try {
                mKeyFrames.push_back(parseNumber(number, 0, kMostBits));
            } catch (const Failure& failure) {
                throw Failure("config 'key_frames': " + std::string(failure.what()));
            }
        }
    }

    void begin() override {
        if (isGiven(kCsv)) mCsv.emplace(config(kCsv));
    }

    void consume(const Frame& frame) override {
        const AccessUnit unit(frame);
        if (mUnits.empty()) mStream = unit.stream;
        constexpr uint64_t kBitsPerByte = 8;
        mUnits.push_back({unit.info.pts, unit.info.duration, kBitsPerByte * unit.size,
                          unit.info.isKey, unit.info.pictureType});
        if (record().checking) ++record().checked;
    }

    void finish() override {
        mOrder.resize(mUnits.size());
        std::iota(mOrder.begin(), mOrder.end(), 0);
        std::stable_sort(mOrder.begin(), mOrder.end(),
                         [this](size_t a, size_t b) { return mUnits[a].pts < mUnits[b].pts; });
        measureTimes();
        measureSizes();
        measureRate();
        measureKeys();
        if (mCsv) writeCsv();
    }

    // Units have no decoding time in every container, so the i-th to be decoded gets the i-th of
    // the presentation times: the same, but for a constant delay.
    void measureTimes() {
        const double unit = secondsOf(mStream.timeBase);
        const Rational rate = mStream.frameRate;
        const double spacing = rate.num > 0 && rate.den > 0 ? secondsOf({rate.den, rate.num}) : 0;
        const Unit& first = mUnits[mOrder.front()];
        const Unit& last = mUnits[mOrder.back()];
        const bool hasTimes = unit > 0 && first.pts != UnitInfo::kNoTime &&
                              (mUnits.size() == 1 || last.pts > first.pts);
        if (!hasTimes && spacing == 0) return;
        for (size_t i = 0; i < mUnits.size(); ++i) {
            mTimes.push_back(hasTimes
                                 ? unit * static_cast<double>(mUnits[mOrder[i]].pts - first.pts)
                                 : spacing * static_cast<double>(i));
        }
        const auto inTimeBase = [&](double units) { return hasTimes ? unit * units : 0; };
        // That of the last one, or what is nearest to it.
        const double lengths[] = {
            inTimeBase(static_cast<double>(last.duration)),
            inTimeBase(static_cast<double>(mStream.duration)), spacing,
            mTimes.back() / static_cast<double>(std::max<size_t>(mUnits.size() - 1, 1))};
        for (const double length : lengths) {
            if (length <= 0) continue;
            mTimes.push_back(mTimes.back() + length);
            return;
        }
        mTimes.clear();  // a single one, without a duration
    }

    static double secondsOf(Rational time) {
        return time.den > 0 ? static_cast<double>(time.num) / time.den : 0;
    }

    void measureSizes() {
        std::map<std::string, Sizes> types;
        for (const Unit& unit : mUnits) {
            mAll.add(unit.bits);
            types[typeOf(unit)].add(unit.bits);
        }
        const auto largest = std::max_element(
            mUnits.begin(), mUnits.end(),
            [](const Unit& one, const Unit& other) { return one.bits < other.bits; });
        std::string text = concat("bits per frame: mean ", decimal(mAll.mean(), 0), ", largest ",
                                  mAll.largest, " (", placeOf(largest - mUnits.begin()), ")");
        setFigures("bits_", mAll);
        for (const auto& [type, sizes] : types) {
            text += concat("; ", sizes.count, " ", type, ": mean ", decimal(sizes.mean(), 0),
                           ", largest ", sizes.largest);
            setFigures("bits_" + lowerCase(type) + "_", sizes);
        }
        print(text);
        if (!isGiven(kMaxFrameBits)) return;
        const uint64_t most = config(kMaxFrameBits);
        for (size_t i = 0; i < mUnits.size(); ++i) {
            if (mUnits[i].bits > most) countMismatch(i);
        }
        if (mAll.largest > most) {
            fail(kMaxFrameBits, concat(placeOf(largest - mUnits.begin()), " has ", mAll.largest,
                                       " bits, the most of all"));
        }
    }

    void setFigures(const std::string& prefix, const Sizes& sizes) {
        record().setFigure(prefix + "mean", sizes.mean());
        record().setFigure(prefix + "max", static_cast<double>(sizes.largest));
    }

    void measureRate() {
        if (mTimes.empty()) {
            print("no bit rate: the stream has neither times nor a frame rate");
            for (const ConfigKey* key : {&kMaxDeviation, &kMaxWindowDeviation}) {
                if (isGiven(*key)) fail(*key, "the bit rate is not known");
            }
            return;
        }
        const double rate = static_cast<double>(mAll.sum) / mTimes.back();
        record().setFigure("bitrate", rate);
        if (isGiven(kTarget)) record().setFigure("bitrate_deviation_percent", deviationOf(rate));
        print(concat(mUnits.size(), " frames in ", decimal(mTimes.back(), 3),
                     " s: ", rateText(rate)));
        if (isBeyond(kMaxDeviation, rate)) fail(kMaxDeviation, "the stream has " + rateText(rate));
        measureWindows();
    }

    // A window has the fewest frames that last long enough; a stream that is shorter is one.
    void measureWindows() {
        constexpr double kRounding = 1e-6;
        double lowest = 0, highest = 0, worst = 0;
        size_t start = 0, end = 0, worstStart = 0;
        uint64_t bits = 0;
        for (; start < mUnits.size(); bits -= mUnits[start++].bits) {
            while (end < mUnits.size() && mTimes[end] - mTimes[start] < mWindow - kRounding) {
                bits += mUnits[end++].bits;
            }
            const double length = mTimes[end] - mTimes[start];
            if (start > 0 && length < mWindow - kRounding) break;
            const double rate = static_cast<double>(bits) / length;
            lowest = start == 0 ? rate : std::min(lowest, rate);
            highest = std::max(highest, rate);
            const bool isWorse =
                isGiven(kTarget) && std::abs(deviationOf(rate)) > std::abs(deviationOf(worst));
            if (start == 0 || isWorse) {
                worst = rate;
                worstStart = start;
            }
            if (isBeyond(kMaxWindowDeviation, rate)) countMismatch(start);
        }
        record().setFigure("window_bitrate_min", lowest);
        record().setFigure("window_bitrate_max", highest);
        if (isGiven(kTarget)) record().setFigure("window_deviation_percent", deviationOf(worst));
        print(concat("windows of ", mWindow, " s: ", decimal(lowest, 0), " to ",
                     decimal(highest, 0), " bit/s"));
        if (isBeyond(kMaxWindowDeviation, worst)) {
            fail(kMaxWindowDeviation, concat("the window of ", mWindow, " s from ",
                                             placeOf(worstStart), " on has ", rateText(worst)));
        }
    }

    // In percent of the target.
    double deviationOf(double rate) {
        constexpr double kPercent = 100;
        return kPercent * (rate / static_cast<double>(config(kTarget)) - 1);
    }
    bool isBeyond(const RealKey& limit, double rate) {
        return isGiven(limit) && std::abs(deviationOf(rate)) > config(limit);
    }
    std::string rateText(double rate) {
        std::string text = decimal(rate, 0) + " bit/s";
        if (!isGiven(kTarget)) return text;
        const double deviation = deviationOf(rate);
        return text + concat(", ", decimal(std::abs(deviation), 1), " % ",
                             deviation < 0 ? "below" : "above", " the target");
    }

    void measureKeys() {
        for (const uint64_t number : mKeyFrames) {
            if (number < mUnits.size() && mUnits[mOrder[number]].isKey) continue;
            countMismatch(number);
            fail(kKeyFrames,
                 concat("frame ", number, " in the order of display ",
                        number < mUnits.size() ? "is not a key frame" : "does not exist"));
        }
        // The end of the stream ends the last distance, too: it is at least that long.
        size_t count = 0, last = 0, longest = 0, longestStart = 0;
        size_t firstKey = mUnits.size(), lastKey = 0;
        for (size_t i = 0; i <= mUnits.size(); ++i) {
            const bool isEnd = i == mUnits.size();
            if (!isEnd && !mUnits[i].isKey) continue;
            if (i - last > longest) {
                longest = i - last;
                longestStart = last;
            }
            last = i;
            if (isEnd) break;
            ++count;
            firstKey = std::min(firstKey, i);
            lastKey = i;
        }
        record().setFigure("key_frames", static_cast<double>(count));
        record().setFigure("key_distance_max", static_cast<double>(longest));
        if (count > 1) {
            record().setFigure("key_distance_mean", static_cast<double>(lastKey - firstKey) /
                                                        static_cast<double>(count - 1));
        }
        print(concat("key frames: ", count, ", at most ", longest, " frames apart"));
        if (isGiven(kMaxKeyDistance) && longest > config(kMaxKeyDistance)) {
            countMismatch(longestStart + config(kMaxKeyDistance));
            fail(kMaxKeyDistance, concat("no key frame for ", longest, " frames from ",
                                         placeOf(longestStart), " on"));
        }
    }

    static std::string typeOf(const Unit& unit) {
        if (unit.type != 0) return {unit.type};
        return unit.isKey ? "key" : "other";
    }
    // In the order of decoding.
    std::string placeOf(size_t unit) const {
        const std::string frame = concat("frame ", unit);
        return mTimes.empty() ? frame : frame + " at " + decimal(mTimes[unit], 3) + " s";
    }
    void fail(const ConfigKey& limit, const std::string& text) {
        failCheck(vexa::INFO_VALIDATION_FAIL,
                  text + "; " + limit.name + " is " + printable(configText(limit)));
    }

    void writeCsv() {
        mCsv->write("frame,pts,bits,key,type\n");
        for (size_t i = 0; i < mUnits.size(); ++i) {
            const Unit& unit = mUnits[i];
            const std::string pts = unit.pts == UnitInfo::kNoTime ? "" : std::to_string(unit.pts);
            const std::string type(unit.type != 0 ? 1 : 0, unit.type);
            mCsv->write(concat(i, ",", pts, ",", unit.bits, ",", unit.isKey, ",", type, "\n"));
        }
        mCsv->commit();
    }

    double mWindow = 1;
    std::vector<uint64_t> mKeyFrames;  // numbers in the order of display
    std::optional<OutputFile> mCsv;
    // [event thread]
    BitstreamInfo mStream;  // of the first access unit
    std::vector<Unit> mUnits;
    std::vector<size_t> mOrder;  // the units in the order of display
    std::vector<double> mTimes;  // of each unit, from 0, and of the end; empty when not known
    Sizes mAll;
};

const Registered<BitrateSink> kType("sink/bitrate",
                                    "measures the bit rate, frame sizes and key frames of a stream",
                                    1, 0,
                                    {&kTarget, &kMaxDeviation, &kWindow, &kMaxWindowDeviation,
                                     &kMaxFrameBits, &kMaxKeyDistance, &kKeyFrames, &kCsv});

}  // namespace
}  // namespace vxrun
