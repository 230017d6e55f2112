#include "Console.h"

#include <unistd.h>

#include <atomic>

namespace vxrun::console {
namespace {

std::atomic<bool> sQuiet{false};

bool onTerminal() {
    static const bool terminal = isatty(STDERR_FILENO) == 1;
    return terminal;
}

void print(const std::string& text) {
    // Nothing sensible can be done when standard error is gone.
    if (write(STDERR_FILENO, text.data(), text.size()) < 0) return;
}

}  // namespace

void setQuiet(bool quiet) {
    sQuiet = quiet;
}

void line(const std::string& text) {
    if (sQuiet) return;
    std::string whole = onTerminal() ? "\r\033[K" : "";
    for (const char c : text) whole += static_cast<unsigned char>(c) < ' ' ? '?' : c;
    print(whole + "\n");
}

bool showsProgress() {
    return onTerminal() && !sQuiet;
}

void progress(const std::string& text) {
    if (showsProgress()) print("\r" + text + "\033[K");
}

}  // namespace vxrun::console
