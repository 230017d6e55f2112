#include "TraceFile.h"

#include "Console.h"
#include "Files.h"
#include "Text.h"

#include <nlohmann/json.hpp>

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <utility>

namespace vxrun {

using nlohmann::json;

TraceFile::TraceFile(const std::string& path) : mPath(path), mFile(openOutput("--trace", path)) {
    mBuffer = "[";
    flush();
}

TraceFile::~TraceFile() {
    flush();
    close(mFile);
}

void TraceFile::nameRow(size_t node, const std::string& name) {
    addEvent("M", "thread_name", node, Clock::now(), {{"args", {{"name", name}}}});
}

void TraceFile::span(size_t node, const std::string& name, Clock::time_point start) {
    const std::chrono::duration<double, std::micro> duration = Clock::now() - start;
    addEvent("X", name, node, start, {{"dur", duration.count()}});
}

void TraceFile::frame(const char* phase, size_t node, const std::string& maker, uint64_t id) {
    addEvent(phase, maker + " frame", node, Clock::now(), {{"cat", "frame." + maker}, {"id", id}});
}

void TraceFile::counter(const std::string& name, const Counts& counts) {
    json args;
    for (const auto& [key, value] : counts) args[key] = value;
    addEvent("C", name, kGraph, Clock::now(), {{"args", args}});
}

void TraceFile::instant(size_t node, const std::string& name, const std::string& detail) {
    addEvent("i", name, node, Clock::now(),
             {{"s", node == kGraph ? "g" : "t"}, {"args", {{"detail", detail}}}});
}

// Adds an event that began at `time`, with `more` than every event has. The nodes' rows are
// numbered from 1; 0 is the graph's.
void TraceFile::addEvent(const char* phase, const std::string& name, size_t node,
                         Clock::time_point time, json more) {
    const std::chrono::duration<double, std::micro> age = time - mStart;
    more.update({{"ph", phase},
                 {"name", name},
                 {"pid", 1},
                 {"tid", node == kGraph ? 0 : node + 1},
                 {"ts", age.count()}});
    const std::string text = more.dump(-1, ' ', false, json::error_handler_t::replace);
    constexpr size_t kEnough = 1 << 16;
    std::unique_lock<std::mutex> lock(mLock);
    if (mFailed) return;
    mBuffer += (std::exchange(mFirst, false) ? "\n" : ",\n") + text;
    const bool full = mBuffer.size() >= kEnough;
    lock.unlock();
    if (full) flush();
}

// Each write ends with the bracket that closes the array; the next one begins on it.
bool TraceFile::flush() {
    std::unique_lock<std::mutex> lock(mLock);
    if (mBuffer.empty() || mFailed) return !mFailed;
    static constexpr std::string_view kEnd = "\n]\n";
    const std::string text = std::exchange(mBuffer, {}).append(kEnd);
    const ssize_t written = pwrite(mFile, text.data(), text.size(), mWritten);
    if (written == static_cast<ssize_t>(text.size())) {
        mWritten += written - static_cast<ssize_t>(kEnd.size());
        return true;
    }
    const std::string why = written < 0 ? errnoText(errno) : "the file system is full";
    mFailed = true;
    // The array ends after the last event that was written whole and leaves room for the bracket.
    const size_t room = static_cast<size_t>(std::max<ssize_t>(written, 0));
    const size_t last = room > kEnd.size() ? text.rfind(",\n", room - kEnd.size()) : text.npos;
    const off_t end = mWritten + (last != text.npos ? static_cast<off_t>(last) : 0);
    if (pwrite(mFile, kEnd.data(), kEnd.size(), end) > 0) {
        (void)!ftruncate(mFile, end + static_cast<off_t>(kEnd.size()));
    }
    lock.unlock();
    console::line("vxrun: --trace: " + mPath + ": " + why);
    return false;
}

}  // namespace vxrun
