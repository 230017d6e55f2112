// junit: JUnit XML, as CI systems read it.
#include "Report.h"
#include "Text.h"
#include "Xml.h"

namespace vxrun {
namespace {

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
    const Counts counts = suite.counts();
    Attributes attributes = countsOf(name, counts);
    attributes.emplace_back("skipped", std::to_string(counts.skipped()));
    for (const auto& attribute : timeAndPlace()) attributes.push_back(attribute);
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
    return textOf(document);
}

const bool kRegistered = registerReportKind({"junit", junitReport});

}  // namespace
}  // namespace vxrun
