// HtmlPage: an HTML page in one file: what all pages have, elements, plots.
#pragma once

#include "Xml.h"

#include <nlohmann/json.hpp>

#include <optional>
#include <string>
#include <vector>

namespace vxrun {

// A page that loads nothing, has light and dark colors and can be read without scripts. `body` is
// its <body>. Names need no care anywhere: nodes and attributes escape them.
std::string htmlPage(const std::string& title, const pugi::xml_document& body);

// Adds an element with a text.
pugi::xml_node addText(pugi::xml_node parent, const char* kind, const std::string& text,
                       const Attributes& attributes = {});
// Adds a table with its head; sortable ones have buttons there.
pugi::xml_node addTable(pugi::xml_node parent, const std::vector<std::string>& head);
// Adds a row of cells, each a text.
void addRow(pugi::xml_node table, const std::vector<std::string>& cells);

// A drawing of `width` x `height`, which shrinks to the page.
pugi::xml_node addDrawing(pugi::xml_node parent, const std::string& label, double width,
                          double height);

// Curves over one axis. A plain value.
struct Plot {
    struct Curve {
        std::string name;
        std::vector<std::pair<double, double>> points;
    };
    std::string title, unit;
    std::vector<Curve> curves;
};
// Nothing where there are no points.
void addPlot(pugi::xml_node parent, const Plot& plot);

// ---- Reports as JSON, of which any part may be missing or of another kind ---------------------

using Json = nlohmann::ordered_json;

// The member `key`; null when there is none.
const Json& memberOf(const Json& object, const char* key);
// A string as it is, a number or a boolean as JSON spells it; empty for the others.
std::string plain(const Json& value);
std::string textIn(const Json& object, const char* key);
std::optional<double> numberIn(const Json& object, const char* key);
// The members of an object, or the items of an array; none of anything else.
const Json& objectIn(const Json& object, const char* key);
const Json& arrayIn(const Json& object, const char* key);

}  // namespace vxrun
