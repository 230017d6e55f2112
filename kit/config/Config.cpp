#include <vxkit/Config.h>
#include <vxkit/Failure.h>
#include <vxkit/Text.h>

namespace vxkit {

using vexa::VXNodeDescriptor;

// What `parse` throws; empty when it does not.
template <typename Parse>
static std::string mistakeOf(Parse parse) {
    try {
        parse();
        return "";
    } catch (const Failure& failure) {
        return failure.what();
    }
}

std::string ConfigKey::textIn(const VXNodeDescriptor& node) const {
    const auto config = node.configs.find(name);
    return config != node.configs.end() ? config->second : "";
}

std::string PathKey::mistakeIn(const std::string& text) const {
    return text.empty() ? "expected the name of a file, got ''" : "";
}

std::string WordsKey::mistakeIn(const std::string& text) const {
    return mistakeOf([&] { splitWords(text); });
}

// As of other keys, a wrong value is refused before the run.
std::vector<std::string> WordsKey::valueOf(const std::string& text) const {
    return mistakeIn(text).empty() ? splitWords(text) : std::vector<std::string>();
}

std::string ChoiceKey::mistakeIn(const std::string& text) const {
    std::string known;
    for (const std::string& word : mWords) {
        if (text.empty() || text == word) return "";
        known += (known.empty() ? "" : " or ") + word;
    }
    return "expected " + known + ", got " + quote(text);
}

std::string FlagKey::mistakeIn(const std::string& text) const {
    const bool fits = text.empty() || text == "true" || text == "false";
    return fits ? "" : "expected true or false, got " + quote(text);
}

std::string NumberKey::mistakeIn(const std::string& text) const {
    return text.empty() ? "" : mistakeOf([&] { parseNumber(text, mLow, mHigh); });
}

// A wrong value is refused before the run; until then, code that asks (the checks of pools) gets a
// number that makes sense.
uint64_t NumberKey::valueOf(const std::string& text) const {
    return text.empty() || !mistakeIn(text).empty() ? mPreset : parseNumber(text, mLow, mHigh);
}

std::string RealKey::mistakeIn(const std::string& text) const {
    return text.empty() ? "" : mistakeOf([&] { parseReal(text, mLow, mHigh); });
}

double RealKey::valueOf(const std::string& text) const {
    return text.empty() || !mistakeIn(text).empty() ? 0 : parseReal(text, mLow, mHigh);
}

bool EntryKey::names(const VXNodeDescriptor::ConfigEntry& entry) const {
    return entry.kind == kind && entry.key == name && entry.alternate == 0;
}

}  // namespace vxkit
