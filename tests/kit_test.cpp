// vxkit: texts, and how the evidence of a run becomes a verdict.
#include <gtest/gtest.h>
#include <vxkit/Evidence.h>
#include <vxkit/Text.h>

#include <algorithm>
#include <functional>
#include <random>
#include <vector>

using namespace vxkit;

namespace {

// Catches: a character that is lost, and a byte that ends a line, controls a terminal or is not
// UTF-8.
TEST(Texts, ArePrintableUtf8) {
    for (const char* const kept : {" ~", "\u00a0", "\u07ff", "\u0800", "\uffff", "\U00010000"}) {
        EXPECT_EQ(printable(kept), kept);
    }
    const std::pair<std::string, std::string> cases[] = {
        {"\n\t\x1b\x7f", "\\n\\t\\x1b\\x7f"},
        {"\u0080\u009f", "\\xc2\\x80\\xc2\\x9f"},
        {"\xc1\x80", "\\xc1\\x80"},
        {"\xe0\xa0", "\\xe0\\xa0"},
        {"\xf5\x80\x80\x80", "\\xf5\\x80\\x80\\x80"},
        {"\xc2", "\\xc2"}};
    for (const auto& [text, shown] : cases) EXPECT_EQ(printable(text), shown);
}

// Catches: a percentile below the exact one, more than 1/32 above it, or that of other times.
TEST(Histograms, GivePercentilesWithinTheirError) {
    std::mt19937_64 random(1);
    const std::function<double()> distributions[] = {
        [&] { return std::uniform_real_distribution(0.0, 100.0)(random); },
        [&] { return std::exponential_distribution(1e-7)(random); },
        [&] { return std::lognormal_distribution(15.0, 4.0)(random); },
        [] { return 4e18; },
    };
    for (const auto& next : distributions) {
        Histogram histogram;
        EXPECT_EQ(histogram.percentile(50).count(), 0);
        std::vector<int64_t> times(1000);
        for (int64_t& time : times) histogram.add(Histogram::Time(time = int64_t(next())));
        std::sort(times.begin(), times.end());
        for (const size_t percent : {1, 50, 90, 99, 100}) {
            const int64_t exact = times[percent * 10 - 1];
            const int64_t found = histogram.percentile(double(percent)).count();
            EXPECT_GE(found, exact);
            EXPECT_LE(found - exact, exact / 32);
        }
        EXPECT_EQ(histogram.largest().count(), times.back());
        EXPECT_EQ(histogram.count(), times.size());
    }
}

// Catches: a pass of a run in which some sink did not see its last frame, or had nothing to check.
TEST(Evidences, DecideByEverySink) {
    struct Idle : vexa::VXNode {
        using VXNode::VXNode;
        ~Idle() override { teardown(); }
        vexa::VXError onSetup(bool) override { return vexa::VX_OK; }
        vexa::VXError onStart() override { return vexa::VX_OK; }
        vexa::VXError onStop() override { return vexa::VX_OK; }
        vexa::VXError onProcess(std::list<std::shared_ptr<vexa::VXSharedWork>>,
                                std::list<std::unique_ptr<vexa::VXWork>>*) override {
            return vexa::VX_OK;
        }
        void onDrain() override {}
        void onFlush() override {}
    } node("g.n", std::make_unique<vexa::VXNodeDescriptor>());
    Evidence evidence;
    NodeRecord& first = evidence.addNode(node, "first", "", true);
    NodeRecord& second = evidence.addNode(node, "second", "", true);
    first.checking = first.endOfStream = true;
    first.checked = 1;
    EXPECT_STREQ(verdictName(evidence.verdict()), "NO_END_OF_STREAM");
    second.endOfStream = true;
    EXPECT_STREQ(verdictName(evidence.verdict()), "PASS");
    second.checking = true;
    EXPECT_STREQ(verdictName(evidence.verdict()), "NOTHING_CHECKED");
    // A wrong frame wins over what ended the run, whichever is noticed first.
    EXPECT_TRUE(evidence.setFailure(Verdict::NodeFailFatal));
    EXPECT_FALSE(evidence.setFailure(Verdict::CrcMismatch));
    EXPECT_FALSE(evidence.setFailure(Verdict::Timeout));
    EXPECT_STREQ(verdictName(evidence.verdict()), "CRC_MISMATCH");
}

}  // namespace
