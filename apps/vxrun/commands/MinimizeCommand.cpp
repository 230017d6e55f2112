// vxrun minimize: the shortest stream that still shows a failure.
#include "ChecksumFormat.h"
#include "Command.h"
#include "Console.h"
#include "DeltaDebugging.h"
#include "Files.h"
#include "Json.h"
#include "MediaLibraries.h"
#include "RunProcess.h"
#include "StreamMap.h"
#include "Text.h"

#include <vxkit/NodeType.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <map>
#include <set>
#include <thread>

namespace vxrun {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using Json = nlohmann::ordered_json;

// Makes the graph of a run with `stream`, or that of the trusted decoder alone.
using StreamGraph = std::function<vexa::VXGraphInfo(const std::string& stream, bool trusted)>;

// What a signal has ended.
struct Ended {
    int signal;
};

// One try: a run of a stream, then, if it fails as it must, one of the trusted decoder.
struct Try {
    std::unique_ptr<RunProcess> process;
    std::string stream;
    Clock::time_point deadline;
    int signals = 0;  // that it was sent
    bool isTrustedRun = false;
    bool hasEnded = false;
    bool isShown = false;
    RunResult result;
};

// Runs streams, several at once.
class Tries {
public:
    Tries(StreamGraph graph, RunOptions run, size_t jobs)
        : options(std::move(run)), mGraph(std::move(graph)), mJobs(jobs) {}

    // The result of one run, whatever it is. Throws Ended.
    RunResult result(const std::string& stream, bool trusted = false) {
        Try only;
        only.stream = stream;
        only.isTrustedRun = trusted;
        start(&only);
        while (!only.process->hasEnded()) wait({&only});
        return only.process->result();
    }

    // The first one of `count` streams that fails with `signature`, and `count` if none does.
    // `write` makes the file of one. Throws Ended.
    size_t first(size_t count, const std::function<std::string(size_t)>& write,
                 const std::function<bool(const RunResult&)>& isSame) {
        std::vector<Try> tries(count);
        size_t started = 0;
        for (size_t decided = 0; decided < count;) {
            std::vector<Try*> running;
            for (size_t i = decided; i < started; ++i) {
                if (!tries[i].hasEnded) running.push_back(&tries[i]);
            }
            if (running.size() < mJobs && started < count) {
                Try& next = tries[started];
                ++started;
                try {
                    next.stream = write(started - 1);
                } catch (const Failure&) {  // a container may not have it so, for its times
                    next.hasEnded = true;
                    continue;
                }
                start(&next);
                continue;
            }
            wait(running);
            for (Try* one : running) {
                if (!one->process->hasEnded()) continue;
                judge(one, isSame);
            }
            for (; decided < started && tries[decided].hasEnded; ++decided) {
                if (!tries[decided].isShown) continue;
                for (size_t i = decided + 1; i < started; ++i) end(&tries[i]);
                return decided;
            }
        }
        return count;
    }

    RunOptions options;
    bool hasTrusted = false;  // the trusted decoder is run, too

private:
    void start(Try* one) {
        one->process = std::make_unique<RunProcess>();
        constexpr std::chrono::seconds kGrace(5);
        one->signals = 0;
        one->deadline = Clock::time_point::max();
        if (options.timeout > 0) {
            one->deadline = Clock::now() + kGrace +
                            std::chrono::duration_cast<Clock::duration>(
                                std::chrono::duration<double>(options.timeout));
        }
        const auto makeGraph = [this, stream = one->stream, trusted = one->isTrustedRun] {
            return mGraph(stream, trusted);
        };
        const int error = one->process->start(makeGraph, options, mSignals);
        if (error != 0) {
            one->process.reset();
            throw Failure("vxrun: cannot start a try: " + errnoText(error), Verdict::NodeFailInit);
        }
    }

    void judge(Try* one, const std::function<bool(const RunResult&)>& isSame) {
        const RunResult result = one->process->result();
        if (one->isTrustedRun) {
            one->isShown = exitCode(result.verdict) == 0;
        } else {
            one->isShown = isSame(result);
            if (one->isShown && hasTrusted) {
                one->isTrustedRun = true;
                return start(one);
            }
        }
        one->hasEnded = true;
        one->process.reset();
    }

    void end(Try* one) {
        if (one->hasEnded) return;
        one->process->kill(SIGKILL);
        const int signal = one->process->wait(mSignals);
        if (signal != 0) mEnding = signal;
        one->hasEnded = true;
    }

    // Until a process has ended, or some time has passed. Throws Ended.
    void wait(const std::vector<Try*>& running) {
        const timespec step = {0, 50'000'000};
        const int number = sigtimedwait(&mSignals.waited, nullptr, &step);
        if (number == SIGINT || number == SIGTERM) mEnding = number;
        if (mEnding != 0) {
            for (Try* one : running) end(one);
            throw Ended{mEnding};
        }
        for (Try* one : running) {
            if (one->process == nullptr || Clock::now() < one->deadline) continue;
            one->process->kill(one->signals++ == 0 ? SIGTERM : SIGKILL);
            one->deadline = Clock::now() + std::chrono::seconds(2);
        }
    }

    const StreamGraph mGraph;
    const size_t mJobs;
    int mEnding = 0;  // the signal that ends the search
    const ProcessSignals mSignals;
};

class MinimizeCommand final : public Command {
public:
    CLI::App* addTo(CLI::App* app) override {
        CLI::App* const minimize =
            app->add_subcommand("minimize", "Finds the shortest stream that still shows a failure");
        minimize->fallthrough();
        addOption(minimize, "FILES [GRAPH.json] STREAM", &mFiles,
                  "A graph that fails, unless a decoder is named, and the stream that it reads")
            ->required()
            ->expected(1, 2);
        addOption(minimize, "-o,--output SMALL", &mOutput, "The stream to write")->required();
        addDecoderOptions(minimize, &mDecoders);
        addOption(minimize, "--against NAME|FILE", &mAgainst,
                  "A trusted decoder, whose pictures those of the other must equal");
        addOption(minimize, "--list FILE", &mList,
                  "The checksum list that the pictures must match");
        addOption(minimize, "--jobs N", &mJobs, "Tries at once, default one per processor")
            ->check(CLI::Range(1, 1000));
        addOption(minimize, "--max-tries N", &mMaxTries, "Stop after so many tries, default 2000")
            ->check(CLI::Range(1, 1000000));
        addOption(minimize, "--json FILE", &mJson, "Write what was found");
        for (const char* const option : {"--record", "--progress", "--trace", "--dot"}) {
            minimize->excludes(app->get_option(option));
        }
        mStall = app->get_option("--stall");
        showOptions(
            *app,
            {"--nodes", "--set", "--force", "--log", "--timeout", "--stall", "--color", "--quiet"},
            minimize);
        return minimize;
    }

    int execute(const CommonOptions& options, Evidence* evidence) override {
        evidence->expectNoCheck();
        mOptions = &options;
        readOptions();
        mCut = cutStream(mStream);
        mTexts = {{"command", options.commandLine},
                  {"bytes", std::to_string(fs::file_size(mStream))},
                  {"written", concat(static_cast<int64_t>(
                                  fs::last_write_time(mStream).time_since_epoch().count()))}};
        if (!options.force) readState();
        const auto graph = [&](const std::string& stream, bool trusted) {
            return graphOf(stream, trusted, options.edits());
        };
        graph(mStream, false);  // whose mistakes are reported here
        readList();
        Tries tries(graph, options.run, mJobs);
        const TemporaryFolder folder;
        mFolder = folder.path();
        try {
            const int code = establish(&tries);
            return code != 0 ? code : minimize(&tries);
        } catch (const Ended& ended) {
            console::line(concat("vxrun: ended after ", mAnswers.size(), " tries",
                                 mAnswers.empty() ? "" : "; the same command continues"));
            if (!mAnswers.empty()) writeState();
            evidence->setFailure(ended.signal == SIGINT ? Verdict::Interrupted
                                                        : Verdict::Terminated);
            return exitCode(evidence->verdict());
        }
    }

private:
    static constexpr int kNoFailure = 4;

    void readOptions() {
        const bool hasGraph = mFiles.size() == 2;
        mStream = mFiles.back();
        if (hasGraph) mGraph = mFiles.front();
        const bool hasDecoder = !mDecoders.names.empty() || !mDecoders.graphs.empty();
        if (hasGraph && (hasDecoder || !mAgainst.empty() || !mList.empty())) {
            throw badOption("minimize", "expected a graph file or a decoder, not both");
        }
        std::error_code none;
        if (fs::exists(mOutput, none) && !fs::is_regular_file(mOutput, none)) {
            throw badOption("--output", mOutput + ": not a regular file");
        }
        if (fs::equivalent(mStream, mOutput, none)) {
            throw badOption("--output", mOutput + ": the stream itself");
        }
        if (hasGraph) return;
        mTested = mDecoders.find();
        if (mTested.size() > 1) throw badOption("--decoder", "expected one");
        if (!mAgainst.empty()) mTrusted = TestedDecoder::find(mAgainst);
        for (TestedDecoder* const decoder : {&mTested.front(), &mTrusted}) {
            const std::string reason = decoder->probe();
            if (!reason.empty()) throw Failure("vxrun: " + reason, Verdict::NotSupported);
            decoder->setEnvironment();
        }
    }

    // The graph that decodes `stream`; `isTrusted`: with the trusted decoder alone.
    vexa::VXGraphInfo graphOf(const std::string& stream, bool isTrusted, const GraphEdits& edits) {
        DecodeOptions decode;
        decode.input = stream;
        decode.list = listFor(stream);
        if (isTrusted) return mTrusted.graphFor(decode);
        if (mGraph.empty()) {
            if (!mAgainst.empty()) decode.against = &mTrusted;
            vexa::VXGraphInfo graph = mTested.front().graphFor(decode);
            edits.applyTo(&graph);
            return graph;
        }
        vexa::VXGraphInfo graph =
            readGraphFile(mGraph, {{"{input}", fs::absolute(mStream)}, {"{format}", ""}});
        edits.applyTo(&graph);
        mPlaces.clear();
        for (const auto& node : graph.nodes) {
            for (auto& [key, value] : node->configs) {
                std::error_code none;
                const bool isList = node->type == "sink/checksum" && key == "expect";
                if (isList) mList = mList.empty() ? value : mList;
                if (!isList && !fs::equivalent(value, mStream, none)) continue;
                value = isList ? listFor(stream) : stream;
                mPlaces.emplace_back(concat(node->name, ".", key), isList);
            }
        }
        const auto isStream = [](const auto& place) { return !place.second; };
        if (std::none_of(mPlaces.begin(), mPlaces.end(), isStream)) {
            throw badOption("minimize", "no node of the graph reads " + mStream);
        }
        return graph;
    }

    // The checksum list of a stream: the one that was given, or beside the stream that of a try.
    std::string listFor(const std::string& stream) const {
        return mList.empty() || stream == mStream ? mList : stream + ".list";
    }

    // The rows of the list that belong to the frames of the units that `kept` has pieces of.
    std::string listOf(const Items& kept) const {
        std::set<size_t> units;
        for (const size_t piece : kept) units.insert(mCut->pieces()[piece].unit);
        // A table, or of rows without sizes a list of MD5s.
        std::string text = mRows.front().size > 0 ? "#tb 0: 1/1\n" : "";
        for (size_t frame = 0; frame < mRows.size() && frame < mMap.frames.size(); ++frame) {
            if (units.count(mMap.pictures[mMap.frames[frame]].unit) == 0) continue;
            const ChecksumRow& row = mRows[frame];
            text += row.size > 0 ? concat("0, ", frame, ", ", frame, ", 1, ", row.size, ", ") : "";
            text += row.hash + "\n";
        }
        return text;
    }

    void readList() {
        if (mList.empty()) return;
        const ChecksumList list = readChecksumList(mList);
        if (list.format->isOfWholeStream()) {
            throw Failure(mList + ": has no row for each frame, which a shorter stream needs");
        }
        mRows = list.rows;
        mMap = mapStream(mStream);
    }

    // Runs the whole stream twice. 0 when it fails, and both times in the same way.
    int establish(Tries* tries) {
        const RunResult once = tries->result(mStream);
        mSignature = once.signature;
        const int code = exitCode(once.verdict);
        const bool isCrash = once.type.rfind("SIGNAL_", 0) == 0;
        if (!isCrash && (code == 0 || code == exitCode(Verdict::NothingChecked))) {
            console::line("vxrun: " + mStream + ": does not fail");
            return kNoFailure;
        }
        const bool isUnable =
            code == exitCode(Verdict::BadOption) || code == exitCode(Verdict::NotSupported);
        if (!isCrash && isUnable) throw Failure(once.message, once.verdict);
        constexpr double kTimes = 10, kLeast = 10, kStall = 3;
        const bool isHang = once.verdict == Verdict::Stall || once.verdict == Verdict::Timeout;
        // Many a cut stream makes a decoder hang, and each of these tries takes that long.
        constexpr double kStop = 0.3;  // seconds: what is abandoned is a process that ends
        tries->options.stop = kStop;
        if (mStall->count() == 0) {
            tries->options.stall = isHang ? kStall : std::max(kStall, once.figures.seconds);
        }
        if (tries->options.timeout == 0 && !isHang) {
            tries->options.timeout = std::max(kTimes * once.figures.seconds, kLeast);
        }
        const RunResult again = tries->result(mStream);
        if (!(again.signature == mSignature)) {
            console::line(concat("vxrun: ", mStream, ": fails in different ways: ",
                                 mSignature.text(), "; ", again.signature.text()));
            return kNoFailure;
        }
        // What is wrong because references are missing must not count as the failure. For want of
        // another decoder libavcodec is the trusted one, if it decodes the stream.
        const bool isJudged = isFailedTest(once.verdict) && !isCrash;
        const bool hasTrusted = !mAgainst.empty() || TestedDecoder::hasDefault();
        tries->hasTrusted =
            isJudged && hasTrusted && exitCode(tries->result(mStream, true).verdict) == 0;
        if (isJudged && !tries->hasTrusted && (!mAgainst.empty() || !mList.empty())) {
            console::line(concat("vxrun: ", mAgainst.empty() ? "libavcodec" : mAgainst,
                                 ": does not decode ", mStream,
                                 mList.empty() ? " without an error" : " as the list has it"));
            return kNoFailure;
        }
        console::note("fails: " + mSignature.text());
        return 0;
    }

    int minimize(Tries* tries) {
        Items kept(mCut->pieces().size());
        for (size_t i = 0; i < kept.size(); ++i) kept[i] = i;
        const size_t units = unitsOf(kept);
        const auto& pieces = mCut->pieces();
        const auto isNewUnit = [&](size_t before, size_t piece) {
            return pieces[before].unit != pieces[piece].unit;
        };
        kept = reduced(tries, kept, [&](size_t before, size_t piece) {
            return pieces[piece].isKey && isNewUnit(before, piece);
        });
        for (size_t before = kept.size() + 1; before > kept.size();) {
            before = kept.size();
            kept = reduced(tries, kept, isNewUnit);
            kept = reduced(tries, kept, [](size_t, size_t) { return true; });
        }
        const std::string small = write(kept, 0);
        if (!isSame(tries->result(small))) {
            console::line("vxrun: the failure did not show again in the stream that was found");
            return kNoFailure;
        }
        const auto bytes = fs::file_size(small);
        copyTo(mOutput, small);
        if (!mList.empty()) copyTo(listFor(mOutput), listFor(small));
        std::error_code none;
        fs::remove(statePath(), none);
        const Json report = {
            {"stream", mStream},
            {"output", mOutput},
            {"signature",
             {{"type", mSignature.type}, {"kind", mSignature.kind}, {"shape", mSignature.shape}}},
            {"units", {{"before", units}, {"after", unitsOf(kept)}}},
            {"bytes", {{"before", fs::file_size(mStream)}, {"after", bytes}}},
            {"tries", mAnswers.size()},
            {"minimal", mAnswers.size() < mMaxTries},
            {"command", commandFor(mOutput)}};
        if (!mJson.empty()) writeTextFile("--json", mJson, report.dump(2) + "\n");
        return console::exitWithResult(
            concat("failure: ", mSignature.text(), "\nunits: ", units, " -> ", unitsOf(kept),
                   "\nbytes: ", fs::file_size(mStream), " -> ", bytes, "\ntries: ", mAnswers.size(),
                   mAnswers.size() < mMaxTries ? "" : " (the most that are allowed: not minimal)",
                   "\nshow it: ", commandFor(mOutput), "\n"));
    }

    // `kept` with as few groups as possible. A group begins where `begins`, which is called with
    // the piece before and a piece, is true.
    Items reduced(Tries* tries, const Items& kept,
                  const std::function<bool(size_t, size_t)>& begins) {
        std::vector<Items> groups;
        for (size_t i = 0; i < kept.size(); ++i) {
            if (i == 0 || begins(kept[i - 1], kept[i])) groups.emplace_back();
            groups.back().push_back(kept[i]);
        }
        const auto piecesOf = [&](const Items& numbers) {
            Items pieces;
            for (const size_t number : numbers) {
                pieces.insert(pieces.end(), groups[number].begin(), groups[number].end());
            }
            return pieces;
        };
        Items all(groups.size());
        for (size_t i = 0; i < all.size(); ++i) all[i] = i;
        return piecesOf(minimized(all, [&](const std::vector<Items>& candidates) {
            std::vector<Items> pieces;
            pieces.reserve(candidates.size());
            for (const Items& candidate : candidates) pieces.push_back(piecesOf(candidate));
            return firstShown(tries, pieces);
        }));
    }

    // See FirstShown. Each answer is kept: the search asks the same again when it is resumed.
    size_t firstShown(Tries* tries, const std::vector<Items>& candidates) {
        std::vector<size_t> open;  // those that were not answered before
        for (size_t i = 0; i < candidates.size(); ++i) {
            if (mFailed.count(candidates[i]) == 0) open.push_back(i);
        }
        const size_t left = mMaxTries - std::min<size_t>(mAnswers.size(), mMaxTries);
        if (open.size() > left) open.resize(left);
        size_t known = 0;  // that the command before this one has answered
        for (; known < open.size() && mNextAnswer < mEarlier.size(); ++known) {
            if (answer(candidates[open[known]], mEarlier[mNextAnswer++] == '1')) return open[known];
        }
        open.erase(open.begin(), open.begin() + static_cast<ptrdiff_t>(known));
        size_t first = 0;
        // In portions, whose answers survive an interrupt.
        for (size_t at = 0; at < open.size(); at += first) {
            const size_t count = std::min<size_t>(open.size() - at, size_t{2} * mJobs);
            first = tries->first(
                count, [&](size_t i) { return write(candidates[open[at + i]], i); },
                [this](const RunResult& result) { return isSame(result); });
            for (size_t i = 0; i < first; ++i) answer(candidates[open[at + i]], false);
            if (first == count) continue;
            const Items& found = candidates[open[at + first]];
            answer(found, true);
            const std::string text = concat("units ", unitsOf(found), ", pieces ", found.size(),
                                            ", tries ", mAnswers.size(), " of ", mMaxTries);
            console::showsProgress() ? console::progress(text) : console::note(text);
            writeState();
            return open[at + first];
        }
        return candidates.size();
    }

    bool answer(const Items& candidate, bool isShown) {
        mAnswers += isShown ? '1' : '0';
        if (!isShown) mFailed.insert(candidate);
        return isShown;
    }

    bool isSame(const RunResult& result) const { return result.signature == mSignature; }

    // The file of these pieces; `number` tells those apart that are there at once.
    std::string write(const Items& kept, size_t number) const {
        const fs::path file =
            fs::path(mFolder) / concat("try", number, fs::path(mStream).extension().string());
        mCut->write(kept, file);
        if (!mList.empty()) writeTextFile("--list", listFor(file), listOf(kept));
        return file;
    }

    static void copyTo(const std::string& path, const std::string& from) {
        InputFile input(from);
        OutputFile output(path);
        std::vector<char> part(size_t{1} << 20);
        while (const size_t size = input.read(part.data(), part.size())) {
            output.write(part.data(), size);
        }
        output.commit();
    }

    size_t unitsOf(const Items& pieces) const {
        size_t units = 0;
        for (size_t i = 0; i < pieces.size(); ++i) {
            const auto& all = mCut->pieces();
            if (i == 0 || all[pieces[i]].unit != all[pieces[i - 1]].unit) ++units;
        }
        return units;
    }

    std::string commandFor(const std::string& stream) const {
        std::vector<std::string> words = {"vxrun"};
        const auto add = [&](const std::string& option, const std::string& value) {
            if (!value.empty()) words.insert(words.end(), {option, value});
        };
        if (!mGraph.empty()) {
            words.push_back(mGraph);
        } else {
            words.insert(words.end(), {"decode", stream});
            for (const auto& name : mDecoders.names) add("--decoder", name);
            for (const auto& file : mDecoders.graphs) add("--graph", file);
            add("--against", mAgainst);
            add("--list", listFor(stream));
        }
        for (const std::string& file : mOptions->nodes) add("--nodes", file);
        for (const std::string& assignment : mOptions->assignments) add("--set", assignment);
        for (const auto& [place, isList] : mPlaces) {
            add("--set",
                concat(place, "=", fs::absolute(isList ? listFor(stream) : stream).native()));
        }
        return shellLine(words);
    }

    std::string statePath() const { return mOutput + ".minimize.json"; }

    void writeState() const {
        Json state = mTexts;
        state["answers"] = mAnswers + mEarlier.substr(std::min(mNextAnswer, mEarlier.size()));
        writeTextFile("--output", statePath(), state.dump(2) + "\n");
    }

    void readState() {
        std::error_code none;
        if (!fs::exists(statePath(), none)) return;
        const JsonDocument document(statePath(), "state");
        const JsonValue& root = document.root();
        document.expectObject(root, {"command", "bytes", "written", "answers"});
        for (const auto& [key, value] : mTexts) {
            const JsonValue& there = document.member(root, key, JsonValue::STRING);
            if (there.text == value) continue;
            document.fail(there, "of another command or stream; --force ignores it",
                          Verdict::BadOption);
        }
        mEarlier = document.member(root, "answers", JsonValue::STRING).text;
    }

    std::vector<std::string> mFiles;
    DecoderOptions mDecoders;
    std::string mAgainst, mList, mOutput, mJson;
    uint32_t mJobs = std::max(std::thread::hardware_concurrency(), 1u);
    uint32_t mMaxTries = 2000;
    CLI::Option* mStall = nullptr;

    std::string mGraph, mStream;  // the graph is empty when a decoder is tested
    const CommonOptions* mOptions = nullptr;
    std::vector<TestedDecoder> mTested;
    TestedDecoder mTrusted;  // libavcodec, if no other is named
    std::vector<std::pair<std::string, bool>>
        mPlaces;         // "node.key" of the stream; true: of its list
    ChecksumRows mRows;  // of the list, if there is one
    StreamMap mMap;      // likewise
    std::unique_ptr<StreamCut> mCut;
    std::string mFolder;  // of the tries
    FailureSignature mSignature;
    std::map<std::string, std::string> mTexts;  // which tell a command and its stream from others
    std::string mAnswers;     // '1' for each try that showed the failure, else '0'
    std::string mEarlier;     // those of the command that was interrupted
    size_t mNextAnswer = 0;   // of these
    std::set<Items> mFailed;  // what was tried in vain
};

const bool kRegistered = registerCommand(std::make_unique<MinimizeCommand>());

}  // namespace
}  // namespace vxrun
