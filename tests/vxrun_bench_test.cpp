// vxrun bench: measurements, and what is concluded from them. No test depends on a speed: baselines
// are written here, and are far away.
#include "support/Vxrun.h"

#include <Statistics.h>
#include <nlohmann/json.hpp>

#include <numeric>

namespace {

using namespace vxrun_test;
using namespace vxrun;
using Json = nlohmann::json;

// Catches: an interval that is one value off, a confidence that is not that of its bounds, and what
// small and large numbers of values do to both.
TEST(Statistics, AgreesWithWhatIsComputedByHand) {
    EXPECT_EQ(median({3, 1, 2}), 2);
    EXPECT_EQ(median({4, 1, 3, 2}), 2.5);
    const struct {
        size_t values;
        double low, high, confidence;
    } cases[] = {{1, 1, 1, 0},
                 {3, 1, 3, 0.75},
                 {5, 1, 5, 0.9375},
                 {6, 1, 6, 0.96875},
                 {8, 1, 8, 0.9921875},
                 {9, 2, 8, 0.9609375},
                 {2000, 956, 1045, 0.95344717951}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.values);
        std::vector<double> values(c.values);
        std::iota(values.rbegin(), values.rend(), 1);
        const Interval interval = medianInterval(values);
        EXPECT_EQ(interval.low, c.low);
        EXPECT_EQ(interval.high, c.high);
        EXPECT_NEAR(interval.confidence, c.confidence, 1e-10);
    }
    const Ratio paired = pairedRatio({20, 2, 6}, {4, 1, 2});
    EXPECT_EQ(paired.value, 3);
    EXPECT_EQ(paired.interval.low, 2);
    EXPECT_EQ(paired.interval.high, 5);
    EXPECT_TRUE(paired.isDifference());
    const Ratio apart = ratioOfMedians({2, 4, 6}, {1, 2, 3});
    EXPECT_EQ(apart.value, 2);
    EXPECT_DOUBLE_EQ(apart.interval.low, 2.0 / 3);
    EXPECT_EQ(apart.interval.high, 6);
    EXPECT_NEAR(apart.interval.confidence, 0.5, 1e-12);
    EXPECT_FALSE(apart.isDifference());
}

class VxrunBench : public Vxrun {
protected:
    void SetUp() override {
        Vxrun::SetUp();
        makeClip();
        decoder("cat", "cat {input}");
    }

    // The description of a decoder that is a script.
    std::string decoder(const std::string& name, const std::string& script) const {
        const Json json = {{"name", name}, {"command", {"sh", "-c", script}}};
        writeFile(path(name + ".json"), json.dump());
        return path(name + ".json");
    }
    Words bench(const Words& arguments) const {
        return Words{"bench", path("clip.y4m"), "--rounds", "3"} + arguments;
    }
    Words benchCat(const Words& arguments) const {
        return bench(Words{"--decoder", path("cat.json")} + arguments);
    }
};

// Catches: a candidate or round that is not measured or not written, a ratio of the wrong ones.
TEST_F(VxrunBench, MeasuresEveryCandidateInEveryRound) {
    const std::string other = decoder("other", "sleep 0; cat {input}");
    const Result result =
        vxrun(benchCat({"--decoder", other, "--decoder", other, "--json", path("b.json")}));
    EXPECT_EQ(result.exit, 0) << result.err;
    expectMatch(result.out,
                "^candidate  figure +median +min +max  ratio to cat\n"
                "cat +seconds( +[0-9.]+){3}\n");
    expectMatch(result.out,
                "\nother#2 +seconds( +[0-9.]+){3}  [0-9.]+ \\([0-9.]+ to [0-9.]+, 75.0 %\\)");
    expectMatch(result.out, "\nverdict: DONE candidates=3 rounds=3\n$");
    const Json bench = Json::parse(contentOf(path("b.json")))["bench"];
    ASSERT_EQ(bench["candidates"].size(), 3u);
    for (const Json& candidate : bench["candidates"]) {
        EXPECT_EQ(candidate["frames"], 4);
        EXPECT_EQ(candidate["md5"], bench["candidates"][0]["md5"]);
        for (const Json& figure : candidate["figures"]) EXPECT_EQ(figure["rounds"].size(), 3u);
        for (const Json& seconds : candidate["figures"]["seconds"]["rounds"]) EXPECT_GT(seconds, 0);
    }
    const Result graph = vxrun({"bench", unchecked("linear"), "--rounds", "1"});
    EXPECT_EQ(graph.exit, 0) << graph.err;
    expectMatch(graph.out, "\ngraph +seconds .*\nverdict: DONE candidates=1 rounds=1\n$");
}

// Catches: a slower candidate that passes, a noisy or faster one that fails, a comparison with
// nothing or with other pictures that passes.
TEST_F(VxrunBench, FailsOnlyWhatIsSlowerThanItsBaseline) {
    ASSERT_EQ(vxrun(benchCat({"--json", path("b.json")})).exit, 0);
    const Json baseline = Json::parse(contentOf(path("b.json")));
    const auto compare = [&](const Json& pointer, const Json& value, const Words& more = {}) {
        Json edited = baseline;
        edited[Json::json_pointer(pointer)] = value;
        writeFile(path("old.json"), edited.dump(1));
        return vxrun(benchCat(Words{"--baseline", path("old.json")} + more));
    };
    const std::string first = "/bench/candidates/0", rounds = first + "/figures/seconds/rounds";
    const Words endless = {"--max-slowdown", "1e9"};
    const struct {
        std::string place;
        Json value;
        std::string verdict, line;
        int exit = 1;
        Words more = {};
    } cases[] = {
        {rounds, {1e6, 1e6, 1e6}, "PASS", "to the baseline's: 0.000", 0},
        {rounds, {1e-6, 1e-6, 1e-6}, "PERFORMANCE", "cat: takes "},
        {rounds, {1e-6, 1e-6, 1e-6}, "PASS", "", 0, endless},
        {rounds, {1e-6, 1e-6, 1e6}, "PASS", "no difference shown", 0},
        {"/system_info/kernel", "Old 1", "PASS", "another kernel: 'Old 1', not", 0, endless},
        {first + "/version", "9.9", "PASS", "another version of cat: '9.9', not ''", 0, endless},
        {first + "/name", "dog", "NOTHING_CHECKED", "has none of the candidates", 4},
        {first + "/md5", "0", "CRC_MISMATCH", "cat: gives other pictures than "},
        {first + "/frames", 3, "CRC_MISMATCH", ", not 3 frames"},
        {first + "/frames", -1, "CORRUPT_DESCR", "old.json:", 2},
        {rounds, {1, 0, 1}, "CORRUPT_DESCR", "seconds.rounds[1]: expected a number from", 2},
        {rounds, {1, 1}, "CORRUPT_DESCR", "expected 3 rounds at least, got 2", 2},
        {"/bench/candidates", 1, "CORRUPT_DESCR", "candidates: expected an array", 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.place + " " + c.value.dump());
        const Result result = compare(c.place, c.value, c.more);
        EXPECT_EQ(result.exit, c.exit) << result.err;
        expectHas("\n" + result.out, "\nverdict: " + c.verdict + " ");
        expectHas(result.out + result.err, c.line);
    }
}

// Catches: a decoder that wins because it is wrong, a failure without its reason or exit code,
// results of a bench that did not end.
TEST_F(VxrunBench, EndsWithTheFirstFailure) {
    const std::string once = path("once"), last = "cat {input}; ";
    const struct {
        std::string name, script, verdict, line;
        int exit;
    } cases[] = {
        {"part", "head -c 106 {input}", "CRC_MISMATCH",
         "part: gives other pictures than cat: 2 frames with MD5 ", 1},
        {"later",
         "if test -e " + once + "; then head -c 106 {input}; else touch " + once +
             "; cat {input}; fi",
         "CRC_MISMATCH", "later: gives other pictures than in the warm-up: 2 frames, not 4 ", 1},
        {"fails", last + "exit 3", "NODE_FAIL_FATAL", "fails: node 'decoder': sh: exit code 3", 3},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const Result result =
            vxrun(benchCat({"--decoder", decoder(c.name, c.script), "--json", path("b.json")}));
        expectFailure(result, c.exit, c.verdict + " candidates=[12] rounds=3", c.line);
        EXPECT_FALSE(std::filesystem::exists(path("b.json")));
    }
    const Words hang =
        bench({"--decoder", decoder("hangs", last + "exec sleep 1000"), "--json", path("b.json")});
    expectFailure(vxrun(hang + Words{"--timeout", "0.1"}), 124, "TIMEOUT candidates=0 rounds=3",
                  "hangs: out of time after 0.1 s");
    Process hanging(command(hang), {}, true);
    EXPECT_TRUE(hanging.waitFor("warm-up: hangs"));
    hanging.kill(SIGINT);
    EXPECT_EQ(hanging.wait(), 130);
    expectHas(hanging.out, "verdict: SIGINT ");
    EXPECT_FALSE(std::filesystem::exists(path("b.json.part")));
}

// Catches: an option that is accepted and ignored, a decoder that is missed in the first round
// only.
TEST_F(VxrunBench, RefusesWhatCannotBeMeasured) {
    writeFile(path("gone.json"),
              R"({"name": "gone", "probe": ["nosuch"], "command": ["nosuch", "{input}"]})");
    const struct {
        Words arguments;
        std::string verdict, line;
        int exit = 2;
    } cases[] = {
        {bench({"--decoder", path("gone.json")}), "NOT_SUPPORTED", "nosuch: No such file", 77},
        {bench({"--decoder", "nosuch"}), "BAD_OPTION", "no decoder 'nosuch'"},
        {{"bench", path("cat.json"), "--codec", "vp9"}, "BAD_OPTION", "not with a graph file"},
        {benchCat({"--max-slowdown", "3"}), "BAD_OPTION", "requires --baseline"},
        {benchCat({"--max-slowdown", "nan", "--baseline", "b"}), "BAD_OPTION", "got 'nan'"},
        {benchCat({"--json", mFolder}), "BAD_OPTION", "--json: " + mFolder + ": not a regular"},
        {benchCat({"--trace", path("t")}), "BAD_OPTION", "bench excludes --trace"},
        {{"bench", path("clip.y4m"), "--rounds", "2", "--baseline", "b"},
         "BAD_OPTION",
         "--rounds: expected 3 at least with --baseline, got 2"},
    };
    for (const auto& c : cases) {
        expectFailure(vxrun(c.arguments), c.exit, c.verdict + " candidates=0 rounds=[235]", c.line);
    }
}

}  // namespace
