#include <cutils/properties.h>
#include <errno.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <unordered_map>

namespace {

struct Properties {
    std::mutex lock;
    std::unordered_map<std::string, std::string> values;  // guarded by lock; never empty strings
};

// Never destroyed: other threads and static objects may read properties while the process ends.
Properties& properties() {
    static Properties* sProperties = new Properties;
    return *sProperties;
}

std::string environmentOf(std::string key) {
    for (char& c : key)
        c = c == '.' ? '_' : static_cast<char>(toupper(static_cast<unsigned char>(c)));
    const char* value = getenv(key.c_str());
    return value != nullptr ? value : "";
}

std::string lookUp(const std::string& key) {
    {
        std::lock_guard<std::mutex> lock(properties().lock);
        const auto found = properties().values.find(key);
        if (found != properties().values.end()) return found->second;
    }
    return environmentOf(key);
}

}  // namespace

int property_get(const char* key, char* value, const char* default_value) {
    std::string found = key != nullptr ? lookUp(key) : "";
    if (found.empty() && default_value != nullptr) found = default_value;
    const size_t length = std::min<size_t>(found.size(), PROPERTY_VALUE_MAX - 1);
    memcpy(value, found.data(), length);
    value[length] = '\0';
    return static_cast<int>(length);
}

int property_set(const char* key, const char* value) {
    if (key == nullptr || *key == '\0') return -EINVAL;
    const std::string wanted = value != nullptr ? value : "";
    if (wanted.size() >= PROPERTY_VALUE_MAX && strncmp(key, "ro.", 3) != 0) return -EINVAL;
    std::lock_guard<std::mutex> lock(properties().lock);
    if (wanted.empty()) {
        properties().values.erase(key);
    } else {
        properties().values[key] = wanted;
    }
    return 0;
}
