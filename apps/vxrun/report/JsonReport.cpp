// json: the results in the layout that a widely used runner of conformance suites writes.
#include "Report.h"
#include "Text.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

namespace vxrun {
namespace {

using Json = nlohmann::ordered_json;

Json resultsOf(const Suite& suite) {
    const Counts counts = suite.counts();
    Json run = {{"decoder_name", suite.decoder},
                {"decoder_version", suite.decoderVersion},
                {"total_tests", counts.total},
                {"passed", counts.of[TestVector::SUCCESS]},
                {"not_run", counts.of[TestVector::NOT_RUN]},
                {"not_supported", counts.of[TestVector::NOT_SUPPORTED]},
                {"failed_error", counts.of[TestVector::FAIL] + counts.errors()},
                {"total_time", counts.seconds},
                {"profile_stats", Json::object()},
                {"vectors", Json::object()}};
    // Names are unique, and a lookup is slow in an object that keeps the order.
    auto& profiles = run["profile_stats"].get_ref<Json::object_t&>();
    for (const auto& [profile, part] : countsByProfile(suite)) {
        profiles.push_back(
            {profile, Json{{"passed", part.of[TestVector::SUCCESS]}, {"total", part.total}}});
    }
    auto& vectors = run["vectors"].get_ref<Json::object_t&>();
    for (const TestVector& vector : suite.vectors) {
        Json entry = {{"result", stateName(vector.state)}, {"time", vector.seconds}};
        if (!vector.profile.empty()) entry["profile"] = vector.profile;
        if (!vector.failure.empty()) entry["failure"] = Json::parse(vector.failure);
        vectors.push_back({vector.name, std::move(entry)});
    }
    return run;
}

}  // namespace

std::string jsonReport(const SuiteResults& results) {
    utsname system{};
    uname(&system);
    Json report;
    report["system_info"] = {{"os", std::string(system.sysname) + " " + system.release},
                             {"cpu", system.machine},
                             {"gpu", Json::array()},
                             {"ram", sysconf(_SC_PHYS_PAGES) * sysconf(_SC_PAGE_SIZE)},
                             {"backends", Json::object()}};
    for (const auto& [name, value] : results.facts) report["system_info"][name] = value;
    for (const Suite& suite : results.columns) {
        report["test_suites"][suite.name]["decoders"][suite.decoder] = resultsOf(suite);
    }
    return report.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

static const bool kRegistered = registerReportKind({"json", jsonReport});

}  // namespace vxrun
