// vxrun replay FILE: runs again what failed in a bundle, and tells whether it fails in the same
// way.
#include "Bundle.h"
#include "Command.h"
#include "Console.h"
#include "Files.h"
#include "Text.h"
#include "Version.h"

#include <vxkit/NodeLibrary.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <optional>

namespace vxrun {
namespace {

namespace fs = std::filesystem;

class ReplayCommand final : public Command {
public:
    CLI::App* addTo(CLI::App* app) override {
        CLI::App* const replay = app->add_subcommand(
            "replay", "Runs again what failed in a bundle; tells whether it fails in the same way");
        replay->fallthrough();
        addOption(replay, "FILE BUNDLE", &mFile, "The file of --bundle")->required();
        addOption(replay, "--resources DIR", &mResources,
                  "Where the files are that the bundle only names");
        addOption(replay, "--keep DIR", &mKeep, "Unpack into this new folder, and keep it");
        // A run is repeated as it was.
        for (const char* const option :
             {"--set", "--dump-bad", "--record", "--timeout", "--stall", "--progress", "--trace",
              "--dot", "--json", "--junit", "--min-fps", "--max-latency-p99", "--max-rss",
              "--bundle"}) {
            replay->excludes(app->get_option(option));
        }
        showOptions(*app, {"--nodes", "--log", "--color", "--quiet"}, replay);
        return replay;
    }

    int execute(const CommonOptions& options, Evidence*) override {
        const ProcessSignals signals;
        const Check check = [&] { signals.check(); };
        std::optional<TemporaryFolder> made;
        if (mKeep.empty()) made.emplace();
        const std::string folder = made ? made->path() : fs::absolute(mKeep).string();
        if (!made) makeFolder("--keep", folder);
        if (!fs::is_empty(folder)) throw badOption("--keep", folder + ": not empty");
        try {
            const Bundle bundle = openBundle(mFile, folder, check);
            findLibraries(bundle);
            findReferences(bundle, mFile, folder, mResources, check);
            showDifferences(bundle, check);
            return replay(bundle, folder, options, signals);
        } catch (const fs::filesystem_error& error) {
            throw Failure(mFile + ": " + error.code().message());
        }
    }

private:
    // The libraries are here by their names; others may be loaded, too.
    void findLibraries(const Bundle& bundle) const {
        std::vector<std::string> missing;
        for (const auto& library : bundle.libraries) {
            const auto& loaded = loadedNodeLibraries();
            const auto isIt = [&](const fs::path& file) {
                return file.filename() == library.first;
            };
            if (std::any_of(loaded.begin(), loaded.end(), isIt)) continue;
            missing.push_back(printable(library.first));
        }
        if (missing.empty()) return;
        throw Failure(concat(mFile, ": needs node libraries that are not in a bundle: ",
                             joined(missing), "; --nodes FILE.so names each"),
                      Verdict::BadOption);
    }

    static void showDifferences(const Bundle& bundle, const Check& check) {
        for (const auto& [name, value] : environmentFacts()) {
            for (const auto& [fact, there] : bundle.facts) {
                if (fact != name || there == value) continue;
                console::note(concat("vxrun: another ", name, ": ", printable(there),
                                     " in the bundle, ", value, " here"));
            }
        }
        for (const auto& [name, sum] : bundle.libraries) {
            for (const std::string& file : loadedNodeLibraries()) {
                if (fs::path(file).filename() != name || sum.empty() ||
                    sha256Of(file, check) == sum) {
                    continue;
                }
                console::note("vxrun: another build of the node library " + printable(name));
            }
        }
    }

    int replay(const Bundle& bundle, const fs::path& folder, const CommonOptions& options,
               const ProcessSignals& signals) const {
        size_t same = 0, failed = 0;
        std::string lines;
        for (const FailedRun& run : bundle.runs) {
            RunOptions runOptions = run.options;
            runOptions.logMask = options.run.logMask;
            const auto makeGraph = [&] {
                for (const std::string& variable : run.environment) {
                    const size_t equals = variable.find('=');
                    if (equals == std::string::npos) continue;
                    setenv(variable.substr(0, equals).c_str(), variable.c_str() + equals + 1, 1);
                }
                return readGraphFile(folder / run.folder / "graph.json");
            };
            RunProcess process;
            const int error = process.start(makeGraph, runOptions, signals);
            if (error != 0) throw Failure("vxrun: cannot start a run: " + errnoText(error));
            const int signal = process.wait(signals);
            if (signal != 0) {
                const Verdict verdict =
                    signal == SIGINT ? Verdict::Interrupted : Verdict::Terminated;
                throw Failure(concat("ended by ", verdictName(verdict)), verdict);
            }
            const RunResult result = process.result();
            const FailureSignature now = signatureNow(run, result);
            const std::string name = printable(run.name) + ": ";
            if (now == run.signature) {
                ++same;
                lines += name + "fails in the same way: " + printable(now.text()) + "\n";
            } else if (now.type.empty()) {
                lines += name + "does not fail; it was " + printable(run.signature.text()) + "\n";
            } else {
                ++failed;
                lines += concat(name, "fails differently: was ", printable(run.signature.text()),
                                ", is ", now.text(), "\n");
            }
            if (!result.message.empty() && !(now == run.signature)) {
                console::line(name + result.message);
            }
        }
        const Verdict verdict = same == bundle.runs.size() ? Verdict::Pass : Verdict::Fail;
        lines += concat("verdict: ", verdictName(verdict), " same=", same, " different=", failed,
                        " not_failed=", bundle.runs.size() - same - failed, "\n");
        return console::exitWithResult(lines, exitCode(verdict));
    }

    // How the run has failed this time; no type when it has not. As with test vectors the pictures
    // decide, where those that are expected are known.
    static FailureSignature signatureNow(const FailedRun& run, const RunResult& result) {
        const bool isPass = exitCode(result.verdict) == 0;
        if (!isPass && !isFailedTest(result.verdict)) return result.signature;
        const bool isRight = run.md5.empty() ? isPass : run.md5 == result.md5;
        if (isRight == run.isNegative) {
            if (run.isNegative) return {"UNEXPECTED_PASS", "", ""};
            if (run.md5.empty() || result.md5.empty()) return result.signature;
            return {verdictName(Verdict::CrcMismatch), result.signature.kind,
                    result.signature.shape};
        }
        return {};
    }

    std::string mFile, mResources, mKeep;
};

const bool kRegistered = registerCommand(std::make_unique<ReplayCommand>());

}  // namespace
}  // namespace vxrun
