// Report: the results of a suite as files for people and programs (docs/reports.md). Each kind is
// one source file here that registers itself.
#pragma once

#include "Suite.h"

#include <map>
#include <string>
#include <vector>

#include <vxkit/Failure.h>

namespace vxrun {

struct SuiteResults {
    // The same suite as each decoder has decoded it; at least one.
    std::vector<Suite> columns;
    // What the results depend on besides the decoders, name and value.
    std::vector<std::pair<std::string, std::string>> facts;
};

// Life     static; registered before main().
// Threads  any.
struct ReportKind {
    std::string name;  // of the option: --name FILE
    std::string (*textOf)(const SuiteResults& results);
};

// Returns true, so that a static object of the kind's source file can call it.
bool registerReportKind(const ReportKind& kind);
// All kinds, in the order of their names.
const std::vector<ReportKind>& reportKinds();

// The file of each report that is to be written, by the name of its kind; empty: none.
using ReportFiles = std::map<std::string, std::string>;

// Writes the reports of `results` as they are now. Each appears whole, in place of the one before:
// whenever a run is aborted, the files are valid. Those that cannot be written fail, the others do
// not.
std::vector<Failure> writeReports(const ReportFiles& files, const SuiteResults& results);

// The report of the kind json, which the one of the kind html shows.
std::string jsonReport(const SuiteResults& results);
// What several kinds contain: the counts of each profile, unless no test vector has one; the test
// vectors whose result is not the same with all decoders that could run them.
std::map<std::string, Counts> countsByProfile(const Suite& suite);
std::vector<std::string> disagreements(const SuiteResults& results);
// A field of a CSV file.
std::string csvField(const std::string& name);

// The counts as text for a terminal: of each profile, or of each decoder where there are several,
// and what they disagree on.
std::string countsTable(const SuiteResults& results);

}  // namespace vxrun
