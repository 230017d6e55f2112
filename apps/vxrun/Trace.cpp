#include "Trace.h"

#include "Console.h"
#include "Failure.h"

#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace vxrun {

Trace* gTrace = nullptr;

Trace::Trace(const std::string& path)
    : mPath(path),
      mFile(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NONBLOCK, 0666)) {
    if (mFile < 0) throw Failure("vxrun: --trace: " + path + ": " + errnoText(errno), "BAD_OPTION");
    gTrace = this;
}

Trace::~Trace() {
    gTrace = nullptr;
    flush();
    close(mFile);
}

double Trace::sinceStart(Clock::time_point time) const {
    return std::chrono::duration<double, std::micro>(time - mStart).count();
}

// What every event has. The nodes' rows are numbered from 1; 0 is the graph's.
nlohmann::json Trace::event(const char* phase, const std::string& name, size_t node) const {
    const size_t row = node == kGraph ? 0 : node + 1;
    return {
        {"ph", phase}, {"name", name}, {"pid", 1}, {"tid", row}, {"ts", sinceStart(Clock::now())}};
}

void Trace::nameRow(size_t node, const std::string& name) {
    auto row = event("M", "thread_name", node);
    row["args"]["name"] = name;
    write(row);
}

void Trace::span(size_t node, const std::string& name, Clock::time_point start) {
    auto span = event("X", name, node);
    const double end = span["ts"];
    span["ts"] = sinceStart(start);
    span["dur"] = end - sinceStart(start);
    write(span);
}

void Trace::frame(const char* phase, size_t node, const std::string& maker, uint64_t id) {
    auto frame = event(phase, maker + " frame", node);
    frame["cat"] = "frame." + maker;
    frame["id"] = id;
    write(frame);
}

void Trace::counter(const std::string& name, const Figures& figures) {
    auto counter = event("C", name, kGraph);
    for (const auto& [key, value] : figures) counter["args"][key] = value;
    write(counter);
}

void Trace::instant(size_t node, const std::string& name, const std::string& detail) {
    auto instant = event("i", name, node);
    instant["s"] = node == kGraph ? "g" : "t";
    instant["args"]["detail"] = detail;
    write(instant);
}

void Trace::write(const nlohmann::json& event) {
    constexpr size_t kEnough = 1 << 16;
    const std::string text = event.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    std::lock_guard<std::mutex> lock(mLock);
    mBuffer += (mFirst ? "\n" : ",\n") + text;
    mFirst = false;
    if (mBuffer.size() >= kEnough) flushLocked();
}

void Trace::flush() {
    std::lock_guard<std::mutex> lock(mLock);
    flushLocked();
}

// Each write ends with the bracket that closes the array; the next one begins on it.
void Trace::flushLocked() {
    if (mBuffer.empty()) return;
    const std::string text = mBuffer + "\n]\n";
    const ssize_t got = pwrite(mFile, text.data(), text.size(), mWritten);
    if (got == static_cast<ssize_t>(text.size())) {
        mWritten += static_cast<int64_t>(mBuffer.size());
    } else if (!std::exchange(mFailed, true)) {
        console::line("vxrun: --trace: " + mPath + ": " +
                      (got < 0 ? errnoText(errno) : "the file system is full"));
    }
    mBuffer.clear();
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
