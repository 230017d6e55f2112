// A run on a page: the graph, and what its nodes did.
#include "Files.h"
#include "HtmlParts.h"
#include "Text.h"

#include <algorithm>
#include <map>
#include <set>

namespace vxrun {
namespace {

using Node = pugi::xml_node;
using Names = std::vector<std::string>;
using Edges = std::set<std::pair<std::string, std::string>>;

constexpr double kBoxWidth = 150, kBoxHeight = 46, kStepX = 210, kStepY = 64;

// The layer of each node: one more than the highest of those that it is fed by. Nodes on a circle
// have some layer.
std::map<std::string, size_t> layersOf(const Names& nodes, const Edges& edges) {
    std::map<std::string, size_t> layers;
    for (const std::string& node : nodes) layers[node] = 0;
    for (size_t round = 1; round < nodes.size(); ++round) {
        for (const auto& [from, to] : edges) {
            layers[to] = std::max(layers[to], std::min(layers[from] + 1, nodes.size()));
        }
    }
    return layers;
}

void addGraph(Node parent, const Json& run) {
    constexpr size_t kMost = 200;
    const Json& list = arrayIn(run, "nodes");
    Names nodes;
    for (const Json& node : list) nodes.push_back(textIn(node, "name"));
    if (nodes.empty() || nodes.size() > kMost) return;
    Edges edges;
    for (const Json& edge : arrayIn(run, "connections")) {
        const std::string from = textIn(edge, "from"), to = textIn(edge, "to");
        const bool areKnown = std::count(nodes.begin(), nodes.end(), from) > 0 &&
                              std::count(nodes.begin(), nodes.end(), to) > 0;
        if (areKnown) edges.insert({from, to});
    }
    if (edges.empty()) return;
    const auto layers = layersOf(nodes, edges);
    std::map<size_t, double> heights;  // of layers, in nodes
    std::map<std::string, std::pair<double, double>> places;
    double width = 0, height = 0;
    for (const std::string& node : nodes) {
        const size_t layer = layers.at(node);
        places[node] = {static_cast<double>(layer) * kStepX + 1, heights[layer]++ * kStepY + 1};
        width = std::max(width, places[node].first + kBoxWidth + 1);
        height = std::max(height, places[node].second + kBoxHeight + 1);
    }
    addText(parent, "h3", "Graph");
    Node drawing = addDrawing(parent, "The graph", width, height);
    for (const auto& [from, to] : edges) {
        const auto [x1, y1] = places[from];
        const auto [x2, y2] = places[to];
        const double left = x1 + kBoxWidth, middle = (left + x2) / 2;
        addNode(drawing, "path",
                {{"class", "edge"},
                 {"d", concat("M", left, " ", y1 + kBoxHeight / 2, "C", middle, " ",
                              y1 + kBoxHeight / 2, " ", middle, " ", y2 + kBoxHeight / 2, " ", x2,
                              " ", y2 + kBoxHeight / 2)}});
    }
    for (const Json& node : list) {
        const auto [x, y] = places[textIn(node, "name")];
        // An inner drawing cuts off names that are too long.
        Node box = addNode(drawing, "svg",
                           {{"x", concat(x)},
                            {"y", concat(y)},
                            {"width", concat(kBoxWidth)},
                            {"height", concat(kBoxHeight)}});
        addText(box, "title", concat(textIn(node, "name"), ": ", textIn(node, "type")));
        addNode(box, "rect",
                {{"class", "box"}, {"width", "100%"}, {"height", "100%"}, {"rx", "5"}});
        addText(box, "text", textIn(node, "name"), {{"x", "10"}, {"y", "19"}, {"class", "strong"}});
        addText(box, "text", textIn(node, "type"), {{"x", "10"}, {"y", "36"}});
    }
}

constexpr std::pair<const char*, const char*> kTimes[] = {{"busy", "busy"},
                                                          {"input", "waits for input"},
                                                          {"room", "waits for room downstream"},
                                                          {"buffer", "waits for a buffer"}};

std::vector<double> timesOf(const Json& node) {
    std::vector<double> times = {numberIn(node, "busy_seconds").value_or(0)};
    const Json& waiting = objectIn(node, "waiting_seconds");
    for (const auto& [key, name] : kTimes) {
        if (key != kTimes[0].first) times.push_back(numberIn(waiting, key).value_or(0));
    }
    return times;
}

void addNodes(Node parent, const Json& nodes) {
    if (nodes.empty()) return;
    addText(parent, "h3", "Nodes");
    Node legend = addNode(parent, "p", {{"class", "legend"}});
    for (const auto& [key, name] : kTimes) {
        Node entry = addNode(legend, "span", {});
        addNode(entry, "i", {{"class", concat("part ", key)}});
        addText(entry, "span", name);
    }
    Node table = addTable(parent, {"node", "type", "frames", "time", "busy s", "processor s",
                                   "longest queue", "figures"});
    for (const Json& node : nodes) {
        addRow(table, {textIn(node, "name"), textIn(node, "type"), textIn(node, "frames")});
        Node row = table.last_child();
        Node bar = addNode(addNode(row, "td", {}), "div", {{"class", "stack"}});
        const std::vector<double> times = timesOf(node);
        double all = 0;
        for (const double time : times) all += time;
        for (size_t i = 0; i < times.size() && all > 0; ++i) {
            addNode(bar, "span",
                    {{"class", concat("part ", kTimes[i].first)},
                     {"style", concat("width:", decimal(100 * times[i] / all, 1), "%")},
                     {"title", concat(kTimes[i].second, ": ", decimal(times[i], 3), " s")}});
        }
        const auto cpu = numberIn(node, "cpu_seconds");
        addText(row, "td", decimal(times[0], 3));
        addText(row, "td", cpu ? decimal(*cpu, 3) : "");
        addText(row, "td", textIn(node, "queue_high_water"));
        std::string figures;
        for (const auto& [name, value] : objectIn(node, "figures").items()) {
            figures += concat(figures.empty() ? "" : ", ", name, " ", plain(value));
        }
        addText(row, "td", figures);
    }
}

// The values of a counter over time. Where they become too many, neighbors are put together as the
// smallest and the largest of them.
class CounterCurve {
public:
    void add(double time, double value) {
        if (mCount++ % mStride == 0) mSpans.push_back({time, value, value});
        Span& span = mSpans.back();
        span.low = std::min(span.low, value);
        span.high = std::max(span.high, value);
        constexpr size_t kMost = 500;  // of up to two points each
        if (mSpans.size() < kMost) return;
        for (size_t i = 0; i < mSpans.size() / 2; ++i) {
            const Span &first = mSpans[2 * i], &second = mSpans[2 * i + 1];
            mSpans[i] = {first.time, std::min(first.low, second.low),
                         std::max(first.high, second.high)};
        }
        mSpans.resize(mSpans.size() / 2);
        mStride *= 2;
    }

    std::vector<std::pair<double, double>> points() const {
        std::vector<std::pair<double, double>> points;
        std::vector<Span> spans = mSpans;  // several threads report the counts of a pool
        std::stable_sort(spans.begin(), spans.end(),
                         [](const Span& a, const Span& b) { return a.time < b.time; });
        for (const Span& span : spans) {
            points.emplace_back(span.time, span.low);
            if (span.high > span.low) points.emplace_back(span.time, span.high);
        }
        return points;
    }

private:
    struct Span {
        double time, low, high;
    };
    std::vector<Span> mSpans;
    size_t mCount = 0, mStride = 1;
};

// The counters of a trace, by name and key. It has one event per line; what is none is passed over.
std::map<std::string, std::map<std::string, CounterCurve>> countersOf(const std::string& path) {
    constexpr size_t kMostLine = 1 << 20;
    constexpr double kSecond = 1e6;
    std::map<std::string, std::map<std::string, CounterCurve>> counters;
    InputFile file(path);
    for (std::string line; file.readLine(kMostLine, &line);) {
        if (line.find("\"C\"") == line.npos) continue;
        if (line.back() == ',') line.pop_back();
        const Json event = Json::parse(line, nullptr, false);
        const auto time = numberIn(event, "ts");
        if (!time || textIn(event, "ph") != "C") continue;
        auto& curves = counters[textIn(event, "name")];
        for (const auto& [key, value] : objectIn(event, "args").items()) {
            if (value.is_number()) curves[key].add(*time / kSecond, value.get<double>());
        }
    }
    return counters;
}

void addQueues(Node parent, const Json& run, const HtmlFiles& files) {
    const std::string trace = textIn(run, "trace");
    if (trace.empty()) return;
    addText(parent, "h3", "Queues over time");
    const std::string path = locatedFile(files, trace);
    if (path.empty()) {
        addText(parent, "p", "The trace " + trace + " is not there.", {{"class", "dim"}});
        return;
    }
    try {
        for (const auto& [name, curves] : countersOf(path)) {
            Plot plot = {curves.size() == 1 ? name + ": " + curves.begin()->first : name, "s", {}};
            for (const auto& [key, curve] : curves) plot.curves.push_back({key, curve.points()});
            addPlot(parent, plot);
        }
    } catch (const Failure& failure) {
        addText(parent, "p", failure.what(), {{"class", "dim"}});
    }
}

// A table of `objects`, a column for each of `keys`.
void addObjects(Node parent, const std::string& title, const Json& objects, const Names& keys) {
    if (objects.empty()) return;
    addText(parent, "h3", title);
    Names head = keys;
    for (std::string& name : head) std::replace(name.begin(), name.end(), '_', ' ');
    Node table = addTable(parent, head);
    for (const Json& object : objects) {
        Names cells;
        for (const std::string& key : keys) cells.push_back(textIn(object, key.c_str()));
        addRow(table, cells);
    }
}

}  // namespace

void addRun(Node parent, const std::string& id, const Json& run, HtmlFiles* files) {
    const std::string graph = textIn(run, "graph"), error = textIn(run, "error");
    const bool isGood = numberIn(run, "exit_code") == 0.0;
    Node title = addText(parent, "h2", "Run of " + (graph.empty() ? "a graph" : graph) + " ");
    addText(title, "span", textIn(run, "verdict"), {{"class", isGood ? "badge ok" : "badge bad"}});
    if (!error.empty()) addText(parent, "p", error, {{"class", "text"}});
    Node figures = addNode(parent, "dl", {{"class", "figures"}});
    const auto addFigure = [&](const std::string& name, const std::string& value) {
        if (value.empty()) return;
        Node figure = addNode(figures, "div", {});
        addText(figure, "dt", name);
        addText(figure, "dd", value);
    };
    for (const char* const key : {"frames", "checked", "mismatches"}) {
        addFigure(key, textIn(run, key));
    }
    addFigure("first wrong frame", textIn(run, "first_bad"));
    const auto addReal = [&](const std::string& name, const Json& object, const char* key,
                             double unit, int digits) {
        const auto value = numberIn(object, key);
        if (value) addFigure(name, decimal(*value / unit, digits));
    };
    const Json& process = objectIn(run, "process");
    constexpr double kMega = 1 << 20;
    addReal("seconds", run, "seconds", 1, 3);
    addReal("frames/s", run, "frames_per_second", 1, 1);
    addReal("latency p99 ms", objectIn(run, "latency_ms"), "p99", 1, 2);
    addReal("latency max ms", objectIn(run, "latency_ms"), "max", 1, 2);
    addReal("processor s", process, "cpu_seconds", 1, 3);
    addReal("peak MiB", process, "peak_rss_bytes", kMega, 1);
    addFigure("MD5", textIn(run, "md5"));
    if (const Json& failure = objectIn(run, "failure"); !failure.is_null()) {
        addText(parent, "h3", "Failure");
        addFailure(parent, id, textIn(failure, "input"), failure, files);
        parent.last_child().append_attribute("open") = "";
    }
    addGraph(parent, run);
    addNodes(parent, arrayIn(run, "nodes"));
    addQueues(parent, run, *files);
    addObjects(parent, "Limits", arrayIn(run, "limits"), {"name", "limit", "value", "met"});
    addObjects(parent, "Buffer pools", arrayIn(run, "pools"),
               {"node", "slots", "made", "recycled", "high_water", "left_out", "copied"});
}

}  // namespace vxrun
