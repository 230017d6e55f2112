// Command: the commands of vxrun. Each is one source file here that registers itself.
#pragma once

#include "GraphFile.h"
#include "RunReport.h"
#include "Runner.h"
#include "TestedDecoder.h"

#include <CLI/CLI.hpp>

#include <memory>
#include <string>
#include <vector>

namespace vxrun {

struct BundleOptions {
    std::string file;     // empty: none is written
    bool refers = false;  // names the files that runs read, and does not have them
};

// The options that several commands share; they may come before or after the command's name.
struct CommonOptions {
    void addTo(CLI::App* app);
    // The run's options, and the edits of its graph, that these options ask for.
    RunOptions runOptions() const;
    GraphEdits edits() const;
    // Loads the node libraries of the options and of the environment, VXRUN_NODES. Throws Failure.
    void loadNodes() const;

    std::string commandLine;  // all of it
    std::string graph;
    std::vector<std::string> nodes;  // libraries
    std::vector<std::string> assignments;
    std::string dumpFolder;
    std::string record;
    bool force = false;
    std::string color = "auto";
    bool quiet = false;
    BundleOptions bundle;
    RunOptions run;
    ReportFiles reports;  // of a run; a suite has its own
};

// Life     static; registered before main(), its members are the options of the one command line.
// Threads  the main one.
class Command {
public:
    virtual ~Command() = default;

    // Adds the command to `app`. Returns the app that is parsed when it is chosen: a new
    // subcommand, or `app` itself for the command that needs no name.
    virtual CLI::App* addTo(CLI::App* app) = 0;
    // Whether it reads a graph file, CommonOptions::graph.
    virtual bool readsGraph() const { return false; }
    // Does what the options ask for, and returns the exit code. Throws Failure.
    virtual int execute(const CommonOptions& options, Evidence* evidence) = 0;
    // Reports the verdict of a run, or of a Failure, and returns the exit code.
    virtual int conclude(const Evidence& evidence) const;
};

// Returns true, so that a static object of the command's source file can call it.
bool registerCommand(std::unique_ptr<Command> command);
// All commands.
const std::vector<std::unique_ptr<Command>>& commands();

// ---- For commands -----------------------------------------------------------------------------

// Adds the option that `usage` shows, such as "--log MASK".
template <typename Value>
CLI::Option* addOption(CLI::App* app, const std::string& usage, Value* value,
                       const std::string& help) {
    const size_t blank = usage.find(' ');
    return app->add_option(usage.substr(0, blank), *value, help)
        ->type_name(usage.substr(blank + 1));
}

// A decimal number, `least` or more. (A range of CLI11's would accept "nan", too.)
CLI::Validator realFrom(double least);

// The options that choose what is tested.
struct DecoderOptions {
    // The decoders that they name; libavcodec's when they name none. Throws Failure.
    std::vector<TestedDecoder> find() const;

    std::vector<std::string> names;
    std::vector<std::string> graphs;  // files, see TestedDecoder::ofGraph()
};
// Those of `names` that are files.
std::vector<std::string> descriptionsOf(const std::vector<std::string>& names);
void addDecoderOptions(CLI::App* command, DecoderOptions* options);

// Adds those options of `app` that apply to `command` to its help.
void showOptions(const CLI::App& app, const std::vector<std::string>& names, CLI::App* command);

// The report of a run of which no more is known than the options.
RunReport newReport(const CommonOptions& options);
// Writes the reports of a run that has ended, and concludes.
int reportAndConclude(const Command& command, const RunReport& report, Evidence* evidence);

// What is run: a graph with its limits, and the file that it is about.
struct Task {
    vexa::VXGraphInfo graph;
    Limits limits;
    std::string input;
    // For a bundle: the variables of the decoder, NAME=VALUE, and the files that describe it.
    std::vector<std::string> environment = {}, descriptions = {};
};
// Runs `task` with the options, writes the list of --record when all is well, reports and
// concludes.
int runToVerdict(const Command& command, Task task, const CommonOptions& options,
                 Evidence* evidence);

}  // namespace vxrun
