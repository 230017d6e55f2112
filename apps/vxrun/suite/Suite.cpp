#include "Suite.h"

#include "Json.h"
#include "Text.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <set>

namespace vxrun {
namespace {

// libavcodec's names for "H.264" and the like.
std::string codecName(const std::string& codec) {
    static const std::map<std::string, std::string> names = {
        {"None", ""},      {"Dummy", ""},    {"MPEG2_VIDEO", "mpeg2video"}, {"H.264", "h264"},
        {"H.265", "hevc"}, {"H.266", "vvc"}, {"MPEG4_VIDEO", "mpeg4"}};
    const auto name = names.find(codec);
    return name != names.end() ? name->second : lowerCase(codec);
}

std::string textOf(const JsonDocument& document, const JsonValue& object, const char* key,
                   const char* preset = "") {
    return object.find(key) == nullptr ? preset
                                       : document.member(object, key, JsonValue::STRING).text;
}

// A name that becomes part of paths, none of which may lead out of the folder given for it, or end
// early.
std::string fileName(const JsonDocument& document, const JsonValue& object, const char* key) {
    const std::filesystem::path path = document.name(object, key);
    if (path.is_absolute() || std::find(path.begin(), path.end(), "..") != path.end() ||
        path.native().find('\0') != std::string::npos) {
        document.fail(*object.find(key), "expected a name without '..' or NUL, got " + quote(path));
    }
    return path;
}

// All of `vector` but its name.
void readVector(const JsonDocument& document, const JsonValue& json, const Suite& suite,
                bool acceptsNone, TestVector* vector) {
    document.expectObject(json, {"name", "source", "source_checksum", "input_file", "output_format",
                                 "result", "profile", "optional_params", "frames"});
    vector->inputFile = fileName(document, json, "input_file");
    vector->format = textOf(document, json, "output_format", "None");
    vector->profile = textOf(document, json, "profile");
    if (json.find("frames") != nullptr) vector->frames = fileName(document, json, "frames");
    vector->md5 = lowerCase(textOf(document, json, "result"));
    const bool mayBeEmpty = suite.negative || acceptsNone;
    if (suite.testMethod != "md5" || (mayBeEmpty && vector->md5.empty())) return;
    const JsonValue& result = document.member(json, "result", JsonValue::STRING);
    if (vector->md5.size() != 32 ||
        vector->md5.find_first_not_of("0123456789abcdef") != std::string::npos) {
        document.fail(result, "expected an MD5, got " + quote(result.text));
    }
    // Any decoder without output would pass.
    constexpr char kMd5OfNothing[] = "d41d8cd98f00b204e9800998ecf8427e";
    if (vector->md5 == kMd5OfNothing) document.fail(result, "the MD5 of no data");
}

std::vector<TestVector> readVectors(const JsonDocument& document, const JsonValue& root,
                                    const Suite& suite, bool acceptsNone) {
    std::vector<TestVector> vectors;
    std::set<std::string> names;
    const auto& items = document.member(root, "test_vectors", JsonValue::ARRAY).items;
    for (const JsonValue& json : items) {
        TestVector& vector = vectors.emplace_back();
        try {
            document.expect(json, JsonValue::OBJECT);
            const std::string name = fileName(document, json, "name");
            if (!names.insert(name).second) {
                document.fail(*json.find("name"), "another vector is named " + quote(name));
            }
            vector.name = name;
            readVector(document, json, suite, acceptsNone, &vector);
        } catch (const Failure& failure) {
            vector.state = TestVector::ERROR;
            vector.type = verdictName(Verdict::CorruptDescription);
            vector.message = failure.what();
        }
    }
    for (size_t i = 0; i < items.size(); ++i) {
        std::string& name = vectors[i].name;
        if (!name.empty()) continue;
        for (name = items[i].where; !names.insert(name).second;) name += "'";
    }
    return vectors;
}

}  // namespace

Suite readSuite(const std::string& path, bool acceptsNone) {
    const JsonDocument document(path, "suite", kMaxSuiteFile);
    const JsonValue& root = document.expectObject(
        document.root(), {"name", "codec", "description", "test_vectors", "failing_test_vectors",
                          "test_method", "negative_test", "test_vectors_success",
                          "test_vectors_not_run", "test_vectors_not_supported", "time_taken"});
    Suite suite;
    suite.name = fileName(document, root, "name");
    suite.codec = codecName(document.name(root, "codec"));
    textOf(document, root, "description");
    document.items(root, "failing_test_vectors", JsonValue::ARRAY);
    suite.testMethod = textOf(document, root, "test_method", "md5");
    const std::set<std::string> methods = {"md5", "pixel", "sample"};
    if (methods.count(suite.testMethod) == 0) {
        document.fail(*root.find("test_method"),
                      "expected md5, pixel or sample, got " + quote(suite.testMethod));
    }
    suite.negative = root.find("negative_test") != nullptr &&
                     document.member(root, "negative_test", JsonValue::BOOLEAN).text == "true";
    suite.vectors = readVectors(document, root, suite, acceptsNone);
    return suite;
}

void Counts::add(const TestVector& vector) {
    ++of[vector.state];
    ++total;
    seconds += vector.seconds;
}

void Counts::add(const Counts& counts) {
    for (size_t i = 0; i < TestVector::STATES; ++i) of[i] += counts.of[i];
    total += counts.total;
    seconds += counts.seconds;
}

Counts Suite::counts() const {
    Counts counts;
    for (const TestVector& vector : vectors) counts.add(vector);
    return counts;
}

const char* stateName(TestVector::State state) {
    static constexpr const char* kNames[] = {"Not run", "Success", "Fail",
                                             "Timeout", "Error",   "Not supported"};
    return kNames[state];
}

}  // namespace vxrun
