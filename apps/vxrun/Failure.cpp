#include "Failure.h"
#include "Text.h"

#include <charconv>
#include <cstdlib>
#include <system_error>

namespace vxrun {

Failure badOption(const std::string& option, const std::string& text) {
    return Failure("vxrun: " + option + ": " + text, "BAD_OPTION");
}

std::string quote(const std::string& text) {
    constexpr size_t kShown = 60;
    return "'" + printable(text.substr(0, kShown)) + (text.size() > kShown ? "...'" : "'");
}

std::string errnoText(int number) {
    return std::generic_category().message(number);
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
    const bool isDecimal = text.find_first_not_of("0123456789.e-") == text.npos;
    if (!isDecimal || *end != '\0' || !(number >= low && number <= high)) {
        throw Failure(concat("expected a number from ", low, " to ", high, ", got ", quote(text)));
    }
    return number;
}

}  // namespace vxrun
