// markdown: tables for a web page or a pull request.
#include "Report.h"
#include "Text.h"

namespace vxrun {
namespace {

// A cell of a table; what would end the cell or the row, or become markup, is escaped.
std::string cell(const std::string& text) {
    std::string escaped = "|";
    for (const char c : printable(text)) {
        if (c == '|' || c == '<') escaped += '\\';
        escaped += c;
    }
    return escaped;
}

std::string ratio(const Counts& part) {
    return concat(part.of[TestVector::SUCCESS], "/", part.total);
}

std::string markdownReport(const SuiteResults& results) {
    std::string report;
    const auto addRow = [&](const std::string& first, auto textOf) {
        report += cell(first);
        for (const Suite& suite : results.columns) report += cell(textOf(suite));
        report += "|\n";
    };
    const auto addHeader = [&](const std::string& first) {
        addRow(first, [](const Suite& suite) { return suite.decoder; });
        report += "|-";
        for (size_t i = 0; i < results.columns.size(); ++i) report += "|-";
        report += "|\n";
    };
    addHeader("Test");
    const Suite& first = results.columns.front();
    for (size_t i = 0; i < first.vectors.size(); ++i) {
        addRow(first.vectors[i].name,
               [i](const Suite& suite) { return stateName(suite.vectors[i].state); });
    }
    addRow("TOTAL", [](const Suite& suite) { return ratio(suite.counts()); });
    addRow("TOTAL TIME",
           [](const Suite& suite) { return decimal(suite.counts().seconds, 3) + "s"; });
    const auto profiles = countsByProfile(first);
    if (!profiles.empty()) {
        report += "\n";
        addHeader("Profile");
    }
    for (const auto& entry : profiles) {
        addRow(entry.first,
               [&](const Suite& suite) { return ratio(countsByProfile(suite).at(entry.first)); });
    }
    report += "\n";
    for (const Suite& suite : results.columns) {
        if (!suite.decoderVersion.empty()) {
            report += "- " + suite.decoder + ": " + suite.decoderVersion + "\n";
        }
    }
    for (const auto& [name, value] : results.facts) {
        report += "- " + name + ": " + printable(value) + "\n";
    }
    return report;
}

const bool kRegistered = registerReportKind({"markdown", markdownReport});

}  // namespace
}  // namespace vxrun
