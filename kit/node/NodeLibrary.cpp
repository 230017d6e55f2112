#include <vxkit/Failure.h>
#include <vxkit/NodeLibrary.h>
#include <vxkit/NodeType.h>
#include <vxkit/Text.h>

#include <dlfcn.h>

#include <filesystem>
#include <set>

namespace vxkit {

// The loader's error without the file's name.
static std::string loaderError(const std::string& path) {
    std::string text = dlerror();
    if (text.rfind(path + ": ", 0) == 0) text.erase(0, path.size() + 2);
    return text;
}

static std::vector<std::string>& loadedFiles() {
    static std::vector<std::string> files;
    return files;
}

const std::vector<std::string>& loadedNodeLibraries() {
    return loadedFiles();
}

void loadNodeLibrary(const std::string& file) {
    const auto fail = [&](const std::string& reason) {
        throw Failure(printable(file) + ": " + reason, Verdict::BadOption);
    };
    const auto failOfVersion = [&](const std::string& version) {
        fail(concat("built against vxkit ", version, ", this is vxkit ", kMajorVersion));
    };
    std::error_code none;
    const std::string path =
        std::filesystem::exists(file, none) ? std::filesystem::absolute(file).string() : file;
    const size_t types = nodeTypes().size(), clashes = clashingNodeTypes().size();
    void* const library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        const std::string error = loaderError(path);
        // The library of another major version is missing: "libvxkit.so.2: cannot open ...".
        constexpr char kKit[] = "libvxkit.so.";
        const size_t digits = error.rfind(kKit, 0) == 0 ? sizeof kKit - 1 : std::string::npos;
        if (digits < error.size()) failOfVersion(error.substr(digits, error.find(':') - digits));
        fail(error);
    }
    static std::set<void*> loaded;
    if (!loaded.insert(library).second) return;
    // Its own, or that of the vxkit that it is linked with.
    const auto version = reinterpret_cast<unsigned (*)()>(dlsym(library, "vxkitMajorVersion"));
    if (version == nullptr) fail("not a node library: it is not linked with vxkit");
    if (version() != kMajorVersion) failOfVersion(std::to_string(version()));
    if (clashingNodeTypes().size() > clashes) {
        fail("the node type '" + clashingNodeTypes()[clashes] + "' is registered already");
    }
    if (nodeTypes().size() == types) fail("not a node library: it registers no node type");
    loadedFiles().push_back(path);
}

}  // namespace vxkit
