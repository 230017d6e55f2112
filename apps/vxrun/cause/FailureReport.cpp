#include "FailureReport.h"

#include "Answer.h"
#include "Program.h"
#include "Text.h"
#include "WrongAreas.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <set>

namespace vxrun {
namespace {

using Json = FailureJson;

constexpr size_t kMostDetailed = 256;  // frames with a PSNR and cells
constexpr std::chrono::seconds kMapLimit(60);

std::string hexOf(const std::vector<bool>& cells) {
    std::string text;
    for (size_t i = 0; i < cells.size(); i += 4) {
        unsigned digit = 0;
        for (size_t bit = 0; bit < 4; ++bit) {
            digit = digit * 2 + (i + bit < cells.size() && cells[i + bit] ? 1 : 0);
        }
        text += "0123456789abcdef"[digit];
    }
    return text;
}

// The files with the pictures of a wrong frame, see BadFrames.
Json dumpOf(const WrongFrame& frame) {
    Json json = {{"frame", frame.number}};
    for (const char* const kind : {"actual", "expected", "diff"}) {
        const std::string file = concat(frame.dump, ".", kind, ".png");
        std::error_code none;
        if (std::filesystem::exists(file, none)) json[kind] = file;
    }
    return json;
}

Json rangesOf(const std::vector<WrongFrame>& wrong) {
    Json ranges = Json::array();
    for (const WrongFrame& frame : wrong) {
        if (!ranges.empty() && ranges.back()[1] == frame.number - 1) {
            ranges.back()[1] = frame.number;
        } else {
            ranges.push_back({frame.number, frame.number});
        }
    }
    return ranges;
}

Json unitOf(const StreamMap& map, size_t picture) {
    const CodedPicture& coded = map.pictures.at(picture);
    const StreamUnit& unit = map.units.at(coded.unit);
    Json json = {{"picture", picture}, {"unit", coded.unit}};
    if (unit.offset != StreamUnit::kNoOffset) json["offset"] = unit.offset;
    json["bytes"] = unit.bytes;
    if (unit.pts != UnitInfo::kNoTime) json["pts"] = unit.pts;
    if (unit.dts != UnitInfo::kNoTime) json["dts"] = unit.dts;
    if (coded.type != 0) json["type"] = std::string(1, coded.type);
    json["key"] = unit.isKey;
    json["reference"] = coded.isReference;
    if (coded.temporalLayer >= 0) json["temporal_layer"] = coded.temporalLayer;
    return json;
}

// The pictures that no frame shows and that `picture` refers to, by way of such pictures, too.
Json hiddenOf(const StreamMap& map, size_t picture) {
    const std::set<size_t> shown(map.frames.begin(), map.frames.end());
    std::set<size_t> hidden;
    std::vector<size_t> left = {picture};
    while (!left.empty()) {
        const CodedPicture& coded = map.pictures.at(left.back());
        left.pop_back();
        for (const size_t reference : coded.refers) {
            if (shown.count(reference) == 0 && hidden.insert(reference).second) {
                left.push_back(reference);
            }
        }
    }
    Json list = Json::array();
    for (const size_t one : hidden) list.push_back(unitOf(map, one));
    return list;
}

// "picture 14 (B, reference), access unit 14 at byte 48211, 812 bytes, pts 12, dts 14".
std::string unitText(const Json& unit) {
    std::string kind = unit.value("type", "");
    for (const char* const flag : {"key", "reference"}) {
        if (unit.value(flag, false)) kind += concat(kind.empty() ? "" : ", ", flag);
    }
    std::string text =
        concat("picture ", unit.at("picture").get<size_t>(), kind.empty() ? "" : " (" + kind + ")",
               ", access unit ", unit.at("unit").get<size_t>());
    if (unit.contains("offset")) text += " at byte " + unit["offset"].dump();
    text += concat(", ", unit.at("bytes").get<uint64_t>(), " bytes");
    for (const char* const time : {"pts", "dts"}) {
        if (unit.contains(time)) text += concat(", ", time, " ", unit[time].get<int64_t>());
    }
    return text;
}

Json tracedIn(const std::string& input, const std::vector<WrongFrame>& wrong,
              const NodeRecord& node) {
    const auto ask = [&] {
        try {
            return traceOf(mapStream(input), wrong, node.frames, node.endOfStream).dump();
        } catch (const Failure& failure) {
            return Json{{"no_map", failure.what()}}.dump(-1, ' ', false,
                                                         Json::error_handler_t::replace);
        }
    };
    try {
        int status = 0;
        const std::string answer = answerOf(ask, kMapLimit, &status);
        Json traced = Json::parse(answer, nullptr, false);
        if (status == 0 && traced.is_object()) return traced;
        return {{"no_map", input + ": not mapped: " + endText(status)}};
    } catch (const Failure& failure) {
        return {{"no_map", failure.what()}};
    }
}

}  // namespace

std::string videoOf(const vexa::VXGraphInfo& graph, const std::string& node) {
    std::map<std::string, const vexa::VXNodeDescriptor*> senders;  // by input port
    for (const auto& [output, inputs] : graph.connections) {
        for (const auto& sender : graph.nodes) {
            for (const auto& port : sender->outputPorts) {
                if (port.name != output) continue;
                for (const std::string& input : inputs) senders[input] = sender.get();
            }
        }
    }
    const vexa::VXNodeDescriptor* at = nullptr;
    for (const auto& candidate : graph.nodes) {
        if (node.empty() ? candidate->outputPorts.empty() : candidate->name == node) {
            at = candidate.get();
            break;
        }
    }
    // The first input of a node that compares is the tested one. No node is passed twice.
    for (size_t steps = graph.nodes.size(); at != nullptr && steps > 0; --steps) {
        if (at->inputPorts.empty()) {
            const std::string key = at->type == "codec/command" ? "input" : "file";
            const bool isVideo = at->type != "source/y4m" && at->type != "source/rawvideo";
            const auto file = at->configs.find(at->configs.count(key) > 0 ? key : "file");
            return isVideo && file != at->configs.end() ? file->second : "";
        }
        const auto sender = senders.find(at->inputPorts.begin()->name);
        at = sender != senders.end() ? sender->second : nullptr;
    }
    return "";
}

FailureJson traceOf(const StreamMap& map, const std::vector<WrongFrame>& wrong, uint64_t frames,
                    bool isComplete) {
    constexpr size_t kMostFrames = 10000;
    const auto& shown = map.frames;
    const auto isUnknown = [&](const WrongFrame& frame) { return frame.number >= shown.size(); };
    if (frames > shown.size() || (isComplete && frames != shown.size()) ||
        std::any_of(wrong.begin(), wrong.end(), isUnknown)) {
        return {{"no_map", concat("the stream's map does not fit: it has ", shown.size(),
                                  " frames, the run had ", frames)}};
    }
    Json json;
    json["stream"] = {{"codec", map.codec},
                      {"units", map.units.size()},
                      {"pictures", map.pictures.size()},
                      {"time_base", concat(map.timeBase.num, "/", map.timeBase.den)}};
    const auto end = shown.begin() + static_cast<ptrdiff_t>(std::min(shown.size(), kMostFrames));
    json["stream"]["frames"] = std::vector<size_t>(shown.begin(), end);
    const auto member = [&](uint64_t frame) {
        Json place = {{"frame", frame}};
        place.update(unitOf(map, shown[frame]));
        return place;
    };
    const auto isShownBefore = [](const WrongFrame& a, const WrongFrame& b) {
        return a.number < b.number;
    };
    const auto isCodedBefore = [&](const WrongFrame& a, const WrongFrame& b) {
        return shown[a.number] < shown[b.number];
    };
    const uint64_t output = std::min_element(wrong.begin(), wrong.end(), isShownBefore)->number;
    const uint64_t decoding = std::min_element(wrong.begin(), wrong.end(), isCodedBefore)->number;
    json["first_in_output_order"] = member(output);
    json["first_in_decoding_order"] = member(decoding);
    const Json hidden = hiddenOf(map, shown[decoding]);
    if (!hidden.empty()) json["hidden_references"] = hidden;
    for (size_t i = 0; i < std::min(wrong.size(), kMostDetailed); ++i) {
        json["order"].push_back(shown[wrong[i].number]);
    }
    return json;
}

FailureJson wrongFramesOf(const Evidence& evidence, const std::string& input) {
    const NodeRecord* const node = failingNode(evidence);
    if (node == nullptr) return Json::object();
    const Mismatch mismatch = *node->mismatch();
    std::vector<WrongFrame> wrong = node->wrongFrames();
    Json json = {{"node", node->name}};
    if (wrong.empty()) return json;  // of the whole stream only
    json["first"] = {{"frame", mismatch.frame}, {"timestamp", mismatch.timestamp}};
    if (mismatch.kind == "samples") {
        json["first"].update(Json{{"plane", mismatch.plane},
                                  {"x", mismatch.x},
                                  {"y", mismatch.y},
                                  {"actual", mismatch.actual},
                                  {"expected", mismatch.expected}});
    }
    json["wrong_frames"] = rangesOf(wrong);
    json["wrong_frames_total"] = std::max<uint64_t>(wrong.size(), node->mismatches);
    const WrongFrame& first = wrong.front();
    if (first.cellSize > 0) {
        json["cell_size"] = first.cellSize;
        json["cell_columns"] = first.columns;
        json["cell_rows"] = first.rows;
    }
    for (size_t i = 0; i < std::min(wrong.size(), kMostDetailed); ++i) {
        const WrongFrame& frame = wrong[i];
        Json detail = {{"frame", frame.number},
                       {"psnr", std::isfinite(frame.psnr) ? Json(frame.psnr) : Json()}};
        if (frame.cells.size() == first.cells.size() && !frame.cells.empty()) {
            detail["cells"] = hexOf(frame.cells);
        }
        json["frames"].push_back(detail);
        if (!frame.dump.empty()) json["dumps"].push_back(dumpOf(frame));
    }
    Json traced = Json::object();
    if (!input.empty()) traced = tracedIn(input, wrong, *node);
    WrongAreas areas;
    areas.frames.assign(wrong.begin(), wrong.begin() + static_cast<ptrdiff_t>(
                                                           std::min(wrong.size(), kMostDetailed)));
    areas.isDecodingOrder = traced.contains("order");
    areas.kind = mismatch.kind;
    areas.shape = mismatch.shape;
    areas.finding = node->finding();
    areas.checked = node->checked;
    if (areas.isDecodingOrder) {
        std::map<uint64_t, size_t> order;  // of the frames, by their numbers
        for (size_t i = 0; i < areas.frames.size(); ++i) {
            order[areas.frames[i].number] = traced["order"][i];
        }
        std::stable_sort(areas.frames.begin(), areas.frames.end(),
                         [&](const WrongFrame& a, const WrongFrame& b) {
                             return order[a.number] < order[b.number];
                         });
        traced.erase("order");
    }
    if (const auto hint = hintOf(areas)) {
        json["hint"] = {{"text", hint->text}, {"reason", hint->reason}};
    }
    json.update(traced);
    return json;
}

FailureJson failureOf(const FailureFacts& facts, const FailureJson& wrongFrames) {
    Json json;
    const std::pair<const char*, std::string> members[] = {{"type", facts.signature.type},
                                                           {"kind", facts.signature.kind},
                                                           {"shape", facts.signature.shape},
                                                           {"text", facts.text},
                                                           {"log", facts.log},
                                                           {"command", facts.command},
                                                           {"input", facts.input},
                                                           {"bundle", facts.bundle}};
    for (const auto& [name, value] : members) {
        if (!value.empty()) json[name] = value;
    }
    if (wrongFrames.is_object()) json.update(wrongFrames);
    return json;
}

std::vector<std::string> linesOf(const FailureJson& failure) {
    std::vector<std::string> lines;
    const std::pair<const char*, const char*> firsts[] = {
        {"first_in_output_order", "first wrong in output order: frame "},
        {"first_in_decoding_order", "first wrong in decoding order: frame "}};
    for (const auto& [name, text] : firsts) {
        const auto unit = failure.find(name);
        if (unit != failure.end()) {
            lines.push_back(concat(text, unit->at("frame").get<uint64_t>(), ", ", unitText(*unit)));
        }
    }
    if (const auto hidden = failure.find("hidden_references"); hidden != failure.end()) {
        std::string text;
        for (const Json& unit : *hidden) text += (text.empty() ? "" : "; ") + unitText(unit);
        lines.push_back(
            "the fault may be in a picture that no frame shows and that it refers to: " + text);
    }
    if (const auto reason = failure.find("no_map"); reason != failure.end()) {
        lines.push_back(concat("no access unit is named: ", reason->get<std::string>()));
    }
    if (const auto hint = failure.find("hint"); hint != failure.end()) {
        lines.push_back(concat("hint: ", hint->at("text").get<std::string>(), ", because ",
                               hint->at("reason").get<std::string>()));
    }
    return lines;
}

}  // namespace vxrun
