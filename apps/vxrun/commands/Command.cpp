#include "Command.h"

#include "BadFrames.h"
#include "BundledRun.h"
#include "Console.h"
#include "Crash.h"
#include "FailureReport.h"
#include "MediaLibraries.h"
#include "Recording.h"
#include "Text.h"
#include "Version.h"

#include <vxkit/NodeLibrary.h>
#include <vxkit/NodeType.h>

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <map>
#include <optional>
#include <thread>

namespace vxrun {
namespace {

std::vector<std::unique_ptr<Command>>& all() {
    static std::vector<std::unique_ptr<Command>> list;  // made when the first command is registered
    return list;
}

std::string checkMask(const std::string& mask) {
    const bool hex = !mask.empty() && mask.size() <= 8 &&
                     mask.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
    return hex ? "" : "expected a hexadecimal mask, got " + quote(mask);
}

std::string mistakeIn(const LimitKind& kind, const std::string& text) {
    try {
        parseLimit(kind, text);
        return "";
    } catch (const Failure& failure) {
        return failure.what();
    }
}

std::string optionOf(const LimitKind& kind) {
    std::string option = "--" + kind.name;
    std::replace(option.begin(), option.end(), '_', '-');
    return option;
}

}  // namespace

void CommonOptions::addTo(CLI::App* app) {
    addOption(app, "graph GRAPH.json", &graph, "The graph file");
    addOption(app, "--nodes FILE.so", &nodes, "Load node types from a library; may be repeated")
        ->allow_extra_args(false);
    addOption(app, "--set NODE.KEY=VALUE", &assignments, "Set a config of a node; may be repeated")
        ->allow_extra_args(false);
    addOption(app, "--dump-bad DIR", &dumpFolder,
              "Have every checking sink write its first wrong frames as PNG and raw");
    addOption(app, "--record FILE", &record,
              "Have the graph's sink/checksum write this list instead of comparing");
    app->add_flag("--force", force, "Let --record replace a file");
    addOption(app, "--log MASK", &run.logMask,
              "Log mask, hexadecimal: 1 errors, 2 warnings, 8 debug, 10 per node")
        ->check(checkMask);
    addOption(app, "--timeout SECONDS", &run.timeout,
              "End the run after this time, with exit 124; the vectors of a suite: 60")
        ->check(realFrom(0.001));
    addOption(
        app, "--stall SECONDS", &run.stall,
        "End the run when nothing has moved for this time, with exit 124; default 30, 0: never")
        ->check(realFrom(0));
    addOption(app, "--progress FILE|FD", &run.progress, "Write progress as key=value blocks");
    addOption(app, "--trace FILE", &run.trace, "Write a trace of the run for trace viewers");
    addOption(app, "--dot DIR", &run.dot, "Draw the graph at the start and with every snapshot");
    addOption(app, "--color WHEN", &color, "Colors: always, never or auto (default)")
        ->check(CLI::IsMember({"always", "never", "auto"}));
    app->add_flag("--stats", run.stats, "Print what was measured, and what every buffer pool did");
    addOption(app, "--html FILE", &reports["html"], "Write a report: html");
    addOption(app, "--json FILE", &reports["json"], "Write a report: json");
    addOption(app, "--junit FILE", &reports["junit"], "Write a report: junit");
    for (const LimitKind& kind : limitKinds()) {
        const auto set = [this, &kind](const std::string& text) {
            run.limits[kind.name] = parseLimit(kind, text);
        };
        app->add_option_function<std::string>(optionOf(kind), set, kind.help)
            ->type_name(kind.usage)
            ->check([&kind](const std::string& text) { return mistakeIn(kind, text); });
    }
    CLI::Option* const bundled = addOption(app, "--bundle FILE.tar.zst", &bundle.file,
                                           "Pack all that it takes to repeat a failure");
    bundled->excludes("--record");
    app->add_flag("--bundle-refs", bundle.refers,
                  "Have --bundle name the files that the run reads, instead of packing them")
        ->needs(bundled);
    app->add_flag("--quiet", quiet, "Print the verdict only");
}

void CommonOptions::loadNodes() const {
    const std::string others = variable("VXRUN_NODES");
    vxkit::loadNodeTypesWith(loadMediaLibraries);
    if (!others.empty() || !nodes.empty()) loadMediaLibraries();  // whose names are taken
    std::istringstream list(others);
    for (std::string file; std::getline(list, file, ':');) {
        if (!file.empty()) loadNodeLibrary(file);
    }
    for (const std::string& file : nodes) loadNodeLibrary(file);
}

RunOptions CommonOptions::runOptions() const {
    RunOptions options = run;
    if (options.logMask.empty() && quiet) options.logMask = "0";
    return options;
}

GraphEdits CommonOptions::edits() const {
    GraphEdits edits = {assignments, {}};
    if (!dumpFolder.empty()) edits.whereKnown[kDumpBad.name] = dumpFolder;
    return edits;
}

int Command::conclude(const Evidence& evidence) const {
    return printVerdict(evidence, STDOUT_FILENO);
}

bool registerCommand(std::unique_ptr<Command> command) {
    all().push_back(std::move(command));
    return true;
}

const std::vector<std::unique_ptr<Command>>& commands() {
    return all();
}

CLI::Validator realFrom(double least) {
    return {[least](const std::string& text) {
                constexpr double kMost = 1e9;
                try {
                    parseReal(text, least, kMost);
                    return std::string();
                } catch (const Failure& failure) {
                    return std::string(failure.what());
                }
            },
            ""};
}

std::vector<std::string> descriptionsOf(const std::vector<std::string>& names) {
    std::vector<std::string> files;
    std::copy_if(names.begin(), names.end(), std::back_inserter(files),
                 [](const std::filesystem::path& name) { return name.extension() == ".json"; });
    return files;
}

void addDecoderOptions(CLI::App* command, DecoderOptions* options) {
    addOption(command, "--decoder NAME|FILE", &options->names,
              concat("The decoder to test: a description (.json), a name of --list-decoders, or a "
                     "node type",
                     TestedDecoder::hasDefault() ? "; default libavcodec's" : ""))
        ->allow_extra_args(false);
    addOption(command, "--graph TEMPLATE.json", &options->graphs,
              "Decode with this graph, with {input} and {format} in its configs")
        ->allow_extra_args(false);
}

std::vector<TestedDecoder> DecoderOptions::find() const {
    std::vector<TestedDecoder> found;
    for (const std::string& name : names) found.push_back(TestedDecoder::find(name));
    for (const std::string& file : graphs) found.push_back(TestedDecoder::ofGraph(file));
    if (found.empty() && !TestedDecoder::hasDefault()) {
        throw badOption("--decoder", "missing; this vxrun is built without libavcodec");
    }
    if (found.empty()) found.emplace_back();
    return found;
}

void showOptions(const CLI::App& app, const std::vector<std::string>& names, CLI::App* command) {
    std::vector<const CLI::Option*> options;
    options.reserve(names.size());
    for (const std::string& name : names) options.push_back(app.get_option(name));
    command->footer(CLI::Formatter().make_group("Options of every run", false, options));
}

// Has a graph's only decoder use all processors; the vectors of a suite use them as processes. One
// thread more than processors, since a decoder's are not always at work. Not where commands flush
// it: what it holds back depends on its threads.
static void useProcessors(vexa::VXGraphInfo* graph) {
    constexpr unsigned kMost = 16;  // libavcodec advises against more
    vexa::VXNodeDescriptor* decoder = nullptr;
    for (const auto& node : graph->nodes) {
        if (node->type != "codec/decoder") continue;
        if (decoder != nullptr) return;
        decoder = node.get();
    }
    const unsigned threads = std::min(std::thread::hardware_concurrency() + 1, kMost);
    if (decoder == nullptr || !decoder->entries.empty()) return;
    decoder->configs.try_emplace("threads", std::to_string(threads));
}

// From node to node, in order.
static std::vector<std::pair<std::string, std::string>> connectionsOf(
    const vexa::VXGraphInfo& graph) {
    std::map<std::string, std::string> owners;  // of ports
    for (const auto& node : graph.nodes) {
        for (const auto* const ports : {&node->inputPorts, &node->outputPorts}) {
            for (const auto& port : *ports) owners[port.name] = node->name;
        }
    }
    std::vector<std::pair<std::string, std::string>> connections;
    for (const auto& [output, inputs] : graph.connections) {
        for (const std::string& input : inputs) {
            connections.emplace_back(owners[output], owners[input]);
        }
    }
    std::sort(connections.begin(), connections.end());
    return connections;
}

static bool wantsReports(const CommonOptions& options) {
    return std::any_of(options.reports.begin(), options.reports.end(),
                       [](const auto& file) { return !file.second.empty(); });
}

RunReport newReport(const CommonOptions& options) {
    RunReport report = {options.reports, {}, "", options.graph, options.run.limits};
    if (!wantsReports(options)) return report;
    report.facts = environmentFacts();  // which loads libraries
    report.facts.emplace_back("command_line", options.commandLine);
    return report;
}

int reportAndConclude(const Command& command, const RunReport& report, Evidence* evidence) {
    // A bad option has its line, and it may be this one.
    const bool isBadOption = evidence->verdict() == Verdict::BadOption;
    for (const Failure& failure : writeRunReports(report, *evidence, true)) {
        if (!isBadOption) console::line(failure.what());
        if (exitCode(evidence->verdict()) == 0) evidence->setFailure(Verdict::NotWritten);
    }
    return command.conclude(*evidence);
}

int runToVerdict(const Command& command, Task task, const CommonOptions& options,
                 Evidence* evidence) {
    vexa::VXGraphInfo& graph = task.graph;
    options.edits().applyTo(&graph);
    useProcessors(&graph);
    RunOptions run = options.runOptions();
    run.limits.insert(task.limits.begin(), task.limits.end());  // those of options win
    std::optional<BundledRun> bundled;
    if (!options.bundle.file.empty()) {
        bundled.emplace(options, &task, &run);
        if (const auto code = bundled->run()) return *code;
    }
    if (options.run.stats || bundled || wantsReports(options)) evidence->measureTimes();
    RunReport report = newReport(options);
    report.graph = graph.name;
    report.input = task.input;
    report.connections = connectionsOf(graph);
    report.trace = run.trace;
    report.limits = run.limits;
    const auto failures = writeRunReports(report, *evidence, false);
    if (!failures.empty()) throw Failure(failures.front());
    std::optional<Recording> recording;
    if (!options.record.empty()) {
        recording.emplace(options.record, options.force, &graph);
        evidence->expectNoCheck();
    }
    reportCrashes(
        *evidence,
        [](const char* text, void*) {
            // Not by the console: it may hold its lock.
            for (const char* part : {"vxrun: crashed: ", text, "\n"}) {
                if (write(STDERR_FILENO, part, std::strlen(part)) < 0) return;
            }
        },
        nullptr);
    std::map<std::string, std::string> videos;  // by the name of the node that checks
    for (const auto& node : graph.nodes) {
        if (node->outputPorts.empty()) videos[node->name] = videoOf(graph, node->name);
    }
    const Conclude conclude = [&](const Evidence&) {
        if (exitCode(evidence->verdict()) != 0) {
            const NodeRecord* const failing = failingNode(*evidence);
            const std::string video = failing != nullptr ? videos[failing->name] : "";
            const FailureJson failure =
                failureOf({signatureOf(*evidence), console::firstError(), "", options.commandLine,
                           video, options.bundle.file},
                          wrongFramesOf(*evidence, video));
            for (const std::string& line : linesOf(failure)) console::note("  " + line);
            report.failure = failure.dump(-1, ' ', false, FailureJson::error_handler_t::replace);
        }
        if (bundled) bundled->handBack(report, *evidence);
        return reportAndConclude(command, report, evidence);
    };
    runGraph(std::move(graph), run, evidence, conclude);
    if (recording && exitCode(evidence->verdict()) == 0) recording->commit();
    return conclude(*evidence);
}

}  // namespace vxrun
