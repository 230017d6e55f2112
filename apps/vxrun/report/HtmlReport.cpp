// html: the JSON reports as a page to look at.
#include "HtmlReport.h"

#include "HtmlParts.h"
#include "Report.h"
#include "Text.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <set>

namespace vxrun {
namespace {

using Node = pugi::xml_node;

// A report that was read, and the files that it names.
struct Document {
    explicit Document(const JsonReport& report) {
        try {
            root = Json::parse(report.text);
        } catch (const Json::parse_error& error) {
            const std::string text = error.what();  // "[json.exception.parse_error.101] parse ..."
            throw Failure(concat(report.name, ": not JSON: ", text.substr(text.find("] ") + 2)));
        }
        const bool isReport =
            !objectIn(root, "test_suites").is_null() || !objectIn(root, "run").is_null();
        if (!isReport) throw Failure(report.name + ": not a JSON report of a suite or a run");
        files.folder = std::filesystem::path(report.name).parent_path();
    }

    Json root;
    HtmlFiles files = {};
};

bool isFailure(const std::string& result) {
    return result == "Fail" || result == "Error" || result == "Timeout";
}

const char* kindOf(const std::string& result) {
    return result == "Success" ? "ok" : isFailure(result) ? "bad" : "skip";
}

// A suite as one decoder has decoded it.
struct Column {
    Column(std::string decoder, const Json& results, HtmlFiles* its)
        : name(std::move(decoder)), report(&results), files(its) {
        for (const auto& [vector, result] : objectIn(results, "vectors").items()) {
            order.push_back(vector);
            vectors[vector] = &result;
        }
    }
    // Empty when it has no such vector.
    std::string resultOf(const std::string& vector) const {
        const auto found = vectors.find(vector);
        return found != vectors.end() ? textIn(*found->second, "result") : "";
    }

    std::string name;
    const Json* report;
    HtmlFiles* files;
    std::vector<std::string> order;
    std::map<std::string, const Json*> vectors;
};

// The suites of all documents, each with its columns, in the order in which they appear.
using Suites = std::vector<std::pair<std::string, std::vector<Column>>>;

Suites suitesOf(std::vector<Document>* documents) {
    Suites suites;
    for (Document& document : *documents) {
        for (const auto& [name, suite] : objectIn(document.root, "test_suites").items()) {
            const auto isSame = [&, &name = name](const auto& other) {
                return other.first == name;
            };
            auto found = std::find_if(suites.begin(), suites.end(), isSame);
            if (found == suites.end()) found = suites.insert(found, {name, {}});
            for (const auto& [decoder, results] : objectIn(suite, "decoders").items()) {
                const auto times =
                    std::count_if(found->second.begin(), found->second.end(),
                                  [&, &decoder = decoder](const Column& column) {
                                      return textIn(*column.report, "decoder_name") == decoder ||
                                             column.name == decoder;
                                  });
                found->second.emplace_back(times > 0 ? concat(decoder, " #", times + 1) : decoder,
                                           results, &document.files);
            }
        }
    }
    return suites;
}

// What has changed since a baseline; empty when nothing worth a line has.
std::string changeOf(const std::string& before, const std::string& now) {
    if (before.empty()) return now.empty() ? "" : "appeared";
    if (now.empty()) return "gone";
    if (isFailure(now)) return isFailure(before) ? "" : "newly failing";
    if (now == "Success") return before == "Success" ? "" : "newly passing";
    return kindOf(before) == kindOf(now) ? "" : "no longer run";
}

// Adds the table of what has changed and returns the vectors that it is about.
std::set<std::string> addChanges(Node parent, const std::vector<Column>& columns,
                                 const std::vector<Column>& before, const std::string& name) {
    static constexpr const char* kOrder[] = {"newly failing", "newly passing", "no longer run",
                                             "appeared", "gone"};
    std::map<std::string, std::vector<std::vector<std::string>>> rows;
    std::set<std::string> changed;
    for (const Column& column : columns) {
        const auto old = std::find_if(before.begin(), before.end(), [&](const Column& other) {
            return other.name == column.name;
        });
        // Another version of a decoder may have another name.
        const bool areAlone = columns.size() == 1 && before.size() == 1;
        const Column* const other = old != before.end() ? &*old : areAlone ? &before[0] : nullptr;
        if (other == nullptr) {
            addText(parent, "p", concat(column.name, " is not in ", name, "."), {{"class", "dim"}});
            continue;
        }
        std::vector<std::string> vectors = column.order;
        for (const std::string& vector : other->order) {
            if (column.vectors.count(vector) == 0) vectors.push_back(vector);
        }
        for (const std::string& vector : vectors) {
            const std::string was = other->resultOf(vector), is = column.resultOf(vector);
            const std::string change = changeOf(was, is);
            if (change.empty()) continue;
            changed.insert(vector);
            rows[change].push_back({change, vector, column.name, was, is});
        }
    }
    addText(parent, "h3", "Changes since " + name);
    std::string counts;
    for (const char* const change : kOrder) {
        counts += concat(counts.empty() ? "" : ", ", rows[change].size(), " ", change);
    }
    addText(parent, "p", counts, {{"class", "changes"}});
    if (changed.empty()) return changed;
    Node table = addTable(parent, {"change", "vector", "decoder", "before", "now"});
    for (const char* const change : kOrder) {
        for (const auto& row : rows[change]) addRow(table, row);
    }
    return changed;
}

void addTotals(Node parent, const std::vector<Column>& columns) {
    Node table = addTable(parent, {"decoder", "version", "vectors", "passed", "failed",
                                   "not supported", "not run", "seconds", ""});
    for (const Column& column : columns) {
        const Json& report = *column.report;
        const auto seconds = numberIn(report, "total_time");
        addRow(table, {column.name, textIn(report, "decoder_version"),
                       textIn(report, "total_tests"), textIn(report, "passed"),
                       textIn(report, "failed_error"), textIn(report, "not_supported"),
                       textIn(report, "not_run"), seconds ? decimal(*seconds, 1) : ""});
        Node bar = addNode(addNode(table.last_child(), "td", {}), "div", {{"class", "stack"}});
        const double total = std::max(numberIn(report, "total_tests").value_or(0), 1.0);
        const double passed = numberIn(report, "passed").value_or(0),
                     failed = numberIn(report, "failed_error").value_or(0);
        for (const auto& [kind, count] : {std::pair("ok", passed), std::pair("bad", failed)}) {
            addNode(bar, "span",
                    {{"class", concat("part ", kind)},
                     {"style", concat("width:", decimal(100 * count / total, 1), "%")}});
        }
    }
}

void addProfiles(Node parent, const std::vector<Column>& columns) {
    std::vector<std::string> head = {"profile"}, order;
    std::map<std::string, std::map<const Column*, std::string>> profiles;
    for (const Column& column : columns) {
        head.push_back(column.name + " passed");
        for (const auto& [name, counts] : objectIn(*column.report, "profile_stats").items()) {
            if (profiles.count(name) == 0) order.push_back(name);
            profiles[name][&column] =
                concat(textIn(counts, "passed"), " of ", textIn(counts, "total"));
        }
    }
    if (order.empty()) return;
    Node table = addTable(parent, head);
    for (const std::string& profile : order) {
        std::vector<std::string> cells = {profile.empty() ? "(none)" : profile};
        for (const Column& column : columns) cells.push_back(profiles[profile][&column]);
        addRow(table, cells);
    }
}

void addChoice(Node parent, const std::string& label, const std::set<std::string>& values) {
    if (values.size() < 2) return;
    Node choice = addNode(addText(parent, "label", label + " "), "select", {{"name", label}});
    addText(choice, "option", "all", {{"value", ""}});
    for (const std::string& value : values) {
        if (!value.empty()) addText(choice, "option", value, {{"value", value}});
    }
}

// A vector as all decoders of a suite have decoded it. A plain value.
struct VectorRow {
    std::string name, profile;
    std::set<std::string> results;
    std::set<std::string> tags;  // by which it is found, besides its results
};

VectorRow rowOf(const std::string& vector, const std::vector<Column>& columns, bool isChanged) {
    VectorRow row = {vector, "", {}, {}};
    std::set<std::string> ran;
    for (const Column& column : columns) {
        const auto found = column.vectors.find(vector);
        if (found == column.vectors.end()) continue;
        if (row.profile.empty()) row.profile = textIn(*found->second, "profile");
        const std::string result = column.resultOf(vector);
        row.results.insert(result);
        if (std::string(kindOf(result)) != "skip") ran.insert(result);
    }
    row.tags = row.results;
    if (ran.size() > 1) row.tags.insert("decoders disagree");
    if (isChanged) row.tags.insert("changed");
    return row;
}

// Adds the cells of a vector's result and time; where it failed, with a link to `failure`.
void addResult(Node row, const Json& vector, const std::string& failure, double longest) {
    const std::string result = textIn(vector, "result");
    Node cell = addNode(row, "td", {});
    const std::string kind = concat("badge ", kindOf(result));
    const std::string type = textIn(objectIn(vector, "failure"), "type");
    if (failure.empty()) {
        addText(cell, "span", result, {{"class", kind}});
    } else {
        addText(cell, "a", result, {{"class", kind}, {"href", "#" + failure}});
    }
    if (!type.empty()) addText(cell, "span", " " + type, {{"class", "dim"}});
    const auto time = numberIn(vector, "time");
    cell = addText(row, "td", time ? decimal(*time, 3) : "",
                   {{"class", "time"}, {"data-value", time ? decimal(*time, 6) : ""}});
    if (time && longest > 0) {
        addNode(cell, "span",
                {{"class", "bar"},
                 {"style", concat("width:", decimal(100 * *time / longest, 1), "%")}});
    }
}

void addVectors(Node parent, const std::string& id, const std::vector<Column>& columns,
                const std::set<std::string>& changed) {
    std::vector<VectorRow> rows;
    std::set<std::string> known, profiles, tags;
    double longest = 0;
    for (const Column& column : columns) {
        for (const std::string& vector : column.order) {
            longest = std::max(longest, numberIn(*column.vectors.at(vector), "time").value_or(0));
            if (!known.insert(vector).second) continue;
            rows.push_back(rowOf(vector, columns, changed.count(vector) > 0));
            profiles.insert(rows.back().profile);
            tags.insert(rows.back().tags.begin(), rows.back().tags.end());
        }
    }
    addText(parent, "h3", "Vectors");
    Node tools = addNode(parent, "div", {{"class", "tools script"}, {"hidden", ""}});
    addNode(
        tools, "input",
        {{"type", "search"}, {"placeholder", "Filter ( / )"}, {"aria-label", "Filter vectors"}});
    addChoice(tools, "result", tags);
    addChoice(tools, "profile", profiles);
    addText(tools, "output", "");
    std::vector<std::string> head = {"vector", "profile"};
    for (const Column& column : columns) {
        head.push_back(columns.size() == 1 ? "result" : column.name);
        head.emplace_back("seconds");
    }
    Node table = addTable(parent, head);
    table.parent().append_attribute("class") = "vectors";
    Node failures = addNode(parent, "div", {{"class", "failures"}});
    size_t count = 0;
    for (const VectorRow& row : rows) {
        Node line = addNode(
            table, "tr",
            {{"tabindex", "-1"}, {"data-tags", joined(row.tags)}, {"data-profile", row.profile}});
        addText(line, "td", row.name);
        addText(line, "td", row.profile);
        for (const Column& column : columns) {
            const auto found = column.vectors.find(row.name);
            static const Json none;
            const Json& vector = found != column.vectors.end() ? *found->second : none;
            const Json& failure = objectIn(vector, "failure");
            std::string target;
            if (!failure.is_null()) {
                target = concat(id, "-", ++count);
                addFailure(failures, target,
                           columns.size() == 1 ? row.name : concat(row.name, " with ", column.name),
                           failure, column.files);
            }
            addResult(line, vector, target, longest);
        }
    }
    if (count > 0) failures.prepend_child("h3").text() = "Failures";
}

void addFacts(Node parent, const Json& info) {
    if (info.empty()) return;
    Node details = addNode(parent, "details", {{"class", "facts"}});
    addText(details, "summary", "What was tested, and where");
    Node table = addTable(details, {"", ""});
    table.parent().remove_child("thead");
    for (const auto& [name, value] : info.items()) {
        if (!value.empty()) addRow(table, {name, plain(value)});
    }
}

}  // namespace

std::string htmlReport(const std::vector<JsonReport>& reports, const JsonReport* baseline) {
    std::vector<Document> documents(reports.begin(), reports.end()), old;
    if (baseline != nullptr) old.emplace_back(*baseline);
    size_t room = size_t{32} << 20, cellRoom = size_t{4} << 20, runs = 0;
    for (Document& document : documents) {
        document.files.room = &room;
        document.files.cellRoom = &cellRoom;
    }
    const Suites suites = suitesOf(&documents), before = suitesOf(&old);
    if (baseline != nullptr && (suites.empty() || before.empty())) {
        throw Failure(baseline->name + ": there is no suite to compare");
    }
    pugi::xml_document page;
    Node body = addNode(page, "body", {});
    Node main = addNode(body, "main", {});
    std::string title;
    for (size_t i = 0; i < suites.size(); ++i) {
        const auto& [name, columns] = suites[i];
        title += (title.empty() ? "" : ", ") + name;
        Node section = addNode(main, "section", {});
        addText(section, "h1", name);
        addTotals(section, columns);
        addProfiles(section, columns);
        std::set<std::string> changed;
        if (baseline != nullptr) {
            static const std::vector<Column> kNone;
            const auto found =
                std::find_if(before.begin(), before.end(),
                             [&, &name = name](const auto& other) { return other.first == name; });
            changed = addChanges(section, columns, found != before.end() ? found->second : kNone,
                                 baseline->name);
        }
        addVectors(section, concat("failure-", i + 1), columns, changed);
    }
    for (Document& document : documents) {
        const Json& run = objectIn(document.root, "run");
        if (!run.is_null()) {
            title += (title.empty() ? "" : ", ") + textIn(run, "graph");
            addRun(addNode(main, "section", {}), concat("run-", ++runs), run, &document.files);
        }
        addFacts(main, objectIn(document.root, "system_info"));
    }
    addText(body, "footer",
            "vxrun. Keys: / filters, j and k go down and up, Enter opens, Escape closes.",
            {{"class", "dim script"}, {"hidden", ""}});
    return htmlPage(title + " - vxrun", page);
}

static std::string htmlKind(const SuiteResults& results) {
    return htmlReport({{"", jsonReport(results)}});
}

static const bool kRegistered = registerReportKind({"html", htmlKind});

}  // namespace vxrun
