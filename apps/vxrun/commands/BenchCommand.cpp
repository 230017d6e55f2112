// vxrun bench GRAPH.json|STREAM: measures how fast graphs and decoders are.
#include "BenchResults.h"
#include "Command.h"
#include "Console.h"
#include "Files.h"
#include "Text.h"
#include "Version.h"

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <thread>

namespace vxrun {
namespace {

using vexa::VXGraphInfo;

// What makes measurements doubtful, and is remarked.
constexpr double kMostLoad = 0.05;   // other processes, of the processors' time
constexpr double kMostSteal = 0.01;  // the host of a virtual machine, likewise
constexpr double kMostDoubt = 0.10;  // the interval of a median, of the median

std::string percent(double part) {
    return decimal(part * 100, 1) + " %";
}

// What the processors of this machine have done since it started: in seconds, of all together.
// Zero where that is not known.
struct ProcessorTime {
    static ProcessorTime now() {
        // user nice system idle iowait irq softirq steal
        double ticks[8] = {};
        std::ifstream file("/proc/stat");
        file.ignore(3);  // "cpu"
        for (double& value : ticks) file >> value;
        ProcessorTime time;
        const auto perSecond = static_cast<double>(sysconf(_SC_CLK_TCK));
        for (const double value : ticks) time.all += value / perSecond;
        time.stolen = ticks[7] / perSecond;
        time.busy = time.all - time.stolen - (ticks[3] + ticks[4]) / perSecond;
        return time;
    }

    double busy = 0, stolen = 0, all = 0;
};

std::string processorModel() {
    std::ifstream file("/proc/cpuinfo");
    for (std::string line; std::getline(file, line);) {
        const size_t colon = line.find(": ");
        if (line.rfind("model name", 0) == 0 && colon < line.size()) return line.substr(colon + 2);
    }
    return "";  // not on every architecture
}

#ifdef __OPTIMIZE__
constexpr bool kIsOptimized = true;
#else
constexpr bool kIsOptimized = false;
#endif

// The decoder is measured, not the checksums of what it decodes.
void dropPictures(VXGraphInfo* graph) {
    for (auto& node : graph->nodes) {
        if (node->type != "sink/checksum") continue;
        node->type = "sink/null";
        node->configs.clear();
    }
}

// What is measured.
struct Runnable {
    std::string name, version;
    std::function<VXGraphInfo()> makeGraph;
};

class BenchCommand final : public Command {
public:
    CLI::App* addTo(CLI::App* app) override {
        CLI::App* const bench =
            app->add_subcommand("bench", "Measures how fast graphs and decoders are");
        bench->fallthrough();
        addOption(bench, "IN GRAPH.json|STREAM", &mInput, "The graph to run, or file to decode")
            ->required();
        addDecoderOptions(bench, &mDecoders);
        addOption(bench, "--codec CODEC", &mCodec, "A codec (h264, hevc, av1, ...) or a decoder");
        addOption(bench, "--rounds N", &mRounds, "Runs of each that are counted, default 5")
            ->check(CLI::Range(1, 10000));
        addOption(bench, "--json FILE", &mJson, "Write the results, with every round");
        CLI::Option* const baseline =
            addOption(bench, "--baseline FILE", &mBaseline, "Compare with such results");
        addOption(bench, "--max-slowdown PERCENT", &mMaxSlowdown,
                  "How much slower than the baseline is allowed, default 5")
            ->needs(baseline)
            ->check(realFrom(0));
        for (const char* const option :
             {"--record", "--progress", "--trace", "--dot", "--bundle"}) {
            bench->excludes(app->get_option(option));
        }
        showOptions(*app,
                    {"--nodes", "--set", "--log", "--timeout", "--stall", "--color", "--quiet"},
                    bench);
        return bench;
    }

    int execute(const CommonOptions& options, Evidence* evidence) override {
        evidence->expectNoCheck();
        if (!mBaseline.empty() && mRounds < kFewestRounds) {
            throw badOption("--rounds", concat("expected ", kFewestRounds,
                                               " at least with --baseline, got ", mRounds));
        }
        std::optional<BenchResults> baseline;
        if (!mBaseline.empty()) baseline = readBench(mBaseline);
        std::optional<OutputFile> json;
        try {
            if (!mJson.empty()) json.emplace(mJson);
        } catch (const Failure& failure) {
            throw badOption("--json", failure.what());
        }
        mResults.input = mInput;
        mResults.facts = facts(options);
        const auto runnables = findRunnables();
        const ProcessSignals signals;
        const auto run = [&](size_t i, bool isWarmUp) {
            return measure(runnables[i], options, signals, isWarmUp);
        };
        warmUp(runnables, run);
        if (baseline) checkPictures(*baseline);
        measureRounds(run);
        addRemarks();
        if (baseline) compare(*baseline, evidence);
        mTable = benchTable(mResults);
        mResults.verdict = verdictName(verdictOf(*evidence));
        if (json) write(&*json, evidence);
        return conclude(*evidence);
    }

    int conclude(const Evidence& evidence) const override {
        const Verdict verdict = verdictOf(evidence);
        const int code = exitCode(verdict);
        return console::exitWithResult(
            concat(mTable,
                   "verdict: ", console::painted(verdictName(verdict), code == 0, STDOUT_FILENO),
                   " candidates=", mResults.candidates.size(), " rounds=", mRounds, "\n"),
            code, STDOUT_FILENO, console::kPatience);
    }

private:
    bool isGraph() const {
        return mInput.size() > 5 && mInput.substr(mInput.size() - 5) == ".json";
    }

    // What speed depends on, besides what is measured. FFmpeg's libraries are loaded with the first
    // question about them, this one: before the runs, which then do not wait for them.
    static std::vector<std::pair<std::string, std::string>> facts(const CommonOptions& options) {
        auto facts = environmentFacts();
        facts.emplace_back("processor", processorModel());
        facts.emplace_back("processors", std::to_string(std::thread::hardware_concurrency()));
        facts.emplace_back("optimized", kIsOptimized ? "true" : "false");
        facts.emplace_back("command_line", options.commandLine);
        return facts;
    }

    std::vector<Runnable> findRunnables() const {
        std::vector<Runnable> found;
        if (isGraph()) {
            if (!mDecoders.names.empty() || !mDecoders.graphs.empty() || !mCodec.empty()) {
                throw badOption("--decoder, --graph and --codec", "not with a graph file");
            }
            const std::string name = std::filesystem::path(mInput).stem();
            found.push_back({name, "", [this] { return readGraphFile(mInput); }});
            return found;
        }
        for (TestedDecoder& decoder : mDecoders.find()) {
            for (const std::string& reason : {decoder.probe(), decoder.refusal(mCodec)}) {
                if (!reason.empty()) throw Failure("vxrun: " + reason, Verdict::NotSupported);
            }
            // Of two of one name the second is another measurement of the same.
            const auto isSame = [&](const Runnable& other) {
                return other.name.substr(0, other.name.find('#')) == decoder.name();
            };
            const auto same = std::count_if(found.begin(), found.end(), isSame);
            const std::string number = same > 0 ? concat("#", same + 1) : "";
            found.push_back({decoder.name() + number, decoder.version(), [this, decoder] {
                                 DecodeOptions decode;
                                 decode.input = mInput;
                                 decode.codec = mCodec;
                                 decoder.setEnvironment();
                                 return decoder.graphFor(decode);
                             }});
        }
        return found;
    }

    RunResult measure(const Runnable& runnable, const CommonOptions& options,
                      const ProcessSignals& signals, bool isWarmUp) const {
        const auto makeGraph = [&] {
            VXGraphInfo graph = runnable.makeGraph();
            options.edits().applyTo(&graph);
            if (!isGraph() && !isWarmUp) dropPictures(&graph);
            return graph;
        };
        RunProcess process;
        const int error = process.start(makeGraph, options.runOptions(), signals);
        if (error != 0) {
            throw Failure("vxrun: cannot start: " + errnoText(error), Verdict::NodeFailStart);
        }
        const int signal = process.wait(signals);
        if (signal != 0) {
            const Verdict verdict = signal == SIGINT ? Verdict::Interrupted : Verdict::Terminated;
            throw Failure(concat("vxrun: ended by ", verdictName(verdict), ", no results"),
                          verdict);
        }
        RunResult result = process.result();
        if (exitCode(result.verdict) != 0) {
            throw Failure(concat("vxrun: ", runnable.name, ": ",
                                 result.message.empty() ? result.type : result.message),
                          result.verdict);
        }
        return result;
    }

    // A fast decoder that is wrong must not win: each run is to give the same pictures as the first
    // candidate's.
    template <typename Run>
    void warmUp(const std::vector<Runnable>& runnables, Run run) {
        for (size_t i = 0; i < runnables.size(); ++i) {
            console::progress("warm-up: " + runnables[i].name);
            const RunResult result = run(i, true);
            const Pictures pictures = {result.md5, result.figures.frames};
            mResults.candidates.push_back(
                {runnables[i].name, runnables[i].version, pictures, {}, {}});
            const BenchCandidate& first = mResults.candidates.front();
            expectSame(runnables[i].name, pictures, first.pictures, first.name);
        }
    }

    void checkPictures(const BenchResults& baseline) const {
        for (const BenchCandidate& candidate : mResults.candidates) {
            const BenchCandidate* const old = baseline.find(candidate.name);
            if (old == nullptr) continue;
            expectSame(candidate.name, candidate.pictures, old->pictures, mBaseline);
        }
    }

    static void expectSame(const std::string& name, const Pictures& actual,
                           const Pictures& expected, const std::string& where) {
        const bool isSame =
            actual.frames == expected.frames &&
            (actual.md5 == expected.md5 || actual.md5.empty() || expected.md5.empty());
        if (isSame) return;
        const auto text = [](const Pictures& pictures) {
            return concat(pictures.frames, " frames",
                          pictures.md5.empty() ? "" : " with MD5 " + pictures.md5);
        };
        throw Failure(concat("vxrun: ", name, ": gives other pictures than ", where, ": ",
                             text(actual), ", not ", text(expected)),
                      Verdict::CrcMismatch);
    }

    template <typename Run>
    void measureRounds(Run run) {
        auto& candidates = mResults.candidates;
        const ProcessorTime start = ProcessorTime::now();
        double ours = 0;
        for (uint32_t round = 0; round < mRounds; ++round) {
            for (size_t turn = 0; turn < candidates.size(); ++turn) {
                // Each begins as often as the others: what grows or shrinks over time hits all.
                const size_t i = (round + turn) % candidates.size();
                BenchCandidate& candidate = candidates[i];
                console::progress(
                    concat("round ", round + 1, " of ", mRounds, ": ", candidate.name));
                const RunResult result = run(i, false);
                expectSame(candidate.name, {result.md5, result.figures.frames}, candidate.pictures,
                           "in the warm-up");
                candidate.rounds.push_back(result.figures);
                ours += result.figures.cpuSeconds;
            }
        }
        console::progress("");
        const ProcessorTime end = ProcessorTime::now();
        const double all = end.all - start.all;
        if (all <= 0) return;
        mResults.load = std::max(end.busy - start.busy - ours, 0.0) / all;
        mResults.steal = (end.stolen - start.stolen) / all;
    }

    void addRemarks() {
        const auto add = [&](const std::string& text) { mResults.remarks.push_back(text); };
        if (!kIsOptimized) add("this vxrun is built without optimization");
        const auto addPart = [&](const std::string& what, double part, double most) {
            if (part > most) add(concat(what, " ", percent(part), ", more than ", percent(most)));
        };
        addPart("of the processors' time other processes used", mResults.load, kMostLoad);
        addPart("of the processors' time the host of this machine took", mResults.steal,
                kMostSteal);
        for (const BenchCandidate& candidate : mResults.candidates) {
            const auto seconds = candidate.seconds();
            const Interval interval = medianInterval(seconds);
            addPart("the median of the seconds of " + candidate.name + " is uncertain by",
                    (interval.high - interval.low) / median(seconds), kMostDoubt);
            if (candidate.pictures.md5.empty() && mResults.candidates.size() > 1) {
                add(candidate.name + " gives no MD5: its pictures are not compared");
            }
        }
    }

    // Slower than is allowed is a failure, but only when the rounds show that it is slower at all.
    void compare(const BenchResults& baseline, Evidence* evidence) {
        for (const auto& [name, value] : mResults.facts) {
            const auto isIt = [&key = name](const auto& fact) { return fact.first == key; };
            const auto old = std::find_if(baseline.facts.begin(), baseline.facts.end(), isIt);
            if (name != "command_line" && old != baseline.facts.end()) {
                remarkOther(name, value, old->second);
            }
        }
        for (BenchCandidate& candidate : mResults.candidates) {
            const BenchCandidate* const old = baseline.find(candidate.name);
            if (old == nullptr) {
                mResults.remarks.push_back(candidate.name + " is not in the baseline");
                continue;
            }
            mIsCompared = true;
            remarkOther("version of " + candidate.name, candidate.version, old->version);
            const Ratio ratio = ratioOfMedians(candidate.seconds(), old->seconds());
            candidate.toBaseline = ratio;
            if (ratio.interval.low > 1 && ratio.value > 1 + mMaxSlowdown / 100) {
                console::line(concat("vxrun: ", candidate.name, ": takes ", decimal(ratio.value, 3),
                                     " times as long as in ", mBaseline, ", more than ",
                                     percent(mMaxSlowdown / 100), " longer"));
                evidence->setFailure(Verdict::Performance);
            }
        }
        if (mIsCompared) return;
        console::line(concat("vxrun: ", mBaseline, ": has none of the candidates"));
        evidence->setFailure(Verdict::NothingChecked);
    }

    void remarkOther(const std::string& what, const std::string& now, const std::string& old) {
        if (now == old) return;
        mResults.remarks.push_back(
            concat("the baseline has another ", what, ": ", quote(old), ", not ", quote(now)));
    }

    void write(OutputFile* json, Evidence* evidence) const {
        try {
            json->write(benchJson(mResults));
            json->commit();
        } catch (const Failure& failure) {
            console::line(concat("vxrun: --json: ", failure.what()));
            evidence->setFailure(Verdict::NotWritten);
        }
    }

    // Comparing with a baseline is a test that can fail.
    Verdict verdictOf(const Evidence& evidence) const {
        const Verdict verdict = evidence.verdict();
        return verdict == Verdict::Done && mIsCompared ? Verdict::Pass : verdict;
    }

    std::string mInput, mCodec, mJson, mBaseline;
    DecoderOptions mDecoders;
    uint32_t mRounds = 5;
    double mMaxSlowdown = 5;
    BenchResults mResults;
    std::string mTable;  // empty as long as there are no results
    bool mIsCompared = false;
};

const bool kRegistered = registerCommand(std::make_unique<BenchCommand>());

}  // namespace
}  // namespace vxrun
