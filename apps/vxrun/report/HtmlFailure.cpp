// A failure on a page: what is wrong, where in the stream, and how it looks.
#include "Files.h"
#include "HtmlParts.h"
#include "Text.h"

#include <algorithm>
#include <filesystem>

namespace vxrun {
namespace {

using Node = pugi::xml_node;
using Ranges = std::vector<std::pair<double, double>>;  // of frames, both ends included

constexpr size_t kMostFrames = 2;               // whose pictures are shown
constexpr size_t kMostBytes = size_t{8} << 20;  // of pictures of one failure

// A link to a file of this machine.
std::string fileUrl(const std::string& path) {
    std::string url = "file://";
    for (const char c : path) {
        const bool isPlain = std::isalnum(static_cast<unsigned char>(c)) != 0 ||
                             std::string("/-._~").find(c) != std::string::npos;
        if (isPlain) {
            url += c;
        } else {
            url += concat("%", std::hex, std::uppercase, std::setw(2), std::setfill('0'),
                          int{static_cast<unsigned char>(c)});
        }
    }
    return url;
}

std::string base64(const std::string& bytes) {
    static constexpr char kDigits[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    text.reserve(bytes.size() / 3 * 4 + 4);
    for (size_t i = 0; i < bytes.size(); i += 3) {
        uint32_t group = 0;
        for (size_t j = i; j < i + 3; ++j) {
            group = group << 8 | (j < bytes.size() ? static_cast<uint8_t>(bytes[j]) : 0);
        }
        for (size_t j = 0; j < 4; ++j) {
            text += i + j > bytes.size() ? '=' : kDigits[group >> (18 - 6 * j) & 63];
        }
    }
    return text;
}

// The PNG file `name` as a URL. Empty, with the reason in `why`, when it cannot be shown.
std::string pictureUrl(const HtmlFiles& files, const std::string& name, size_t* room,
                       std::string* why) {
    const std::string path = locatedFile(files, name);
    *why = "is not there";
    if (path.empty()) return "";
    try {
        const std::string bytes = readTextFile(path, *room);
        *why = "is not a PNG file";
        if (bytes.rfind("\x89PNG\r\n\x1A\n", 0) != 0) return "";
        *room -= bytes.size();
        return "data:image/png;base64," + base64(bytes);
    } catch (const Failure&) {
        *why = "does not fit into this page, or cannot be read";
        return "";
    }
}

void addPictures(Node parent, const Json& dumps, HtmlFiles* files) {
    static constexpr const char* kKinds[] = {"expected", "actual", "diff"};
    size_t room = std::min(*files->room, kMostBytes), shown = 0;
    const size_t before = room;
    for (const Json& dump : dumps) {
        if (++shown > kMostFrames) break;
        addText(parent, "h4", "Frame " + textIn(dump, "frame"));
        std::vector<std::pair<const char*, std::string>> pictures;
        for (const char* const kind : kKinds) {
            const std::string file = textIn(dump, kind);
            std::string why;
            if (file.empty()) continue;
            const std::string url = pictureUrl(*files, file, &room, &why);
            if (url.empty()) addText(parent, "p", concat(file, " ", why, "."), {{"class", "dim"}});
            if (!url.empty()) pictures.emplace_back(kind, url);
        }
        if (pictures.empty()) continue;
        Node viewer = addNode(parent, "div", {{"class", "viewer"}});
        Node tools = addNode(viewer, "div", {{"class", "tools script"}, {"hidden", ""}});
        const bool canWipe = pictures.size() > 1 && pictures[1].first == std::string("actual");
        if (canWipe) {
            Node label = addText(tools, "label", "expected ");
            addNode(label, "input",
                    {{"type", "range"},
                     {"class", "wipe"},
                     {"min", "0"},
                     {"max", "100"},
                     {"value", "50"},
                     {"aria-label", "how much of the actual picture is shown"}});
            addText(label, "span", " actual");
        }
        if (pictures.back().first == std::string("diff")) {
            addText(tools, "button", "Zoom to the first wrong sample",
                    {{"type", "button"}, {"class", "zoom"}, {"aria-pressed", "false"}});
        }
        Node row = addNode(viewer, "div", {{"class", "pictures"}});
        Node figure;
        for (const auto& [kind, url] : pictures) {
            const bool isOver = canWipe && kind == std::string("actual");
            if (!isOver) figure = addNode(row, "figure", {});
            if (!isOver) addNode(figure, "div", {{"class", "frame"}});
            addNode(figure.first_child(), "img",
                    {{"class", isOver ? "over" : kind}, {"alt", kind}, {"src", url}});
            if (isOver) continue;
            addText(figure, "figcaption",
                    canWipe && kind == std::string("expected") ? "expected, actual" : kind);
        }
    }
    if (dumps.size() > kMostFrames) {
        addText(parent, "p",
                concat("Not shown: the pictures of ", dumps.size() - kMostFrames, " more, from ",
                       textIn(dumps[kMostFrames], "actual"), " on."),
                {{"class", "dim"}});
    }
    *files->room -= before - room;
}

Ranges wrongFrames(const Json& failure) {
    Ranges ranges;
    for (const Json& range : arrayIn(failure, "wrong_frames")) {
        const bool isRange = range.is_array() && range.size() == 2 && range[0].is_number() &&
                             range[1].is_number() && range[0] <= range[1];
        if (isRange) ranges.emplace_back(range[0].get<double>(), range[1].get<double>());
    }
    return ranges;
}

// The same frames as numbers of their pictures in decoding order.
Ranges inDecodingOrder(const Ranges& wrong, const Json& pictures) {
    std::vector<double> numbers;
    const auto known = static_cast<double>(pictures.size());
    for (const auto& [first, last] : wrong) {
        const auto end = static_cast<size_t>(std::clamp(last + 1, 0.0, known));
        for (auto frame = static_cast<size_t>(std::clamp(first, 0.0, known)); frame < end;
             ++frame) {
            const Json& picture = pictures[frame];
            if (picture.is_number()) numbers.push_back(picture.get<double>());
        }
    }
    std::sort(numbers.begin(), numbers.end());
    Ranges ranges;
    for (const double number : numbers) {
        if (!ranges.empty() && ranges.back().second + 1 >= number) {
            ranges.back().second = number;
        } else {
            ranges.emplace_back(number, number);
        }
    }
    return ranges;
}

void addStrip(Node parent, const std::string& label, const Ranges& wrong, double frames) {
    constexpr double kWidth = 900;
    if (wrong.empty()) return;
    frames = std::max(frames, wrong.back().second + 1);
    Node drawing = addDrawing(parent, label, kWidth, 34);
    addText(drawing, "text", label, {{"x", "0"}, {"y", "11"}});
    addText(drawing, "text", concat("0 to ", std::fixed, std::setprecision(0), frames - 1),
            {{"x", "900"}, {"y", "11"}, {"class", "end"}});
    addNode(drawing, "rect", {{"class", "good"}, {"y", "17"}, {"width", "900"}, {"height", "15"}});
    std::string path;
    for (const auto& [first, last] : wrong) {
        const double from = first / frames * kWidth;
        const double width = std::max((last + 1 - first) / frames * kWidth, 1.5);
        path += concat("M", decimal(std::min(from, kWidth - width), 1), " 17h", decimal(width, 1),
                       "v15h-", decimal(width, 1), "z");
    }
    addNode(drawing, "path", {{"class", "wrong"}, {"d", path}});
}

void addUnits(Node parent, const Json& failure) {
    static constexpr std::pair<const char*, const char*> kRows[] = {
        {"frame", "frame (output order)"},
        {"picture", "picture (decoding order)"},
        {"unit", "access unit"},
        {"offset", "byte offset"},
        {"bytes", "bytes"},
        {"pts", "presentation time"},
        {"dts", "decoding time"},
        {"type", "type"},
        {"key", "key picture"},
        {"reference", "reference"},
        {"temporal_layer", "temporal layer"}};
    const Json& output = objectIn(failure, "first_in_output_order");
    const Json& decoding = objectIn(failure, "first_in_decoding_order");
    if (output.is_null() && decoding.is_null()) return;
    addText(parent, "h4", "The first wrong picture");
    Node table = addTable(parent, {"", "in output order", "in decoding order"});
    for (const auto& [key, name] : kRows) {
        const std::string first = textIn(output, key), second = textIn(decoding, key);
        if (!first.empty() || !second.empty()) addRow(table, {name, first, second});
    }
}

void addCells(Node parent, const Json& failure, size_t* room) {
    const double columns = numberIn(failure, "cell_columns").value_or(0);
    const double rows = numberIn(failure, "cell_rows").value_or(0);
    std::vector<std::string> frames, cells;
    size_t leftOut = 0;  // frames for which the page has no room
    Plot plot = {"PSNR of the wrong frames (dB)", "frame", {{"psnr", {}}}};
    for (const Json& frame : arrayIn(failure, "frames")) {
        const std::string hex = lowerCase(textIn(frame, "cells"));
        const auto number = numberIn(frame, "frame"), psnr = numberIn(frame, "psnr");
        if (!number) continue;
        if (psnr) plot.curves[0].points.emplace_back(*number, *psnr);
        if (hex.empty() || hex.find_first_not_of("0123456789abcdef") != hex.npos) continue;
        if (hex.size() > *room) {
            ++leftOut;
            continue;
        }
        *room -= hex.size();
        frames.push_back(decimal(*number, 0));
        cells.push_back(hex);
    }
    if (leftOut > 0) {
        addText(parent, "p", concat("Not shown: the wrong cells of ", leftOut, " frames."));
    }
    constexpr double kMost = 1 << 16;  // 256 x 256: of pictures of 16384 x 16384
    if (!cells.empty() && columns >= 1 && rows >= 1 && columns * rows <= kMost) {
        addText(parent, "h4", "Wrong cells");
        Node heat = addNode(parent, "div",
                            {{"class", "heat script"},
                             {"hidden", ""},
                             {"data-columns", decimal(columns, 0)},
                             {"data-rows", decimal(rows, 0)},
                             {"data-frames", joined(frames)},
                             {"data-cells", joined(cells)}});
        Node all = addNode(heat, "figure", {});
        addNode(all, "canvas",
                {{"class", "time"}, {"role", "img"}, {"aria-label", "wrong cells of all frames"}});
        addText(all, "figcaption",
                concat("frames ", frames.front(), " to ", frames.back(),
                       ", from left to right; cells from top to bottom, row by row"));
        Node one = addNode(heat, "figure", {});
        addNode(one, "canvas",
                {{"class", "grid"}, {"role", "img"}, {"aria-label", "wrong cells of one frame"}});
        Node label = addText(addNode(one, "figcaption", {}), "label", "frame ");
        addText(label, "output", frames.front());
        addNode(label, "input",
                {{"type", "range"},
                 {"min", "0"},
                 {"value", "0"},
                 {"max", std::to_string(frames.size() - 1)}});
        const std::string size = textIn(failure, "cell_size");
        if (!size.empty()) addText(one.last_child(), "span", concat(" cells of ", size, "x", size));
    }
    addPlot(parent, plot);
}

}  // namespace

std::string locatedFile(const HtmlFiles& files, const std::string& name) {
    namespace fs = std::filesystem;
    if (name.empty() || name.find('\0') != name.npos) return "";
    std::error_code error;
    for (const fs::path& path : {fs::path(name), fs::path(files.folder) / name}) {
        if (fs::is_regular_file(path, error)) return fs::absolute(path, error).lexically_normal();
    }
    return "";
}

void addFailure(Node parent, const std::string& id, const std::string& name, const Json& failure,
                HtmlFiles* files) {
    Node details = addNode(parent, "details", {{"class", "failure"}, {"id", id}});
    Node summary = addNode(details, "summary", {});
    addText(summary, "b", textIn(failure, "type"), {{"class", "bad"}});
    addText(summary, "span", concat(" ", name));
    std::string kind;
    for (const char* const key : {"kind", "shape"}) {
        const std::string text = textIn(failure, key);
        if (!text.empty()) kind += (kind.empty() ? "" : ", ") + text;
    }
    if (!kind.empty()) addText(summary, "span", " " + kind, {{"class", "dim"}});

    const std::string text = textIn(failure, "text");
    if (!text.empty()) addText(details, "p", text, {{"class", "text"}});
    const Json& hint = objectIn(failure, "hint");
    if (!hint.is_null()) {
        const std::string reason = textIn(hint, "reason");
        addText(details, "p",
                concat("Hint: ", textIn(hint, "text"), reason.empty() ? "" : ": ", reason, "."));
    }
    const std::string noMap = textIn(failure, "no_map");
    if (!noMap.empty()) addText(details, "p", concat("No access unit is named: ", noMap));
    for (const Json& hidden : arrayIn(failure, "hidden_references")) {
        addText(details, "p",
                concat("The fault may be in picture ", textIn(hidden, "picture"), ", access unit ",
                       textIn(hidden, "unit"), ", which no frame shows."));
    }
    const std::string command = textIn(failure, "command");
    if (!command.empty()) {
        Node line = addNode(details, "div", {{"class", "command"}});
        addText(line, "code", command);
        addText(line, "button", "Copy",
                {{"type", "button"}, {"class", "copy script"}, {"hidden", ""}});
    }
    const std::string bundle = textIn(failure, "bundle");
    if (!bundle.empty()) {
        const std::string file = locatedFile(*files, bundle);
        Node line = addText(details, "p", "Bundle: ");
        if (file.empty()) addText(line, "span", bundle);
        if (!file.empty()) addText(line, "a", bundle, {{"href", fileUrl(file)}});
    }
    Node facts = addTable(details, {"", ""});
    facts.parent().remove_child("thead");
    const Json& stream = objectIn(failure, "stream");
    for (const auto& [label, value] :
         {std::pair("input", textIn(failure, "input")), std::pair("node", textIn(failure, "node")),
          std::pair("codec", textIn(stream, "codec")),
          std::pair("access units", textIn(stream, "units")),
          std::pair("pictures", textIn(stream, "pictures")),
          std::pair("time base", textIn(stream, "time_base")),
          std::pair("wrong frames", textIn(failure, "wrong_frames_total"))}) {
        if (!value.empty()) addRow(facts, {label, value});
    }
    addUnits(details, failure);
    const Ranges wrong = wrongFrames(failure);
    const Json& order = arrayIn(stream, "frames");
    const double pictures = numberIn(stream, "pictures").value_or(0);
    addStrip(details, "Wrong frames in output order", wrong, pictures);
    if (!order.is_null()) {
        const auto mapped = static_cast<double>(order.size());
        addStrip(details,
                 mapped < pictures ? concat("Wrong pictures in decoding order, of the first ",
                                            order.size(), " frames")
                                   : "Wrong pictures in decoding order",
                 inDecodingOrder(wrong, order), pictures);
    }
    if (const Json& dumps = arrayIn(failure, "dumps"); !dumps.empty()) {
        addPictures(details, dumps, files);
    }
    addCells(details, failure, files->cellRoom);
    const std::string log = textIn(failure, "log");
    if (log.empty()) return;
    addText(details, "h4", "Log");
    addText(details, "pre", log, {{"tabindex", "0"}});
}

}  // namespace vxrun
