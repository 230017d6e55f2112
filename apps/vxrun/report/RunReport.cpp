#include "RunReport.h"

#include "Console.h"
#include "Files.h"
#include "HtmlReport.h"
#include "Measured.h"
#include "Text.h"
#include "Xml.h"

#include <nlohmann/json.hpp>

namespace vxrun {
namespace {

using Json = nlohmann::ordered_json;

double milliseconds(Histogram::Time time) {
    return std::chrono::duration<double, std::milli>(time).count();
}

double seconds(NodeTimes::Time time) {
    return std::chrono::duration<double>(time).count();
}

Json latencyOf(const Histogram& latency) {
    return {{"frames", latency.count()},
            {"p50", milliseconds(latency.percentile(50))},
            {"p90", milliseconds(latency.percentile(90))},
            {"p99", milliseconds(latency.percentile(99))},
            {"max", milliseconds(latency.largest())}};
}

Json processJson() {
    const ProcessUse use = processUse();
    return {{"cpu_seconds", use.seconds},
            {"peak_rss_bytes", use.peak},
            {"commands_cpu_seconds", use.commandsSeconds},
            {"commands_peak_rss_bytes", use.commandsPeak}};
}

Json nodeJson(const NodeRecord& node) {
    const NodeTimes& times = node.times;
    return {{"name", node.name},
            {"type", node.type},
            {"frames", node.frames.load()},
            {"busy_seconds", seconds(times.spentIn(NodeTimes::BUSY))},
            {"waiting_seconds",
             {{"input", seconds(times.spentIn(NodeTimes::WAITS_FOR_INPUT))},
              {"room", seconds(times.spentIn(NodeTimes::WAITS_FOR_ROOM))},
              {"buffer", seconds(times.spentIn(NodeTimes::WAITS_FOR_BUFFER))}}},
            {"cpu_seconds", seconds(times.processor())},
            {"queue_high_water", times.queueHighWater()},
            {"figures", Json(node.figures())}};
}

Json poolJson(const PoolRecord& pool) {
    return {{"node", pool.name},
            {"slots", pool.slots},
            {"made", pool.made.load()},
            {"recycled", pool.recycled.load()},
            {"high_water", pool.highWater.load()},
            {"left_out", pool.out.load()},
            {"copied", pool.copied.load()}};
}

// The member "run" of the JSON, which JUnit takes its figures from, too.
Json runJson(const RunReport& report, const Evidence& evidence, bool hasEnded) {
    const auto totals = evidence.totals();
    Json run = {{"graph", report.graph}};
    run["verdict"] = hasEnded ? verdictName(evidence.verdict()) : "DID_NOT_FINISH";
    if (hasEnded) run["exit_code"] = exitCode(evidence.verdict());
    run["error"] = console::firstError();
    run["frames"] = totals.frames;
    run["checked"] = totals.checked;
    run["mismatches"] = totals.mismatches;
    const bool isBad = totals.firstBad != NodeRecord::kNone;
    run["first_bad"] = isBad ? Json(totals.firstBad) : Json();
    if (!evidence.streamMd5().empty()) run["md5"] = evidence.streamMd5();
    run["seconds"] = evidence.seconds();
    run["frames_per_second"] = evidence.framesPerSecond();
    if (evidence.latency().count() > 0) run["latency_ms"] = latencyOf(evidence.latency());
    run["process"] = processJson();
    if (hasEnded && !report.trace.empty()) run["trace"] = report.trace;
    for (const char* const list : {"nodes", "connections", "pools", "limits"})
        run[list] = Json::array();
    for (const NodeRecord* node : evidence.records()) run["nodes"].push_back(nodeJson(*node));
    for (const auto& [from, to] : report.connections) {
        run["connections"].push_back({{"from", from}, {"to", to}});
    }
    for (const PoolRecord* pool : evidence.pools()) run["pools"].push_back(poolJson(*pool));
    for (const LimitCheck& check : checkLimits(report.limits, evidence)) {
        Json limit = {{"name", check.kind.name}, {"limit", check.limit}};
        if (check.value) limit["value"] = *check.value;
        limit["met"] = check.isMet;
        run["limits"].push_back(limit);
    }
    if (!report.failure.empty()) run["failure"] = Json::parse(report.failure);
    return run;
}

std::string jsonText(const RunReport& report, const Json& run) {
    Json document;
    for (const auto& [name, value] : report.facts) document["system_info"][name] = value;
    document["run"] = run;
    return document.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string junitText(const RunReport& report, const Json& run) {
    const int code = run.value("exit_code", -1);
    const bool isFailure = code == exitCode(Verdict::Fail), isError = code != 0 && !isFailure;
    const std::string time = decimal(run["seconds"], 3), verdict = run["verdict"],
                      error = run["error"];
    const Attributes counts = {{"name", "vxrun"},
                               {"tests", "1"},
                               {"failures", isFailure ? "1" : "0"},
                               {"errors", isError ? "1" : "0"},
                               {"time", time}};
    pugi::xml_document document;
    const pugi::xml_node root = addNode(document, "testsuites", counts);
    Attributes attributes = counts;
    attributes.front().second = report.graph;
    attributes.emplace_back("skipped", "0");
    for (const auto& attribute : timeAndPlace()) attributes.push_back(attribute);
    const pugi::xml_node suite = addNode(root, "testsuite", attributes);
    pugi::xml_node properties = addNode(suite, "properties", {});
    const auto addProperty = [&](const std::string& name, const std::string& value) {
        addNode(properties, "property", {{"name", name}, {"value", value}});
    };
    for (const auto& [fact, value] : report.facts) addProperty(fact, value);
    const auto addFigures = [&](const std::string& group, const Json& figures) {
        for (const auto& [name, value] : figures.items()) addProperty(group + name, value.dump());
    };
    for (const char* const name : {"frames", "checked", "frames_per_second"}) {
        addProperty(name, run[name].dump());
    }
    if (run.contains("latency_ms")) addFigures("latency_ms.", run["latency_ms"]);
    addFigures("", run["process"]);
    for (const Json& node : run["nodes"]) {
        addFigures(node["name"].get<std::string>() + ".", node["figures"]);
    }
    pugi::xml_node test = addNode(
        suite, "testcase", {{"classname", report.graph}, {"name", report.input}, {"time", time}});
    if (code != 0) {
        addNode(test, isFailure ? "failure" : "error", {{"type", verdict}, {"message", error}});
    }
    if (!error.empty()) addNode(test, "system-err", {}).text() = xmlText(error).c_str();
    return textOf(document);
}

}  // namespace

std::vector<Failure> writeRunReports(const RunReport& report, const Evidence& evidence,
                                     bool hasEnded) {
    const Json run = runJson(report, evidence, hasEnded);
    std::vector<Failure> failures;
    for (const auto& [kind, file] : report.files) {
        if (file.empty()) continue;
        try {
            writeTextFile("--" + kind, file,
                          kind == "junit"  ? junitText(report, run)
                          : kind == "json" ? jsonText(report, run)
                                           : htmlReport({{"", jsonText(report, run)}}));
        } catch (const Failure& failure) {
            failures.push_back(failure);
        }
    }
    return failures;
}

}  // namespace vxrun
