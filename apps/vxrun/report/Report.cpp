#include "Suite.h"

#include "Files.h"
#include "Text.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <pugixml.hpp>

#include <algorithm>
#include <ctime>

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
    const auto forbidden = [](unsigned char c) { return c < ' ' && c != '\t' && c != '\n'; };
    clean.erase(std::remove_if(clean.begin(), clean.end(), forbidden), clean.end());
    for (const char* const bytes : {"\xEF\xBF\xBE", "\xEF\xBF\xBF"}) {
        for (size_t at; (at = clean.find(bytes)) != clean.npos;) clean.erase(at, 3);
    }
    return clean;
}

using Attributes = std::vector<std::pair<const char*, std::string>>;

pugi::xml_node add(pugi::xml_node parent, const char* kind, const Attributes& attributes) {
    pugi::xml_node node = parent.append_child(kind);
    for (const auto& [name, value] : attributes) {
        node.append_attribute(name) = xmlText(value).c_str();
    }
    return node;
}

void addCase(pugi::xml_node parent, const Suite& suite, const Vector& vector) {
    const std::string codec = suite.codec.empty() ? "" : "." + suite.codec;
    const std::string profile = vector.profile.empty() ? "" : "." + vector.profile;
    pugi::xml_node node = add(parent, "testcase",
                              {{"classname", suite.name + codec + profile},
                               {"name", vector.name},
                               {"time", decimal(vector.seconds, 3)}});
    if (vector.state == Vector::NOT_RUN || vector.state == Vector::NOT_SUPPORTED) {
        node.append_child("skipped");
    } else if (vector.state != Vector::SUCCESS) {
        add(node, vector.state == Vector::FAIL ? "failure" : "error",
            {{"type", vector.type}, {"message", vector.message}})
            .text() =
            xmlText(vector.message).c_str();  // some readers show this, some the attribute
    }
    if (vector.state != Vector::SUCCESS && !vector.log.empty()) {
        node.append_child("system-err").text() = xmlText(vector.log).c_str();
    }
}

std::string junitReport(const Suite& suite) {
    const Sums sums = suite.sums();
    Attributes attributes = {{"name", "vxrun"},
                             {"tests", std::to_string(sums.total)},
                             {"failures", std::to_string(sums.of[Vector::FAIL])},
                             {"errors", std::to_string(sums.errors())},
                             {"time", decimal(sums.seconds, 3)}};
    pugi::xml_document document;
    pugi::xml_node root = add(document, "testsuites", attributes);
    utsname system{};
    uname(&system);
    const time_t time = std::time(nullptr);
    std::tm now{};
    gmtime_r(&time, &now);
    attributes.front().second = suite.name;
    attributes.insert(attributes.end(),
                      {{"skipped", std::to_string(sums.skipped())},
                       {"timestamp", concat(std::put_time(&now, "%Y-%m-%dT%H:%M:%S"))},
                       {"hostname", system.nodename}});
    pugi::xml_node node = add(root, "testsuite", attributes);
    add(node.append_child("properties"), "property",
        {{"name", "decoder"}, {"value", decoderName(suite)}});
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
                {"passed", sums.of[Vector::SUCCESS]},
                {"not_run", sums.of[Vector::NOT_RUN]},
                {"not_supported", sums.of[Vector::NOT_SUPPORTED]},
                {"failed_error", sums.of[Vector::FAIL] + sums.errors()},
                {"total_time", sums.seconds},
                {"profile_stats", Json::object()},
                {"vectors", Json::object()}};
    // No name comes twice, and looking for one takes long in an object that keeps the order.
    auto& profiles = run["profile_stats"].get_ref<Json::object_t&>();
    for (const auto& [profile, part] : sumsByProfile(suite)) {
        profiles.push_back(
            {profile, Json{{"passed", part.of[Vector::SUCCESS]}, {"total", part.total}}});
    }
    auto& vectors = run["vectors"].get_ref<Json::object_t&>();
    for (const Vector& vector : suite.vectors) {
        Json entry = {{"result", stateName(vector.state)}, {"time", vector.seconds}};
        if (!vector.profile.empty()) entry["profile"] = vector.profile;
        vectors.push_back({vector.name, std::move(entry)});
    }
    Json report;
    report["system_info"] = {{"os", std::string(system.sysname) + " " + system.release},
                             {"cpu", system.machine},
                             {"gpu", Json::array()},
                             {"ram", sysconf(_SC_PHYS_PAGES) * sysconf(_SC_PAGE_SIZE)},
                             {"backends", Json::object()}};
    report["test_suites"][suite.name]["decoders"][decoderName(suite)] = std::move(run);
    return report.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

// Spreadsheets would run a field that begins like a formula; the quote in front has them show it.
std::string csvField(const std::string& name) {
    std::string text = (name.find_first_of("=+-@") == 0 ? "'" : "") + printable(name);
    if (text.find_first_of(",\"") == text.npos) return text;
    return concat(std::quoted(text, '"', '"'));
}

std::string csvReport(const Suite& suite) {
    std::string report = "Vector Name,Result,Time (s),Profile\n";
    for (const Vector& vector : suite.vectors) {
        report += concat(csvField(vector.name), ",", stateName(vector.state), ",",
                         decimal(vector.seconds, 3), ",", csvField(vector.profile), "\n");
    }
    return report;
}

// A row of a table; what would end the cell or the row, or become markup, is kept from it.
std::string markdownRow(const std::string& first, const std::string& second) {
    std::string row;
    for (const std::string* cell : {&first, &second}) {
        row += '|';
        for (const char c : printable(*cell)) {
            if (c == '|' || c == '<') row += '\\';
            row += c;
        }
    }
    return row + "|\n";
}

std::string markdownReport(const Suite& suite) {
    const std::string decoder = decoderName(suite);
    std::string vectors = markdownRow("Test", decoder) + "|-|-|\n", table;
    for (const Vector& vector : suite.vectors) {
        vectors += markdownRow(vector.name, stateName(vector.state));
    }
    const auto ratio = [](const Sums& part) {
        return concat(part.of[Vector::SUCCESS], "/", part.total);
    };
    const Sums sums = suite.sums();
    vectors += markdownRow("TOTAL", ratio(sums)) +
               markdownRow("TOTAL TIME", decimal(sums.seconds, 3) + "s");
    for (const auto& [profile, part] : sumsByProfile(suite)) {
        if (table.empty()) table = "\n" + markdownRow("Profile", decoder) + "|-|-|\n";
        table += markdownRow(profile, ratio(part));
    }
    return vectors + table;
}

}  // namespace

Reports makeReports() {
    return {{"junit", {junitReport, ""}},
            {"json", {jsonReport, ""}},
            {"csv", {csvReport, ""}},
            {"markdown", {markdownReport, ""}}};
}

std::vector<Failure> writeReports(const Reports& reports, const Suite& suite) {
    std::vector<Failure> failures;
    for (const auto& [kind, report] : reports) {
        try {
            if (!report.file.empty()) {
                writeTextFile("--" + kind, report.file, report.textOf(suite));
            }
        } catch (const Failure& failure) {
            failures.push_back(failure);
        }
    }
    return failures;
}

std::string profileTable(const Suite& suite) {
    std::vector<std::pair<std::string, Sums>> rows;
    for (const auto& [profile, sums] : sumsByProfile(suite)) {
        rows.emplace_back(profile.empty() ? "-" : printable(profile), sums);
    }
    rows.emplace_back("all", suite.sums());
    size_t width = 7;  // of "profile"
    for (const auto& row : rows) width = std::max(width, row.first.size());
    std::ostringstream table;
    table << "profile" << std::string(width - 7, ' ')
          << "     total    passed    failed    errors   skipped   seconds\n";
    for (const auto& [name, sums] : rows) {
        table << name << std::string(width - name.size(), ' ');
        for (const size_t sum : {sums.total, sums.of[Vector::SUCCESS], sums.of[Vector::FAIL],
                                 sums.errors(), sums.skipped()}) {
            table << std::setw(10) << sum;
        }
        table << std::setw(10) << decimal(sums.seconds, 1) << "\n";
    }
    return table.str();
}

}  // namespace vxrun
