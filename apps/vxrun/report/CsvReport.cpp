// csv: a row per test vector.
#include "Report.h"
#include "Text.h"

namespace vxrun {
namespace {

// Spreadsheets would run a field that begins like a formula; the quote in front has them show it.
std::string csvField(const std::string& name) {
    std::string text = (name.find_first_of("=+-@") == 0 ? "'" : "") + printable(name);
    if (text.find_first_of(",\"") == text.npos) return text;
    return concat(std::quoted(text, '"', '"'));
}

std::string csvReport(const Suite& suite) {
    std::string report = "Vector Name,Result,Time (s),Profile\n";
    for (const TestVector& vector : suite.vectors) {
        report += concat(csvField(vector.name), ",", stateName(vector.state), ",",
                         decimal(vector.seconds, 3), ",", csvField(vector.profile), "\n");
    }
    return report;
}

const bool kRegistered = registerReportKind({"csv", csvReport});

}  // namespace
}  // namespace vxrun
