// vxrun: runs a graph of nodes and says, by evidence, whether the test passed.
#include "AppNode.h"
#include "ChecksumList.h"
#include "Console.h"
#include "Decode.h"
#include "Failure.h"
#include "GraphFile.h"
#include "Runner.h"
#include "Suite.h"
#include "Text.h"

#include <cutils/properties.h>
#include <CLI/CLI.hpp>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>

namespace vxrun {
namespace {

struct Options {
    std::string command;  // the name of the subcommand; empty: a graph is to run
    std::string mistake;  // in the options themselves; empty: none

    std::string graph;
    std::vector<std::string> overrides;
    std::string record;
    std::string logMask;
    std::string dumpFolder;
    std::string color = "auto";
    bool force = false, stats = false, quiet = false, listNodes = false;
    RunOptions run;
    DecodeOptions decode;
    int unsupportedExit = 69;  // EX_UNAVAILABLE, as runners of conformance suites expect it
    SuiteOptions suite;
};

// Adds the option that `usage` tells, such as "--log MASK".
template <typename Value>
CLI::Option* add(CLI::App* app, const std::string& usage, Value* value, const std::string& help) {
    const size_t blank = usage.find(' ');
    return app->add_option(usage.substr(0, blank), *value, help)
        ->type_name(usage.substr(blank + 1));
}

std::string checkMask(const std::string& mask) {
    const bool hex = !mask.empty() && mask.size() <= 8 &&
                     mask.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
    return hex ? "" : "expected a hexadecimal mask, got " + quote(mask);
}

// Takes a time in seconds, `least` or more. (A range of CLI11's would take "nan", too.)
CLI::Validator seconds(double least) {
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

void addOptions(CLI::App* app, Options* options) {
    RunOptions& run = options->run;
    app->set_version_flag("--version", "vxrun " VXRUN_VERSION);
    add(app, "graph GRAPH.json", &options->graph, "The graph file");
    add(app, "--set NODE.KEY=VALUE", &options->overrides,
        "Set a config of a node; may be given again")
        ->allow_extra_args(false);
    add(app, "--dump-bad DIR", &options->dumpFolder,
        "Have every checking sink write its first wrong frames as PNG and raw");
    add(app, "--record FILE", &options->record,
        "Have the graph's sink/checksum write this list instead of comparing");
    app->add_flag("--force", options->force, "Let --record replace a file");
    add(app, "--log MASK", &options->logMask,
        "Log mask, hexadecimal: 1 errors, 2 warnings, 8 debug, 10 per node")
        ->check(checkMask);
    add(app, "--timeout SECONDS", &run.timeout,
        "End the run after this time, with exit 124; the vectors of a suite: 60")
        ->check(seconds(0.001));
    add(app, "--stall SECONDS", &run.stall,
        "End the run when nothing has moved for this time, with exit 124; default 30, 0: never")
        ->check(seconds(0));
    add(app, "--progress FILE|FD", &run.progress, "Write progress as key=value blocks");
    add(app, "--trace FILE", &run.trace, "Write what happened when, for trace viewers");
    add(app, "--dot DIR", &run.dot, "Write pictures of the graph: at the start and of trouble");
    add(app, "--color WHEN", &options->color, "Colours: always, never or auto (default)")
        ->check(CLI::IsMember({"always", "never", "auto"}));
    app->add_flag("--stats", options->stats, "Print what every buffer pool has done");
    app->add_flag("--quiet", options->quiet, "Print the verdict only");
    app->add_flag("--list-nodes", options->listNodes, "List the node types and their configs");
}

// Has the help of `command` show those options of the app that apply to it.
void showOptions(const CLI::App& app, const std::vector<std::string>& names, CLI::App* command) {
    std::vector<const CLI::Option*> options;
    options.reserve(names.size());
    for (const std::string& name : names) options.push_back(app.get_option(name));
    command->footer(CLI::Formatter().make_group("Options of every run", false, options));
}

void addDecode(CLI::App* app, Options* options) {
    CLI::App* const decode = app->add_subcommand(
        "decode", "Decodes a video file; prints the MD5 of all its pictures, or writes them");
    decode->fallthrough();
    DecodeOptions& its = options->decode;
    add(decode, "IN FILE", &its.input, "The file to decode")->required();
    add(decode, "-o,--output FILE", &its.output, "The raw video to write");
    decode->add_flag("--md5", its.md5, "Print the MD5; default without -o");
    add(decode, "--format FORMAT", &its.format,
        "The pixel format that the pictures must have, never converted to");
    add(decode, "--codec CODEC", &its.codec, "A codec (h264, hevc, av1, ...) or a decoder");
    add(decode, "--unsupported-exit CODE", &options->unsupportedExit,
        "Exit code for what is not supported, default 69")
        ->check(CLI::Range(0, 255));
    showOptions(*app,
                {"--set", "--record", "--force", "--log", "--timeout", "--stall", "--progress",
                 "--trace", "--dot", "--color", "--stats", "--quiet"},
                decode);
}

void addSuite(CLI::App* app, SuiteOptions* options) {
    CLI::App* const suite =
        app->add_subcommand("suite", "Decodes the vectors of a conformance suite");
    suite->fallthrough();
    add(suite, "FILE SUITE.json", &options->file, "The suite")->required();
    add(suite, "--resources DIR", &options->resources, "Where the vectors' files are");
    add(suite, "--output DIR", &options->output, "Keep the raw video of every vector here");
    add(suite, "--filter GLOBS", &options->filter, "Run these: GLOB[:GLOB...][:-GLOB...]");
    add(suite, "--shard i/n", &options->shard, "Run the i-th of n parts, i from 1");
    add(suite, "--jobs N", &options->jobs, "Vectors at once, default one per processor")
        ->check(CLI::Range(1, 1000));
    for (auto& [kind, report] : options->reports) {
        add(suite, concat("--", kind, " FILE"), &report.file, concat("Write a report: ", kind));
    }
    suite->add_flag("--list", options->list, "Print the names of the vectors that would run");
    // Of these there is one, not one per vector.
    for (const char* const option : {"--record", "--progress", "--trace", "--dot"}) {
        suite->excludes(app->get_option(option));
    }
    showOptions(*app, {"--set", "--log", "--timeout", "--stall", "--color", "--quiet"}, suite);
}

int listNodes() {
    std::string text;
    const auto add = [&](const char* indent, int width, const auto& item) {
        text += concat(indent, std::left, std::setw(width), item.name, " ", item.help, "\n");
    };
    for (const NodeType& type : nodeTypes()) {
        add("", 22, type);
        for (const ConfigKey& config : type.configs) add("    ", 18, config);
        for (const EntryKey& entry : type.entries) add("    entry ", 12, entry);
    }
    return printResult(text);
}

// Recording: the list of --record. It lies beside its place, under a name that no other file has, until the
// run is known to be good.
class Recording {
public:
    // Makes the one sink/checksum of `graph` write it.
    Recording(const std::string& path, bool force, vexa::VXGraphInfo* graph) : mPath(path) {
        std::vector<vexa::VXNodeDescriptor*> sinks;
        for (const auto& node : graph->nodes) {
            if (node->type == "sink/checksum") sinks.push_back(node.get());
        }
        if (sinks.size() != 1) {
            fail(concat("the graph has ", sinks.size(), " sink/checksum nodes, expected 1"));
        }
        std::error_code none;
        const auto status = std::filesystem::symlink_status(mPath, none);
        if (std::filesystem::exists(status)) {
            if (!std::filesystem::is_regular_file(status)) fail(mPath + " is not a regular file");
            if (!force) fail(mPath + " exists; --force replaces it");
        }
        mUnproven = mPath + ".XXXXXX";
        const int file = mkstemp(mUnproven.data());
        if (file < 0) fail(mPath + ": " + errnoText(errno));
        close(file);
        auto& configs = sinks.front()->configs;
        configs.erase("expect");
        configs["write"] = mUnproven;
        std::string& format = configs["format"];
        if (format.empty()) format = checksumFormatOf(mPath);
    }
    ~Recording() { std::remove(mUnproven.c_str()); }
    Recording(const Recording&) = delete;
    Recording& operator=(const Recording&) = delete;

    void commit() {
        std::error_code error;
        std::filesystem::rename(mUnproven, mPath, error);
        if (error) fail(mPath + ": " + error.message());
    }

private:
    [[noreturn]] static void fail(const std::string& text) { throw badOption("--record", text); }

    const std::string mPath;
    std::string mUnproven;
};

// Prints all that is wrong with a graph file, and returns the exit code.
int check(const Options& options) {
    const auto failures = checkGraphFile(options.graph, options.overrides);
    for (const Failure& failure : failures) console::line(failure.what());
    return printResult(concat("check: mistakes=", failures.size(), "\n"),
                       failures.empty() ? 0 : exitCode("CORRUPT_DESCR"));
}

// Builds and runs the graph, that of a file or of `vxrun decode`.
void runGraph(const Options& options, Evidence* evidence) {
    const bool decodes = options.command == "decode";
    vexa::VXGraphInfo graph = decodes ? decodeGraph(options.decode) : readGraphFile(options.graph);
    for (const std::string& assignment : options.overrides) overrideConfig(&graph, assignment);
    if (!options.dumpFolder.empty()) setWhereKnown(&graph, "dump_bad", options.dumpFolder);
    std::optional<Recording> recording;
    if (!options.record.empty()) recording.emplace(options.record, options.force, &graph);
    if (decodes || !options.record.empty()) evidence->expectNoCheck();

    // Before the log level is set: what registers here is no news to anyone.
    std::vector<std::unique_ptr<NodeFactory>> factories;
    for (const NodeType& type : nodeTypes()) {
        factories.push_back(std::make_unique<NodeFactory>(type, *evidence));
    }
    const std::string mask = options.logMask.empty() && options.quiet ? "0" : options.logMask;
    if (!mask.empty()) property_set("vendor.vexa.log.msg", mask.c_str());
    vexa::vxUpdateLogLevel();
    runGraph(std::move(graph), options.run, evidence);
    evidence->closePools(options.stats);
    if (recording && exitCode(evidence->verdict()) == 0) recording->commit();
}

// Does what the options say, and returns the exit code.
int run(const Options& options) {
    console::set(options.quiet, options.color);
    // The MD5 is the last line on standard output.
    const bool decodes = options.command == "decode";
    Evidence evidence(decodes ? STDERR_FILENO : STDOUT_FILENO);
    const auto fail = [&](const std::string& text, const std::string& verdict) {
        console::line(text);
        evidence.fail(verdict);
    };
    try {
        if (!options.mistake.empty()) throw Failure("vxrun: " + options.mistake, "BAD_OPTION");
        if (options.listNodes) return listNodes();
        const bool wantsGraph = options.command.empty() || options.command == "check";
        if (options.graph.empty() == wantsGraph) {
            throw Failure(wantsGraph ? "vxrun: no graph file given, see --help"
                                     : "vxrun: unexpected " + quote(options.graph),
                          "BAD_OPTION");
        }
        if (options.command == "check") return check(options);
        if (options.command == "suite") {
            return runSuite(options.suite, [&](const DecodeOptions& vector) {
                Options its = options;
                its.command = "decode";
                its.decode = vector;
                its.run.timeout = options.suite.timeout;
                its.unsupportedExit = exitCode("NOT_SUPPORTED");
                its.quiet = false;
                its.color = "never";
                return run(its);
            });
        }
        runGraph(options, &evidence);
    } catch (const Failure& failure) {
        fail(failure.what(), failure.verdict().empty() ? "CORRUPT_DESCR" : failure.verdict());
    } catch (const std::exception& exception) {  // memory, for instance
        fail(concat("vxrun: ", exception.what()), "UNKNOWN_ERROR");
    }
    const int code = evidence.printVerdict();
    return decodes && code == exitCode("NOT_SUPPORTED") ? options.unsupportedExit : code;
}

int start(int argc, char** argv) {
    Options options;
    CLI::App app("Runs a graph of nodes and says whether the test passed.", "vxrun");
    addOptions(&app, &options);
    addDecode(&app, &options);
    addSuite(&app, &options.suite);
    CLI::App* const check =
        app.add_subcommand("check", "Tells all that is wrong with a graph file, and runs nothing");
    check->fallthrough();
    add(check, "graph GRAPH.json", &options.graph, "The graph file")->required();
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) {  // --help, --version
            std::ostringstream text;
            app.exit(error, text, text);
            return printResult(text.str());
        }
        options.mistake = error.what();
    }
    for (const CLI::App* const command : app.get_subcommands()) {
        options.command = command->get_name();
    }
    if (options.run.timeout > 0) options.suite.timeout = options.run.timeout;
    return run(options);
}

}  // namespace
}  // namespace vxrun

int main(int argc, char** argv) {
    // What is opened must not become standard input, output or error because that is closed.
    while (true) {
        const int file = open("/dev/null", O_RDWR | O_CLOEXEC);
        if (file > STDERR_FILENO) close(file);
        if (file < 0 || file > STDERR_FILENO) break;
        fcntl(file, F_SETFD, 0);
    }
    // A reader that has gone and a file that is too large (ulimit -f) are errors like a full disk.
    for (const int number : {SIGPIPE, SIGXFSZ}) std::signal(number, SIG_IGN);
    // A snapshot may be asked for before there is a graph: it comes when there is one.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    try {
        return vxrun::start(argc, argv);
    } catch (const std::exception& exception) {  // memory, for instance
        std::fprintf(stderr, "vxrun: %s\n", exception.what());
        return 3;
    }
}
