#include "Console.h"

#include "Failure.h"
#include "Text.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace vxrun::console {
namespace {

bool sQuiet = false;
std::string sColor = "auto";

bool onTerminal() {
    return isatty(STDERR_FILENO) == 1;
}

void print(const std::string& text) {
    // Nothing sensible can be done when standard error is gone.
    if (sQuiet || write(STDERR_FILENO, text.data(), text.size()) < 0) return;
}

bool hasColor(int fd) {
    if (sColor != "auto") return sColor == "always";
    if (!variable("NO_COLOR").empty()) return false;
    const std::string force = variable("CLICOLOR_FORCE");
    if (!force.empty() && force != "0") return true;
    return variable("CLICOLOR") != "0" && variable("TERM") != "dumb" && isatty(fd) == 1;
}

}  // namespace

void set(bool quiet, const std::string& color) {
    sQuiet = quiet;
    sColor = color;
}

std::string painted(const std::string& text, bool good, int fd) {
    return hasColor(fd) ? (good ? "\033[32m" : "\033[31m") + text + "\033[m" : text;
}

void line(const std::string& text) {
    std::string clean;
    for (const char c : text) clean += static_cast<unsigned char>(c) < ' ' ? '?' : c;
    note(painted(clean, false, STDERR_FILENO));
}

void note(const std::string& text) {
    print((onTerminal() ? "\r\033[K" : "") + text + "\n");
}

bool showsProgress() {
    return onTerminal() && !sQuiet;
}

void progress(const std::string& text) {
    if (showsProgress()) print("\r" + text + "\033[K");
}

bool result(const std::string& text) {
    const bool isOut =
        std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0;
    if (!isOut) line("vxrun: standard output: " + errnoText(errno));
    return isOut;
}

}  // namespace vxrun::console
