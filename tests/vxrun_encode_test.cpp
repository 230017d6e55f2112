// Encoders in numbers: sink/bitrate and vxrun rd.
#include "RateDistortion.h"
#include "support/Vxrun.h"

#include <vexa_testing/NodeDriver.h>
#include <vxkit/Failure.h>
#include <vxkit/Text.h>

#include <cmath>
#include <nlohmann/json.hpp>
#include <numeric>

namespace {

using namespace vxrun_test;
using namespace vxrun;
using vexa_testing::NodeDriver;
using Json = nlohmann::json;

// A stream in which pictures are reordered and do not last equally long.
struct Stream {
    std::vector<int64_t> pts = {0, 300, 100, 200, 600, 400, 500, 750, 700, 900};  // milliseconds
    std::vector<size_t> bytes = {900, 500, 60, 50, 450, 70, 40, 300, 20, 350};
    int64_t end = 1000;
};

struct Measured {
    std::map<std::string, double> figures;
    std::string lines;
    vxkit::Verdict verdict;
};

Measured measured(const Stream& stream, const NodeDriver::Configs& configs) {
    NodeDriver sink("sink/bitrate", configs);
    const auto info = std::make_shared<vxkit::BitstreamInfo>();
    info->timeBase = {1, 1000};
    info->duration = static_cast<uint64_t>(stream.end - 900);
    for (size_t i = 0; i < stream.pts.size(); ++i) {
        sink.giveUnit(info, stream.pts[i], std::vector<uint8_t>(stream.bytes[i]),
                      i + 1 == stream.pts.size() ? NodeDriver::LAST : NodeDriver::MIDDLE);
    }
    EXPECT_EQ(sink.receive(), nullptr);
    Measured result;
    for (const auto& [name, value] : sink.evidence().figures()) {
        result.figures[name.substr(name.find('.') + 1)] = value;
    }
    result.verdict = sink.stop();
    result.lines = sink.lines();
    return result;
}

// Catches: times in the wrong order, a last frame that does not last, bytes taken for bits, a
// window that is too short, begins or ends in the wrong place, or is left out.
TEST(Bitrates, AreThoseOfTheStream) {
    const Stream stream;
    auto times = stream.pts;
    std::sort(times.begin(), times.end());
    times.push_back(stream.end);
    for (const int window : {50, 100, 250, 400, 1000, 3000}) {
        SCOPED_TRACE(window);
        double low = INFINITY, high = 0;
        for (size_t i = 0; i < stream.bytes.size(); ++i) {
            for (size_t j = i + 1; j < times.size(); ++j) {
                const bool isLongEnough = times[j] - times[i] >= window;
                const bool isAll = i == 0 && j + 1 == times.size();
                if (!isLongEnough && !isAll) continue;
                const double bits =
                    8.0 * std::accumulate(&stream.bytes[i], &stream.bytes[0] + j, 0.0);
                low = std::min(low, 1000 * bits / static_cast<double>(times[j] - times[i]));
                high = std::max(high, 1000 * bits / static_cast<double>(times[j] - times[i]));
                break;
            }
        }
        const auto figures =
            measured(stream, {{"window", vxkit::concat(window / 1000.0)}, {"target", "20000"}})
                .figures;
        EXPECT_NEAR(figures.at("bitrate"), 8 * 2740, 1e-6);
        EXPECT_NEAR(figures.at("bitrate_deviation_percent"), 9.6, 1e-9);
        EXPECT_EQ(figures.at("bits_max"), 7200);
        EXPECT_EQ(figures.at("bits_mean"), 2192);
        EXPECT_NEAR(figures.at("window_bitrate_min"), low, 1e-6);
        EXPECT_NEAR(figures.at("window_bitrate_max"), high, 1e-6);
        const double worst = std::max(high - 20000, 20000 - low) / 200;
        EXPECT_NEAR(std::abs(figures.at("window_deviation_percent")), worst, 1e-9);
    }
}

// Catches: a limit that passes what exceeds it, fails what does not, or says nothing of where; a
// stream without times that passes or divides by zero.
TEST(Bitrates, HaveLimits) {
    const Stream all, one = {{0}, {900}, 900};  // without a duration
    const struct {
        Stream stream;
        std::string key, passes, fails, line;
    } cases[] = {
        {all, "max_deviation", "9.61", "9.59", "the stream has 21920 bit/s, 9.6 % above"},
        {all, "max_window_deviation", "9.61", "9.59", "from frame 0 at 0.000 s on has 21920"},
        {all, "max_frame_bits", "7200", "7199", "frame 0 at 0.000 s has 7200 bits"},
        {all, "max_key_distance", "10", "9", "no key frame for 10 frames from frame 0"},
        {all, "key_frames", "", "4", "frame 4 in the order of display is not a key frame"},
        {all, "key_frames", "", "10", "frame 10 in the order of display does not exist"},
        {one, "max_deviation", "", "1000", "the bit rate is not known"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        const Measured bad = measured(c.stream, {{c.key, c.fails}, {"target", "20000"}});
        EXPECT_EQ(bad.verdict, vxkit::Verdict::InfoValidationFail);
        expectHas(bad.lines, c.line);
        expectHas(bad.lines, "; " + c.key + " is " + c.fails);
        if (c.passes.empty()) continue;
        const Measured good = measured(c.stream, {{c.key, c.passes}, {"target", "20000"}});
        EXPECT_EQ(good.verdict, vxkit::Verdict::Pass) << good.lines;
    }
    const Measured below = measured(all, {{"max_deviation", "12"}, {"target", "25000"}});
    expectHas(below.lines, "12.3 % below the target; max_deviation is 12");
    EXPECT_EQ(measured(one, {}).verdict, vxkit::Verdict::Done);
}

// Catches: wrong curves, integrals or bounds, a rate gain with the wrong sign. The numbers are
// those of an independent calculation with SciPy 1.10: PchipInterpolator.integrate() over the
// common range.
TEST(BjontegaardDeltas, AreThoseOfAnotherImplementation) {
    using Points = std::vector<RatePoint>;
    const Points a = {{502.1, 33.21}, {998.7, 36.05}, {2010.4, 38.74}, {3987.6, 41.02}};
    const Points b = {{3610.9, 41.30}, {431.5, 33.40}, {880.2, 36.31}, {1795.3, 38.87}};
    EXPECT_NEAR(bdRatePercent(a, b), -16.245783087887222, 1e-9);
    EXPECT_NEAR(bdPsnr(a, b), 0.6582247615435057, 1e-9);
    const Points c = {{100, 30}, {200, 34.9}, {300, 35}, {900, 35.1}, {1500, 39}};  // nearly flat
    const Points d = {{120, 31}, {150, 31.2}, {400, 36}, {800, 36.1}, {1300, 38}};
    EXPECT_NEAR(bdRatePercent(c, d), 5.842368641280227, 1e-9);
    EXPECT_NEAR(bdPsnr(c, d), -0.14373148861149035, 1e-9);
    // Properties: equal curves, the same at other rates, exchanged ones.
    Points more = a;
    for (RatePoint& point : more) point.bitrate *= 1.25;
    EXPECT_NEAR(bdRatePercent(a, a), 0, 1e-9);
    EXPECT_NEAR(bdRatePercent(a, more), 25, 1e-9);
    EXPECT_NEAR((1 + bdRatePercent(a, b) / 100) * (1 + bdRatePercent(b, a) / 100), 1, 1e-9);
    EXPECT_NEAR(bdPsnr(a, b), -bdPsnr(b, a), 1e-9);
    // What is not defined is not computed.
    Points apart = a, falling = a;
    for (RatePoint& point : apart) point.psnr += 10;
    std::swap(falling[1].psnr, falling[2].psnr);
    EXPECT_THROW(bdRatePercent(a, apart), vxkit::Failure);
    EXPECT_THROW(bdRatePercent(falling, b), vxkit::Failure);
    EXPECT_THROW(bdPsnr(a, {b.begin(), b.end() - 1}), vxkit::Failure);
}

class VxrunRd : public Vxrun {
protected:
    void SetUp() override {
        Vxrun::SetUp();
        const std::string source = "testsrc2=size=176x144:rate=25:duration=1";
        if (!makeVideo("clip.nut", "yuv420p", "rawvideo", source)) GTEST_SKIP() << "no ffmpeg";
    }
    Result rd(const Words& more) const {
        return vxrun(Words{"rd", "--source", path("clip.nut")} + more);
    }
};

// Catches: a rung that is lost, of another rate or encoder; figures that do not come back from its
// process; files that programs cannot read; a gain without the points that it needs.
TEST_F(VxrunRd, MeasuresEncodersAtSeveralRates) {
    const Result result =
        rd({"--encoder", "libx264,preset=veryfast", "--encoder", "mpeg2video,options=b={rate}",
            "--rates", "800k,100k,400k,0.2M", "--csv", path("rd.csv"), "--json", path("rd.json"),
            "--svg", path("rd.svg")});
    EXPECT_EQ(result.exit, 0) << result.err;
    expectHas(result.out,
              "\nmpeg2video,options=b={rate} against libx264,preset=veryfast: BD-rate +");
    expectHas(result.out, "verdict: PASS passed=8 failed=0 errors=0 skipped=0\n");
    const Json report = Json::parse(contentOf(path("rd.json")));
    for (const Json& encoder : report["encoders"]) {
        double psnr = 0;
        ASSERT_EQ(encoder["rungs"].size(), 4u);
        for (const Json& rung : encoder["rungs"]) {
            EXPECT_GT(rung["figures"]["compare.psnr_y_mean"], psnr);
            psnr = rung["figures"]["compare.psnr_y_mean"];
        }
    }
    EXPECT_GT(report["encoders"][1]["bd_rate_percent"], 0);
    EXPECT_LT(report["encoders"][1]["bd_psnr"], 0);
    const std::string csv = contentOf(path("rd.csv"));
    EXPECT_EQ(std::count(csv.begin(), csv.end(), '\n'), 9);
    expectHas(csv, "\n\"libx264,preset=veryfast\",100000,");
    const std::string svg = contentOf(path("rd.svg"));
    EXPECT_EQ(svg.find("<script"), svg.npos);
    expectHas(svg, "<polyline");
}

// Catches: a rung that fails and passes, is not shown, or takes the others with it; a mistake that
// is found only after the runs have begun.
TEST_F(VxrunRd, ShowsWhatFails) {
    const Result some = rd({"--encoder", "mpeg2video,gop=5", "--encoder", "libx264,preset=nosuch",
                            "--rates", "100k,200k", "--jobs", "1"});
    EXPECT_EQ(some.exit, 1);
    expectHas(some.out, "verdict: FAIL passed=2 failed=0 errors=2 skipped=0\n");
    expectHas(some.out, "200k  Error: node 'encoder': ");
    expectHas(some.out, "BD-rate none (needs 4 points per encoder)");
    const Result unknown = rd({"--encoder", "nosuch", "--encoder", "mpeg2video", "--rates", "1M"});
    EXPECT_EQ(unknown.exit, 77) << unknown.err;
    expectHas(unknown.out, "no video encoder 'nosuch'");
    const struct {
        Words options;
        std::string line;
    } cases[] = {{{"--encoder", "libx264", "--rates", "1M,,2M"}, "expected a bit rate such as"},
                 {{"--encoder", "libx264", "--rates", "1000k,1M"}, "a bit rate is given twice"},
                 {{"--encoder", "libx264,crf=3", "--rates", "1M"}, "'crf=3': expected KEY=VALUE"},
                 {{"--encoder", "codec/decoder", "--rates", "1M"}, "has no config 'bitrate'"},
                 {{"--encoder", "sink/null", "--rates", "1M"}, "no encoder 'sink/null'"},
                 {{"--rates", "1M"}, "--encoder: missing"},
                 {{"--encoder", "libx264", "--rates", "1M", "--svg", path("no/rd.svg")}, "--svg"}};
    for (const auto& c : cases) {
        const Result result = rd(c.options);
        EXPECT_EQ(result.exit, 2) << result.err;
        expectHas(result.err, c.line);
    }
}

// Catches: key frames, picture types or sizes that are not those of the stream; a row that is lost.
TEST_F(VxrunRd, ListsTheFramesOfAStream) {
    ASSERT_TRUE(ffmpeg({"-i", path("clip.nut"), "-c:v", "libx264", "-g", "10", path("clip.mkv")}));
    writeFile(path("graph.json"), R"({"name": "g", "nodes": [
        {"name": "reader", "type": "source/bitstream", "configs": {"file": "clip.mkv"},
         "outputs": [{"name": "reader.out", "format": "video/bitstream"}]},
        {"name": "rate", "type": "sink/bitrate",
         "configs": {"csv": "rate.csv", "key_frames": "0,10,20", "max_key_distance": 10},
         "inputs": [{"name": "rate.in", "format": "video/bitstream"}]}],
        "connections": {"reader.out": ["rate.in"]}})");
    expectPass(vxrun({path("graph.json")}), "25");
    std::istringstream rows(contentOf(path("rate.csv")));
    std::string row;
    std::getline(rows, row);
    for (int i = 0; std::getline(rows, row); ++i) {
        EXPECT_EQ(row.substr(row.size() - 3), i % 10 == 0 ? ",1," : ",0,") << row;
    }
    const Result bad = vxrun({path("graph.json"), "rate.key_frames=10,15"});
    EXPECT_EQ(bad.out, "verdict: INFO_VALIDATION_FAIL frames=25 checked=25 first_bad=15\n");
}

}  // namespace
