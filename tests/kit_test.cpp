// vxkit beside FFmpeg's libraries: the same pixel formats, and access units that libavformat did
// not make. What the driver of a single node shows.
#include "support/Vxrun.h"

#include <LibavFrames.h>
#include <vexa_testing/NodeDriver.h>
#include <vxkit/Source.h>
#include <vxkit/Text.h>

#include <cctype>
#include <cstring>
#include <future>
#include <map>

using namespace vxkit;
using vexa_testing::NodeDriver;

namespace {

// Catches: a format that vxrun could not pass to FFmpeg, one that it refuses for no reason, and
// planes of other sizes than FFmpeg's.
TEST(PixelFormats, AreThoseOfFFmpegThatFit) {
    size_t fits = 0;
    const AVPixFmtDescriptor* av = nullptr;
    while ((av = av_pix_fmt_desc_next(av)) != nullptr) {
        constexpr uint64_t kOther = AV_PIX_FMT_FLAG_PAL | AV_PIX_FMT_FLAG_BITSTREAM |
                                    AV_PIX_FMT_FLAG_HWACCEL | AV_PIX_FMT_FLAG_ALPHA |
                                    AV_PIX_FMT_FLAG_FLOAT;
        const auto id = av_pix_fmt_desc_get_id(av);
        const int depth = av->comp[0].depth;
        bool isPlanar = depth >= 8 && depth <= 16 && (av->flags & kOther) == 0 &&
                        (depth == 8 || (av->flags & AV_PIX_FMT_FLAG_BE) == 0) &&
                        (av->nb_components == 1 || av->nb_components == 3) &&
                        av_pix_fmt_count_planes(id) == av->nb_components;
        for (int i = 0; i < av->nb_components; ++i) {
            const auto& comp = av->comp[i];
            isPlanar = isPlanar && comp.depth == depth && comp.step == (depth > 8 ? 2 : 1) &&
                       comp.offset == 0 && comp.shift == 0;
        }
        const auto format = findPixelFormat(av->name);
        if (format && format->isSemiPlanar()) continue;
        ASSERT_EQ(format.has_value(), isPlanar) << av->name;
        if (!isPlanar) continue;
        ++fits;
        EXPECT_EQ(format->planes, av->nb_components) << av->name;
        EXPECT_EQ(format->depth, depth) << av->name;
        EXPECT_EQ(format->bytesPerSample(), av->comp[0].step) << av->name;
        EXPECT_EQ(format->chromaShiftX, av->log2_chroma_w) << av->name;
        EXPECT_EQ(format->chromaShiftY, av->log2_chroma_h) << av->name;
    }
    EXPECT_GT(fits, 30u);
}

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

// Catches: a verdict that its manual lacks, or gives another exit code.
TEST(Verdicts, HaveTheExitCodesOfTheManual) {
    std::map<std::string, int> manual;
    std::istringstream lines(vxrun_test::contentOf(VXRUN_GRAPHS_DIR "/../../../docs/commands.md"));
    for (std::string line; std::getline(lines, line);) {
        const size_t end = line.find(" | ", line.find(" | ") + 1);
        if (line.rfind("| ", 0) != 0 || std::isdigit(line[2]) == 0 || end > line.size()) continue;
        std::replace_if(
            line.begin(), line.end(), [](char c) { return c == '`' || c == ','; }, ' ');
        std::istringstream codes(line.substr(2)), names(line.substr(line.find(" | ") + 3));
        int code = 0, next = 0;
        for (std::string name; names >> name && name != "|";) {
            if (codes >> next) code = next;
            manual[name] = code;
        }
    }
    const auto last = static_cast<int>(Verdict::UnknownError);
    for (int i = 0; i <= last; ++i) {
        const auto verdict = static_cast<Verdict>(i);
        ASSERT_EQ(manual.count(verdictName(verdict)), 1u) << verdictName(verdict);
        EXPECT_EQ(manual[verdictName(verdict)], exitCode(verdict)) << verdictName(verdict);
    }
    EXPECT_EQ(manual.size(), static_cast<size_t>(last) + 1);
}

const PathKey kFile{"file", "an MP4, Matroska or IVF file"};

// A source like those of authors who have no FFmpeg: its access units carry nothing but what vxkit
// defines.
class ForeignSource : public Source {
public:
    using Source::Source;

private:
    void open() override {
        AVFormatContext* file = nullptr;
        if (avformat_open_input(&file, config(kFile).c_str(), nullptr, nullptr) < 0) {
            throw Failure("no such file");
        }
        mFile.reset(file);
        avformat_find_stream_info(file, nullptr);
        const AVCodecParameters& parameters = *file->streams[0]->codecpar;
        mStream->codec = avcodec_get_name(parameters.codec_id);
        mStream->timeBase = vxrun::fromLibav(file->streams[0]->time_base);
        mStream->headers.assign(parameters.extradata,
                                parameters.extradata + parameters.extradata_size);
    }

    bool next() override {
        const std::shared_ptr<AVPacket> packet = vxrun::made(av_packet_alloc());
        if (av_read_frame(mFile.get(), packet.get()) < 0) return false;
        const auto unit = std::make_shared<UnitInfo>();
        unit->pts = packet->pts;
        unit->dts = packet->dts;
        unit->isKey = (packet->flags & AV_PKT_FLAG_KEY) != 0;
        giveUnit(mStream, unit, static_cast<size_t>(packet->size), [packet](uint8_t* bytes) {
            std::memcpy(bytes, packet->data, static_cast<size_t>(packet->size));
        });
        return true;
    }

    vxrun::Libav<AVFormatContext> mFile;
    const std::shared_ptr<BitstreamInfo> mStream = std::make_shared<BitstreamInfo>();
};
const Registered<ForeignSource> kType("test/foreign", "access units without FFmpeg", 0, 1,
                                      {&kFile});

// Catches: a codec/decoder that understands only what source/bitstream attaches. The headers of
// H.264 in MP4 are out of band.
TEST(Decoders, TakeAccessUnitsOfAnySource) {
    char folder[] = "/tmp/kit_test.XXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
    const std::string file = std::string(folder) + "/clip.mp4";
    ASSERT_EQ(std::system(("ffmpeg -loglevel error -f lavfi -i testsrc=d=1:s=64x48 -c:v libx264 "
                           "-pix_fmt yuv420p " +
                           file)
                              .c_str()),
              0);
    const auto md5Of = [&](const char* type, uint32_t flushAt = 0) {
        NodeDriver source(type, {{"file", file}, {"slots", "50"}}),
            decoder("codec/decoder", {{"tolerate_errors", flushAt == 0 ? "false" : "true"}},
                    {NodeDriver::command("flush", flushAt)}),
            sink("sink/checksum", {{"print_md5", "true"}});
        while (const auto unit = source.receive()) decoder.give(unit);
        while (const auto picture = decoder.receive()) sink.give(picture);
        EXPECT_EQ(sink.receive(), nullptr);
        EXPECT_EQ(sink.evidence().totals().frames == 25, flushAt == 0);
        for (NodeDriver* const node : {&sink, &decoder, &source}) {
            EXPECT_EQ(node->stop(), Verdict::Done) << node->lines();
        }
        return sink.evidence().streamMd5();
    };
    EXPECT_EQ(md5Of("test/foreign"), md5Of("source/bitstream"));
    md5Of("source/bitstream", 24);  // loses what the decoder holds back
    std::filesystem::remove_all(folder);
}

const ChoiceKey kFault{"fault", {"open", "throw", "buffer", "work", "lazy", "hang"}, ""};
std::shared_ptr<PoolBuffer> sKeptBuffer;
std::shared_ptr<vexa::VXSharedWork> sKeptWork;

// Passes pictures on. The second one shows the fault in question.
class Faulty : public Node {
public:
    using Node::Node;
    static std::vector<const ConfigKey*> commonConfigs() { return {&kSlots, &kAllocator, &kFault}; }

private:
    bool has(const char* fault) { return config(kFault) == fault; }
    void open() override {
        if (has("open")) throw Failure("no codec");
    }
    void process(const SharedWorks& inputs) override {
        const Frame frame(*inputs.front());
        if (frame.info.index == 0) return sendOutput(shareOf(*inputs.front()));
        if (has("throw")) throw Failure("bad frame");
        if (has("work")) sKeptWork = inputs.front();
        if (has("buffer")) newPool(frame.format())->fetch(&sKeptBuffer);
        if (has("hang")) std::promise<void>().get_future().wait();
        if (!has("lazy")) sendOutput(shareOf(*inputs.front()));
    }
};
const Registered<Faulty> kFaulty("test/faulty", "", 1, 1);

// Catches: a node's fault that its author's test would not see, or wait for without end.
TEST(NodeDrivers, ShowWhatIsWrongWithANode) {
    const auto stream = std::make_shared<StreamInfo>();
    stream->picture = {*findPixelFormat("nv12"), 6, 4};
    const auto drive = [&](const std::string& fault) {
        const std::chrono::seconds limit(fault == "lazy" || fault == "hang" ? 1 : 20);
        NodeDriver node("test/faulty", {{"fault", fault}}, {}, limit);
        const auto fill = [](const FrameView& picture) { *picture.plane(1) = 7; };
        node.givePicture(stream, 8, fill);
        node.givePicture(stream, 9, fill, NodeDriver::LAST);
        std::string seen;
        while (const auto work = node.receive()) {
            const Frame frame(*work);
            seen += concat(frame.info.timestamp, *frame.plane(1), " ");
            EXPECT_GE(node.living().buffers, 1u);
        }
        seen += verdictName(node.stop());
        return seen + " " + node.lines();
    };
    const std::string ended = "; given 2, received ", left = "; not released: inputs ";
    const std::pair<const char*, std::string> cases[] = {
        {"", "8\x7 9\x7 DONE "},
        {"open", "vxrun: node 'test/faulty': no codec\n"},
        {"none", "config 'fault': expected "},
        {"throw", "8\x7 NODE_FAIL_FATAL vxrun: node 'test/faulty': bad frame\n"},
        {"work", "NODE_FAIL_FATAL test/faulty: a leak" + ended + "2" + left + "1, outputs "},
        {"buffer", "test/faulty: a leak" + ended + "2" + left + "0, outputs 0, buffers 1"},
        {"lazy", "no frame and no end within 1000 ms" + ended + "1" + left + "0, outputs 0, "}};
    for (const auto& [fault, line] : cases) {
        std::string seen;
        try {
            seen = drive(fault);
        } catch (const Failure& failure) {
            seen = failure.what();
        }
        vxrun_test::expectHas(seen, line);
        sKeptWork.reset();
        sKeptBuffer.reset();
    }
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    EXPECT_EXIT(drive("hang"), testing::KilledBySignal(SIGABRT), "stop did not return within");
}

}  // namespace
