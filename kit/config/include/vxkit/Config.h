// Config: the configs of a node as typed keys. One declaration serves the list of node types, the
// check of a description and the reading of a value:
//
//     const NumberKey kFrames{"frames", 0, 10000, 0, "frames held back, default 0"};
//     ...
//     mFrames = config(kFrames);  // a uint64_t in [0, 10000]
//
// In a description every value is text, see vexa::VXNodeDescriptor. An empty one counts as not
// given.
#pragma once

#include <VXNode.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace vxkit {

// ConfigKey: what all keys have in common.
//
// Life     static objects; node types and nodes refer to them.
// Threads  any.
// Owns     its name and help.
class ConfigKey {
public:
    // Beside which others a node may have this config: any; no other but free ones; any but
    // exclusive ones.
    enum Use { FREE, EXCLUSIVE, NOT_BESIDE_EXCLUSIVE };

    virtual ~ConfigKey() = default;
    ConfigKey(const ConfigKey&) = delete;
    ConfigKey& operator=(const ConfigKey&) = delete;

    // What is wrong with a value that was given; empty when nothing is.
    virtual std::string mistakeIn(const std::string& text) const = 0;
    // True when the value names a file or folder, relative to that of the graph file.
    virtual bool isPath() const { return false; }
    // True when the value is a list of words, see splitWords(). A graph file may have an array.
    virtual bool isList() const { return false; }

    // The value in a description; empty when it was not given.
    std::string textIn(const vexa::VXNodeDescriptor& node) const;
    bool isGivenIn(const vexa::VXNodeDescriptor& node) const { return !textIn(node).empty(); }

    const std::string name;
    const std::string help;
    const Use use;

protected:
    ConfigKey(const char* keyName, const char* helpText, Use keyUse)
        : name(keyName), help(helpText), use(keyUse) {}
};

// TextKey: any text. Life, threads and owns: as ConfigKey.
class TextKey final : public ConfigKey {
public:
    using Value = std::string;
    TextKey(const char* name, const char* help, Use use = FREE) : ConfigKey(name, help, use) {}
    std::string mistakeIn(const std::string&) const override { return ""; }
    Value valueOf(const std::string& text) const { return text; }
};

// PathKey: the path of a file or folder. An empty one is a mistake: a shell variable that is not
// set must not drop a check or an output. Life, threads and owns: as ConfigKey.
class PathKey final : public ConfigKey {
public:
    using Value = std::string;
    PathKey(const char* name, const char* help, Use use = FREE) : ConfigKey(name, help, use) {}
    std::string mistakeIn(const std::string& text) const override;
    bool isPath() const override { return true; }
    Value valueOf(const std::string& text) const { return text; }
};

// WordsKey: the words of a command line. Life, threads and owns: as ConfigKey.
class WordsKey final : public ConfigKey {
public:
    using Value = std::vector<std::string>;
    WordsKey(const char* name, const char* help, Use use = FREE) : ConfigKey(name, help, use) {}
    std::string mistakeIn(const std::string& text) const override;
    bool isList() const override { return true; }
    Value valueOf(const std::string& text) const;
};

// ChoiceKey: one of a few words. Life, threads and owns: as ConfigKey.
class ChoiceKey final : public ConfigKey {
public:
    using Value = std::string;
    ChoiceKey(const char* name, std::vector<std::string> words, const char* help, Use use = FREE)
        : ConfigKey(name, help, use), mWords(std::move(words)) {}
    std::string mistakeIn(const std::string& text) const override;
    Value valueOf(const std::string& text) const { return text; }

private:
    const std::vector<std::string> mWords;
};

// FlagKey: true or false; false when not given. Life, threads and owns: as ConfigKey.
class FlagKey final : public ConfigKey {
public:
    using Value = bool;
    FlagKey(const char* name, const char* help, Use use = FREE) : ConfigKey(name, help, use) {}
    std::string mistakeIn(const std::string& text) const override;
    Value valueOf(const std::string& text) const { return text == "true"; }
};

// NumberKey: a decimal number in [low, high]; `preset` when it is not given or wrong, which
// mistakeIn() reports. Life, threads and owns: as ConfigKey.
class NumberKey final : public ConfigKey {
public:
    using Value = uint64_t;
    NumberKey(const char* name, uint64_t low, uint64_t high, uint64_t preset, const char* help,
              Use use = FREE)
        : ConfigKey(name, help, use), mLow(low), mHigh(high), mPreset(preset) {}
    std::string mistakeIn(const std::string& text) const override;
    Value valueOf(const std::string& text) const;

private:
    const uint64_t mLow, mHigh, mPreset;
};

// RealKey: a decimal fraction in [low, high]; 0 when it is not given or wrong. Life, threads and
// owns: as ConfigKey.
class RealKey final : public ConfigKey {
public:
    using Value = double;
    RealKey(const char* name, double low, double high, const char* help, Use use = FREE)
        : ConfigKey(name, help, use), mLow(low), mHigh(high) {}
    std::string mistakeIn(const std::string& text) const override;
    Value valueOf(const std::string& text) const;

private:
    const double mLow, mHigh;
};

// EntryKey: a per-frame entry of a node type, a number in [low, high]. A plain value.
struct EntryKey {
    // Whether `entry` has this kind and key and is not an alternate one.
    bool names(const vexa::VXNodeDescriptor::ConfigEntry& entry) const;

    uint32_t kind;  // vexa::VXNodeDescriptor::ConfigEntry::COMMAND or TUNING
    std::string name;
    uint64_t low;
    uint64_t high;
    std::string help;
};

}  // namespace vxkit
