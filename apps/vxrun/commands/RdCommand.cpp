// vxrun rd: encodes a clip with encoders at several bit rates, and shows what quality they give.
#include "Console.h"
#include "Files.h"
#include "RateLadder.h"
#include "SuiteOptions.h"
#include "Text.h"
#include "Version.h"

#include <vxkit/NodeType.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <map>
#include <sstream>

namespace vxrun {
namespace {

constexpr char kEncoderType[] = "codec/encoder", kDecoderType[] = "codec/decoder";
constexpr char kRate[] = "{rate}";  // in a config of an encoder: the bit rate

// What is written, by the names of the options.
constexpr std::pair<const char*, std::string (*)(const RateLadder&)> kFiles[] = {
    {"csv", ladderCsv}, {"json", ladderJson}, {"svg", ladderSvg}};

std::vector<std::string> partsOf(const std::string& list) {
    std::vector<std::string> parts;
    std::istringstream stream(list);
    for (std::string part; std::getline(stream, part, ',');) parts.push_back(part);
    return parts;
}

// What --encoder names: a node type, or an encoder of libavcodec, and configs of the node.
class TestedEncoder {
public:
    explicit TestedEncoder(const std::string& text) {
        const auto parts = partsOf(text);
        if (parts.empty()) throw badOption("--encoder", "expected a name");
        const bool isType = parts[0].find('/') != std::string::npos;
        mType = isType ? parts[0] : kEncoderType;
        const NodeType* const type = findNodeType(mType);
        if (type == nullptr || type->inputs != 1 || type->outputs != 1) {
            throw badOption("--encoder", "no encoder " + quote(mType));
        }
        if (!isType) mConfigs["codec"] = parts[0];
        for (size_t i = 1; i < parts.size(); ++i) {
            const size_t equals = parts[i].find('=');
            const std::string key = parts[i].substr(0, equals);
            if (equals == std::string::npos || !has(*type, key)) {
                throw badOption("--encoder", concat(quote(parts[i]), ": expected KEY=VALUE with a ",
                                                    "config of ", mType));
            }
            mConfigs[key] = parts[i].substr(equals + 1);
        }
        const bool placesRate = std::any_of(
            mConfigs.begin(), mConfigs.end(),
            [](const auto& config) { return config.second.find(kRate) < config.second.size(); });
        if (placesRate) return;
        if (!has(*type, "bitrate")) {
            throw badOption("--encoder", concat(mType, " has no config 'bitrate': expected ", kRate,
                                                " in another one"));
        }
        mConfigs["bitrate"] = kRate;
    }

    // Source -> encoder -> decoder -> comparison with the source. In the process of the run: the
    // look-ahead is measured with a trial encode, and that may start threads.
    vexa::VXGraphInfo graphFor(const std::string& source, uint64_t rate) const {
        vexa::VXGraphInfo graph;
        graph.name = "rd";
        addNode(&graph, "source/bitstream", "reader", nullptr, kUnits).configs["file"] = source;
        auto& pictures = addNode(&graph, kDecoderType, "decoder", kUnits, kPictures);
        auto& encoder = addNode(&graph, mType, "encoder", kPictures, kUnits);
        for (auto [key, value] : mConfigs) {
            const size_t at = value.find(kRate);
            if (at < value.size()) value.replace(at, std::strlen(kRate), std::to_string(rate));
            encoder.configs[key] = value;
        }
        auto& sink = addNode(&graph, "sink/bitrate", kRateNode, kUnits, nullptr);
        sink.configs["target"] = std::to_string(rate);
        addNode(&graph, kDecoderType, "again", kUnits, kPictures);
        auto& compare = addNode(&graph, "sink/compare", kCompareNode, kPictures, nullptr);
        compare.inputPorts.push_back({concat(kCompareNode, ".source"), kPictures});
        compare.configs["measure"] = "true";
        // The source waits for what the encoder looks ahead and the decoder reorders.
        constexpr uint64_t kReordered = 16, kMostAhead = 900;
        const uint64_t held = findNodeType(mType)->leastFramesHeld(encoder);
        const uint64_t ahead = std::min(held, kMostAhead) + kReordered;
        compare.configs["ahead"] = std::to_string(ahead);
        pictures.configs["slots"] = std::to_string(ahead + kReordered);
        graph.connections["reader.out"] = {"decoder.in"};
        graph.connections["decoder.out"] = {"encoder.in", concat(kCompareNode, ".source")};
        graph.connections["encoder.out"] = {concat(kRateNode, ".in"), "again.in"};
        graph.connections["again.out"] = {concat(kCompareNode, ".in")};
        return graph;
    }

private:
    static bool has(const NodeType& type, const std::string& config) {
        return type.findConfig(config) != nullptr;
    }

    std::string mType;
    std::map<std::string, std::string> mConfigs;
};

// A bit rate such as 800000, 500k or 1.5M. The reverse of rateText().
uint64_t parseRate(const std::string& text) {
    constexpr double kKilo = 1e3, kMega = 1e6;
    const char unit = text.empty() ? '\0' : text.back();
    const double factor = unit == 'k' ? kKilo : unit == 'M' ? kMega : 1;
    try {
        const std::string number = text.substr(0, text.size() - (factor > 1 ? 1 : 0));
        return static_cast<uint64_t>(factor * parseReal(number, 1 / factor, INT_MAX / factor));
    } catch (const Failure&) {
        throw badOption("--rates", "expected a bit rate such as 500k or 1.5M, got " + quote(text));
    }
}

class RdCommand final : public Command {
public:
    CLI::App* addTo(CLI::App* app) override {
        CLI::App* const rd =
            app->add_subcommand("rd", "Measures the rate and distortion of encoders");
        rd->fallthrough();
        addOption(rd, "--encoder NAME[,KEY=VALUE...]", &mLadder.encoders,
                  "An encoder of libavcodec or a node type, with configs; may be repeated")
            ->allow_extra_args(false);
        addOption(rd, "--source FILE", &mLadder.source, "The clip to encode");
        addOption(rd, "--rates RATE,...", &mRates, "The bit rates: 500k,1M,2M,4M");
        addOption(rd, "--jobs N", &mJobs, "Runs at once, default one per processor")
            ->check(CLI::Range(1, 1000));
        addOption(rd, "--csv FILE", &mFiles["csv"], "Write a row for each encoder and rate");
        addOption(rd, "--json FILE", &mFiles["json"], "Write all that was measured");
        addOption(rd, "--svg FILE", &mFiles["svg"], "Draw the rate-distortion curves");
        // Of these there is one, not one per run.
        for (const char* const option :
             {"--record", "--progress", "--trace", "--dot", "--bundle"}) {
            rd->excludes(app->get_option(option));
        }
        showOptions(
            *app, {"--nodes", "--set", "--log", "--timeout", "--stall", "--color", "--quiet"}, rd);
        return rd;
    }

    int execute(const CommonOptions& options, Evidence*) override {
        readOptions(options);
        std::vector<TestedEncoder> encoders;
        for (const std::string& name : mLadder.encoders) {
            encoders.emplace_back(name);
            for (const uint64_t rate : mLadder.rates) {
                TestVector run;
                run.name = name + "/" + rateText(static_cast<double>(rate));
                mLadder.runs.vectors.push_back(run);
            }
        }
        const auto prepare = [&](const TestVector& run) -> GraphMaker {
            const auto number = static_cast<size_t>(&run - mLadder.runs.vectors.data());
            const TestedEncoder& encoder = encoders[number / mLadder.rates.size()];
            const uint64_t rate = mLadder.rates[number % mLadder.rates.size()];
            return [this, &encoder, rate] { return encoder.graphFor(mLadder.source, rate); };
        };
        // They replace older ones before anything runs, or can fail to.
        const auto failures = writeFiles();
        if (!failures.empty()) throw Failure(failures.front());
        SuiteRunOptions run;
        run.jobs = mJobs;
        run.vectors = {options.run, options.edits()};
        run.writeReports = [&] { writeFiles(); };
        const int signal = runVectors(run, prepare, &mLadder.runs);
        return concludeLadder(signal);
    }

private:
    void readOptions(const CommonOptions& options) {
        if (findNodeType(kDecoderType) == nullptr) {
            throw Failure("vxrun: rd: this vxrun is built without libavcodec",
                          Verdict::NotSupported);
        }
        auto& names = mLadder.encoders;
        if (names.empty()) throw badOption("--encoder", "missing");
        if (mLadder.source.empty()) throw badOption("--source", "missing");
        for (auto name = names.begin(); name != names.end(); ++name) {
            if (std::find(names.begin(), name, *name) != name) {
                throw badOption("--encoder", quote(*name) + " is given twice");
            }
        }
        auto& rates = mLadder.rates;
        for (const std::string& rate : partsOf(mRates)) rates.push_back(parseRate(rate));
        if (rates.empty()) throw badOption("--rates", "missing");
        std::sort(rates.begin(), rates.end());
        if (std::adjacent_find(rates.begin(), rates.end()) != rates.end()) {
            throw badOption("--rates", "a bit rate is given twice");
        }
        mLadder.facts = environmentFacts();
        mLadder.facts.emplace_back("command_line", options.commandLine);
    }

    int concludeLadder(int signal) {
        const Counts counts = mLadder.runs.counts();
        Verdict verdict = verdictOf(counts, signal, true);
        // Here it was asked for by name.
        if (verdict == Verdict::Pass && counts.skipped() > 0) verdict = Verdict::NotSupported;
        for (const Failure& failure : writeFiles()) {
            console::line(failure.what());
            if (exitCode(verdict) == 0) verdict = Verdict::NotWritten;
        }
        return reportCounts(ladderTable(mLadder), counts, verdict);
    }

    // Each appears whole, in place of the one before; why those that do not appear cannot.
    std::vector<Failure> writeFiles() {
        std::vector<Failure> failures;
        for (const auto& [kind, textOf] : kFiles) {
            if (mFiles[kind].empty()) continue;
            try {
                writeTextFile(concat("--", kind), mFiles[kind], textOf(mLadder));
            } catch (const Failure& failure) {
                failures.push_back(failure);
            }
        }
        return failures;
    }

    RateLadder mLadder;
    std::string mRates;
    std::map<std::string, std::string> mFiles;  // by kind; empty: none
    uint32_t mJobs = SuiteRunOptions().jobs;
};

const bool kRegistered = registerCommand(std::make_unique<RdCommand>());

}  // namespace
}  // namespace vxrun
