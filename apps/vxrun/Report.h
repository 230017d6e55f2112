// Report: what a suite's run has shown, in the formats that other programs read (docs/reports.md).
#pragma once

#include "Suite.h"

#include <string>

namespace vxrun {

// Where each report goes; empty: nowhere.
struct ReportFiles {
    std::string junit;
    std::string json;
    std::string csv;
    std::string markdown;
};

// Writes the reports of `suite` as of now. Each appears whole, in place of the one before: whenever a
// run breaks off, the files are valid and tell what had not finished.
void writeReports(const ReportFiles& files, const Suite& suite);

// The table of sums for each profile, as text for a terminal.
std::string profileTable(const Suite& suite);

}  // namespace vxrun
