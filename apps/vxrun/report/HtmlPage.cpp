#include "HtmlPage.h"

#include "HtmlAssets.h"
#include "Text.h"

#include <algorithm>
#include <cmath>

namespace vxrun {
namespace {

// Elements have end tags, as HTML wants it: "<p />" would not end.
constexpr unsigned kHtml =
    pugi::format_raw | pugi::format_no_declaration | pugi::format_no_empty_element_tags;

}  // namespace

std::string htmlPage(const std::string& title, const pugi::xml_document& body) {
    pugi::xml_document head;
    addText(head, "title", title);
    return concat(
        "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n"
        "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; img-src data:; "
        "style-src 'unsafe-inline'; script-src 'unsafe-inline'; base-uri 'none'; "
        "form-action 'none'\">\n"
        "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
        "<meta name=\"color-scheme\" content=\"light dark\">\n<link rel=\"icon\" "
        "href=\"data:,\">\n",
        textOf(head, kHtml), "<style>", kPageStyle, "</style>\n<script>", kPageScript,
        "</script></head>\n", textOf(body, kHtml), "</html>\n");
}

pugi::xml_node addText(pugi::xml_node parent, const char* kind, const std::string& text,
                       const Attributes& attributes) {
    pugi::xml_node node = addNode(parent, kind, attributes);
    node.append_child(pugi::node_pcdata).set_value(xmlText(text).c_str());
    return node;
}

pugi::xml_node addTable(pugi::xml_node parent, const std::vector<std::string>& head) {
    pugi::xml_node table = addNode(addNode(parent, "div", {{"class", "wide"}}), "table", {});
    pugi::xml_node row = addNode(addNode(table, "thead", {}), "tr", {});
    for (const std::string& name : head) addText(row, "th", name, {{"scope", "col"}});
    return addNode(table, "tbody", {});
}

void addRow(pugi::xml_node table, const std::vector<std::string>& cells) {
    pugi::xml_node row = addNode(table, "tr", {});
    for (const std::string& cell : cells) addText(row, "td", cell);
}

pugi::xml_node addDrawing(pugi::xml_node parent, const std::string& label, double width,
                          double height) {
    pugi::xml_node drawing =
        addNode(addNode(parent, "div", {{"class", "wide"}}), "svg",
                {{"viewBox", concat("0 0 ", width, " ", height)},
                 {"style", concat("width:", width, "px;min-width:", std::min(width, 560.0), "px")},
                 {"role", "img"},
                 {"aria-label", label}});
    return drawing;
}

void addPlot(pugi::xml_node parent, const Plot& plot) {
    constexpr double kWidth = 900, kHeight = 150, kLeft = 60, kTop = 24, kBottom = 128,
                     kRight = 890;
    double fromX = HUGE_VAL, toX = -HUGE_VAL, fromY = HUGE_VAL, toY = -HUGE_VAL;
    for (const auto& curve : plot.curves) {
        for (const auto& [x, y] : curve.points) {
            fromX = std::min(fromX, x), toX = std::max(toX, x);
            fromY = std::min(fromY, y), toY = std::max(toY, y);
        }
    }
    if (fromX > toX) return;
    const auto place = [](double value, double low, double high, double from, double to) {
        return high > low ? from + (to - from) * (value - low) / (high - low) : (from + to) / 2;
    };
    pugi::xml_node drawing = addDrawing(parent, plot.title, kWidth, kHeight);
    const auto write = [&](double x, double y, const std::string& text, const char* kind) {
        addText(drawing, "text", text,
                {{"x", decimal(x, 0)}, {"y", decimal(y, 0)}, {"class", kind}});
    };
    for (const auto& [y, value] : {std::pair(kTop, toY), std::pair(kBottom, fromY)}) {
        addNode(drawing, "path",
                {{"class", "grid"}, {"d", concat("M", kLeft, " ", y, "H", kRight)}});
        if (value == fromY || toY > fromY)
            write(kLeft - 6, y + 4, concat(std::setprecision(4), value), "end");
    }
    const auto digits = std::setprecision(4);
    write(kLeft, kHeight - 4, concat(digits, fromX), "");
    write(kRight, kHeight - 4, concat(digits, toX, " ", plot.unit), "end");
    write(kLeft, 14, plot.title, "");
    for (size_t i = 0; i < plot.curves.size(); ++i) {
        const auto& [name, points] = plot.curves[i];
        std::string path;
        for (const auto& [x, y] : points) {
            path +=
                concat(path.empty() ? "M" : "L", decimal(place(x, fromX, toX, kLeft, kRight), 1),
                       " ", decimal(place(y, fromY, toY, kBottom, kTop), 1));
        }
        if (points.size() == 1) path += "h0.1";
        const std::string kind = concat("c", i % 6);
        addNode(drawing, "path", {{"class", "curve " + kind}, {"d", path}});
        const double right = kRight - 120 * static_cast<double>(plot.curves.size() - 1 - i);
        if (plot.curves.size() > 1) write(right, 14, name, ("end text-" + kind).c_str());
    }
}

static const Json& none() {
    static const Json null;
    return null;
}

const Json& memberOf(const Json& object, const char* key) {
    const auto found = object.is_object() ? object.find(key) : object.end();
    return found != object.end() ? *found : none();
}

std::string plain(const Json& value) {
    if (value.is_null() || value.is_structured()) return "";
    if (value.is_string()) return value.get<std::string>();
    return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string textIn(const Json& object, const char* key) {
    return plain(memberOf(object, key));
}

std::optional<double> numberIn(const Json& object, const char* key) {
    const Json& value = memberOf(object, key);
    return value.is_number() ? std::optional(value.get<double>()) : std::nullopt;
}

const Json& objectIn(const Json& object, const char* key) {
    const Json& value = memberOf(object, key);
    return value.is_object() ? value : none();
}

const Json& arrayIn(const Json& object, const char* key) {
    const Json& value = memberOf(object, key);
    return value.is_array() ? value : none();
}

}  // namespace vxrun
