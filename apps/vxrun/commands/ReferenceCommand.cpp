// vxrun reference SUITE.json: fills in the results of a suite with those of a decoder.
#include "Console.h"
#include "Files.h"
#include "SuiteOptions.h"
#include "Text.h"

#include <nlohmann/json.hpp>

#include <map>

namespace vxrun {
namespace {

class ReferenceCommand final : public Command {
public:
    CLI::App* addTo(CLI::App* app) override {
        CLI::App* const reference = app->add_subcommand(
            "reference", "Fills in the results that a suite lacks with those of a decoder");
        mSuite.addTo(reference);
        addOption(reference, "-o,--output FILE", &mOutput, "The suite to write, default this one");
        for (const char* const option :
             {"--record", "--progress", "--trace", "--dot", "--html", "--json", "--junit",
              "--bundle", "--min-fps", "--max-latency-p99", "--max-rss"}) {
            reference->excludes(app->get_option(option));
        }
        showOptions(
            *app,
            {"--nodes", "--set", "--force", "--log", "--timeout", "--stall", "--color", "--quiet"},
            reference);
        return reference;
    }

    int execute(const CommonOptions& options, Evidence*) override {
        Suite suite = readSuite(mSuite.file, true);
        mSuite.selection.applyTo(&suite);
        auto& vectors = suite.vectors;
        const auto isKnown = [&](const TestVector& vector) {
            return !vector.md5.empty() && !options.force;
        };
        vectors.erase(std::remove_if(vectors.begin(), vectors.end(), isKnown), vectors.end());
        for (TestVector& vector : vectors) vector.md5.clear();
        auto decoders = mSuite.decoders.find();
        if (decoders.size() > 1) throw badOption("--decoder", "expected one");
        SuiteOptions::prepare(&decoders.front(), options.edits(), &suite);
        SuiteRunOptions run = mSuite.runOptions(options);
        run.writeReports = [] {};
        const int signal = decodeVectors(run, decoders.front(), &suite);
        write(suite);
        const Counts counts = suite.counts();
        return reportCounts("", counts, verdictOf(counts, signal, !vectors.empty()));
    }

private:
    // The rest of the file stays as it is, but for its spaces; all of it when there is no result.
    void write(const Suite& suite) const {
        std::map<std::string, std::string> results;
        for (const TestVector& vector : suite.vectors) {
            if (vector.state == TestVector::SUCCESS) results[vector.name] = vector.actualMd5;
        }
        if (results.empty()) return;
        auto json = nlohmann::ordered_json::parse(readTextFile(mSuite.file, kMaxSuiteFile));
        for (auto& vector : json["test_vectors"]) {
            const auto result = results.find(vector.value("name", ""));
            if (result != results.end()) vector["result"] = result->second;
        }
        writeTextFile("--output", mOutput.empty() ? mSuite.file : mOutput, json.dump(4) + "\n");
    }

    SuiteOptions mSuite;
    std::string mOutput;
};

const bool kRegistered = registerCommand(std::make_unique<ReferenceCommand>());

}  // namespace
}  // namespace vxrun
