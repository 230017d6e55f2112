#include <vxkit/Node.h>
#include <vxkit/Text.h>

#include <algorithm>

namespace vxkit {

using namespace vexa;

Node::Node(NodeArguments arguments)
    : VXNode(arguments.fullName, std::move(arguments.descriptor)),
      mType(arguments.type),
      mRun(arguments.run),
      mRecord(mRun.evidence.addNode(*this, arguments.nodeName, configText(kAllocator),
                                    mType.outputs == 0)),
      mEntries(std::move(arguments.entries)),
      mMistake(std::move(arguments.mistake)) {
    mRecord.type = mType.name;
    if (mRun.trace != nullptr) mRun.trace->nameRow(mRecord.number, arguments.fullName);
}

std::vector<std::string> Node::getPreferredAllocatorTypes() {
    // Set-up refuses the name of an unknown allocator, with a line that names the node.
    const bool isRequired = !mRecord.allocator.empty() && mMistake.empty();
    return {isRequired ? mRecord.allocator : "any"};
}

VXError Node::onSetup(bool beforeFence) {
    return guarded(NODE_FAIL_INIT, [=] {
        // A factory cannot refuse a description, so the node does at the first step that may fail.
        if (!mMistake.empty()) throw Failure(mMistake);
        mBeforeFence = beforeFence;
        // Ports before open(): it may publish delays, which go to them.
        for (const auto& port : inputPortInfos()) addInputPort(port.name, {port.format});
        for (const auto& port : outputPortInfos()) addOutputPort(port.name, {port.format});
        if (!outputPorts().empty()) mRoute->port = outputPorts().front();
        open();
        opened();
    });
}

VXError Node::onStart() {
    return guarded(NODE_FAIL_START, [this] { begin(); });
}

VXError Node::onStop() {
    mRecord.times.enter(NodeTimes::ENDED);  // its event thread has ended
    if (mBroken) return VX_OK;
    return guarded(NODE_FAIL_STOP, [this] { end(); });
}

// Flow control asks only when there is room, and again when that may have changed.
VXError Node::countAvailablePendingInputWorks(unsigned long maxCount, unsigned long* actualCount,
                                              bool* hasEOS) {
    const VXError ret = VXNode::countAvailablePendingInputWorks(maxCount, actualCount, hasEOS);
    const bool isReady = ret == VX_OK && *actualCount > 0;
    mRecord.times.enter(isReady ? NodeTimes::READY : NodeTimes::WAITS_FOR_INPUT);
    return ret;
}

VXError Node::getPendingInputWorks(unsigned long requestedCount, SharedWorks* works) {
    const VXError ret = VXNode::getPendingInputWorks(requestedCount, works);
    if (ret != VX_OK) return ret;
    uint64_t waiting = works->size();
    for (const auto& port : inputPorts()) waiting += port->queuedWorks();
    mRecord.times.noteQueue(waiting);
    return ret;
}

VXError Node::onProcess(SharedWorks inputs, Works* outputs) {
    if (mBroken) return VX_OK;  // the run is ending; what still arrives is not worth another line
    if (movesByProcess()) ++mRecord.moved;
    Trace::Clock::time_point start;
    if (mRun.trace != nullptr) {
        traceQueue();
        start = Trace::Clock::now();
    }
    const VXError result = timed(NODE_FAIL_FATAL, [&] {
        // Before the node sees them: a node that throws must have let go of them in the pool's
        // count.
        hold(&inputs);
        process(inputs);
    });
    // What was sent before a failure goes out, too: the frames before the damage are evidence.
    outputs->swap(mOutputs);
    if (mRun.trace != nullptr) mRun.trace->span(mRecord.number, "process", start);
    return result;
}

// EVENT_FENCE, which only wakeUp() posts.
VXError Node::onBufferFilled(int) {
    if (mBroken) return VX_OK;
    const VXError result = timed(NODE_FAIL_FATAL, [this] { wake(); });
    // Of a failed onProcess() the library informs the graph; of this hook it does not.
    if (mBroken) signalError(result, errorName(NODE_FAIL_FATAL));
    return result;
}

void Node::wakeUp(unsigned delay) {
    const auto to = handler();  // none after the node has stopped
    if (to != nullptr) to->postAsyncDelayed(std::make_shared<xc2::Event>(EVENT_FENCE), delay);
}

std::function<void()> Node::scheduler() {
    return [weakHandler = std::weak_ptr<Handler>(handler())] {
        if (const auto handler = weakHandler.lock()) {
            handler->postAsync(std::make_shared<xc2::Event>(EVENT_SCHEDULE));
        }
    };
}

void Node::send(std::unique_ptr<VXWork> work) {
    finishWork(*work);
    Works works;
    works.push_back(std::move(work));
    returnWorks(std::move(works));
}

void Node::sendOutput(std::unique_ptr<VXWork> work) {
    finishWork(*work);
    mOutputs.push_back(std::move(work));
}

void Node::finishWork(VXWork& work) {
    ++mRecord.moved;
    countFrame(work.frameInfo());
    // In place of the mark of the node that sent the frame to this one.
    auto& infos = work.frameInfo().mInfos;
    const auto isRoute = [](const auto& info) {
        return dynamic_cast<const Route*>(info.get()) != nullptr;
    };
    infos.erase(std::remove_if(infos.begin(), infos.end(), isRoute), infos.end());
    infos.push_back(mRoute);
    // A frame's span begins with the node that makes it, and ends with its last holder.
    if (mRun.trace != nullptr && infoOf<TracedFrame>(work.frameInfo()) == nullptr) {
        infos.push_back(
            std::make_shared<TracedFrame>(mRun.trace, mRecord.name, mRecord.number, mTraced++));
    }
}

std::unique_ptr<VXWork> Node::shareOf(const VXSharedWork& input) {
    auto work = std::make_unique<VXWork>();
    // With the infos the new work shares the pool's buffer, the stream and the trace's span.
    work->frameInfo() = input.frameInfo();
    attach(work.get(), bufferOf(input));
    return work;
}

std::shared_ptr<PoolBuffer> Node::fenced(std::shared_ptr<PoolBuffer> buffer,
                                         const VXFrameInfo& frame) {
    if (!mBeforeFence) return buffer;
    auto sent = mFences.withFence(buffer, *infoOf<StreamInfo>(frame));
    if (sent != buffer) wakeUp(static_cast<unsigned>(config(kFenceMs)));
    return sent;
}

void Node::hold(SharedWorks* works) {
    for (auto& work : *works) {
        const auto* const buffer = infoOf<PoolBuffer>(work->frameInfo());
        if (buffer == nullptr) continue;
        PoolRecord& pool = buffer->record();
        pool.held(mRecord, 1);
        // The share ends in the node, wherever the node drops it; the work itself may live on
        // downstream.
        const auto letGo = [work, &pool, &record = mRecord](VXSharedWork*) mutable {
            pool.held(record, -1);
            work.reset();
        };
        work = std::shared_ptr<VXSharedWork>(work.get(), letGo);
    }
}

void Node::traceQueue() {
    const Status now = status();
    Trace::Counts counts = {{"pending", now.pendingInputs}, {"out", now.outstandingWorks}};
    for (const auto& port : now.inputPorts) counts.push_back({port.name, port.queuedWorks});
    mRun.trace->counter("queue." + mRecord.name, counts);
}

template <typename Action>
VXError Node::timed(VexaError error, Action action) {
    mRecord.times.enter(NodeTimes::BUSY);
    const VXError result = guarded(error, action);
    // Unless flow control asks at once, it finds no room.
    mRecord.times.enter(mRecord.endOfStream ? NodeTimes::ENDED : NodeTimes::WAITS_FOR_ROOM);
    return result;
}

// Runs `action` and turns whatever it throws into the run's error. The status that is returned
// makes the library end the build or the run.
template <typename Action>
VXError Node::guarded(VexaError error, Action action) {
    const AtWork atWork(mRecord);
    try {
        action();
        return VX_OK;
    } catch (const Failure& failure) {
        fail(failure.verdict().value_or(verdictOf(error)), failure.what());
    } catch (const std::exception& exception) {  // memory, for instance
        fail(verdictOf(error), exception.what());
    }
    mBroken = true;
    return VX_ERROR;
}

void Node::fail(Verdict verdict, const std::string& text) {
    mRun.evidence.setFailure(verdict);
    if (mRun.trace != nullptr) mRun.trace->instant(mRecord.number, verdictName(verdict), text);
    print(text);
}

void Node::print(const std::string& text) const {
    mRun.printLine("vxrun: node '" + mRecord.name + "': " + text);
}

void Node::failCheck(VexaError error, const std::string& text) {
    fail(verdictOf(error), text);
    signalError(VX_OK, errorName(error));  // VX_OK: the graph informs its listener and goes on
}

std::string Node::configText(const ConfigKey& key) {
    if (!mType.declares(key)) {
        throw Failure("a " + mType.name + " declares no config '" + key.name + "'");
    }
    std::string value;
    getInitConfig(key.name, &value);
    return value;
}

void Node::countFrame(const VXFrameInfo& frame) {
    ++mRecord.frames;
    if ((frame.flags & VXFrameInfo::FLAG_END_OF_STREAM) == 0) return;
    mRecord.endOfStream = true;
    if (mRun.trace != nullptr) mRun.trace->instant(mRecord.number, "end of stream", "");
}

// Every mismatch is counted here, those that are not printed as well.
void Node::countMismatch(WrongFrame frame) {
    ++mRecord.mismatches;
    if (mRecord.firstBad == NodeRecord::kNone) mRecord.firstBad = frame.number;
    if (mRun.trace != nullptr) {
        mRun.trace->instant(mRecord.number, "mismatch", "frame " + std::to_string(frame.number));
    }
    mRecord.addWrongFrame(std::move(frame));
}

void Node::countMismatch(uint64_t number) {
    WrongFrame frame;
    frame.number = number;
    countMismatch(std::move(frame));
}

// Works are released before their buffers are, so the release of a work does not mean a free
// buffer: the pool reports that itself.
std::shared_ptr<Pool> Node::newPool(const PictureFormat& format, std::function<void()> onFree) {
    const size_t slots = config(kSlots);
    return Pool::make(allocatorType(), format, slots, mRun.evidence.addPool(mRecord.name, slots),
                      mRun.trace, std::move(onFree));
}

}  // namespace vxkit
