// vxrun suite FILE: decodes the test vectors of a conformance suite and writes reports.
#include "BundledRun.h"
#include "Console.h"
#include "Json.h"
#include "Report.h"
#include "SuiteOptions.h"
#include "Text.h"
#include "Version.h"

#include <filesystem>
#include <optional>

namespace vxrun {
namespace {

class SuiteCommand final : public Command {
public:
    CLI::App* addTo(CLI::App* app) override {
        CLI::App* const suite =
            app->add_subcommand("suite", "Decodes the test vectors of a conformance suite");
        mSuite.addTo(suite);
        addOption(suite, "--output DIR", &mOutput, "Keep the raw video of every vector here");
        addOption(suite, "--lists DIR", &mLists,
                  "Compare with the checksum lists DIR/INPUT_FILE.framemd5 and so on");
        addOption(suite, "--against DECODER", &mAgainst,
                  "Compare with a trusted decoder's pictures, too");
        addOption(suite, "--shard i/n", &mSuite.selection.shard,
                  "Run the i-th of n parts, i from 1");
        for (const ReportKind& kind : reportKinds()) {
            addOption(suite, concat("--", kind.name, " FILE"), &mReports[kind.name],
                      concat("Write a report: ", kind.name));
        }
        suite->add_flag("--list", mList, "Print the names of the vectors that would run");
        // Of these there is one, not one per vector.
        for (const char* const option :
             {"--record", "--progress", "--trace", "--dot", "--html", "--json", "--junit",
              "--min-fps", "--max-latency-p99", "--max-rss"}) {
            suite->excludes(app->get_option(option));
        }
        showOptions(*app,
                    {"--nodes", "--set", "--dump-bad", "--log", "--timeout", "--stall", "--bundle",
                     "--bundle-refs", "--color", "--quiet"},
                    suite);
        return suite;
    }

    int execute(const CommonOptions& options, Evidence*) override {
        Suite suite = readSuite(mSuite.file);
        const bool anySelected = mSuite.selection.applyTo(&suite);
        if (mList) return list(suite);
        SuiteRunOptions run = mSuite.runOptions(options);
        auto decoders = mSuite.decoders.find();
        TestedDecoder trusted;
        if (!mAgainst.empty()) {
            trusted = TestedDecoder::find(mAgainst);
            for (const std::string& reason : {trusted.probe(), trusted.refusal(suite.codec)}) {
                if (!reason.empty()) throw badOption("--against", reason);
            }
            run.against = &trusted;
        }
        run.lists = mLists;
        run.vectors.edits.whereKnown.clear();  // a folder for each vector
        SuiteResults results;
        for (TestedDecoder& decoder : decoders) {
            results.columns.push_back(suite);
            SuiteOptions::prepare(&decoder, options.edits(), &results.columns.back());
        }
        results.facts = environmentFacts();
        results.facts.emplace_back("command_line", options.commandLine);
        prepareReports(results);
        if (!options.bundle.file.empty()) checkBundleFile(options.bundle);
        if (!mOutput.empty()) {
            makeFolder("--output", std::filesystem::path(mOutput) / suite.name);
        }
        run.writeReports = [&] { writeReports(mReports, results); };
        // A bundle has wrong frames, too.
        std::optional<TemporaryFolder> dumps;
        if (!options.bundle.file.empty() && options.dumpFolder.empty()) dumps.emplace();
        run.vectors.bundle = options.bundle.file;
        mDumps = dumps ? dumps->path() : options.dumpFolder;
        int signal = 0;
        for (size_t i = 0; i < decoders.size() && signal == 0; ++i) {
            setColumn(results, i, &run);
            run.vectors.commandOf = [&, i](const TestVector& vector) {
                return commandFor(options, i, vector);
            };
            signal = decodeVectors(run, decoders[i], &results.columns[i]);
        }
        if (signal == 0 && !options.bundle.file.empty()) {
            const ProcessSignals signals;
            const TemporaryFolder left;
            BundleMaker bundle(options.bundle.refers, results.facts, [&] { signals.check(); });
            for (size_t i = 0; i < decoders.size(); ++i) {
                setColumn(results, i, &run);
                for (const TestVector& vector : results.columns[i].vectors) {
                    if (!vector.hasFailed()) continue;
                    addToBundle(run, decoders[i], results.columns[i], vector, left.path(), &bundle);
                }
            }
            writeBundle(options.bundle, &bundle);
        }
        return concludeSuite(results, signal, anySelected);
    }

private:
    // The options of the column `index` of the results.
    void setColumn(const SuiteResults& results, size_t index, SuiteRunOptions* run) const {
        const std::string& decoder = results.columns[index].decoder;
        const bool isOne = results.columns.size() == 1;
        run->label = isOne ? "" : decoder + "/";
        run->output = isOne || mOutput.empty() ? mOutput : mOutput + "/" + decoder;
        run->dumps = isOne || mDumps.empty() ? mDumps : mDumps + "/" + decoder;
    }

    // Adds `vector`, which has failed with `decoder`. `left`: the folder for what a
    // failure leaves.
    void addToBundle(const SuiteRunOptions& options, const TestedDecoder& decoder,
                     const Suite& suite, const TestVector& vector, const std::string& left,
                     BundleMaker* bundle) const {
        const std::string folder = concat(left, "/", bundle->size());
        try {
            FailedRun run;
            run.name = options.label + vector.name;
            run.signature = {vector.type, "", ""};
            run.message = vector.message;
            run.options = options.vectors.run;
            run.environment = decoder.environment();
            run.md5 = vector.md5;
            run.isNegative = suite.negative;
            vexa::VXGraphInfo graph = decoder.graphFor(decodeOptionsOf(options, suite, vector));
            options.vectors.edits.applyTo(&graph);
            makeFolder("--bundle", folder);
            writeTextFile("--bundle", folder + "/log.txt", vector.log);
            if (!vector.failure.empty()) {
                writeTextFile("--bundle", folder + "/failure.json", vector.failure);
                run.signature = signatureIn(folder + "/failure.json");
            }
            const std::filesystem::path frames = options.dumps + "/" + vector.name;
            if (std::filesystem::exists(frames)) {
                std::filesystem::copy(frames, folder + "/frames");
            }
            bundle->add(std::move(run), std::move(graph), folder,
                        descriptionsOf(mSuite.decoders.names));
        } catch (const std::exception& exception) {
            console::line(concat("vxrun: --bundle: ", vector.name, ": ", exception.what()));
        }
    }

    static FailureSignature signatureIn(const std::string& file) {
        constexpr size_t kMost = 64 << 20;
        const JsonDocument document(file, "failure", kMost);
        const auto text = [&](const char* key) {
            const JsonValue* const value = document.root().find(key);
            return value != nullptr ? value->text : "";
        };
        return {text("type"), text("kind"), text("shape")};
    }

    static int list(const Suite& suite) {
        std::string names;
        for (const TestVector& vector : suite.vectors) names += printable(vector.name) + "\n";
        return console::exitWithResult(names);
    }

    // The command line that runs `vector` with the decoder `index` alone.
    std::string commandFor(const CommonOptions& options, size_t index,
                           const TestVector& vector) const {
        std::vector<std::string> words = {"vxrun", "suite", mSuite.file, "--resources",
                                          mSuite.resources};
        const auto add = [&](const std::string& option, const std::string& value) {
            if (!value.empty()) words.insert(words.end(), {option, value});
        };
        const DecoderOptions& decoders = mSuite.decoders;
        const size_t names = decoders.names.size();
        if (index < names) add("--decoder", decoders.names[index]);
        if (index >= names && index - names < decoders.graphs.size()) {
            add("--graph", decoders.graphs[index - names]);
        }
        for (const std::string& file : options.nodes) add("--nodes", file);
        for (const std::string& assignment : options.assignments) add("--set", assignment);
        std::string filter;
        for (const char c : vector.name) {
            if (std::string("*?[\\:").find(c) != std::string::npos ||
                (c == '-' && filter.empty())) {
                filter += '\\';
            }
            filter += c;
        }
        add("--filter", filter);
        add("--lists", mLists);
        add("--against", mAgainst);
        if (options.run.timeout > 0) add("--timeout", concat(options.run.timeout));
        return shellLine(words);
    }

    // The reports replace older ones before anything runs, or can fail to.
    void prepareReports(const SuiteResults& results) {
        // "xml:FILE" or "xml:FOLDER/"; other kinds are GoogleTest's own.
        const std::string output = variable("GTEST_OUTPUT");
        std::string& junit = mReports["junit"];
        if (junit.empty() && output.rfind("xml:", 0) == 0) {
            const std::string name = results.columns.front().name + ".xml";
            junit = output.substr(4) + (output.back() == '/' ? name : "");
        }
        constexpr char kStatus[] = "GTEST_SHARD_STATUS_FILE";
        if (!variable(kStatus).empty()) writeTextFile(kStatus, variable(kStatus), "");
        const auto failures = writeReports(mReports, results);
        if (!failures.empty()) throw Failure(failures.front());
    }

    int concludeSuite(const SuiteResults& results, int signal, bool anySelected) const {
        Counts counts;
        for (const Suite& column : results.columns) counts.add(column.counts());
        Verdict verdict = verdictOf(counts, signal, anySelected);
        for (const Failure& failure : writeReports(mReports, results)) {
            console::line(failure.what());
            if (exitCode(verdict) == 0) verdict = Verdict::NotWritten;
        }
        return reportCounts(countsTable(results), counts, verdict);
    }

    SuiteOptions mSuite;
    std::string mOutput, mLists, mAgainst;
    std::string mDumps;  // the folder for wrong frames; empty: none
    ReportFiles mReports;
    bool mList = false;
};

const bool kRegistered = registerCommand(std::make_unique<SuiteCommand>());

}  // namespace
}  // namespace vxrun
