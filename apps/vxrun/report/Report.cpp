#include "Report.h"

#include "Files.h"
#include "Text.h"

#include <algorithm>
#include <set>

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

std::vector<Failure> writeReports(const ReportFiles& files, const SuiteResults& results) {
    std::vector<Failure> failures;
    for (const ReportKind& kind : kinds()) {
        const auto file = files.find(kind.name);
        if (file == files.end() || file->second.empty()) continue;
        try {
            writeTextFile("--" + kind.name, file->second, kind.textOf(results));
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

std::vector<std::string> disagreements(const SuiteResults& results) {
    std::vector<std::string> names;
    for (size_t i = 0; i < results.columns.front().vectors.size(); ++i) {
        std::set<TestVector::State> states;
        for (const Suite& suite : results.columns) states.insert(suite.vectors[i].state);
        states.erase(TestVector::NOT_SUPPORTED);
        states.erase(TestVector::NOT_RUN);
        if (states.size() > 1) names.push_back(results.columns.front().vectors[i].name);
    }
    return names;
}

}  // namespace vxrun
