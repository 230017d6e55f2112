// A user's nodes, built on vxkit: a source and a sink that checks what it gets.
#include <VXGraph.h>
#include <vxkit/Sink.h>
#include <vxkit/Source.h>

#include <cstdio>
#include <cstdlib>
#include <deque>
#include <future>

using namespace vxkit;

const NumberKey kFrames{"frames", 1, 100, 3, "how many to make, default 3"};

class Ramp : public Source {
    using Source::Source;

    bool next() override {
        if (mMade == config(kFrames)) return false;
        const auto stream = std::make_shared<StreamInfo>();
        stream->picture = {*findPixelFormat("yuv420p"), 35, 27};
        const auto value = static_cast<uint8_t>(mMade);
        givePicture(stream, mMade++, [value](const FrameView& picture) {
            picture.forEachRow([&](uint8_t* row, size_t bytes) { std::fill_n(row, bytes, value); });
        });
        return true;
    }

    uint64_t mMade = 0;
};
const Registered<Ramp> kRamp("acme/ramp", "pictures of one value each", 0, 1, {&kFrames});

class Check : public Sink {
    using Sink::Sink;

    void open() override { record().checking = true; }
    void consume(const Frame& frame) override {
        ++record().checked;
        size_t wrong = 0;
        frame.forEachRow([&](const uint8_t* row, size_t bytes) {
            for (size_t i = 0; i < bytes; ++i) wrong += row[i] != frame.info.timestamp;
        });
        if (wrong > 0) failCheck(vexa::CRC_MISMATCH, "wrong samples");
    }
};
const Registered<Check> kCheck("acme/check", "checks them", 1, 0);

struct Listener final : vexa::VXGraph::Listener {
    void onGraphComplete() override { done.set_value(); }
    void onGraphError(std::string error) override {
        std::puts(error.c_str());
        std::_Exit(1);
    }
    std::promise<void> done;
};

int main() {
    Evidence evidence;
    const RunContext run = {evidence, [](const std::string& line) { std::puts(line.c_str()); }, {}};
    std::deque<NodeFactory> factories;
    for (const auto& [name, type] : nodeTypes()) factories.emplace_back(type, run);
    vexa::VXGraphInfo info;
    info.name = "kit";
    for (const char* const name : {"ramp", "check"}) {
        auto& node = info.nodes.emplace_back(std::make_unique<vexa::VXNodeDescriptor>());
        node->name = name;
        node->type = std::string("acme/") + name;
    }
    info.nodes[0]->configs["frames"] = "20";
    info.nodes[0]->outputPorts = {{"out", "video/raw"}};
    info.nodes[1]->inputPorts = {{"in", "video/raw"}};
    info.connections["out"] = {"in"};
    const auto listener = std::make_shared<Listener>();
    const auto graph = vexa::VXGraph::BuildFromGraphInfo(info, listener);
    graph->runAsync();
    listener->done.get_future().wait();
    graph->stop();
    std::printf("%s %d\n", verdictName(evidence.verdict()), int(evidence.totals().checked));
    return exitCode(evidence.verdict());
}
