// vxrun check GRAPH.json: prints every mistake in a graph file, and runs nothing.
#include "Command.h"
#include "Console.h"
#include "Text.h"

namespace vxrun {
namespace {

class CheckCommand final : public Command {
public:
    CLI::App* addTo(CLI::App* app) override {
        CLI::App* const check =
            app->add_subcommand("check", "Prints every mistake in a graph file, and runs nothing");
        check->fallthrough();
        addOption(check, "graph GRAPH.json", &mGraph, "The graph file")->required();
        return check;
    }

    int execute(const CommonOptions& options, Evidence*) override {
        const auto failures = checkGraphFile(mGraph, options.assignments);
        for (const Failure& failure : failures) console::line(failure.what());
        const int code = failures.empty() ? 0 : exitCode(Verdict::CorruptDescription);
        return console::exitWithResult(concat("check: mistakes=", failures.size(), "\n"), code);
    }

private:
    std::string mGraph;
};

const bool kRegistered = registerCommand(std::make_unique<CheckCommand>());

}  // namespace
}  // namespace vxrun
