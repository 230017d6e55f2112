// vxrun suite FILE: decodes the test vectors of a conformance suite and writes reports.
#include "Command.h"
#include "Console.h"
#include "Report.h"
#include "Selection.h"
#include "SuiteRun.h"
#include "Text.h"
#include "Version.h"

#include <csignal>
#include <filesystem>

namespace vxrun {
namespace {

Verdict verdictOf(const Counts& counts, int signal, bool anySelected) {
    if (signal != 0) return signal == SIGINT ? Verdict::Interrupted : Verdict::Terminated;
    if (counts.of[TestVector::FAIL] + counts.errors() > 0) return Verdict::Fail;
    if (counts.of[TestVector::SUCCESS] > 0) return Verdict::Pass;
    // No vector at all is a mistake in the selection.
    return anySelected ? Verdict::Skipped : Verdict::NothingChecked;
}

class SuiteCommand final : public Command {
public:
    CLI::App* addTo(CLI::App* app) override {
        CLI::App* const suite =
            app->add_subcommand("suite", "Decodes the test vectors of a conformance suite");
        suite->fallthrough();
        addOption(suite, "FILE SUITE.json", &mFile, "The suite")->required();
        addDecoderOptions(suite, &mDecoders);
        addOption(suite, "--resources DIR", &mRun.resources, "Where the vectors' files are");
        addOption(suite, "--output DIR", &mRun.output, "Keep the raw video of every vector here");
        addOption(suite, "--filter GLOBS", &mSelection.filter,
                  "Run these: GLOB[:GLOB...][:-GLOB...]");
        addOption(suite, "--shard i/n", &mSelection.shard, "Run the i-th of n parts, i from 1");
        addOption(suite, "--jobs N", &mRun.jobs, "Vectors at once, default one per processor")
            ->check(CLI::Range(1, 1000));
        for (const ReportKind& kind : reportKinds()) {
            addOption(suite, concat("--", kind.name, " FILE"), &mReports[kind.name],
                      concat("Write a report: ", kind.name));
        }
        suite->add_flag("--list", mList, "Print the names of the vectors that would run");
        // Of these there is one, not one per vector.
        for (const char* const option : {"--record", "--progress", "--trace", "--dot"}) {
            suite->excludes(app->get_option(option));
        }
        showOptions(*app,
                    {"--nodes", "--set", "--log", "--timeout", "--stall", "--color", "--quiet"},
                    suite);
        return suite;
    }

    int execute(const CommonOptions& options, Evidence*) override {
        Suite suite = readSuite(mFile);
        const bool anySelected = mSelection.applyTo(&suite);
        if (mList) return list(suite);
        if (mRun.resources.empty()) throw badOption("--resources", "missing");
        auto decoders = mDecoders.find();
        SuiteResults results;
        for (TestedDecoder& decoder : decoders) {
            results.columns.push_back(suite);
            prepareColumn(&decoder, &results.columns.back());
        }
        results.facts = environmentFacts();
        results.facts.emplace_back("command_line", options.commandLine);
        prepareReports(results);
        if (!mRun.output.empty()) {
            makeFolder("--output", std::filesystem::path(mRun.output) / suite.name);
        }
        // Not the silence of --quiet: the logs of test vectors go into the reports.
        mRun.vectors = {options.run, options.edits()};
        if (options.run.timeout == 0) mRun.vectors.run.timeout = kVectorTimeout;
        mRun.writeReports = [&] { writeReports(mReports, results); };
        int signal = 0;
        for (size_t i = 0; i < decoders.size() && signal == 0; ++i) {
            SuiteRunOptions run = mRun;
            if (decoders.size() > 1) {
                run.label = results.columns[i].decoder + "/";
                if (!run.output.empty()) run.output += "/" + results.columns[i].decoder;
            }
            signal = runVectors(run, decoders[i], &results.columns[i]);
        }
        Counts counts;
        for (const Suite& column : results.columns) counts.add(column.counts());
        return reportVerdict(results, counts, verdictOf(counts, signal, anySelected));
    }

private:
    static constexpr double kVectorTimeout = 60;  // seconds, where none is given

    static int list(const Suite& suite) {
        std::string names;
        for (const TestVector& vector : suite.vectors) names += printable(vector.name) + "\n";
        return console::exitWithResult(names);
    }

    // What a decoder cannot do here is not run with it.
    static void prepareColumn(TestedDecoder* decoder, Suite* suite) {
        // libavcodec's decoders are many.
        const bool isDefault = decoder->name() == TestedDecoder().name() && !suite->codec.empty();
        suite->decoder = decoder->name() + (isDefault ? "-" + suite->codec : "");
        std::string reason = decoder->probe();
        suite->decoderVersion = decoder->version();
        if (reason.empty()) reason = decoder->refusal(suite->codec);
        if (reason.empty()) return;
        for (TestVector& vector : suite->vectors) {
            vector.state = TestVector::NOT_SUPPORTED;
            vector.message = reason;
        }
    }

    // The reports replace older ones before anything runs, or can fail to.
    void prepareReports(const SuiteResults& results) {
        // "xml:FILE" or "xml:FOLDER/"; other kinds are GoogleTest's own.
        const std::string output = variable("GTEST_OUTPUT");
        std::string& junit = mReports["junit"];
        if (junit.empty() && output.rfind("xml:", 0) == 0) {
            junit = output.substr(4) +
                    (output.back() == '/' ? results.columns.front().name + ".xml" : "");
        }
        constexpr char kStatus[] = "GTEST_SHARD_STATUS_FILE";
        if (!variable(kStatus).empty()) writeTextFile(kStatus, variable(kStatus), "");
        const auto failures = writeReports(mReports, results);
        if (!failures.empty()) throw Failure(failures.front());
    }

    int reportVerdict(const SuiteResults& results, const Counts& counts, Verdict verdict) const {
        for (const Failure& failure : writeReports(mReports, results)) {
            console::line(failure.what());
            if (exitCode(verdict) == 0) verdict = Verdict::NotWritten;
        }
        const std::string line =
            concat("verdict: ", verdictName(verdict), " passed=", counts.of[TestVector::SUCCESS],
                   " failed=", counts.of[TestVector::FAIL], " errors=", counts.errors(),
                   " skipped=", counts.skipped(), "\n");
        return console::exitWithResult(countsTable(results) + line, exitCode(verdict));
    }

    std::string mFile;
    DecoderOptions mDecoders;
    Selection mSelection;
    SuiteRunOptions mRun;
    ReportFiles mReports;
    bool mList = false;
};

const bool kRegistered = registerCommand(std::make_unique<SuiteCommand>());

}  // namespace
}  // namespace vxrun
