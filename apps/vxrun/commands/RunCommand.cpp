// vxrun GRAPH.json: runs the graph of a file. The command without a name, which has the option
// --list-nodes, too.
#include "Command.h"
#include "Console.h"
#include "Text.h"

#include <vxkit/NodeType.h>

namespace vxrun {
namespace {

int listNodes() {
    std::string text;
    const auto addLine = [&](const char* indent, int width, const auto& item) {
        text += concat(indent, std::left, std::setw(width), item.name, " ", item.help, "\n");
    };
    for (const auto& [name, type] : nodeTypes()) {
        addLine("", 22, type);
        for (const ConfigKey* config : type.configs) addLine("    ", 18, *config);
        for (const EntryKey& entry : type.entries) addLine("    entry ", 12, entry);
    }
    return console::exitWithResult(text);
}

class RunCommand final : public Command {
public:
    CLI::App* addTo(CLI::App* app) override {
        app->add_flag("--list-nodes", mListNodes, "List the node types and their configs");
        return app;
    }

    bool readsGraph() const override { return !mListNodes; }

    int execute(const CommonOptions& options, Evidence* evidence) override {
        if (mListNodes) return listNodes();
        return runToVerdict(*this, readGraphFile(options.graph), options, evidence);
    }

private:
    bool mListNodes = false;
};

const bool kRegistered = registerCommand(std::make_unique<RunCommand>());

}  // namespace
}  // namespace vxrun
