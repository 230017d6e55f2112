// Nodes and listeners for tests: nodes whose hooks a test scripts, and the two ends of a pipeline.
#pragma once

#include <VXGraph.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "support/Tally.h"

// An object that counts how many of its kind live.
struct Counted {
    explicit Counted(uint64_t value) : value(value) { ++sAlive; }
    ~Counted() { --sAlive; }
    Counted(const Counted&) = delete;
    Counted& operator=(const Counted&) = delete;

    const uint64_t value;
    inline static std::atomic<int> sAlive{0};
};

// What a node reports, as a tally of "complete" and "error <code> <detail>".
struct NodeListener final : vexa::VXListener {
    void onComplete() override { tally.hit("complete"); }
    void onError(vexa::VXError error, std::string detail) override {
        tally.hit("error " + std::to_string(error) + " " + detail);
    }
    Tally tally;
};

// What a graph reports, as a tally of "complete" and "error <message>".
struct GraphListener final : vexa::VXGraph::Listener {
    void onGraphError(std::string message) override {
        tally.hit("error " + message);
        if (onError) onError();
    }
    void onGraphComplete() override {
        tally.hit("complete");
        if (onComplete) onComplete();
    }
    Tally tally;
    std::function<void()> onError, onComplete;
};

// A node with the ports of its descriptor, whose hooks do what the test puts in. By itself it
// passes payload and end of stream on, as many outputs as inputs, or, without output ports,
// completes at the end of the stream.
class ScriptedNode : public vexa::VXNode {
public:
    using Works = std::list<std::shared_ptr<vexa::VXSharedWork>>;
    using Outputs = std::list<std::unique_ptr<vexa::VXWork>>;

    ScriptedNode(const std::string& name, std::unique_ptr<vexa::VXNodeDescriptor> descriptor)
        : VXNode(name, std::move(descriptor)) {
        ++sAlive;
    }
    ~ScriptedNode() override {
        teardown();
        --sAlive;
    }
    inline static std::atomic<int> sAlive{0};

    std::function<vexa::VXError(bool)> setupHook;
    std::function<vexa::VXError()> startHook, stopHook;
    std::function<vexa::VXError(Works, Outputs*)> processHook;
    std::function<void()> drainHook, flushHook;
    std::function<vexa::VXError(int)> bufferHook;
    std::vector<std::string> allocators = {"any"};

    // What node authors reach, for tests.
    using VXNode::configStore;
    using VXNode::handler;
    using VXNode::inputPortInfos;
    using VXNode::mPendingInputLock;
    using VXNode::mPendingInputWorks;

    static std::unique_ptr<vexa::VXWork> copyOf(const vexa::VXSharedWork& input) {
        auto work = std::make_unique<vexa::VXWork>();
        work->frameInfo() = input.frameInfo();
        work->setPayload(input.payload<Counted>());
        return work;
    }

    std::vector<std::string> getPreferredAllocatorTypes() override { return allocators; }

protected:
    vexa::VXError onSetup(bool beforeFence) override {
        for (const auto& port : inputPortInfos()) addInputPort(port.name, {port.format});
        for (const auto& port : outputPortInfos()) addOutputPort(port.name, {port.format});
        return setupHook ? setupHook(beforeFence) : vexa::VX_OK;
    }
    vexa::VXError onStart() override { return startHook ? startHook() : vexa::VX_OK; }
    vexa::VXError onStop() override { return stopHook ? stopHook() : vexa::VX_OK; }
    vexa::VXError onProcess(Works inputs, Outputs* outputs) override {
        if (processHook) return processHook(std::move(inputs), outputs);
        for (const auto& input : inputs) {
            if (!outputPorts().empty()) outputs->push_back(copyOf(*input));
            const bool last =
                (input->frameInfo().flags & vexa::VXFrameInfo::FLAG_END_OF_STREAM) != 0;
            if (outputPorts().empty() && last) signalComplete();
        }
        return vexa::VX_OK;
    }
    void onDrain() override {
        if (drainHook) drainHook();
    }
    vexa::VXError onBufferFilled(int fd) override {
        return bufferHook ? bufferHook(fd) : VXNode::onBufferFilled(fd);
    }
    void onFlush() override {
        if (flushHook) flushHook();
    }
};

// Offers `count` inputs of its own making and turns each into a work with a Counted of its number.
class CountingSource : public ScriptedNode {
public:
    CountingSource(const std::string& name, std::unique_ptr<vexa::VXNodeDescriptor> descriptor)
        : ScriptedNode(name, std::move(descriptor)) {
        processHook = [](Works inputs, Outputs* outputs) {
            for (const auto& input : inputs) {
                outputs->push_back(copyOf(*input));
                outputs->back()->setPayload(std::make_shared<Counted>(input->frameInfo().index));
            }
            return vexa::VX_OK;
        };
    }
    ~CountingSource() override { teardown(); }

    uint64_t count = 10;

    vexa::VXError countAvailablePendingInputWorks(unsigned long maxCount,
                                                  unsigned long* actualCount,
                                                  bool* hasEOS) override {
        *actualCount = std::min<uint64_t>(maxCount, count - mNext);
        *hasEOS = *actualCount > 0 && mNext + *actualCount == count;
        return vexa::VX_OK;
    }
    vexa::VXError getPendingInputWorks(unsigned long requestedCount, Works* works) override {
        works->clear();
        for (; requestedCount > 0; --requestedCount, ++mNext) {
            vexa::VXFrameInfo info;
            info.index = mNext;
            if (mNext + 1 == count) info.flags = vexa::VXFrameInfo::FLAG_END_OF_STREAM;
            works->push_back(std::make_shared<vexa::VXSharedWork>(vexa::VXAuxInfo(), info));
        }
        return vexa::VX_OK;
    }

private:
    uint64_t mNext = 0;  // event thread only
};

// Makes nodes of class Node under a type name; `script` sees each one before it is set up.
template <typename Node>
class TestFactory : public vexa::VXNodeBaseFactory {
public:
    explicit TestFactory(const std::string& type, std::function<void(Node&)> script = {})
        : VXNodeBaseFactory(type), mScript(std::move(script)) {}
    void createNode(const std::string& name, std::unique_ptr<vexa::VXNodeDescriptor> descriptor,
                    std::unique_ptr<vexa::VXNode>* node) override {
        auto made = std::make_unique<Node>(name, std::move(descriptor));
        if (mScript) mScript(*made);
        *node = std::move(made);
    }

private:
    const std::function<void(Node&)> mScript;
};

inline std::unique_ptr<vexa::VXNodeDescriptor> describe(const std::string& type,
                                                        const std::string& name,
                                                        const std::vector<std::string>& inputs,
                                                        const std::vector<std::string>& outputs) {
    auto descriptor = std::make_unique<vexa::VXNodeDescriptor>();
    descriptor->type = type;
    descriptor->name = name;
    for (const auto& port : inputs) descriptor->inputPorts.push_back({port, "test/count"});
    for (const auto& port : outputs) descriptor->outputPorts.push_back({port, "test/count"});
    return descriptor;
}
