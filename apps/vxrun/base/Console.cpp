#include "Console.h"

#include "Text.h"

#include <cerrno>
#include <mutex>
#include <optional>

namespace vxrun::console {
namespace {

bool sQuiet = false;
std::string sColor = "auto";
std::mutex sErrorLock;
std::string sFirstError;  // guarded by sErrorLock
// Standard output and error. One that is not read holds up only those that write there.
struct Way {
    std::mutex lock;
    std::optional<Outlet> outlet;  // guarded by lock
} sWays[2];

bool onTerminal() {
    return isatty(STDERR_FILENO) == 1;
}

// See Outlet::write(). `fd` is standard output or error.
int write(int fd, const std::string& text, std::chrono::milliseconds patience) {
    Way& way = sWays[fd - STDOUT_FILENO];
    std::lock_guard<std::mutex> lock(way.lock);
    if (!way.outlet) way.outlet.emplace(fd);
    return way.outlet->write(text, patience);
}

void print(const std::string& text) {
    constexpr std::chrono::seconds kMost(3);
    if (!sQuiet) write(STDERR_FILENO, text, kMost);  // nothing can be done when that is lost
}

bool hasColor(int fd) {
    if (sColor != "auto") return sColor == "always";
    if (!variable("NO_COLOR").empty()) return false;
    const std::string force = variable("CLICOLOR_FORCE");
    if (!force.empty() && force != "0") return true;
    return variable("CLICOLOR") != "0" && variable("TERM") != "dumb" && isatty(fd) == 1;
}

}  // namespace

void configure(bool quiet, const std::string& color) {
    sQuiet = quiet;
    sColor = color;
    sFirstError.clear();
    for (Way& way : sWays) way.outlet.reset();
}

std::string painted(const std::string& text, bool good, int fd) {
    return hasColor(fd) ? (good ? "\033[32m" : "\033[31m") + text + "\033[m" : text;
}

void line(const std::string& text) {
    {
        std::lock_guard<std::mutex> lock(sErrorLock);
        if (sFirstError.empty()) sFirstError = text;
    }
    note(painted(printable(text), false, STDERR_FILENO));
}

void note(const std::string& text) {
    print((onTerminal() ? "\r\033[K" : "") + text + "\n");
}

std::string firstError() {
    std::lock_guard<std::mutex> lock(sErrorLock);
    return sFirstError;
}

bool showsProgress() {
    return onTerminal() && !sQuiet;
}

void progress(const std::string& text) {
    if (showsProgress()) print("\r" + text + "\033[K");
}

bool result(const std::string& text, int fd, std::chrono::milliseconds patience) {
    const int error = write(fd, text, patience);
    if (error == 0) return true;
    line("vxrun: standard output: " + (error == EAGAIN ? "it is not read" : errnoText(error)));
    return false;
}

int exitWithResult(const std::string& text, int code, int fd, std::chrono::milliseconds patience) {
    const bool isPrinted = result(text, fd, patience);
    return isPrinted || code != 0 ? code : exitCode(Verdict::NotWritten);
}

}  // namespace vxrun::console
