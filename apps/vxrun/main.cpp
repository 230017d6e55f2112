// vxrun: runs a graph of nodes and reports, by evidence, whether the test passed. This file
// dispatches to the commands.
#include "Command.h"
#include "Console.h"
#include "Text.h"
#include "Version.h"

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <string>

namespace vxrun {
namespace {

int start(int argc, char** argv) {
    CLI::App app("Runs a graph of nodes and reports whether the test passed.", "vxrun");
    app.set_version_flag("--version", "vxrun " + programVersion());
    CommonOptions options;
    options.commandLine = joinedWords({argv, argv + argc});
    options.addTo(&app);
    std::vector<CLI::App*> apps;
    for (const auto& command : commands()) apps.push_back(command->addTo(&app));
    std::string mistake;
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) {  // --help, --version
            std::ostringstream text;
            app.exit(error, text, text);
            return console::exitWithResult(text.str());
        }
        mistake = error.what();
    }
    const auto chosen = app.get_subcommands();
    CLI::App* const last = chosen.empty() ? &app : chosen.back();
    Command& command = *commands()[std::find(apps.begin(), apps.end(), last) - apps.begin()];

    console::configure(options.quiet, options.color);
    Evidence evidence;
    const RunReport report = newReport(options);
    const auto conclude = [&](const Evidence&) {
        return reportAndConclude(command, report, &evidence);
    };
    return concluded(&evidence, conclude, [&] {
        if (!mistake.empty()) throw Failure("vxrun: " + mistake, Verdict::BadOption);
        if (command.readsGraph() && options.graph.empty()) {
            throw Failure("vxrun: no graph file given, see --help", Verdict::BadOption);
        }
        if (last != &app && !options.graph.empty()) {
            throw Failure("vxrun: unexpected " + quote(options.graph), Verdict::BadOption);
        }
        options.loadNodes();
        return command.execute(options, &evidence);
    });
}

}  // namespace
}  // namespace vxrun

int main(int argc, char** argv) {
    // A file must not be opened as standard input, output or error because that one is closed.
    while (true) {
        const int file = open("/dev/null", O_RDWR | O_CLOEXEC);
        if (file > STDERR_FILENO) close(file);
        if (file < 0 || file > STDERR_FILENO) break;
        fcntl(file, F_SETFD, 0);
    }
    // A reader that has gone and a file that is too large (ulimit -f) are errors like a full disk.
    for (const int number : {SIGPIPE, SIGXFSZ}) std::signal(number, SIG_IGN);
    // A snapshot may be requested before there is a graph: it is shown once there is one.
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
