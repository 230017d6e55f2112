// Graphs of the plainest nodes: what the benchmarks of the engine run.
#pragma once

#include <VXGraph.h>

#include <cstdint>
#include <cstdio>
#include <future>
#include <memory>
#include <string>
#include <utility>

namespace graphs {

using namespace vexa;

class Node : public VXNode {
public:
    using VXNode::VXNode;
    ~Node() override { teardown(); }

protected:
    VXError onSetup(bool) override {
        for (const auto& port : inputPortInfos()) addInputPort(port.name, {port.format});
        for (const auto& port : outputPortInfos()) addOutputPort(port.name, {port.format});
        return VX_OK;
    }
    VXError onStart() override { return VX_OK; }
    VXError onStop() override { return VX_OK; }
    VXError onProcess(std::list<std::shared_ptr<VXSharedWork>> inputs,
                      std::list<std::unique_ptr<VXWork>>* outputs) override {
        for (const auto& input : inputs) {
            if (!outputPorts().empty()) {
                auto work = std::make_unique<VXWork>();
                work->frameInfo() = input->frameInfo();
                work->setPayload(input->payload<int>());
                outputs->push_back(std::move(work));
            } else if (input->frameInfo().flags & VXFrameInfo::FLAG_END_OF_STREAM) {
                signalComplete();
            }
        }
        return VX_OK;
    }
    void onDrain() override {}
    void onFlush() override {}
};

class Source : public Node {
public:
    using Node::Node;
    ~Source() override { teardown(); }
    static inline int64_t sCount = 0;

    VXError countAvailablePendingInputWorks(unsigned long, unsigned long* actualCount,
                                            bool* hasEOS) override {
        *actualCount = mNext < sCount ? 1 : 0;
        *hasEOS = mNext + 1 == sCount;
        return VX_OK;
    }
    VXError getPendingInputWorks(unsigned long,
                                 std::list<std::shared_ptr<VXSharedWork>>* works) override {
        VXFrameInfo info;
        if (++mNext == sCount) info.flags = VXFrameInfo::FLAG_END_OF_STREAM;
        works->push_back(std::make_shared<VXSharedWork>(VXAuxInfo(), info));
        return VX_OK;
    }

private:
    int64_t mNext = 0;
};

template <typename T>
struct Factory : VXNodeBaseFactory {
    using VXNodeBaseFactory::VXNodeBaseFactory;
    void createNode(const std::string& name, std::unique_ptr<VXNodeDescriptor> descriptor,
                    std::unique_ptr<VXNode>* node) override {
        *node = std::make_unique<T>(name, std::move(descriptor));
    }
};
inline Factory<Node> gNodes("bench/node");
inline Factory<Source> gSources("bench/source");

struct Listener final : VXGraph::Listener {
    void onGraphError(std::string message) override {
        std::fprintf(stderr, "%s\n", message.c_str());
    }
    void onGraphComplete() override { done.set_value(); }
    std::promise<void> done;
};

inline void add(VXGraphInfo* info, const char* type, int number, bool input, bool output) {
    const std::string name = "n" + std::to_string(number);
    auto descriptor = std::make_unique<VXNodeDescriptor>();
    descriptor->type = type;
    descriptor->name = name;
    if (input) descriptor->inputPorts.push_back({name + ".in", "bench"});
    if (output) descriptor->outputPorts.push_back({name + ".out", "bench"});
    info->nodes.push_back(std::move(descriptor));
}

// A source and `nodes` - 1 nodes behind it, one after the other.
inline VXGraphInfo chain(int nodes) {
    VXGraphInfo info{"bench", {}, {}};
    for (int i = 0; i < nodes; ++i) {
        add(&info, i == 0 ? "bench/source" : "bench/node", i, i > 0, i + 1 < nodes);
        if (i > 0) {
            info.connections["n" + std::to_string(i - 1) + ".out"] = {"n" + std::to_string(i) +
                                                                      ".in"};
        }
    }
    return info;
}

}  // namespace graphs
