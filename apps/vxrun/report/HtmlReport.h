// HtmlReport: the JSON reports of suites and runs as one HTML page (docs/reports.md).
#pragma once

#include <string>
#include <vector>

namespace vxrun {

// A plain value.
struct JsonReport {
    std::string name;  // its file, for error lines; files that it names may be beside it
    std::string text;
};

// The page of these reports, with the pictures and traces that they name and that are there.
// Results of suites are compared with those of `baseline`, unless null. Throws Failure "NAME: text"
// for a text that is no report.
std::string htmlReport(const std::vector<JsonReport>& reports,
                       const JsonReport* baseline = nullptr);

}  // namespace vxrun
