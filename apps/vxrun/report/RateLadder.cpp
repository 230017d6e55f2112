#include "RateLadder.h"

#include "RateDistortion.h"
#include "Report.h"
#include "Text.h"
#include "Xml.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <optional>

namespace vxrun {
namespace {

using Json = nlohmann::ordered_json;
using Figure = std::optional<double>;

struct Column {
    const char* name;
    const char* node;
    const char* figure;
    int digits;
    int width;
};
constexpr Column kColumns[] = {{"bitrate", kRateNode, "bitrate", 0, 12},
                               {"psnr", kCompareNode, "psnr_mean", 3, 9},
                               {"psnr_y", kCompareNode, "psnr_y_mean", 3, 9},
                               {"ssim", kCompareNode, "ssim_mean", 5, 9}};
constexpr const Column& kBitrate = kColumns[0];
constexpr const Column& kLuma = kColumns[2];

Figure figureOf(const TestVector& run, const Column& column) {
    const auto found = run.figures.find(concat(column.node, ".", column.figure));
    return found != run.figures.end() ? Figure(found->second) : Figure();
}

// Those of the rungs that were measured, in the order of their rates.
std::vector<RatePoint> pointsOf(const RateLadder& ladder, size_t encoder) {
    std::vector<RatePoint> points;
    for (size_t i = 0; i < ladder.rates.size(); ++i) {
        const TestVector& run = ladder.at(encoder, i);
        const Figure rate = figureOf(run, kBitrate), psnr = figureOf(run, kLuma);
        if (run.state == TestVector::SUCCESS && rate && psnr) points.push_back({*rate, *psnr});
    }
    return points;
}

// One of the two deltas against the first encoder; none, and why, when it is not defined.
struct Delta {
    Delta(const RateLadder& ladder, size_t encoder,
          double (*measure)(const std::vector<RatePoint>&, const std::vector<RatePoint>&)) {
        try {
            value = measure(pointsOf(ladder, 0), pointsOf(ladder, encoder));
        } catch (const Failure& failure) {
            reason = failure.what();
        }
    }
    std::string text(const char* unit) const {
        return value ? (*value < 0 ? "" : "+") + decimal(*value, 2) + " " + unit
                     : "none (" + reason + ")";
    }

    Figure value;
    std::string reason;
};

}  // namespace

std::string rateText(double rate) {
    constexpr double kMega = 1e6, kKilo = 1e3;
    if (rate >= kMega) return concat(rate / kMega, "M");
    return rate >= kKilo ? concat(rate / kKilo, "k") : concat(rate);
}

std::string ladderTable(const RateLadder& ladder) {
    constexpr int kTargetWidth = 10, kSecondsWidth = 9;
    size_t width = 7;  // of "encoder"
    for (const std::string& name : ladder.encoders) width = std::max(width, printable(name).size());
    std::ostringstream table;
    table << std::left << std::setw(static_cast<int>(width)) << "encoder" << std::right
          << std::setw(kTargetWidth) << "target";
    for (const Column& column : kColumns) table << std::setw(column.width) << column.name;
    table << std::setw(kSecondsWidth) << "seconds"
          << "\n";
    for (size_t e = 0; e < ladder.encoders.size(); ++e) {
        for (size_t i = 0; i < ladder.rates.size(); ++i) {
            const TestVector& run = ladder.at(e, i);
            table << std::left << std::setw(static_cast<int>(width))
                  << printable(ladder.encoders[e]) << std::right << std::setw(kTargetWidth)
                  << rateText(static_cast<double>(ladder.rates[i]));
            if (run.state != TestVector::SUCCESS) {
                table << "  " << stateName(run.state) << ": " << printable(run.message) << "\n";
                continue;
            }
            for (const Column& column : kColumns) {
                const Figure figure = figureOf(run, column);
                table << std::setw(column.width)
                      << (figure ? decimal(*figure, column.digits) : "-");
            }
            table << std::setw(kSecondsWidth) << decimal(run.seconds, 1) << "\n";
        }
    }
    for (size_t e = 1; e < ladder.encoders.size(); ++e) {
        table << printable(ladder.encoders[e]) << " against " << printable(ladder.encoders[0])
              << ": BD-rate " << Delta(ladder, e, bdRatePercent).text("%") << ", BD-PSNR "
              << Delta(ladder, e, bdPsnr).text("dB") << "\n";
    }
    return table.str();
}

std::string ladderCsv(const RateLadder& ladder) {
    std::string csv = "encoder,target";
    for (const Column& column : kColumns) csv += concat(",", column.name);
    csv += ",seconds,result\n";
    for (size_t e = 0; e < ladder.encoders.size(); ++e) {
        for (size_t i = 0; i < ladder.rates.size(); ++i) {
            const TestVector& run = ladder.at(e, i);
            csv += concat(csvField(ladder.encoders[e]), ",", ladder.rates[i]);
            for (const Column& column : kColumns) {
                const Figure figure = figureOf(run, column);
                csv += "," + (figure ? decimal(*figure, column.digits) : "");
            }
            csv += concat(",", decimal(run.seconds, 3), ",", stateName(run.state), "\n");
        }
    }
    return csv;
}

std::string ladderJson(const RateLadder& ladder) {
    Json report = {
        {"system_info", Json::object()}, {"source", ladder.source}, {"encoders", Json::array()}};
    for (const auto& [name, value] : ladder.facts) report["system_info"][name] = value;
    for (size_t e = 0; e < ladder.encoders.size(); ++e) {
        Json encoder = {{"name", ladder.encoders[e]}, {"rungs", Json::array()}};
        for (size_t i = 0; i < ladder.rates.size(); ++i) {
            const TestVector& run = ladder.at(e, i);
            Json rung = {{"target_bitrate", ladder.rates[i]}, {"result", stateName(run.state)}};
            if (!run.message.empty()) rung["message"] = run.message;
            rung["seconds"] = run.seconds;
            rung["figures"] = run.figures;
            encoder["rungs"].push_back(std::move(rung));
        }
        if (e > 0) {
            const Delta rate(ladder, e, bdRatePercent), psnr(ladder, e, bdPsnr);
            if (rate.value) encoder["bd_rate_percent"] = *rate.value;
            if (psnr.value) encoder["bd_psnr"] = *psnr.value;
        }
        report["encoders"].push_back(std::move(encoder));
    }
    return report.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

namespace {

// An axis of the drawing: what it shows, and where.
struct Axis {
    double at(double value) const { return from + (to - from) * (value - low) / (high - low); }

    double low, high;  // values
    double from, to;   // coordinates
};

// A drawing of curves.
class Drawing {
public:
    Drawing(const RateLadder& ladder) : mLadder(ladder) {
        std::vector<RatePoint> all;
        for (size_t e = 0; e < ladder.encoders.size(); ++e) {
            mCurves.push_back(pointsOf(ladder, e));
            all.insert(all.end(), mCurves.back().begin(), mCurves.back().end());
        }
        if (all.empty()) all = {{1e5, 30}, {1e6, 40}};  // empty axes
        for (const RatePoint& point : all) {
            const double rate = std::log10(point.bitrate);
            mX.low = std::min(mX.low, rate);
            mX.high = std::max(mX.high, rate);
            mY.low = std::min(mY.low, point.psnr);
            mY.high = std::max(mY.high, point.psnr);
        }
        for (Axis* axis : {&mX, &mY}) {
            const double room = std::max((axis->high - axis->low) / 20, 0.05);
            axis->low -= room;
            axis->high += room;
        }
    }

    std::string text() {
        mSvg = addNode(
            mDocument, "svg",
            {{"xmlns", "http://www.w3.org/2000/svg"}, {"viewBox", "0 0 720 480"}, {"role", "img"}});
        const std::string title = "Rate-distortion of " + printable(mLadder.source);
        mSvg.append_child("title").text() = title.c_str();
        mSvg.append_child("style").text() = kStyle;
        addNode(mSvg, "rect", {{"class", "paper"}, {"width", "100%"}, {"height", "100%"}});
        addText(360, 28, "title", title);
        addText(375, 468, "middle", "bit rate (bit/s, logarithmic)");
        addText(0, 0, "middle", "mean luma PSNR (dB)").append_attribute("transform") =
            "translate(18 235) rotate(-90)";
        addGrid();
        for (size_t e = 0; e < mCurves.size(); ++e) addCurve(e);
        return textOf(mDocument);
    }

private:
    static constexpr char kStyle[] =
        "text{font:13px sans-serif;fill:#222}.title{font-size:16px;text-anchor:middle}"
        ".middle{text-anchor:middle}.end{text-anchor:end}.paper{fill:#fff}"
        ".grid{stroke:#ddd}.curve{fill:none;stroke-width:2}"
        "@media(prefers-color-scheme:dark)"
        "{text{fill:#ddd}.paper{fill:#1b1b1b}.grid{stroke:#444}}";
    // To be told apart by all eyes, on both backgrounds.
    static constexpr const char* kColors[] = {"#0072b2", "#d55e00", "#009e73",
                                              "#cc79a7", "#e69f00", "#56b4e9"};

    pugi::xml_node addText(double x, double y, const char* kind, const std::string& text) {
        pugi::xml_node node =
            addNode(mSvg, "text", {{"x", decimal(x, 1)}, {"y", decimal(y, 1)}, {"class", kind}});
        node.text() = text.c_str();
        return node;
    }
    void addLine(double x1, double y1, double x2, double y2) {
        addNode(mSvg, "line",
                {{"class", "grid"},
                 {"x1", decimal(x1, 1)},
                 {"y1", decimal(y1, 1)},
                 {"x2", decimal(x2, 1)},
                 {"y2", decimal(y2, 1)}});
    }

    // Lines at 1, 2 and 5 times the powers of ten, and at the fewest steps of that kind for PSNR.
    void addGrid() {
        constexpr int kMostSteps = 10;
        double step = 0.01;
        for (int i = 0; (mY.high - mY.low) / step > kMostSteps; ++i) step *= i % 3 == 1 ? 2.5 : 2;
        const auto last = static_cast<int>(std::floor(mY.high / step));
        for (auto i = static_cast<int>(std::ceil(mY.low / step)); i <= last; ++i) {
            const double psnr = step * i;
            addLine(mX.from, mY.at(psnr), mX.to, mY.at(psnr));
            addText(mX.from - 8, mY.at(psnr) + 4, "end", decimal(psnr, step < 1 ? 2 : 0));
        }
        for (auto decade = static_cast<int>(std::floor(mX.low)); decade <= mX.high; ++decade) {
            for (const int digit : {1, 2, 5}) {
                const double rate = digit * std::pow(10, decade), x = mX.at(std::log10(rate));
                if (x < mX.from || x > mX.to) continue;
                addLine(x, mY.from, x, mY.to);
                addText(x, mY.from + 20, "middle", rateText(rate));
            }
        }
    }

    void addCurve(size_t encoder) {
        const char* const color = kColors[encoder % std::size(kColors)];
        std::string path;
        for (const RatePoint& point : mCurves[encoder]) {
            const std::string x = decimal(mX.at(std::log10(point.bitrate)), 1);
            const std::string y = decimal(mY.at(point.psnr), 1);
            path.append(x).append(",").append(y).append(" ");
            addNode(mSvg, "circle", {{"cx", x}, {"cy", y}, {"r", "4"}, {"fill", color}});
        }
        addNode(mSvg, "polyline", {{"class", "curve"}, {"stroke", color}, {"points", path}});
        // The legend is where no curve that rises comes along: at the lower right.
        const double y = mY.from - 18.0 * static_cast<double>(mCurves.size() - encoder);
        addNode(mSvg, "circle",
                {{"cx", "690"}, {"cy", decimal(y, 1)}, {"r", "5"}, {"fill", color}});
        addText(678, y + 4, "end", printable(mLadder.encoders[encoder]));
    }

    const RateLadder& mLadder;
    std::vector<std::vector<RatePoint>> mCurves;
    Axis mX = {HUGE_VAL, -HUGE_VAL, 70, 705};
    Axis mY = {HUGE_VAL, -HUGE_VAL, 425, 45};
    pugi::xml_document mDocument;
    pugi::xml_node mSvg;
};

}  // namespace

std::string ladderSvg(const RateLadder& ladder) {
    return Drawing(ladder).text();
}

}  // namespace vxrun
