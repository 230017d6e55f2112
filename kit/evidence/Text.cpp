#include <vxkit/Failure.h>
#include <vxkit/Text.h>

#include <charconv>
#include <cstdlib>
#include <iomanip>
#include <system_error>

namespace vxkit {

// The bytes of the character that begins at `at`, as UTF-8; 0 when there is none.
static size_t characterSize(const std::string& text, size_t at) {
    const auto byte = [&](size_t i) {
        return i < text.size() ? static_cast<unsigned char>(text[i]) : 0u;
    };
    const unsigned first = byte(at);
    const size_t size = first < 0x80   ? 1
                        : first < 0xc2 ? 0
                        : first < 0xe0 ? 2
                        : first < 0xf0 ? 3
                                       : 4;
    for (size_t i = 1; i < size; ++i) {
        if ((byte(at + i) & 0xc0u) != 0x80) return 0;
    }
    return first < 0xf5 ? size : 0;
}

std::string printable(const std::string& text) {
    std::string clean;
    for (size_t at = 0; at < text.size();) {
        const size_t size = characterSize(text, at);
        const auto first = static_cast<unsigned char>(text[at]);
        const bool isLatin =
            size == 2 && first == 0xc2;  // U+0080 to U+00BF, control characters first
        const bool isControl = first < ' ' || first == 0x7f ||
                               (isLatin && static_cast<unsigned char>(text[at + 1]) < 0xa0);
        if (size > 0 && !isControl) {
            clean.append(text, at, size);
            at += size;
            continue;
        }
        if (first == '\n' || first == '\t') {
            clean += first == '\n' ? "\\n" : "\\t";
        } else {
            clean += concat("\\x", std::hex, std::setfill('0'), std::setw(2), unsigned{first});
        }
        ++at;
    }
    return clean;
}

std::string quote(const std::string& text) {
    constexpr size_t kShown = 60;
    return "'" + printable(text.substr(0, kShown)) + (text.size() > kShown ? "...'" : "'");
}

std::string errnoText(int number) {
    return std::generic_category().message(number);
}

std::vector<std::string> splitWords(const std::string& text) {
    std::vector<std::string> words;
    char quotes = '\0';  // that are open
    bool isInWord = false;
    for (const char c : text) {
        if (quotes == '\0' && (c == ' ' || c == '\t' || c == '\n')) {
            isInWord = false;
            continue;
        }
        if (!std::exchange(isInWord, true)) words.emplace_back();
        if (quotes == '\0' && (c == '\'' || c == '"')) {
            quotes = c;
        } else if (c == quotes) {
            quotes = '\0';
        } else {
            words.back() += c;
        }
    }
    if (quotes != '\0') throw Failure(concat("a quote ", quotes, " that does not end"));
    return words;
}

std::string joinedWords(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) {
        if (!text.empty()) text += ' ';
        if (!word.empty() && word.find_first_of(" \t\n'\"") == std::string::npos) {
            text += word;
            continue;
        }
        text += '\'';
        for (const char c : word) text += c == '\'' ? std::string("'\"'\"'") : std::string(1, c);
        text += '\'';
    }
    return text;
}

uint64_t parseNumber(const std::string& text, uint64_t low, uint64_t high) {
    uint64_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [parsed, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || parsed != end || number < low || number > high) {
        throw Failure(concat("expected a number from ", low, " to ", high, ", got ", quote(text)));
    }
    return number;
}

double parseReal(const std::string& text, double low, double high) {
    char* end = nullptr;
    const double number = std::strtod(text.c_str(), &end);
    // strtod() accepts more than a user means: "nan", "inf" and hexadecimal.
    const bool isDecimal = text.find_first_not_of("0123456789.e-") == text.npos;
    if (!isDecimal || *end != '\0' || !(number >= low && number <= high)) {
        throw Failure(concat("expected a number from ", low, " to ", high, ", got ", quote(text)));
    }
    return number;
}

}  // namespace vxkit
