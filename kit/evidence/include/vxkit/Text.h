// Text: helpers for lines and messages.  All functions: [any thread]
#pragma once

#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

namespace vxkit {

// The parts one after another, as a stream writes them.
template <typename... Parts>
std::string concat(const Parts&... parts) {
    std::ostringstream stream;
    (stream << ... << parts);
    return stream.str();
}

// The strings of `list` with ", " between them.
template <typename List>
std::string joined(const List& list) {
    std::string text;
    for (const std::string& item : list) text += (text.empty() ? "" : ", ") + item;
    return text;
}

// `text` as it may appear in a line of output: UTF-8 without control characters. Those,
// and what is not UTF-8, are shown as \n, \t or \x1b, so that names that come from files neither
// end a line nor control a terminal.
std::string printable(const std::string& text);

// `text` for an error line: printable, in quotes, shortened.
std::string quote(const std::string& text);

// The system's message for an errno number.
std::string errnoText(int number);

// The words of a command line: separated by blanks, which '...' and "..." keep. Throws Failure for
// a quote that does not end. joinedWords() is the reverse.
std::vector<std::string> splitWords(const std::string& text);
std::string joinedWords(const std::vector<std::string>& words);

// The whole of `text` as a decimal number in [low, high]. Throws Failure with what was expected.
uint64_t parseNumber(const std::string& text, uint64_t low, uint64_t high);
// The same for a decimal fraction.
double parseReal(const std::string& text, double low, double high);

}  // namespace vxkit
