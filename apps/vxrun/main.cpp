// vxrun: runs a graph of nodes and says, by evidence, whether the test passed.
#include "AppNode.h"
#include "ChecksumList.h"
#include "Console.h"
#include "Decode.h"
#include "Failure.h"
#include "GraphFile.h"
#include "Runner.h"
#include "SuiteRun.h"

#include <cutils/properties.h>
#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <filesystem>

namespace vxrun {
namespace {

struct Options {
    std::string graph;
    std::vector<std::string> overrides;
    std::string record;
    std::string recordFormat;
    bool force = false;
    std::string logMask;
    std::string dumpFolder;
    RunOptions run;
    console::Color color = console::Color::AUTO;
    bool stats = false;
    bool quiet = false;
    bool listNodes = false;
    DecodeOptions decode;
    SuiteOptions suite;
};

void addOptions(CLI::App* app, Options* options) {
    app->set_version_flag("--version", "vxrun " VXRUN_VERSION);
    app->add_option("graph", options->graph, "The graph file (JSON)")->type_name("GRAPH.json");
    app->add_option("--set", options->overrides, "Set a config of a node; may be given again")
        ->type_name("NODE.KEY=VALUE")
        ->allow_extra_args(false);
    app->add_option("--dump-bad", options->dumpFolder,
                    "Have every checking sink write its first wrong frames as PNG and raw")
        ->type_name("DIR");
    app->add_option("--record", options->record,
                    "Have the graph's sink/checksum write this list instead of comparing")
        ->type_name("FILE");
    app->add_option("--record-format", options->recordFormat, "Its format, default by extension")
        ->type_name("FORMAT");
    app->add_flag("--force", options->force, "Let --record replace a file");
    app->add_option("--log", options->logMask,
                    "Log mask, hexadecimal: 1 errors, 2 warnings, 8 debug, "
                    "10 per node")
        ->type_name("MASK")
        ->check([](const std::string& mask) {
            const bool hex = !mask.empty() && mask.size() <= 8 &&
                             mask.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
            return hex ? std::string() : "expected a hexadecimal mask, got " + quote(mask);
        });
    RunOptions& run = options->run;
    app->add_option("--timeout", run.timeout, "End the run after this time, with exit 124")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.001, 1e9));
    app->add_option("--stall", run.stall,
                    "End the run when nothing has moved for this time, with exit 124; default 30, "
                    "0: never")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.0, 1e9));
    app->add_option("--progress", run.progress, "Write progress as key=value blocks")
        ->type_name("FILE|FD");
    app->add_option("--trace", run.trace, "Write what happened when, for trace viewers")
        ->type_name("FILE");
    app->add_option("--dot", run.dot, "Write pictures of the graph: at the start and of trouble")
        ->type_name("DIR");
    const std::map<std::string, console::Color> colors = {{"auto", console::Color::AUTO},
                                                          {"always", console::Color::ALWAYS},
                                                          {"never", console::Color::NEVER}};
    app->add_option("--color", options->color, "Colours: always, never or auto (default)")
        ->type_name("WHEN")
        ->transform(CLI::CheckedTransformer(colors));
    app->add_flag("--stats", options->stats, "Print what every buffer pool has done");
    app->add_flag("--quiet", options->quiet, "Print the verdict only");
    app->add_flag("--list-nodes", options->listNodes, "List the node types and their configs");
}

void addNodeOptions(CLI::App* app, std::string* allocator, uint32_t* threads) {
    app->add_option("--allocator", *allocator, "dmabuf or xcodec2")
        ->check(CLI::IsMember({"dmabuf", "xcodec2"}));
    app->add_option("--threads", *threads, "Threads of the decoder, default 1")
        ->check(CLI::Range(1, 64));
}

CLI::App* addDecode(CLI::App* app, DecodeOptions* options) {
    CLI::App* const decode = app->add_subcommand(
        "decode", "Decodes a video file; prints the MD5 of all its pictures, or writes them");
    decode->fallthrough();
    decode->add_option("IN", options->input, "The file to decode")->required();
    decode->add_option("-o,--output", options->output, "The raw video to write");
    decode->add_flag("--md5", options->md5, "Print the MD5; default without -o");
    decode->add_option("--format", options->format,
                       "The pixel format that the pictures must have, never converted to");
    decode->add_option("--codec", options->codec, "A codec (h264, hevc, av1, ...) or a decoder");
    addNodeOptions(decode, &options->allocator, &options->threads);
    decode->add_flag("--tolerate-errors", options->tolerateErrors,
                     "Damaged pictures do not fail the run");
    decode
        ->add_option("--unsupported-exit", options->unsupportedExit,
                     "Exit code for what is not supported, default 69")
        ->check(CLI::Range(0, 255));
    return decode;
}

CLI::App* addSuite(CLI::App* app, SuiteOptions* options) {
    CLI::App* const suite =
        app->add_subcommand("suite", "Decodes the vectors of a conformance suite");
    suite->add_option("FILE", options->file, "The suite (JSON)")->required();
    suite->add_option("--resources", options->resources, "Where the vectors' files are");
    suite->add_option("--output", options->output, "Keep the raw video of every vector here");
    suite->add_option("--filter", options->filter, "Run these: GLOB[:GLOB...][:-GLOB...]");
    suite->add_option("--shard", options->shard, "Run the i-th of n parts: i/n, i from 1");
    suite->add_option("--jobs", options->jobs, "Vectors at once, default one per processor")
        ->check(CLI::Range(1, 1000));
    suite->add_option("--timeout", options->timeout, "Seconds for each vector, default 60")
        ->check(CLI::Range(0.001, 1e6));
    addNodeOptions(suite, &options->allocator, &options->threads);
    suite->add_option("--junit", options->reports.junit, "Write a JUnit XML report");
    suite->add_option("--json", options->reports.json, "Write a JSON report");
    suite->add_option("--csv", options->reports.csv, "Write a CSV report");
    suite->add_option("--markdown", options->reports.markdown, "Write a Markdown report");
    suite->add_flag("--list", options->list, "Print the names of the vectors that would run");
    suite->add_flag("--quiet", options->quiet, "Print the table and the verdict only");
    return suite;
}

void listNodes() {
    for (const NodeType& type : nodeTypes()) {
        std::printf("%-22s %s\n", type.name.c_str(), type.help.c_str());
        for (const ConfigKey& config : type.configs) {
            std::printf("    %-18s %s\n", config.name.c_str(), config.help.c_str());
        }
        for (const EntryKey& entry : type.entries) {
            std::printf("    entry %-12s %s\n", entry.name.c_str(), entry.help.c_str());
        }
    }
}

void setLogLevel(const Options& options) {
    constexpr char kProperty[] = "vendor.vexa.log.msg";
    if (!options.logMask.empty()) {
        property_set(kProperty, options.logMask.c_str());
    } else if (options.quiet) {
        property_set(kProperty, "0");
    }
    vexa::vxUpdateLogLevel();
}

// Where the list is until the run is known to be good.
std::string unprovenList(const Options& options) {
    return options.record + ".new";
}

// Makes the one sink/checksum of `graph` write a list.
void record(const Options& options, vexa::VXGraphInfo* graph, Evidence* evidence) {
    const auto isSink = [](const auto& node) { return node->type == "sink/checksum"; };
    const auto sinks = std::count_if(graph->nodes.begin(), graph->nodes.end(), isSink);
    if (sinks != 1) {
        throw Failure("vxrun: --record: the graph has " + std::to_string(sinks) +
                          " sink/checksum nodes, expected 1",
                      "BAD_OPTION");
    }
    if (!options.force && std::filesystem::exists(options.record)) {
        throw Failure("vxrun: --record: " + options.record + " exists; --force replaces it",
                      "BAD_OPTION");
    }
    const bool byName = options.recordFormat.empty();
    const std::string format = byName ? checksumFormatOf(options.record) : options.recordFormat;
    auto& configs = (*std::find_if(graph->nodes.begin(), graph->nodes.end(), isSink))->configs;
    configs["expect"] = "";
    configs["write"] = unprovenList(options);
    configs["format"] = format;
    evidence->expectNoCheck();
}

// Prints all that is wrong with a graph file. 0 when nothing is.
int check(const std::string& graph) {
    const auto failures = checkGraphFile(graph);
    for (const Failure& failure : failures) console::line(failure.what());
    std::printf("check: mistakes=%zu\n", failures.size());
    constexpr int kBadDescription = 2;
    return failures.empty() ? 0 : kBadDescription;
}

// Everything of a run that may throw. `decodes`: the graph is that of `vxrun decode`.
void run(const Options& options, bool decodes, Evidence* evidence) {
    if (options.graph.empty() != decodes) {
        throw Failure(decodes ? "vxrun: unexpected " + quote(options.graph)
                              : "vxrun: no graph file given, see --help",
                      "BAD_OPTION");
    }
    vexa::VXGraphInfo graph = decodes ? decodeGraph(options.decode) : readGraphFile(options.graph);
    for (const std::string& assignment : options.overrides) overrideConfig(&graph, assignment);
    if (!options.dumpFolder.empty()) setWhereKnown(&graph, "dump_bad", options.dumpFolder);
    if (decodes) evidence->expectNoCheck();
    if (!options.record.empty()) record(options, &graph, evidence);

    // Before the log level is set: what registers here is no news to anyone.
    std::vector<std::unique_ptr<NodeFactory>> factories;
    for (const NodeType& type : nodeTypes()) {
        factories.push_back(std::make_unique<NodeFactory>(type, *evidence));
    }
    setLogLevel(options);
    runGraph(std::move(graph), options.run, evidence);
    evidence->closePools(options.stats);
    if (options.record.empty()) return;
    const bool isGood = exitCode(evidence->verdict()) == 0;
    std::error_code error;
    if (isGood) {
        std::filesystem::rename(unprovenList(options), options.record, error);
    } else {
        std::filesystem::remove(unprovenList(options), error);
    }
    if (error) throw Failure(options.record + ": " + error.message(), "BAD_OPTION");
}

int start(int argc, char** argv) {
    Options options;
    Evidence evidence;
    CLI::App app("Runs a graph of nodes and says whether the test passed.", "vxrun");
    addOptions(&app, &options);
    const CLI::App* const decode = addDecode(&app, &options.decode);
    const CLI::App* const suite = addSuite(&app, &options.suite);
    CLI::App* const checking =
        app.add_subcommand("check", "Tells all that is wrong with a graph file, and runs nothing");
    checking->add_option("graph", options.graph, "The graph file")
        ->type_name("GRAPH.json")
        ->required();
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) return app.exit(error);  // --help, --version
        console::line(std::string("vxrun: ") + error.what());
        if (decode->parsed()) evidence.printTo(stderr);
        evidence.fail("BAD_OPTION");
        return evidence.printVerdict();
    }
    if (options.listNodes) {
        listNodes();
        return 0;
    }
    console::setQuiet(options.quiet || options.suite.quiet);
    console::setColor(options.color);
    if (checking->parsed()) return check(options.graph);
    const bool decodes = decode->parsed();
    // The MD5 is the last line on standard output.
    if (decodes) evidence.printTo(stderr);
    try {
        if (suite->parsed()) return runSuite(options.suite);
        run(options, decodes, &evidence);
    } catch (const Failure& failure) {
        console::line(failure.what());
        evidence.fail(failure.verdict().empty() ? errorName(vexa::CORRUPT_DESCR)
                                                : failure.verdict());
    }
    const int code = evidence.printVerdict();
    return decodes && code == exitCode("NOT_SUPPORTED") ? options.decode.unsupportedExit : code;
}

}  // namespace
}  // namespace vxrun

int main(int argc, char** argv) {
    try {
        return vxrun::start(argc, argv);
    } catch (const std::exception& exception) {  // memory, for instance
        std::fprintf(stderr, "vxrun: %s\n", exception.what());
        return 3;
    }
}
