#include "MediaLibraries.h"

#include "Text.h"

#include <dlfcn.h>

#include <filesystem>

#ifndef VXRUN_LIBRARY_FOLDER  // the build is not CMake's
#define VXRUN_LIBRARY_FOLDER "lib"
#endif

namespace vxrun {
namespace {

struct NothingKnown final : VideoProbe {
    std::string codec() const override {
        throw Failure("without libavformat the codec is not known; set 'codec'");
    }
    PictureFormat picture() const override {
        throw Failure(
            "without libavformat size and format of raw video are not known; set 'width', "
            "'height' and 'format'");
    }
    bool changesSize() override { return false; }
};

[[noreturn]] void refuseMap() {
    throw Failure("this vxrun is built without FFmpeg's libraries, which streams are read with",
                  Verdict::NotSupported);
}

// Without the room.
const MediaLibraries kNone = {
    [] { return std::string("none of FFmpeg's"); },
    [](const std::string&) -> std::unique_ptr<VideoProbe> {
        return std::make_unique<NothingKnown>();
    },
    [](const std::string& container) -> std::unique_ptr<Muxer> {
        throw Failure(
            "config 'container': expected raw or y4m, since this vxrun is built without "
            "libavformat, got " +
            quote(container));
    },
    [](const std::string&) -> StreamMap { refuseMap(); },
    [](const std::string&, const std::vector<size_t>&) -> std::string { refuseMap(); },
    [](const std::string&) -> std::unique_ptr<StreamCut> { refuseMap(); }};

const MediaLibraries* sRoom = nullptr;  // set when it is loaded, or linked into this program

const MediaLibraries& room() {
    loadMediaLibraries();
    return sRoom != nullptr ? *sRoom : kNone;
}

}  // namespace

bool registerMediaLibraries(const MediaLibraries& libraries) {
    sRoom = &libraries;
    return true;
}

void loadMediaLibraries() {
    namespace fs = std::filesystem;
    static const bool isDone = [] {  // which other threads wait for
        if (sRoom != nullptr) return true;
        std::error_code none;
        const fs::path folder = fs::read_symlink("/proc/self/exe", none).parent_path();
        for (const fs::path& place : {folder, folder.parent_path() / VXRUN_LIBRARY_FOLDER}) {
            const fs::path file = place / "vxrun-libav.so";
            if (!fs::exists(file, none)) continue;
            if (dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL) != nullptr) break;
            throw Failure(concat("vxrun: ", dlerror()), Verdict::GraphBuildFail);
        }
        return true;
    }();
    (void)isDone;
}

std::string mediaLibraries() {
    return room().versions();
}

std::unique_ptr<VideoProbe> probeVideo(const std::string& path) {
    return room().probeVideo(path);
}

std::unique_ptr<Muxer> newMuxer(const std::string& container) {
    return room().newMuxer(container);
}

StreamMap mapStream(const std::string& path) {
    return room().mapStream(path);
}

std::string headersOf(const std::string& path, const std::vector<size_t>& units) {
    return room().headersOf(path, units);
}

std::unique_ptr<StreamCut> cutStream(const std::string& path) {
    return room().cutStream(path);
}

}  // namespace vxrun
