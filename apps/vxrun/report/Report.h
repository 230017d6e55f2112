// Report: the results of a suite as files for people and programs (docs/reports.md). Each kind is
// one source file here that registers itself.
#pragma once

#include "Suite.h"

#include <map>
#include <string>
#include <vector>

#include <vxkit/Failure.h>

namespace vxrun {

// Life     static; registered before main().
// Threads  any.
struct ReportKind {
    std::string name;  // of the option: --name FILE
    std::string (*textOf)(const Suite& suite);
};

// Returns true, so that a static object of the kind's source file can call it.
bool registerReportKind(const ReportKind& kind);
// All kinds, in the order of their names.
const std::vector<ReportKind>& reportKinds();

// The file of each report that is to be written, by the name of its kind; empty: none.
using ReportFiles = std::map<std::string, std::string>;

// Writes the reports of `suite` as it is now. Each appears whole, in place of the one before:
// whenever a run is aborted, the files are valid. Those that cannot be written fail, the others do
// not.
std::vector<Failure> writeReports(const ReportFiles& files, const Suite& suite);

// What several kinds contain: the counts of each profile, unless no test vector has one; what the
// suite was decoded with.
std::map<std::string, Counts> countsByProfile(const Suite& suite);
std::string decoderName(const Suite& suite);

// The table of counts for each profile, as text for a terminal.
std::string profileTable(const Suite& suite);

}  // namespace vxrun
