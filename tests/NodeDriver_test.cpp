// What the driver of a single node shows.
#include <gtest/gtest.h>
#include <vexa_testing/NodeDriver.h>
#include <vxkit/Node.h>
#include <vxkit/Text.h>

#include <future>

using namespace vxkit;
using vexa_testing::NodeDriver;

namespace {

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
        EXPECT_NE(seen.find(line), seen.npos) << seen;
        sKeptWork.reset();
        sKeptBuffer.reset();
    }
    EXPECT_EXIT(drive("hang"), testing::KilledBySignal(SIGABRT), "stop did not return within");
}

}  // namespace
