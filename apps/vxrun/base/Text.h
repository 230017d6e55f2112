// Text: what the lines and files of vxrun are put together with.
#pragma once

#include <cctype>
#include <cstdlib>
#include <iomanip>
#include <sstream>
#include <string>

namespace vxrun {

// The parts one after another, as a stream writes them.
template <typename... Parts>
std::string concat(const Parts&... parts) {
    std::ostringstream stream;
    (stream << ... << parts);
    return stream.str();
}

// The texts of `list` with ", " between them.
template <typename List>
std::string joined(const List& list) {
    std::string text;
    for (const std::string& item : list) text += (text.empty() ? "" : ", ") + item;
    return text;
}

// `value` with `digits` digits after the stop.
inline std::string decimal(double value, int digits) {
    return concat(std::fixed, std::setprecision(digits), value);
}

inline std::string lowerCase(std::string text) {
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

// `text` as it may stand in a line for people or programs: UTF-8 without control characters. Those, and what
// is not UTF-8, are shown as \n, \t or \x1b, so that names which come from files neither end a line nor
// control a terminal.
std::string printable(const std::string& text);

// A variable of the environment; empty when it is not set.
inline std::string variable(const char* name) {
    const char* const value = std::getenv(name);
    return value != nullptr ? value : "";
}

}  // namespace vxrun
