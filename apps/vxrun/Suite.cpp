#include "Suite.h"

#include "ChecksumList.h"
#include "Failure.h"
#include "Json.h"

#include <fnmatch.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>

namespace vxrun {
namespace {

std::string lowerCase(std::string text) {
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

// "H.264" and the like as libavcodec calls them.
std::string codecName(const std::string& codec) {
    static const std::map<std::string, std::string> names = {
        {"None", ""},      {"Dummy", ""},    {"MPEG2_VIDEO", "mpeg2video"}, {"H.264", "h264"},
        {"H.265", "hevc"}, {"H.266", "vvc"}, {"MPEG4_VIDEO", "mpeg4"}};
    const auto name = names.find(codec);
    return name != names.end() ? name->second : lowerCase(codec);
}

// SuiteReader: one walk over the document.
class SuiteReader {
public:
    explicit SuiteReader(const std::string& path) : mDocument(path, "suite") {}

    Suite read() {
        const JsonValue& root = mDocument.expectObject(
            mDocument.root(),
            {"name", "codec", "description", "test_vectors", "failing_test_vectors", "test_method",
             "negative_test", "test_vectors_success", "test_vectors_not_run",
             "test_vectors_not_supported", "time_taken"});
        mSuite.name = fileName(root, "name");
        mSuite.codec = codecName(mDocument.name(root, "codec"));
        text(root, "description", "");
        mDocument.items(root, "failing_test_vectors", JsonValue::ARRAY);
        mSuite.testMethod = text(root, "test_method", "md5");
        const std::set<std::string> methods = {"md5", "pixel", "sample"};
        if (methods.count(mSuite.testMethod) == 0) {
            mDocument.fail(*root.find("test_method"),
                           "expected md5, pixel or sample, got " + quote(mSuite.testMethod));
        }
        mSuite.negative =
            root.find("negative_test") != nullptr &&
            mDocument.member(root, "negative_test", JsonValue::BOOLEAN).text == "true";
        std::set<std::string> names;
        for (const auto& json : mDocument.member(root, "test_vectors", JsonValue::ARRAY).items) {
            readVector(json);
            const std::string& name = mSuite.vectors.back().name;
            if (names.insert(name).second) continue;
            mDocument.fail(*json.find("name"), "another vector is named " + quote(name));
        }
        return std::move(mSuite);
    }

private:
    void readVector(const JsonValue& json) {
        mDocument.expectObject(json, {"name", "source", "source_checksum", "input_file",
                                      "output_format", "result", "profile", "optional_params"});
        Vector& vector = mSuite.vectors.emplace_back();
        vector.name = fileName(json, "name");
        vector.inputFile = fileName(json, "input_file");
        vector.format = text(json, "output_format", "None");
        vector.profile = text(json, "profile", "");
        vector.md5 = lowerCase(text(json, "result", ""));
        if (mSuite.testMethod != "md5" || (mSuite.negative && vector.md5.empty())) return;
        const JsonValue& result = mDocument.member(json, "result", JsonValue::STRING);
        if (vector.md5.size() != 32 ||
            vector.md5.find_first_not_of("0123456789abcdef") != vector.md5.npos) {
            mDocument.fail(result, "expected an MD5, got " + quote(result.text));
        }
        if (vector.md5 == kMd5OfNothing) mDocument.fail(result, "the MD5 of no data");
    }

    std::string text(const JsonValue& object, const char* key, const char* preset) const {
        return object.find(key) == nullptr ? preset
                                           : mDocument.member(object, key, JsonValue::STRING).text;
    }

    // A name that becomes part of paths, none of which may lead out of the folder given for it.
    std::string fileName(const JsonValue& object, const std::string& key) const {
        const std::string& name = mDocument.name(object, key);
        const std::filesystem::path path = name;
        if (path.is_absolute() || std::find(path.begin(), path.end(), "..") != path.end()) {
            mDocument.fail(*object.find(key), "expected a name without '..', got " + quote(name));
        }
        return name;
    }

    const JsonDocument mDocument;
    Suite mSuite;
};

}  // namespace

void Sums::add(const Vector& vector) {
    size_t* const sums[] = {&notRun, &errors, &passed, &failed, &errors, &errors, &notSupported};
    ++*sums[vector.state];
    ++total;
    seconds += vector.seconds;
}

Sums Suite::sums() const {
    Sums sums;
    for (const Vector& vector : vectors) sums.add(vector);
    return sums;
}

Suite readSuite(const std::string& path) {
    return SuiteReader(path).read();
}

const char* stateName(Vector::State state) {
    static constexpr const char* kNames[] = {"Not run", "Error", "Success",      "Fail",
                                             "Timeout", "Error", "Not supported"};
    return kNames[state];
}

void filterVectors(Suite* suite, const std::string& filter) {
    if (filter.empty()) return;
    const auto isOut = [&](const Vector& vector) {
        const std::string full = suite->name + "." + vector.name;
        bool negative = false, wanted = filter.front() == '-';
        std::istringstream globs(filter);
        for (std::string glob; std::getline(globs, glob, ':');) {
            negative = negative || glob.rfind('-', 0) == 0;
            const char* const pattern = glob.c_str() + (glob.rfind('-', 0) == 0 ? 1 : 0);
            const bool matches = fnmatch(pattern, vector.name.c_str(), 0) == 0 ||
                                 fnmatch(pattern, full.c_str(), 0) == 0;
            if (matches) wanted = !negative;
        }
        return !wanted;
    };
    auto& vectors = suite->vectors;
    vectors.erase(std::remove_if(vectors.begin(), vectors.end(), isOut), vectors.end());
}

void shardVectors(Suite* suite, size_t index, size_t total) {
    std::vector<Vector> part;
    for (size_t i = index; i < suite->vectors.size(); i += total) {
        part.push_back(std::move(suite->vectors[i]));
    }
    suite->vectors = std::move(part);
}

}  // namespace vxrun
