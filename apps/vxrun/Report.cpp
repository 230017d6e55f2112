#include "Report.h"

#include "Failure.h"
#include "Files.h"
#include "Text.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <pugixml.hpp>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <iomanip>
#include <map>
#include <sstream>

namespace vxrun {
namespace {

// Vectors without a profile are left out where none has one.
std::map<std::string, Sums> sumsByProfile(const Suite& suite) {
    std::map<std::string, Sums> profiles;
    for (const Vector& vector : suite.vectors) profiles[vector.profile].add(vector);
    if (profiles.size() == 1 && profiles.begin()->first.empty()) profiles.clear();
    return profiles;
}

std::string decoderName(const Suite& suite) {
    return "libavcodec" + (suite.codec.empty() ? "" : "-" + suite.codec);
}

// ---- JUnit ------------------------------------------------------------------------------------

// `text` without what XML 1.0 forbids, which codecs' logs contain: bytes that are no UTF-8, control
// characters, U+FFFE and U+FFFF.
std::string xmlText(const std::string& text) {
    using nlohmann::json;
    const std::string quoted = json(text).dump(-1, ' ', false, json::error_handler_t::ignore);
    std::string clean = json::parse(quoted).get<std::string>();
    const auto forbidden = [](const char c) {
        return static_cast<unsigned char>(c) < ' ' && c != '\t' && c != '\n' && c != '\r';
    };
    clean.erase(std::remove_if(clean.begin(), clean.end(), forbidden), clean.end());
    for (const char* const bytes : {"\xEF\xBF\xBE", "\xEF\xBF\xBF"}) {
        for (size_t at; (at = clean.find(bytes)) != clean.npos;) clean.erase(at, 3);
    }
    return clean;
}

std::string now() {
    const time_t time = std::time(nullptr);
    std::tm parts{};
    gmtime_r(&time, &parts);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
    return text;
}

void set(pugi::xml_node node, const char* attribute, const std::string& value) {
    node.append_attribute(attribute) = xmlText(value).c_str();
}

pugi::xml_node addSuite(pugi::xml_node parent, const char* kind, const std::string& name,
                        const Sums& sums) {
    pugi::xml_node node = parent.append_child(kind);
    set(node, "name", name);
    set(node, "tests", std::to_string(sums.total));
    set(node, "failures", std::to_string(sums.failed));
    set(node, "errors", std::to_string(sums.errors));
    set(node, "time", decimal(sums.seconds, 3));
    return node;
}

void addCase(pugi::xml_node parent, const Suite& suite, const Vector& vector) {
    pugi::xml_node node = parent.append_child("testcase");
    const std::string codec = suite.codec.empty() ? "" : "." + suite.codec;
    set(node, "classname",
        suite.name + codec + (vector.profile.empty() ? "" : "." + vector.profile));
    set(node, "name", vector.name);
    set(node, "time", decimal(vector.seconds, 3));
    if (vector.state == Vector::SUCCESS) return;
    if (vector.state == Vector::NOT_RUN || vector.state == Vector::NOT_SUPPORTED) {
        node.append_child("skipped");
    } else {
        const bool isRunning = vector.state == Vector::RUNNING;
        const std::string message = isRunning ? "did not finish" : vector.message;
        pugi::xml_node bad = node.append_child(vector.state == Vector::FAIL ? "failure" : "error");
        set(bad, "type", isRunning ? "DID_NOT_FINISH" : vector.type);
        set(bad, "message", message);
        bad.text() = xmlText(message).c_str();  // some readers show this, some the attribute
    }
    if (!vector.log.empty()) node.append_child("system-err").text() = xmlText(vector.log).c_str();
}

std::string junitReport(const Suite& suite) {
    pugi::xml_document document;
    pugi::xml_node declaration = document.append_child(pugi::node_declaration);
    set(declaration, "version", "1.0");
    set(declaration, "encoding", "UTF-8");
    const Sums sums = suite.sums();
    pugi::xml_node root = addSuite(document, "testsuites", "vxrun", sums);
    pugi::xml_node node = addSuite(root, "testsuite", suite.name, sums);
    set(node, "skipped", std::to_string(sums.skipped()));
    set(node, "timestamp", now());
    char host[256] = "";
    gethostname(host, sizeof host - 1);
    set(node, "hostname", host);
    pugi::xml_node property = node.append_child("properties").append_child("property");
    set(property, "name", "decoder");
    set(property, "value", decoderName(suite));
    for (const Vector& vector : suite.vectors) addCase(node, suite, vector);
    // Not through a stream, whose class is a matter of the standard library in use.
    struct Writer final : pugi::xml_writer {
        void write(const void* data, size_t size) override {
            text.append(static_cast<const char*>(data), size);
        }
        std::string text;
    } writer;
    document.save(writer, "  ", pugi::format_indent, pugi::encoding_utf8);
    return writer.text;
}

// ---- JSON, CSV, Markdown ----------------------------------------------------------------------

std::string jsonReport(const Suite& suite) {
    using Json = nlohmann::ordered_json;
    utsname system{};
    uname(&system);
    const Sums sums = suite.sums();
    Json run = {{"decoder_name", decoderName(suite)},
                {"total_tests", sums.total},
                {"passed", sums.passed},
                {"not_run", sums.notRun},
                {"not_supported", sums.notSupported},
                {"failed_error", sums.failed + sums.errors},
                {"total_time", sums.seconds},
                {"profile_stats", Json::object()},
                {"vectors", Json::object()}};
    for (const auto& [profile, part] : sumsByProfile(suite)) {
        run["profile_stats"][profile] = {{"passed", part.passed}, {"total", part.total}};
    }
    for (const Vector& vector : suite.vectors) {
        Json& entry = run["vectors"][vector.name];
        entry = {{"result", stateName(vector.state)}, {"time", vector.seconds}};
        if (!vector.profile.empty()) entry["profile"] = vector.profile;
    }
    Json report;
    report["system_info"] = {{"os", std::string(system.sysname) + " " + system.release},
                             {"cpu", system.machine},
                             {"gpu", Json::array()},
                             {"ram", sysconf(_SC_PHYS_PAGES) * sysconf(_SC_PAGE_SIZE)},
                             {"backends", Json::object()}};
    report["test_suites"][suite.name]["decoders"][decoderName(suite)] = run;
    return report.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string csvField(std::string text) {
    if (text.find_first_of(",\"\r\n") == text.npos) return text;
    for (size_t at = 0; (at = text.find('"', at)) != text.npos; at += 2) text.insert(at, 1, '"');
    return '"' + text + '"';
}

std::string csvReport(const Suite& suite) {
    std::string report = "Vector Name,Result,Time (s),Profile\n";
    for (const Vector& vector : suite.vectors) {
        report += csvField(vector.name) + "," + stateName(vector.state) + "," +
                  decimal(vector.seconds, 3) + "," + csvField(vector.profile) + "\n";
    }
    return report;
}

// A row of a table; what would end the cell or the row is kept from it.
std::string markdownRow(const std::string& first, const std::string& second) {
    std::string row;
    for (const std::string* cell : {&first, &second}) {
        row += '|';
        for (const char c : *cell) row += c == '|' ? "\\|" : c == '\n' ? " " : std::string(1, c);
    }
    return row + "|\n";
}

std::string markdownReport(const Suite& suite) {
    const Sums sums = suite.sums();
    const auto ratio = [](const Sums& part) {
        return std::to_string(part.passed) + "/" + std::to_string(part.total);
    };
    std::string report = markdownRow("Test", decoderName(suite)) + "|-|-|\n";
    for (const Vector& vector : suite.vectors) {
        report += markdownRow(vector.name, stateName(vector.state));
    }
    report +=
        markdownRow("TOTAL", ratio(sums)) + markdownRow("TOTAL TIME", decimal(sums.seconds, 3) + "s");
    const auto profiles = sumsByProfile(suite);
    if (profiles.empty()) return report;
    report += "\n" + markdownRow("Profile", decoderName(suite)) + "|-|-|\n";
    for (const auto& [profile, part] : profiles) report += markdownRow(profile, ratio(part));
    return report;
}

void write(const std::string& path, const std::string& text) {
    try {
        OutputFile file(path);
        file.write(text);
        file.commit();
    } catch (const Failure& failure) {
        throw Failure(failure.what(), "BAD_OPTION");
    }
}

}  // namespace

void writeReports(const ReportFiles& files, const Suite& suite) {
    if (!files.junit.empty()) write(files.junit, junitReport(suite));
    if (!files.json.empty()) write(files.json, jsonReport(suite));
    if (!files.csv.empty()) write(files.csv, csvReport(suite));
    if (!files.markdown.empty()) write(files.markdown, markdownReport(suite));
}

std::string profileTable(const Suite& suite) {
    const auto profiles = sumsByProfile(suite);
    size_t width = 7;  // of "profile"
    for (const auto& row : profiles) width = std::max(width, row.first.size());
    std::ostringstream table;
    const auto add = [&](const std::string& name, const Sums& sums) {
        table << std::left << std::setw(static_cast<int>(width)) << (name.empty() ? "-" : name)
              << std::right;
        for (const size_t sum :
             {sums.total, sums.passed, sums.failed, sums.errors, sums.skipped()}) {
            table << std::setw(10) << sum;
        }
        table << std::setw(10) << decimal(sums.seconds, 1) << "\n";
    };
    table << "profile" << std::string(width - 7, ' ')
          << "     total    passed    failed    errors   skipped   seconds\n";
    for (const auto& [profile, sums] : profiles) add(profile, sums);
    add("all", suite.sums());
    return table.str();
}

}  // namespace vxrun
