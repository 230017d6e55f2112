#include "Trace.h"

#include "Console.h"
#include "Failure.h"
#include "Files.h"

#include <nlohmann/json.hpp>

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <utility>

namespace vxrun {

using nlohmann::json;

Trace* gTrace = nullptr;

Trace::Trace(const std::string& path) : mPath(path), mFile(openOutput("--trace", path)) {
    gTrace = this;
    mBuffer = "[";
    flush();
}

Trace::~Trace() {
    gTrace = nullptr;
    flush();
    close(mFile);
}

void Trace::nameRow(size_t node, const std::string& name) {
    add("M", "thread_name", node, Clock::now(), {{"args", {{"name", name}}}});
}

void Trace::span(size_t node, const std::string& name, Clock::time_point start) {
    const std::chrono::duration<double, std::micro> duration = Clock::now() - start;
    add("X", name, node, start, {{"dur", duration.count()}});
}

void Trace::frame(const char* phase, size_t node, const std::string& maker, uint64_t id) {
    add(phase, maker + " frame", node, Clock::now(), {{"cat", "frame." + maker}, {"id", id}});
}

void Trace::counter(const std::string& name, const Figures& figures) {
    json args;
    for (const auto& [key, value] : figures) args[key] = value;
    add("C", name, kGraph, Clock::now(), {{"args", args}});
}

void Trace::instant(size_t node, const std::string& name, const std::string& detail) {
    add("i", name, node, Clock::now(),
        {{"s", node == kGraph ? "g" : "t"}, {"args", {{"detail", detail}}}});
}

// Adds an event that began at `time`, with `more` than every event has. The nodes' rows are numbered
// from 1; 0 is the graph's.
void Trace::add(const char* phase, const std::string& name, size_t node, Clock::time_point time,
                json more) {
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
bool Trace::flush() {
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
    // The array ends behind the last event that is there whole, and has room for the bracket after it.
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

TracedFrame::TracedFrame(std::string makerName, size_t makerNumber, uint64_t frameId)
    : maker(std::move(makerName)), number(makerNumber), id(frameId) {
    gTrace->frame("b", number, maker, id);
}

// NOLINTNEXTLINE(bugprone-exception-escape): without memory there is nobody to tell
TracedFrame::~TracedFrame() {
    if (gTrace != nullptr) gTrace->frame("e", number, maker, id);
}

}  // namespace vxrun
