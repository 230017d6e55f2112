#include "Xml.h"

#include "Text.h"

#include <sys/utsname.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <ctime>

namespace vxrun {

std::string xmlText(const std::string& text) {
    using nlohmann::json;
    const std::string quoted = json(text).dump(-1, ' ', false, json::error_handler_t::ignore);
    std::string clean = json::parse(quoted).get<std::string>();
    const auto forbidden = [](unsigned char c) { return c < ' ' && c != '\t' && c != '\n'; };
    clean.erase(std::remove_if(clean.begin(), clean.end(), forbidden), clean.end());
    for (const char* const bytes : {"\xEF\xBF\xBE", "\xEF\xBF\xBF"}) {
        for (size_t at; (at = clean.find(bytes)) != clean.npos;) clean.erase(at, 3);
    }
    return clean;
}

pugi::xml_node addNode(pugi::xml_node parent, const char* kind, const Attributes& attributes) {
    pugi::xml_node node = parent.append_child(kind);
    for (const auto& [name, value] : attributes) {
        node.append_attribute(name) = xmlText(value).c_str();
    }
    return node;
}

Attributes timeAndPlace() {
    utsname system{};
    uname(&system);
    const time_t time = std::time(nullptr);
    std::tm now{};
    gmtime_r(&time, &now);
    return {{"timestamp", concat(std::put_time(&now, "%Y-%m-%dT%H:%M:%S"))},
            {"hostname", system.nodename}};
}

std::string textOf(const pugi::xml_document& document, unsigned format) {
    // Not through a stream: pugixml was built for one standard library, and this may use another.
    struct Writer final : pugi::xml_writer {
        void write(const void* data, size_t size) override {
            text.append(static_cast<const char*>(data), size);
        }
        std::string text;
    } writer;
    document.save(writer, "  ", format, pugi::encoding_utf8);
    return writer.text;
}

}  // namespace vxrun
