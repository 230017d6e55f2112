// markdown: tables for a web page or a pull request.
#include "Report.h"
#include "Text.h"

namespace vxrun {
namespace {

// A row of a table; what would end the cell or the row, or become markup, is escaped.
std::string markdownRow(const std::string& first, const std::string& second) {
    std::string row;
    for (const std::string* cell : {&first, &second}) {
        row += '|';
        for (const char c : printable(*cell)) {
            if (c == '|' || c == '<') row += '\\';
            row += c;
        }
    }
    return row + "|\n";
}

std::string markdownReport(const Suite& suite) {
    const std::string decoder = decoderName(suite);
    std::string vectors = markdownRow("Test", decoder) + "|-|-|\n", table;
    for (const TestVector& vector : suite.vectors) {
        vectors += markdownRow(vector.name, stateName(vector.state));
    }
    const auto ratio = [](const Counts& part) {
        return concat(part.of[TestVector::SUCCESS], "/", part.total);
    };
    const Counts counts = suite.counts();
    vectors += markdownRow("TOTAL", ratio(counts)) +
               markdownRow("TOTAL TIME", decimal(counts.seconds, 3) + "s");
    for (const auto& [profile, part] : countsByProfile(suite)) {
        if (table.empty()) table = "\n" + markdownRow("Profile", decoder) + "|-|-|\n";
        table += markdownRow(profile, ratio(part));
    }
    return vectors + table;
}

const bool kRegistered = registerReportKind({"markdown", markdownReport});

}  // namespace
}  // namespace vxrun
