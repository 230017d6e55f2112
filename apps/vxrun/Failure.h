// Failure: how the parts of vxrun that read files and options give up.
//
// Thrown by the parsers and by the nodes' own code, caught at their border: in main() and in AppNode's
// hooks. It never reaches the library.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace vxrun {

// what() is one line for the user that names the thing and the place.
class Failure : public std::runtime_error {
public:
    // `verdict`: the run's verdict, where the thrower knows better than the catcher; else empty.
    explicit Failure(const std::string& text, std::string verdict = {})
        : std::runtime_error(text), mVerdict(std::move(verdict)) {}

    const std::string& verdict() const { return mVerdict; }

private:
    std::string mVerdict;
};

// What to throw for an option that is no good: "vxrun: OPTION: text", the verdict BAD_OPTION.
Failure badOption(const std::string& option, const std::string& text);

// `text` for an error line: printable, in quotes, shortened.
std::string quote(const std::string& text);

// The text of an errno number.
std::string errnoText(int number);

// The whole of `text` as a decimal number in [low, high]; a Failure says what was expected.
uint64_t parseNumber(const std::string& text, uint64_t low, uint64_t high);
// The same for a decimal fraction.
double parseReal(const std::string& text, double low, double high);

}  // namespace vxrun
