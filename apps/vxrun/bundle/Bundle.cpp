#include "Bundle.h"

#include "Files.h"
#include "GraphFile.h"
#include "Json.h"
#include "Text.h"

#include <openssl/evp.h>
#include <vxkit/NodeLibrary.h>
#include <vxkit/NodeType.h>

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>

namespace vxrun {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

constexpr uint64_t kVersion = 1;
constexpr char kManifest[] = "bundle.json", kReadme[] = "README.md", kGraph[] = "graph.json";
constexpr size_t kMaxManifest = 4 << 20;  // bytes

// Sha256: of all bytes that were added.
class Sha256 {
public:
    Sha256() { EVP_DigestInit_ex(mState.get(), EVP_sha256(), nullptr); }
    void add(const char* data, size_t size) { EVP_DigestUpdate(mState.get(), data, size); }
    std::string hex() {
        unsigned char digest[32];
        EVP_DigestFinal_ex(mState.get(), digest, nullptr);
        std::ostringstream text;
        for (const unsigned byte : digest) {
            text << std::hex << std::setw(2) << std::setfill('0') << byte;
        }
        return text.str();
    }

private:
    const std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> mState{EVP_MD_CTX_new(),
                                                                    EVP_MD_CTX_free};
};

// The size and SHA-256 of the file `path`.
std::pair<uint64_t, std::string> measure(const std::string& path, const Check& check) {
    std::vector<char> piece(256 << 10);
    InputFile file(path);
    Sha256 sum;
    while (const size_t size = file.read(piece.data(), piece.size())) {
        check();
        sum.add(piece.data(), size);
    }
    return {file.offset(), sum.hex()};
}

// A name that every system can have a file of.
std::string plainName(std::string name) {
    for (char& c : name) {
        if (std::isalnum(static_cast<unsigned char>(c)) == 0 && c != '.' && c != '-') c = '_';
    }
    return name.empty() || name[0] == '.' ? "_" + name : name;
}

// Whether a file of that name stays in the folder that it is unpacked into.
bool staysInside(const std::string& name) {
    constexpr size_t kMost = 1000;
    if (name.empty() || name.size() > kMost || printable(name) != name) return false;
    std::istringstream parts(name + "/");
    for (std::string part; std::getline(parts, part, '/');) {
        if (part.empty() || part == "." || part == "..") return false;
    }
    return true;
}

// Those that change what a run does. Never all of them: some hold secrets.
Facts variables() {
    Facts found;
    for (char** variable = environ; *variable != nullptr; ++variable) {
        const std::string text = *variable, name = text.substr(0, text.find('='));
        for (const char* const prefix : {"VXRUN_", "VX_", "VENDOR_", "GTEST_"}) {
            if (name.rfind(prefix, 0) != 0 || name.size() == text.size()) continue;
            found.emplace_back(name, text.substr(name.size() + 1));
        }
    }
    std::sort(found.begin(), found.end());
    return found;
}

Json jsonOf(const Facts& facts) {
    Json json = Json::object();
    for (const auto& [name, value] : facts) json[name] = value;
    return json;
}

Json jsonOf(const FailedRun& run) {
    return {{"name", run.name},
            {"folder", run.folder},
            {"type", run.signature.type},
            {"kind", run.signature.kind},
            {"shape", run.signature.shape},
            {"message", run.message},
            {"timeout", run.options.timeout},
            {"stall", run.options.stall},
            {"limits", run.options.limits},
            {"environment", run.environment},
            {"md5", run.md5},
            {"negative", run.isNegative}};
}

Json jsonOf(const BundledFile& file) {
    Json json = {{"name", file.name}, {"size", file.size}, {"sha256", file.sha256}};
    if (!file.origin.empty()) json["origin"] = file.origin;
    if (!file.isHere) json["included"] = false;
    return json;
}

std::string textOf(const Json& json) {
    return json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string manifestOf(const Bundle& bundle) {
    Json json = {{"bundle_version", kVersion},
                 {"system_info", jsonOf(bundle.facts)},
                 {"environment", jsonOf(bundle.variables)},
                 {"node_libraries", jsonOf(bundle.libraries)}};
    for (const char* const list : {"runs", "files"}) json[list] = Json::array();
    for (const FailedRun& run : bundle.runs) json["runs"].push_back(jsonOf(run));
    for (const BundledFile& file : bundle.files) json["files"].push_back(jsonOf(file));
    return textOf(json);
}

std::string readmeOf(const Bundle& bundle, const std::string& name) {
    std::string text = "# What failed\n\n";
    for (const FailedRun& run : bundle.runs) {
        text += concat("- `", run.folder, "/`: ", run.name, ": ", run.signature.text(),
                       run.message.empty() ? "" : "\n  ", run.message, "\n");
    }
    text += "\n# To run it again\n\n    vxrun replay " + name;
    for (const auto& library : bundle.libraries) text += " --nodes PATH/" + library.first;
    const bool refers = std::any_of(bundle.files.begin(), bundle.files.end(),
                                    [](const BundledFile& file) { return !file.isHere; });
    if (refers) text += " --resources FOLDER";
    text += "\n\nIt tells whether each run still fails in the same way.";
    if (!bundle.libraries.empty()) {
        text += " Node libraries and programs are not in the bundle: they are others' code.";
    }
    if (refers) {
        text += "\n\nFOLDER has the files that the runs read, which are not in the bundle:\n\n";
        for (const BundledFile& file : bundle.files) {
            if (file.isHere) continue;
            text += concat("- ", file.name, ": ", file.origin, ", ", file.size, " bytes, SHA-256 ",
                           file.sha256, "\n");
        }
    }
    text +=
        "\n\n# What is in it\n\n"
        "| file | content |\n|---|---|\n"
        "| `bundle.json` | the runs, and the size and SHA-256 of every file |\n"
        "| `N/graph.json` | the graph as it ran, with all options |\n"
        "| `N/input/` | the files that it read |\n"
        "| `N/log.txt` | standard error |\n"
        "| `N/report.json`, `N/failure.json` | the run's report; of a test vector its failure |\n"
        "| `N/frames/` | the first wrong frames |\n"
        "| `N/snapshots/` | the graph at the start and at the end |\n"
        "| `N/trace.json` | a trace for trace viewers |\n\n"
        "# Where it ran\n\n";
    for (const Facts* facts : {&bundle.facts, &bundle.variables, &bundle.libraries}) {
        for (const auto& [fact, value] : *facts) text += concat("- ", fact, ": ", value, "\n");
    }
    return text;
}

// The manifest at `path`. Members that it does not know are those of a later version.
Bundle readManifest(const std::string& path) {
    const JsonDocument document(path, "bundle", kMaxManifest);
    const JsonValue& root = document.expect(document.root(), JsonValue::OBJECT);
    const auto number = [&](const JsonValue& object, const char* key, uint64_t most) {
        const JsonValue& value = document.member(object, key, JsonValue::NUMBER);
        try {
            return parseNumber(value.text, 0, most);
        } catch (const Failure& failure) {
            document.fail(value, failure.what());
        }
    };
    const auto real = [&](const JsonValue& value) {
        try {
            return parseReal(document.expect(value, JsonValue::NUMBER).text, 0, 1e18);
        } catch (const Failure& failure) {
            document.fail(value, failure.what());
        }
    };
    const auto text = [&](const JsonValue& object, const char* key) {
        return document.member(object, key, JsonValue::STRING).text;
    };
    const auto facts = [&](const char* key) {
        Facts found;
        for (const JsonValue& item : document.items(root, key, JsonValue::OBJECT)) {
            found.emplace_back(item.key, document.expect(item, JsonValue::STRING).text);
        }
        return found;
    };
    if (number(root, "bundle_version", UINT64_MAX) != kVersion) {
        document.fail(*root.find("bundle_version"),
                      "the bundle of another version of vxrun; this one reads version 1");
    }
    Bundle bundle = {facts("system_info"), facts("environment"), facts("node_libraries"), {}, {}};
    for (const JsonValue& item : document.items(root, "runs", JsonValue::ARRAY)) {
        document.expect(item, JsonValue::OBJECT);
        FailedRun run = {text(item, "name"),
                         text(item, "folder"),
                         {text(item, "type"), text(item, "kind"), text(item, "shape")},
                         text(item, "message"),
                         {},
                         document.strings(document.member(item, "environment", JsonValue::ARRAY)),
                         text(item, "md5"),
                         document.member(item, "negative", JsonValue::BOOLEAN).text == "true"};
        if (!staysInside(run.folder)) document.fail(item, "bad folder " + quote(run.folder));
        run.options.timeout = real(document.member(item, "timeout", JsonValue::NUMBER));
        run.options.stall = real(document.member(item, "stall", JsonValue::NUMBER));
        for (const JsonValue& limit : document.items(item, "limits", JsonValue::OBJECT)) {
            run.options.limits[limit.key] = real(limit);
        }
        bundle.runs.push_back(run);
    }
    if (bundle.runs.empty()) document.fail(root, "no runs");
    const auto& files = document.items(root, "files", JsonValue::ARRAY);
    if (files.size() > kMaxBundledFiles) {
        document.fail(root, concat("more than ", kMaxBundledFiles, " files"));
    }
    uint64_t left = kMaxBundledBytes;
    std::set<std::string> names = {kManifest};
    for (const JsonValue& item : files) {
        document.expect(item, JsonValue::OBJECT);
        BundledFile file;
        file.name = text(item, "name");
        if (!staysInside(file.name)) document.fail(item, "bad name " + quote(file.name));
        if (!names.insert(file.name).second) {
            document.fail(item, quote(file.name) + " is there twice");
        }
        if (item.find("origin") != nullptr) file.origin = text(item, "origin");
        file.isHere = item.find("included") == nullptr ||
                      document.member(item, "included", JsonValue::BOOLEAN).text == "true";
        file.size = number(item, "size", UINT64_MAX);
        file.sha256 = text(item, "sha256");
        if (file.isHere && file.size > left) {
            document.fail(item, concat("more than ", kMaxBundledBytes >> 30, " GiB in all"));
        }
        if (file.isHere) left -= file.size;
        bundle.files.push_back(file);
    }
    return bundle;
}

// Unpacking: takes the files of a bundle one after another, the manifest first.
class Unpacking {
public:
    Unpacking(const std::string& path, fs::path folder) : mPath(path), mFolder(std::move(folder)) {}

    TakeBytes take(const std::string& name, uint64_t size) {
        const bool isFirst = !mBundle.has_value() && !mFile.has_value();
        if (isFirst != (name == kManifest))
            fail(isFirst ? "does not begin with bundle.json" : quote(name) + " is there twice");
        mCurrent = nullptr;
        if (isFirst && size > kMaxManifest) fail("bundle.json is too large");
        if (!isFirst) {
            const auto found = mMissing.find(name);
            if (found == mMissing.end()) {
                fail(quote(name) + " is not in bundle.json, or there twice");
            }
            mCurrent = found->second;
            mMissing.erase(found);
            if (mCurrent->size != size) fail(quote(name) + " has another size than in bundle.json");
        }
        const fs::path file = mFolder / name;
        std::error_code error;
        fs::create_directories(file.parent_path(), error);
        mName = name;
        mSum.emplace();
        mFile.emplace(file);
        return [this](const char* data, size_t count) { add(data, count); };
    }

    Bundle release() {
        if (!mBundle) fail("empty");
        if (!mMissing.empty()) fail("lacks " + quote(mMissing.begin()->first));
        return std::move(*mBundle);
    }

private:
    void add(const char* data, size_t size) {
        mFile->write(data, size);
        mSum->add(data, size);
        if (size > 0) return;
        mFile->commit();
        if (mCurrent == nullptr) return readManifestHere();
        if (mSum->hex() != mCurrent->sha256) fail(quote(mName) + " is damaged: another SHA-256");
    }

    void readManifestHere() {
        try {
            mBundle = readManifest(mFolder / kManifest);
        } catch (const Failure& failure) {
            // The bundle's path in place of that of the folder.
            fail(std::string(failure.what()).substr(mFolder.string().size() + 1));
        }
        uint64_t bytes = 0;
        for (const BundledFile& file : mBundle->files) {
            if (!file.isHere) continue;
            mMissing[file.name] = &file;
            bytes += file.size;
        }
        std::error_code none;
        const fs::space_info space = fs::space(mFolder, none);
        if (none || bytes <= space.available) return;
        throw Failure(concat(mFolder.string(), ": no room for ", bytes, " bytes"),
                      Verdict::NotWritten);
    }

    [[noreturn]] void fail(const std::string& text) const {
        throw Failure(mPath + ": not a bundle: " + text);
    }

    const std::string mPath;
    const fs::path mFolder;
    std::optional<Bundle> mBundle;  // once the manifest is read
    std::map<std::string, const BundledFile*> mMissing;
    const BundledFile* mCurrent = nullptr;  // null: the manifest
    std::string mName;
    std::optional<OutputFile> mFile;
    std::optional<Sha256> mSum;
};

}  // namespace

std::string sha256Of(const std::string& path, const Check& check) {
    return measure(path, check).second;
}

BundleMaker::BundleMaker(bool refers, const Facts& facts, Check check)
    : mRefers(refers), mCheck(std::move(check)) {
    mBundle.facts = facts;
    mBundle.variables = variables();
    for (const std::string& file : loadedNodeLibraries()) {
        std::error_code none;  // the loader may have found it elsewhere
        mBundle.libraries.emplace_back(fs::path(file).filename(), fs::is_regular_file(file, none)
                                                                      ? sha256Of(file, mCheck)
                                                                      : "");
    }
}

BundledFile& BundleMaker::addFile(const std::string& name, const std::string& path) {
    const auto [size, sum] = measure(path, mCheck);
    mPaths[name] = path;
    return mBundle.files.emplace_back(BundledFile{name, "", size, sum, true});
}

// A file that the run of `folder` reads. Its name there.
std::string BundleMaker::addInput(const std::string& folder, const std::string& path) {
    const std::string origin = fs::absolute(path).lexically_normal();
    const std::string plain = plainName(fs::path(path).filename());
    for (int number = 1;; ++number) {
        std::string name = concat("input/", number > 1 ? concat(number, "_") : "", plain);
        const std::string full = concat(folder, "/", name);
        const auto found = std::find_if(mBundle.files.begin(), mBundle.files.end(),
                                        [&](const BundledFile& file) { return file.name == full; });
        if (found != mBundle.files.end() && found->origin != origin) continue;
        if (found != mBundle.files.end()) return name;
        BundledFile& file = addFile(full, path);
        file.origin = origin;
        file.isHere = !mRefers;
        return name;
    }
}

void BundleMaker::add(FailedRun run, vexa::VXGraphInfo graph, const std::string& files,
                      const std::vector<std::string>& more) {
    run.folder = std::to_string(mBundle.runs.size() + 1);
    std::error_code none;
    for (size_t i = 0; i < graph.nodes.size(); ++i) {
        vexa::VXNodeDescriptor& node = *graph.nodes[i];
        const NodeType* const type = findNodeType(node.type);
        for (auto& [key, value] : node.configs) {
            const ConfigKey* const config = type != nullptr ? type->findConfig(key) : nullptr;
            if (config == nullptr || !config->isPath() || value.empty()) continue;
            // A sink writes its files, all but the list that it compares with.
            if (node.outputPorts.empty() && key != "expect") {
                value = concat("output/", i, ".", plainName(key));
            } else if (fs::is_regular_file(value, none)) {
                value = addInput(run.folder, value);
            } else {
                value = fs::absolute(value, none);  // a device, or a file that is missing
            }
        }
    }
    for (const std::string& file : more) {
        addFile(concat(run.folder, "/", plainName(fs::path(file).filename())), file).origin = file;
    }
    writeTextFile("--bundle", fs::path(files) / kGraph, graphText(graph));
    for (const auto& entry : fs::recursive_directory_iterator(files)) {
        if (!entry.is_regular_file() || entry.path().extension() == ".part") continue;
        const std::string name = entry.path().lexically_relative(files);
        addFile(run.folder + "/" + name, entry.path());
    }
    mBundle.runs.push_back(std::move(run));
}

void BundleMaker::write(const std::string& path) {
    const TemporaryFolder made;
    const std::string readme = made.path() + "/readme", manifest = made.path() + "/manifest";
    writeTextFile("--bundle", readme, readmeOf(mBundle, fs::path(path).filename()));
    addFile(kReadme, readme);
    std::rotate(mBundle.files.begin(), mBundle.files.end() - 1, mBundle.files.end());
    const std::string text = manifestOf(mBundle);
    writeTextFile("--bundle", manifest, text);
    std::vector<PackedFile> packed = {{kManifest, manifest, text.size()}};
    uint64_t bytes = 0;
    for (const BundledFile& file : mBundle.files) {
        if (!file.isHere) continue;
        packed.push_back({file.name, mPaths.at(file.name), file.size});
        bytes += file.size;
    }
    if (bytes > kMaxBundledBytes || mBundle.files.size() > kMaxBundledFiles ||
        text.size() > kMaxManifest) {
        throw Failure(concat(path, ": ", bytes, " bytes in ", mBundle.files.size(),
                             " files are too many for a bundle; --bundle-refs, or fewer runs, "
                             "makes it smaller"),
                      Verdict::NotWritten);
    }
    pack(path, packed, mCheck);
}

Bundle openBundle(const std::string& path, const std::string& folder, const Check& check) {
    Unpacking unpacking(path, folder);
    unpack(
        path, [&](const std::string& name, uint64_t size) { return unpacking.take(name, size); },
        check);
    Bundle bundle = unpacking.release();
    std::error_code none;
    for (const FailedRun& run : bundle.runs) {
        const fs::path graph = fs::path(folder) / run.folder / kGraph;
        if (!fs::exists(graph, none)) {
            throw Failure(
                concat(path, ": not a bundle: the run ", quote(run.name), " has no ", kGraph));
        }
        fs::create_directories(fs::path(folder) / run.folder / "output", none);
    }
    return bundle;
}

void findReferences(const Bundle& bundle, const std::string& path, const std::string& folder,
                    const std::string& resources, const Check& check) {
    const auto isIt = [&](const BundledFile& file, const fs::path& here) {
        std::error_code none;
        return fs::is_regular_file(here, none) && fs::file_size(here, none) == file.size &&
               measure(here, check).second == file.sha256;
    };
    const auto find = [&](const BundledFile& file) -> fs::path {
        if (isIt(file, file.origin)) return file.origin;
        if (resources.empty()) return {};
        for (const auto& entry : fs::recursive_directory_iterator(
                 resources, fs::directory_options::skip_permission_denied)) {
            check();
            const bool isNamedSo = entry.path().filename() == fs::path(file.origin).filename();
            if (isNamedSo && isIt(file, entry.path())) return fs::absolute(entry.path());
        }
        return {};
    };
    std::vector<std::string> missing;
    for (const BundledFile& file : bundle.files) {
        if (file.isHere) continue;
        const fs::path found = find(file), link = fs::path(folder) / file.name;
        if (found.empty()) {
            missing.push_back(
                concat(quote(file.origin), " (", file.size, " bytes, SHA-256 ", file.sha256, ")"));
            continue;
        }
        fs::create_directories(link.parent_path());
        fs::create_symlink(found, link);
    }
    if (missing.empty()) return;
    throw Failure(path + ": names files that are not here: " + joined(missing) +
                      "; --resources DIR tells where they are",
                  Verdict::BadOption);
}

}  // namespace vxrun
