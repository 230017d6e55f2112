// Text: helpers for vxrun's texts, besides <vxkit/Text.h>.
#pragma once

#include "Vxkit.h"

#include <vxkit/Failure.h>
#include <vxkit/Text.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <iomanip>
#include <string>
#include <vector>

namespace vxrun {

// `value` with `digits` digits after the decimal point.
inline std::string decimal(double value, int digits) {
    return concat(std::fixed, std::setprecision(digits), value);
}

inline std::string lowerCase(std::string text) {
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

// A command line for a shell.
inline std::string shellLine(const std::vector<std::string>& words) {
    const auto isPlain = [](unsigned char c) {
        return std::isalnum(c) != 0 || std::strchr("-_./,=+@%", c) != nullptr;
    };
    std::string line;
    for (const std::string& word : words) {
        line += line.empty() ? "" : " ";
        if (!word.empty() && std::all_of(word.begin(), word.end(), isPlain)) {
            line += word;
            continue;
        }
        line += "'";
        for (const char c : word) line += c == '\'' ? std::string("'\\''") : std::string(1, c);
        line += "'";
    }
    return line;
}

// A variable of the environment; empty when it is not set.
inline std::string variable(const char* name) {
    const char* const value = std::getenv(name);
    return value != nullptr ? value : "";
}

// What to throw for a bad option: "vxrun: OPTION: text", Verdict::BadOption.
inline Failure badOption(const std::string& option, const std::string& text) {
    return Failure("vxrun: " + option + ": " + text, Verdict::BadOption);
}

}  // namespace vxrun
