// vxrun GRAPH.json: runs the graph of a file. The command without a name, which has the option
// --list-nodes, too.
#include "Command.h"
#include "Console.h"
#include "MediaLibraries.h"
#include "Text.h"

#include <vxkit/NodeType.h>

namespace vxrun {
namespace {

int listNodes() {
    loadMediaLibraries();
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

int listDecoders() {
    std::string text;
    for (TestedDecoder& decoder : TestedDecoder::shipped()) {
        const std::string missing = decoder.probe();
        text += concat(std::left, std::setw(12), decoder.name(), " ", decoder.help(), "\n",
                       std::setw(12), "", "   ",
                       missing.empty() ? decoder.version() : "not here: " + missing, "\n");
    }
    return console::exitWithResult(text);
}

class RunCommand final : public Command {
public:
    CLI::App* addTo(CLI::App* app) override {
        app->add_flag("--list-nodes", mListNodes, "List the node types and their configs");
        app->add_flag("--list-decoders", mListDecoders, "List the decoders that vxrun describes");
        return app;
    }

    bool readsGraph() const override { return !mListNodes && !mListDecoders; }

    int execute(const CommonOptions& options, Evidence* evidence) override {
        if (mListNodes) return listNodes();
        if (mListDecoders) return listDecoders();
        Task task;
        task.input = options.graph;
        task.graph = readGraphFile(options.graph, {}, &task.limits);
        return runToVerdict(*this, std::move(task), options, evidence);
    }

private:
    bool mListNodes = false, mListDecoders = false;
};

const bool kRegistered = registerCommand(std::make_unique<RunCommand>());

}  // namespace
}  // namespace vxrun
