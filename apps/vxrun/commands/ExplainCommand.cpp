// vxrun explain STREAM --frame N: which bytes of a stream a picture comes from, what it refers to,
// and the headers of all that.
#include "Command.h"
#include "Console.h"
#include "StreamMap.h"
#include "Text.h"

#include <algorithm>
#include <optional>

namespace vxrun {
namespace {

std::string timeText(int64_t time, Rational base) {
    constexpr int kDigits = 6;
    if (time == UnitInfo::kNoTime) return "-";
    if (base.num <= 0) return std::to_string(time);
    const double seconds = static_cast<double>(time) * base.num / base.den;
    return concat(time, " (", decimal(seconds, kDigits), " s)");
}

class ExplainCommand final : public Command {
public:
    CLI::App* addTo(CLI::App* app) override {
        CLI::App* const explain = app->add_subcommand(
            "explain", "Shows which bytes of a stream a picture comes from, and their headers");
        addOption(explain, "STREAM FILE", &mStream, "The video file")->required();
        auto* const frame =
            addOption(explain, "--frame N", &mFrame,
                      "The frame, from 0, in the order in which decoders output them");
        auto* const unit = addOption(explain, "--unit N", &mUnit,
                                     "In its place an access unit, from 0, in decoding order");
        frame->excludes(unit);
        return explain;
    }

    int execute(const CommonOptions&, Evidence*) override {
        if (!mFrame && !mUnit) throw badOption("--frame", "missing");
        mMap = mapStream(mStream);
        std::vector<size_t> pictures;
        if (mFrame) {
            requireBelow(*mFrame, mMap.frames.size(), "frame");
            pictures = {mMap.frames[*mFrame]};
        } else {
            requireBelow(*mUnit, mMap.units.size(), "access unit");
            pictures = picturesOf(*mUnit);
        }
        std::string text;
        std::vector<size_t> units;
        if (mUnit) units.push_back(*mUnit);
        for (const size_t picture : pictures) {
            text += describe(picture);
            units.push_back(mMap.pictures[picture].unit);
            for (const size_t other : mMap.pictures[picture].refers) {
                units.push_back(mMap.pictures[other].unit);
            }
        }
        if (pictures.empty()) text = unitText(*mUnit) + "\n  codes no picture\n";
        return console::exitWithResult(text + "\n" + headersOf(mStream, units));
    }

private:
    void requireBelow(size_t number, size_t count, const std::string& what) const {
        if (number < count) return;
        throw Failure(concat(mStream, ": no ", what, " ", number, "; there are ", count));
    }

    std::vector<size_t> picturesOf(size_t unit) const {
        std::vector<size_t> found;
        for (size_t i = 0; i < mMap.pictures.size(); ++i) {
            if (mMap.pictures[i].unit == unit) found.push_back(i);
        }
        return found;
    }

    std::string describe(size_t number) const {
        const CodedPicture& picture = mMap.pictures[number];
        std::string text = pictureText(number) + "\n  in " + unitText(picture.unit) + "\n";
        for (const size_t other : picturesOf(picture.unit)) {
            if (other != number) text += "  with " + pictureText(other) + "\n";
        }
        if (!picture.refersExactly) {
            text += "  may refer to, as far as headers are followed:";
        } else {
            text += "  refers to:";
        }
        text += picture.refers.empty() ? " nothing\n" : "\n";
        for (const size_t other : picture.refers) {
            text += "    " + pictureText(other) + ", " + unitText(mMap.pictures[other].unit) + "\n";
        }
        std::string users;
        for (size_t i = 0; i < mMap.pictures.size(); ++i) {
            const auto& refers = mMap.pictures[i].refers;
            if (std::find(refers.begin(), refers.end(), number) == refers.end()) continue;
            users += "    " + pictureText(i) + "\n";
        }
        return text + "  pictures that refer to it:" + (users.empty() ? " none\n" : "\n" + users);
    }

    // "picture 3 in decoding order (B, temporal layer 2), frame 1"
    std::string pictureText(size_t number) const {
        const CodedPicture& picture = mMap.pictures[number];
        std::string text = concat("picture ", number, " in decoding order (");
        text += picture.type == 0 ? "type not known" : std::string(1, picture.type);
        if (picture.temporalLayer >= 0) text += concat(", temporal layer ", picture.temporalLayer);
        if (!picture.isReference) text += ", no reference";
        text += ")";
        std::string frames;
        for (size_t i = 0; i < mMap.frames.size(); ++i) {
            if (mMap.frames[i] == number) frames += concat(frames.empty() ? "" : ", ", i);
        }
        return text + (frames.empty() ? ", shown by no frame" : ", frame " + frames);
    }

    std::string unitText(size_t number) const {
        const StreamUnit& unit = mMap.units[number];
        return concat("access unit ", number, ": ", unit.bytes, " bytes",
                      unit.offset != StreamUnit::kNoOffset ? concat(" at byte ", unit.offset) : "",
                      ", pts ", timeText(unit.pts, mMap.timeBase), ", dts ",
                      timeText(unit.dts, mMap.timeBase), unit.isKey ? ", key" : "");
    }

    std::string mStream;
    std::optional<size_t> mFrame, mUnit;
    StreamMap mMap;
};

const bool kRegistered = registerCommand(std::make_unique<ExplainCommand>());

}  // namespace
}  // namespace vxrun
