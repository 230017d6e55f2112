#include "Trace.h"

#include "Console.h"
#include "Failure.h"
#include "Files.h"

#include <nlohmann/json.hpp>

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace vxrun {

using nlohmann::json;

Trace* gTrace = nullptr;

Trace::Trace(const std::string& path) : mPath(path), mFile(openOutput("--trace", path)) {
    gTrace = this;
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
    mBuffer += (mBuffer == "[" ? "\n" : ",\n") + text;
    const bool full = mBuffer.size() >= kEnough;
    lock.unlock();
    if (full) flush();
}

// Each write ends with the bracket that closes the array; the next one begins on it.
void Trace::flush() {
    std::lock_guard<std::mutex> lock(mLock);
    if (mBuffer.size() <= 1) return;  // no event
    const std::string text = std::exchange(mBuffer, "") + "\n]\n";
    const ssize_t got = pwrite(mFile, text.data(), text.size(), mWritten);
    if (got == static_cast<ssize_t>(text.size())) {
        mWritten += got - 3;
    } else if (!std::exchange(mFailed, true)) {
        console::line("vxrun: --trace: " + mPath + ": " +
                      (got < 0 ? errnoText(errno) : "the file system is full"));
    }
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
