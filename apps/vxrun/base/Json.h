// JsonDocument: a JSON file in which every value knows its place, for error lines that name it.
#pragma once

#include "Vxkit.h"

#include <vxkit/Verdict.h>

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace vxrun {

struct JsonValue {
    enum Kind { NULL_VALUE, BOOLEAN, NUMBER, STRING, ARRAY, OBJECT };

    Kind kind = NULL_VALUE;
    std::string text;              // of a string; of a number or boolean as JSON spells it
    std::vector<JsonValue> items;  // of an array; the members of an object, in order
    std::string key;               // of a member of an object
    size_t offset = 0;             // of its first byte in the file
    std::string where;             // such as nodes[1].type

    // The member `name` of an object; null when there is none.
    const JsonValue* find(const std::string& name) const;
};

// Failures read "file:line:column: where: text".
//
// Threads  any number of readers at once.
// Owns     the text and its values.
class JsonDocument {
public:
    // Reads and parses `path`. Refuses what is not valid JSON, nests too deeply,
    // gives a key of one object twice, or is larger than `limit` bytes: every value costs many
    // times its text. `rootName` is what error lines call the document itself.
    explicit JsonDocument(const std::string& path, std::string rootName = "graph",
                          size_t limit = 2 << 20);

    const JsonValue& root() const { return mRoot; }

    // `value`, when it is of `kind`.
    const JsonValue& expect(const JsonValue& value, JsonValue::Kind kind) const;
    // `value`, when it is an object and has no other keys than `keys`.
    const JsonValue& expectObject(const JsonValue& value,
                                  const std::vector<std::string>& keys) const;
    // The member `key` of `object`, when it is there and of `kind`.
    const JsonValue& member(const JsonValue& object, const std::string& key,
                            JsonValue::Kind kind) const;
    // The text of the string `key` of `object`, when it is not empty.
    const std::string& name(const JsonValue& object, const std::string& key) const;
    // The text of a string, a number or a boolean.
    const std::string& scalar(const JsonValue& value) const;
    // The texts of an array of strings.
    std::vector<std::string> strings(const JsonValue& value) const;
    // The items of the array or object `key` of `object`; none when it is not there.
    const std::vector<JsonValue>& items(const JsonValue& object, const std::string& key,
                                        JsonValue::Kind kind) const;

    [[noreturn]] void fail(const JsonValue& value, const std::string& text,
                           std::optional<Verdict> verdict = {}) const;

private:
    class Builder;

    [[noreturn]] void failAt(size_t offset, const std::string& text,
                             std::optional<Verdict> verdict = {}) const;

    const std::string mPath;
    const std::string mRootName;
    const std::string mText;
    std::vector<size_t> mLines;  // where each begins in mText
    JsonValue mRoot;
};

}  // namespace vxrun
