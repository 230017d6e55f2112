// junit: JUnit XML, as CI systems read it.
#include "Report.h"
#include "Text.h"

#include <sys/utsname.h>

#include <nlohmann/json.hpp>
#include <pugixml.hpp>

#include <algorithm>
#include <ctime>

namespace vxrun {
namespace {

// `text` without what XML 1.0 forbids, which codecs' logs contain: bytes that are not UTF-8,
// control characters, U+FFFE and U+FFFF.
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

pugi::xml_node addNode(pugi::xml_node parent, const char* kind, const Attributes& attributes) {
    pugi::xml_node node = parent.append_child(kind);
    for (const auto& [name, value] : attributes) {
        node.append_attribute(name) = xmlText(value).c_str();
    }
    return node;
}

// `name`: of the suite.
void addCase(pugi::xml_node parent, const std::string& name, const Suite& suite,
             const TestVector& vector) {
    const std::string codec = suite.codec.empty() ? "" : "." + suite.codec;
    const std::string profile = vector.profile.empty() ? "" : "." + vector.profile;
    pugi::xml_node node = addNode(parent, "testcase",
                                  {{"classname", name + codec + profile},
                                   {"name", vector.name},
                                   {"time", decimal(vector.seconds, 3)}});
    if (vector.state == TestVector::NOT_RUN || vector.state == TestVector::NOT_SUPPORTED) {
        node.append_child("skipped");
    } else if (vector.state != TestVector::SUCCESS) {
        addNode(node, vector.state == TestVector::FAIL ? "failure" : "error",
                {{"type", vector.type}, {"message", vector.message}})
            .text() =
            xmlText(vector.message).c_str();  // some readers show this, some the attribute
    }
    if (vector.state != TestVector::SUCCESS && !vector.log.empty()) {
        node.append_child("system-err").text() = xmlText(vector.log).c_str();
    }
}

Attributes countsOf(const std::string& name, const Counts& counts) {
    return {{"name", name},
            {"tests", std::to_string(counts.total)},
            {"failures", std::to_string(counts.of[TestVector::FAIL])},
            {"errors", std::to_string(counts.errors())},
            {"time", decimal(counts.seconds, 3)}};
}

void addSuite(pugi::xml_node root, const std::string& name, const Suite& suite,
              const SuiteResults& results) {
    utsname system{};
    uname(&system);
    const time_t time = std::time(nullptr);
    std::tm now{};
    gmtime_r(&time, &now);
    const Counts counts = suite.counts();
    Attributes attributes = countsOf(name, counts);
    attributes.insert(attributes.end(),
                      {{"skipped", std::to_string(counts.skipped())},
                       {"timestamp", concat(std::put_time(&now, "%Y-%m-%dT%H:%M:%S"))},
                       {"hostname", system.nodename}});
    pugi::xml_node node = addNode(root, "testsuite", attributes);
    pugi::xml_node properties = node.append_child("properties");
    const auto addProperty = [&](const std::string& property, const std::string& value) {
        addNode(properties, "property", {{"name", property}, {"value", value}});
    };
    addProperty("decoder", suite.decoder);
    if (!suite.decoderVersion.empty()) addProperty("decoder_version", suite.decoderVersion);
    for (const auto& [fact, value] : results.facts) addProperty(fact, value);
    for (const TestVector& vector : suite.vectors) addCase(node, name, suite, vector);
}

std::string junitReport(const SuiteResults& results) {
    Counts all;
    for (const Suite& suite : results.columns) all.add(suite.counts());
    pugi::xml_document document;
    const pugi::xml_node root = addNode(document, "testsuites", countsOf("vxrun", all));
    // Readers drop a second test of the same name.
    for (const Suite& suite : results.columns) {
        const bool isOne = results.columns.size() == 1;
        addSuite(root, suite.name + (isOne ? "" : "." + suite.decoder), suite, results);
    }
    // Not through a stream: pugixml was built for one standard library, and this may use another.
    struct Writer final : pugi::xml_writer {
        void write(const void* data, size_t size) override {
            text.append(static_cast<const char*>(data), size);
        }
        std::string text;
    } writer;
    document.save(writer, "  ", pugi::format_indent, pugi::encoding_utf8);
    return writer.text;
}

const bool kRegistered = registerReportKind({"junit", junitReport});

}  // namespace
}  // namespace vxrun
