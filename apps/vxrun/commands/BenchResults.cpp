#include "BenchResults.h"

#include "Json.h"
#include "Text.h"

#include <nlohmann/json.hpp>

#include <algorithm>

namespace vxrun {
namespace {

using Json = nlohmann::ordered_json;

// What is reported of each run.
struct Figure {
    const char* name;   // in the file
    const char* label;  // in the table
    double unit;        // of the table
    int digits;
    bool isCompared;  // with the first candidate
    double (*of)(const RunFigures& run);
};

constexpr Figure kFigures[] = {
    {"seconds", "seconds", 1, 3, true, [](const RunFigures& run) { return run.seconds; }},
    {"frames_per_second", "frames/s", 1, 1, true,
     [](const RunFigures& run) { return static_cast<double>(run.frames) / run.seconds; }},
    {"cpu_seconds", "cpu seconds", 1, 3, true,
     [](const RunFigures& run) { return run.cpuSeconds; }},
    {"peak_rss_bytes", "peak MiB", 1 << 20, 1, true,
     [](const RunFigures& run) { return run.peakBytes; }},
    {"preemptions", "preemptions", 1, 0, false,
     [](const RunFigures& run) { return run.preemptions; }},
};

constexpr char kSeconds[] = "seconds";  // the figure that is read again

std::vector<double> valuesOf(const BenchCandidate& candidate, const Figure& figure) {
    std::vector<double> values(candidate.rounds.size());
    std::transform(candidate.rounds.begin(), candidate.rounds.end(), values.begin(), figure.of);
    return values;
}

// True when `values` can be divided by those of the first candidate.
bool isComparable(const Figure& figure, const std::vector<double>& first) {
    return figure.isCompared && *std::min_element(first.begin(), first.end()) > 0;
}

// For people: with its interval, if there were enough rounds, and what that shows.
std::string textOf(const Ratio& ratio, size_t rounds) {
    const Interval& bounds = ratio.interval;
    std::string text = decimal(ratio.value, 3);
    if (rounds < kFewestRounds) return text;
    text += concat(" (", decimal(bounds.low, 3), " to ", decimal(bounds.high, 3), ", ",
                   decimal(bounds.confidence * 100, 1), " %)");
    return ratio.isDifference() ? text : text + ": no difference shown";
}

Json jsonOf(const Ratio& ratio) {
    return {{"median", ratio.value},
            {"low", ratio.interval.low},
            {"high", ratio.interval.high},
            {"confidence", ratio.interval.confidence}};
}

Json jsonOf(const BenchCandidate& candidate, const BenchCandidate& first) {
    Json json = {{"name", candidate.name}};
    if (!candidate.version.empty()) json["version"] = candidate.version;
    if (!candidate.pictures.md5.empty()) json["md5"] = candidate.pictures.md5;
    json["frames"] = candidate.pictures.frames;
    for (const Figure& figure : kFigures) {
        const auto values = valuesOf(candidate, figure), others = valuesOf(first, figure);
        const auto [least, most] = std::minmax_element(values.begin(), values.end());
        Json& entry = json["figures"][figure.name];
        entry = {{"median", median(values)}, {"min", *least}, {"max", *most}, {"rounds", values}};
        if (&candidate != &first && isComparable(figure, others)) {
            entry["ratio_to_first"] = jsonOf(pairedRatio(values, others));
        }
    }
    if (candidate.toBaseline) json["seconds_to_baseline"] = jsonOf(*candidate.toBaseline);
    return json;
}

BenchCandidate readCandidate(const JsonDocument& document, const JsonValue& item) {
    const auto textOf = [&](const char* key) {
        const JsonValue* const value = item.find(key);
        return value != nullptr ? document.expect(*value, JsonValue::STRING).text : "";
    };
    const auto number = [&](const JsonValue& value, auto parse) {
        try {
            return parse(value.text);
        } catch (const Failure& failure) {
            document.fail(value, failure.what());
        }
    };
    BenchCandidate candidate;
    candidate.name = document.name(document.expect(item, JsonValue::OBJECT), "name");
    candidate.version = textOf("version");
    candidate.pictures.md5 = textOf("md5");
    candidate.pictures.frames =
        number(document.member(item, "frames", JsonValue::NUMBER),
               [](const std::string& text) { return parseNumber(text, 0, UINT64_MAX); });
    const JsonValue& figures = document.member(item, "figures", JsonValue::OBJECT);
    const JsonValue& rounds = document.member(document.member(figures, kSeconds, JsonValue::OBJECT),
                                              "rounds", JsonValue::ARRAY);
    if (rounds.items.size() < kFewestRounds) {
        document.fail(rounds, concat("expected ", kFewestRounds, " rounds at least, got ",
                                     rounds.items.size()));
    }
    for (const JsonValue& value : rounds.items) {
        candidate.rounds.emplace_back().seconds =
            number(document.expect(value, JsonValue::NUMBER), [](const std::string& text) {
                return parseReal(text, 1e-9, 1e9);  // it is divided by
            });
    }
    return candidate;
}

}  // namespace

std::vector<double> BenchCandidate::seconds() const {
    return valuesOf(*this, kFigures[0]);
}

const BenchCandidate* BenchResults::find(const std::string& name) const {
    const auto found = std::find_if(candidates.begin(), candidates.end(),
                                    [&](const auto& candidate) { return candidate.name == name; });
    return found != candidates.end() ? &*found : nullptr;
}

std::string benchTable(const BenchResults& results) {
    const BenchCandidate& first = results.candidates.front();
    size_t width = std::string("candidate").size();
    for (const auto& candidate : results.candidates) {
        width = std::max(width, printable(candidate.name).size());
    }
    std::ostringstream table;
    const auto addRow = [&](const std::string& name, const char* label) -> auto& {
        return table << std::left << std::setw(static_cast<int>(width)) << name << "  "
                     << std::setw(11) << label << std::right;
    };
    addRow("candidate", "figure") << "    median       min       max";
    if (results.candidates.size() > 1) table << "  ratio to " << printable(first.name);
    table << "\n";
    for (const BenchCandidate& candidate : results.candidates) {
        std::string name = printable(candidate.name);  // in its first row
        for (const Figure& figure : kFigures) {
            const auto values = valuesOf(candidate, figure), others = valuesOf(first, figure);
            const auto [least, most] = std::minmax_element(values.begin(), values.end());
            addRow(name, figure.label);
            for (const double value : {median(values), *least, *most}) {
                table << std::setw(10) << decimal(value / figure.unit, figure.digits);
            }
            if (&candidate != &first && isComparable(figure, others)) {
                table << "  " << textOf(pairedRatio(values, others), values.size());
            }
            table << "\n";
            name.clear();
        }
    }
    for (const BenchCandidate& candidate : results.candidates) {
        if (!candidate.toBaseline) continue;
        table << "seconds of " << printable(candidate.name)
              << " to the baseline's: " << textOf(*candidate.toBaseline, candidate.rounds.size())
              << "\n";
    }
    for (const std::string& remark : results.remarks) {
        table << "remark: " << printable(remark) << "\n";
    }
    return table.str();
}

std::string benchJson(const BenchResults& results) {
    Json json;
    for (const auto& [name, value] : results.facts) json["system_info"][name] = value;
    Json& bench = json["bench"] = {
        {"input", results.input},
        {"verdict", results.verdict},
        {"rounds", results.candidates.front().rounds.size()},
        {"method",
         "candidates take turns; one warm-up round before is not counted; a ratio is the median of "
         "the rounds' ratios, to a baseline that of the medians; intervals by order statistics"},
        {"other_load", results.load},
        {"steal", results.steal},
        {"remarks", results.remarks}};
    for (const BenchCandidate& candidate : results.candidates) {
        bench["candidates"].push_back(jsonOf(candidate, results.candidates.front()));
    }
    return json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

BenchResults readBench(const std::string& path) {
    const JsonDocument document(path, "results");
    BenchResults results;
    for (const JsonValue& fact :
         document.items(document.root(), "system_info", JsonValue::OBJECT)) {
        results.facts.emplace_back(fact.key, document.scalar(fact));
    }
    const JsonValue& bench = document.member(document.root(), "bench", JsonValue::OBJECT);
    for (const JsonValue& item : document.member(bench, "candidates", JsonValue::ARRAY).items) {
        results.candidates.push_back(readCandidate(document, item));
    }
    return results;
}

}  // namespace vxrun
