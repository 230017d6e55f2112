// csv: a row per test vector.
#include "Report.h"
#include "Text.h"

namespace vxrun {

std::string csvField(const std::string& name) {
    // Spreadsheets would run a field that begins like a formula; the quote in front prevents it.
    std::string text = (name.find_first_of("=+-@") == 0 ? "'" : "") + printable(name);
    if (text.find_first_of(",\"") == text.npos) return text;
    return concat(std::quoted(text, '"', '"'));
}

namespace {

// With several decoders, four columns of each, under its name.
std::string csvReport(const SuiteResults& results) {
    std::string report;
    const auto addRow = [&](auto fieldsOf) {
        for (const Suite& suite : results.columns) {
            report += (&suite == &results.columns.front() ? "" : ",") + fieldsOf(suite);
        }
        report += "\n";
    };
    if (results.columns.size() > 1)
        addRow([](const Suite& suite) { return csvField(suite.decoder) + ",,,"; });
    addRow([](const Suite&) { return std::string("Vector Name,Result,Time (s),Profile"); });
    for (size_t i = 0; i < results.columns.front().vectors.size(); ++i) {
        addRow([&](const Suite& suite) {
            const TestVector& vector = suite.vectors[i];
            return concat(csvField(vector.name), ",", stateName(vector.state), ",",
                          decimal(vector.seconds, 3), ",", csvField(vector.profile));
        });
    }
    return report;
}

const bool kRegistered = registerReportKind({"csv", csvReport});

}  // namespace
}  // namespace vxrun
