// vxrun: runs a graph of nodes and says, by evidence, whether the test passed.
#include "AppNode.h"
#include "Console.h"
#include "Failure.h"
#include "GraphFile.h"
#include "Runner.h"

#include <cutils/properties.h>
#include <CLI/CLI.hpp>

#include <cstdio>

namespace vxrun {
namespace {

struct Options {
    std::string graph;
    std::vector<std::string> overrides;
    std::string logMask;
    std::string dumpFolder;
    double timeout = 0;  // seconds; 0: none
    bool stats = false;
    bool quiet = false;
    bool listNodes = false;
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
    app->add_option("--log", options->logMask,
                    "Log mask, hexadecimal: 1 errors, 2 warnings, 8 debug, "
                    "10 per node")
        ->type_name("MASK")
        ->check([](const std::string& mask) {
            const bool hex = !mask.empty() && mask.size() <= 8 &&
                             mask.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
            return hex ? std::string() : "expected a hexadecimal mask, got " + quote(mask);
        });
    app->add_option("--timeout", options->timeout, "End the run after this time, with exit 124")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.001, 1e9));
    app->add_flag("--stats", options->stats, "Print what every buffer pool has done");
    app->add_flag("--quiet", options->quiet, "Print the verdict only");
    app->add_flag("--list-nodes", options->listNodes, "List the node types and their configs");
}

void listNodes() {
    for (const NodeType* type : nodeTypes()) {
        std::printf("%-22s %s\n", type->name.c_str(), type->help.c_str());
        for (const auto* configs : {&type->configs, &commonConfigs(type->inputs == 0)}) {
            for (const ConfigKey& config : *configs) {
                std::printf("    %-18s %s\n", config.name.c_str(), config.help.c_str());
            }
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

// Everything of a run that may throw.
void run(const Options& options, Evidence* evidence) {
    if (options.graph.empty())
        throw Failure("vxrun: no graph file given, see --help", "BAD_OPTION");
    vexa::VXGraphInfo graph = readGraphFile(options.graph);
    for (const std::string& assignment : options.overrides) overrideConfig(&graph, assignment);
    if (!options.dumpFolder.empty()) setWhereKnown(&graph, "dump_bad", options.dumpFolder);

    // Before the log level is set: what registers here is no news to anyone.
    std::vector<std::unique_ptr<NodeFactory>> factories;
    for (const NodeType* type : nodeTypes()) {
        factories.push_back(std::make_unique<NodeFactory>(*type, *evidence));
    }
    setLogLevel(options);
    runGraph(std::move(graph), std::chrono::duration<double>(options.timeout), evidence);
    evidence->closePools(options.stats);
}

int start(int argc, char** argv) {
    Options options;
    Evidence evidence;
    CLI::App app("Runs a graph of nodes and says whether the test passed.", "vxrun");
    addOptions(&app, &options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) return app.exit(error);  // --help, --version
        console::line(std::string("vxrun: ") + error.what());
        evidence.fail("BAD_OPTION");
        return evidence.printVerdict();
    }
    if (options.listNodes) {
        listNodes();
        return 0;
    }
    console::setQuiet(options.quiet);
    try {
        run(options, &evidence);
    } catch (const Failure& failure) {
        console::line(failure.what());
        evidence.fail(failure.verdict().empty() ? errorName(vexa::CORRUPT_DESCR)
                                                : failure.verdict());
    }
    return evidence.printVerdict();
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
