#include "Report.h"

#include "Files.h"
#include "Text.h"

#include <algorithm>

namespace vxrun {

static std::vector<ReportKind>& kinds() {
    static std::vector<ReportKind> all;  // made when the first kind is registered
    return all;
}

bool registerReportKind(const ReportKind& kind) {
    const auto isAfter = [&](const ReportKind& other) { return other.name > kind.name; };
    kinds().insert(std::find_if(kinds().begin(), kinds().end(), isAfter), kind);
    return true;
}

const std::vector<ReportKind>& reportKinds() {
    return kinds();
}

std::vector<Failure> writeReports(const ReportFiles& files, const Suite& suite) {
    std::vector<Failure> failures;
    for (const ReportKind& kind : kinds()) {
        const auto file = files.find(kind.name);
        if (file == files.end() || file->second.empty()) continue;
        try {
            writeTextFile("--" + kind.name, file->second, kind.textOf(suite));
        } catch (const Failure& failure) {
            failures.push_back(failure);
        }
    }
    return failures;
}

std::map<std::string, Counts> countsByProfile(const Suite& suite) {
    std::map<std::string, Counts> profiles;
    for (const TestVector& vector : suite.vectors) profiles[vector.profile].add(vector);
    if (profiles.size() == 1 && profiles.begin()->first.empty()) profiles.clear();
    return profiles;
}

std::string decoderName(const Suite& suite) {
    return "libavcodec" + (suite.codec.empty() ? "" : "-" + suite.codec);
}

}  // namespace vxrun
