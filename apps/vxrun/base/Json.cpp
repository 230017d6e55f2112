#include "Json.h"

#include "Files.h"
#include "Text.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <set>
#include <sstream>
#include <string_view>
#include <utility>

namespace vxrun {
namespace {

constexpr size_t kMaxDepth = 32;  // values are built and destroyed by recursion

const char* name(JsonValue::Kind kind) {
    static constexpr const char* kNames[] = {"null",     "a boolean", "a number",
                                             "a string", "an array",  "an object"};
    return kNames[kind];
}

std::string got(const JsonValue& value) {
    return std::string(", got ") + name(value.kind);
}

}  // namespace

// Builder: the parser's handler. The parser reports no positions, but the position in the stream
// that it reads gives them: each call comes when the parser has read just its token (a number: one
// byte more), so the token began at the first byte after the last one that is no separator.
class JsonDocument::Builder {
public:
    explicit Builder(JsonDocument* document) : mDocument(*document), mStream(document->mText) {
        nlohmann::json::sax_parse(mStream, this);
    }

    bool null() { return addValue(JsonValue::NULL_VALUE, "null"); }
    bool boolean(bool value) { return addValue(JsonValue::BOOLEAN, value ? "true" : "false"); }
    bool number_integer(int64_t value) {
        return addValue(JsonValue::NUMBER, std::to_string(value));
    }
    bool number_unsigned(uint64_t value) {
        return addValue(JsonValue::NUMBER, std::to_string(value));
    }
    bool number_float(double, const std::string& text) { return addValue(JsonValue::NUMBER, text); }
    bool string(std::string& text) { return addValue(JsonValue::STRING, text); }
    bool binary(nlohmann::json::binary_t&) { return false; }  // not in text
    bool start_object(size_t) { return addValue(JsonValue::OBJECT, ""); }
    bool start_array(size_t) { return addValue(JsonValue::ARRAY, ""); }
    bool key(const std::string& text) {
        mKey = text;
        mLastEnd = reached();
        return true;
    }
    bool end_object() {
        std::set<std::string_view> seen;
        for (const JsonValue& member : mOpen.back()->items) {
            if (!seen.insert(member.key).second) mDocument.fail(member, "key is given twice");
        }
        return end_array();
    }
    bool end_array() {
        mOpen.pop_back();
        mLastEnd = reached();
        return true;
    }
    // The place is that of the last byte read.
    bool parse_error(size_t position, const std::string&, const nlohmann::json::exception& error) {
        // "[json.exception.parse_error.101] parse error at line 1, column 2: what we want", or
        // "[json.exception.out_of_range.406] what we want"
        const std::string text = error.what();
        const size_t colon = text.find(": ");
        const size_t start = colon != std::string::npos ? colon : text.find("] ");
        mDocument.failAt(position - std::min<size_t>(position, 1), text.substr(start + 2));
    }

private:
    bool addValue(JsonValue::Kind kind, const std::string& text) {
        JsonValue* const parent = mOpen.empty() ? nullptr : mOpen.back();
        std::string where = mDocument.mRootName;
        if (parent != nullptr && parent->kind == JsonValue::OBJECT) {
            where = mOpen.size() == 1 ? mKey : parent->where + "." + mKey;
        } else if (parent != nullptr) {
            where = concat(parent->where, "[", parent->items.size(), "]");
        }
        JsonValue& value = parent == nullptr ? mDocument.mRoot : parent->items.emplace_back();
        const size_t start = mDocument.mText.find_first_not_of(" \t\r\n,:]}", mLastEnd);
        value = {kind, text, {}, mKey, start, where};
        mLastEnd = reached();
        if (kind != JsonValue::ARRAY && kind != JsonValue::OBJECT) return true;
        if (mOpen.size() == kMaxDepth) mDocument.fail(value, "nested too deeply");
        mOpen.push_back(&value);  // stays where it is: its siblings come when it is closed
        return true;
    }

    // How far the parser has read.
    size_t reached() {
        return static_cast<size_t>(mStream.rdbuf()->pubseekoff(0, std::ios::cur, std::ios::in));
    }

    JsonDocument& mDocument;
    std::istringstream mStream;
    size_t mLastEnd = 0;            // where the last token ended
    std::vector<JsonValue*> mOpen;  // arrays and objects that are not closed, outermost first
    std::string mKey;               // of the member that comes next
};

const JsonValue* JsonValue::find(const std::string& name) const {
    for (const JsonValue& item : items) {
        if (item.key == name) return &item;
    }
    return nullptr;
}

JsonDocument::JsonDocument(const std::string& path, std::string rootName, size_t limit)
    : mPath(path), mRootName(std::move(rootName)), mText(readTextFile(path, limit)), mLines({0}) {
    for (size_t feed = 0; (feed = mText.find('\n', feed)) != mText.npos;) mLines.push_back(++feed);
    Builder builder(this);
}

const JsonValue& JsonDocument::expect(const JsonValue& value, JsonValue::Kind kind) const {
    if (value.kind != kind) fail(value, std::string("expected ") + vxrun::name(kind) + got(value));
    return value;
}

const JsonValue& JsonDocument::expectObject(const JsonValue& value,
                                            const std::vector<std::string>& keys) const {
    for (const JsonValue& item : expect(value, JsonValue::OBJECT).items) {
        if (std::find(keys.begin(), keys.end(), item.key) != keys.end()) continue;
        fail(item, "unknown key, expected one of " + joined(keys));
    }
    return value;
}

const JsonValue& JsonDocument::member(const JsonValue& object, const std::string& key,
                                      JsonValue::Kind kind) const {
    const JsonValue* const value = object.find(key);
    if (value == nullptr) fail(object, "missing key '" + key + "'");
    return expect(*value, kind);
}

const std::string& JsonDocument::name(const JsonValue& object, const std::string& key) const {
    const JsonValue& value = member(object, key, JsonValue::STRING);
    if (value.text.empty()) fail(value, "expected a name, got ''");
    return value.text;
}

const std::string& JsonDocument::scalar(const JsonValue& value) const {
    const bool isScalar = value.kind == JsonValue::STRING || value.kind == JsonValue::NUMBER ||
                          value.kind == JsonValue::BOOLEAN;
    if (!isScalar) fail(value, "expected a string, a number or a boolean" + got(value));
    return value.text;
}

std::vector<std::string> JsonDocument::strings(const JsonValue& value) const {
    std::vector<std::string> texts;
    for (const JsonValue& item : expect(value, JsonValue::ARRAY).items) {
        texts.push_back(expect(item, JsonValue::STRING).text);
    }
    return texts;
}

const std::vector<JsonValue>& JsonDocument::items(const JsonValue& object, const std::string& key,
                                                  JsonValue::Kind kind) const {
    static const std::vector<JsonValue> none;
    const JsonValue* const value = object.find(key);
    return value == nullptr ? none : expect(*value, kind).items;
}

void JsonDocument::fail(const JsonValue& value, const std::string& text,
                        std::optional<Verdict> verdict) const {
    failAt(value.offset, value.where + ": " + text, verdict);
}

void JsonDocument::failAt(size_t offset, const std::string& text,
                          std::optional<Verdict> verdict) const {
    offset = std::min(offset, mText.size());
    const auto next = std::upper_bound(mLines.begin(), mLines.end(), offset);
    throw Failure(concat(mPath, ":", next - mLines.begin(), ":", offset - next[-1] + 1, ": ", text),
                  verdict);
}

}  // namespace vxrun
