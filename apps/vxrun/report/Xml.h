// Xml: documents of any text, for reports.
#pragma once

#include <pugixml.hpp>

#include <string>
#include <utility>
#include <vector>

namespace vxrun {

// `text` without what XML 1.0 forbids, which codecs' logs contain: bytes that are not UTF-8,
// control characters, U+FFFE and U+FFFF.
std::string xmlText(const std::string& text);

using Attributes = std::vector<std::pair<const char*, std::string>>;
pugi::xml_node addNode(pugi::xml_node parent, const char* kind, const Attributes& attributes);

// When and where a test suite ran, as JUnit's attributes.
Attributes timeAndPlace();

// The whole document.
std::string textOf(const pugi::xml_document& document, unsigned format = pugi::format_indent);

}  // namespace vxrun
