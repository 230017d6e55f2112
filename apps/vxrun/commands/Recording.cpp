#include "Recording.h"

#include "ChecksumFormat.h"
#include "Text.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <vector>

namespace vxrun {

[[noreturn]] static void fail(const std::string& text) {
    throw badOption("--record", text);
}

Recording::Recording(const std::string& path, bool force, vexa::VXGraphInfo* graph) : mPath(path) {
    std::vector<vexa::VXNodeDescriptor*> sinks;
    for (const auto& node : graph->nodes) {
        if (node->type == "sink/checksum") sinks.push_back(node.get());
    }
    if (sinks.size() != 1) {
        fail(concat("the graph has ", sinks.size(), " sink/checksum nodes, expected 1"));
    }
    std::error_code none;
    const auto status = std::filesystem::symlink_status(mPath, none);
    if (std::filesystem::exists(status)) {
        if (!std::filesystem::is_regular_file(status)) fail(mPath + " is not a regular file");
        if (!force) fail(mPath + " exists; --force replaces it");
    }
    mUnproven = mPath + ".XXXXXX";
    const int file = mkstemp(mUnproven.data());
    if (file < 0) fail(mPath + ": " + errnoText(errno));
    close(file);
    auto& configs = sinks.front()->configs;
    configs.erase("expect");
    configs["write"] = mUnproven;
    std::string& format = configs["format"];
    if (format.empty()) format = checksumFormatOf(mPath);
}

Recording::~Recording() {
    std::remove(mUnproven.c_str());
}

void Recording::commit() {
    std::error_code error;
    std::filesystem::rename(mUnproven, mPath, error);
    if (error) fail(mPath + ": " + error.message());
}

}  // namespace vxrun
