#include <vexa_testing/NodeDriver.h>
#include <vxkit/Failure.h>
#include <vxkit/NodeType.h>
#include <vxkit/Text.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <future>
#include <mutex>

namespace vexa_testing {

using namespace vexa;
using namespace vxkit;

struct NodeDriver::State {
    void print(const std::string& line) {
        std::lock_guard<std::mutex> guard(lock);
        lines += line + "\n";
    }

    Evidence evidence;  // first: it outlives the buffers of the works
    const RunContext run = {evidence, [this](const std::string& line) { print(line); }, nullptr};
    std::mutex lock;
    std::condition_variable changed;
    std::deque<Work> sent;             // by the node, and not received; guarded by lock
    bool isOver = false;               // no more will be sent; guarded by lock
    std::string lines;                 // guarded by lock
    std::atomic<uint64_t> inputs{0};   // that were given and not released
    std::atomic<uint64_t> outputs{0};  // that were received and not released
};

// What the node reports to in place of a graph.
class NodeDriver::Listener final : public VXListener {
public:
    explicit Listener(std::shared_ptr<State> state) : mState(std::move(state)) {}
    void onComplete() override { end(); }
    void onError(VXError error, std::string) override {
        if (error != VX_OK) end();  // else a check has failed and the node goes on
    }

private:
    void end() {
        std::lock_guard<std::mutex> lock(mState->lock);
        mState->isOver = true;
        mState->changed.notify_all();
    }

    const std::shared_ptr<State> mState;
};

// The node downstream: it has no thread, and takes works on that of the sender.
class NodeDriver::OutputHandler final : public xc2::EventHandler {
public:
    explicit OutputHandler(std::shared_ptr<State> state) : mState(std::move(state)) {}

    xc2::XC2Status postAsync(std::shared_ptr<xc2::Event> event) override {
        std::shared_ptr<VXInputPort::WorkInfo> batch;
        event->info().get("works", &batch);
        if (batch == nullptr) return xc2::XC2_OK;
        std::lock_guard<std::mutex> lock(mState->lock);
        for (auto& work : batch->works) {
            const uint32_t flags = work->frameInfo().flags;
            mState->isOver = mState->isOver || (flags & VXFrameInfo::FLAG_END_OF_STREAM) != 0;
            mState->sent.push_back(std::move(work));
        }
        mState->changed.notify_all();
        return xc2::XC2_OK;
    }
    xc2::XC2Status onEvent(std::shared_ptr<xc2::Event>) override { return xc2::XC2_OK; }

private:
    const std::shared_ptr<State> mState;
};

NodeDriver::NodeDriver(const std::string& type, Configs configs, std::vector<Entry> entries,
                       std::chrono::milliseconds limit)
    : mType(type),
      mLimit(limit),
      mState(std::make_shared<State>()),
      mListener(std::make_shared<Listener>(mState)) {
    const NodeType* const found = findNodeType(type);
    if (found == nullptr) refuse("no such node type");
    if (std::max(found->inputs, found->outputs) > 1) refuse("more than one port of a kind");
    auto description = std::make_unique<VXNodeDescriptor>();
    description->type = description->name = type;
    description->configs = std::move(configs);
    description->entries = std::move(entries);
    if (found->inputs > 0) description->inputPorts = {{"in", ""}};
    if (found->outputs > 0) description->outputPorts = {{"out", ""}};
    mState->evidence.expectNoCheck();
    VXError status = VX_OK;
    within("start", [&] {
        mNode = newNode(*found, type, std::move(description), mState->run);
        const std::string allocator = mNode->getPreferredAllocatorTypes().front();
        mNode->setAllocatorType(allocator == "any" ? "xcodec2" : allocator);
        status = mNode->setup(false);
        if (status != VX_OK) return;
        for (const auto& port : mNode->outputPorts()) {
            constexpr unsigned long kAny = 1 << 30;
            const auto output = std::make_shared<VXInputPort>(
                "driver", port->format(), std::make_shared<OutputHandler>(mState));
            output->setTotalDelay(kAny);
            port->connectTo(output);
        }
        status = mNode->start(mListener);
    });
    if (status == VX_OK) return;
    stop();
    throw Failure(lines(), evidence().verdict());
}

NodeDriver::~NodeDriver() {
    stop();
}

// Keeps what a leaked buffer reports to when it ends, be it after main().
void NodeDriver::keep(const std::shared_ptr<State>& state) {
    static std::mutex& lock = *new std::mutex;
    static auto& kept = *new std::vector<std::shared_ptr<State>>;
    std::lock_guard<std::mutex> guard(lock);
    kept.push_back(state);
}

// Runs `action`, in which hooks of the node are called or waited for.
template <typename Action>
void NodeDriver::within(const char* step, Action action) {
    auto done = std::async(std::launch::async, std::move(action));
    if (done.wait_for(mLimit) == std::future_status::timeout) {
        const std::string line =
            concat(mType, ": ", step, " did not return within ", mLimit.count(), " ms", seen());
        std::fprintf(stderr, "%s\n", line.c_str());
        std::abort();  // what the hook uses must not go
    }
    done.get();
}

NodeDriver::Entry NodeDriver::command(const std::string& key, uint32_t frame,
                                      const std::string& value) {
    return {key, value, Entry::COMMAND, 0, 0, frame};
}

void NodeDriver::giveUnit(std::shared_ptr<BitstreamInfo> stream, int64_t pts,
                          const std::vector<uint8_t>& bytes, Place place) {
    const auto unit = std::make_shared<UnitInfo>();
    unit->pts = unit->dts = pts;
    const auto fill = [&](const FrameView& block) {
        std::copy(bytes.begin(), bytes.end(), block.plane(0));
    };
    giveNew(std::move(stream), unit, PictureFormat::block(static_cast<int>(bytes.size())),
            static_cast<uint64_t>(std::max<int64_t>(pts, 0)), fill, place);
}

void NodeDriver::givePicture(std::shared_ptr<StreamInfo> stream, uint64_t timestamp,
                             const Fill& fill, Place place) {
    const PictureFormat format = stream->picture;
    giveNew(std::move(stream), nullptr, format, timestamp, fill, place);
}

void NodeDriver::giveNew(std::shared_ptr<StreamInfo> stream, std::shared_ptr<UnitInfo> unit,
                         const PictureFormat& format, uint64_t timestamp, const Fill& fill,
                         Place place) {
    // A pool for each input: there may be any number of them, of any size.
    const auto pool =
        Pool::make("dmabuf", format, 1, mState->evidence.addPool("driver", 1), nullptr, [] {});
    std::shared_ptr<PoolBuffer> buffer;
    if (pool->fetch(&buffer) != VX_OK) refuse("no memory for an input");
    fill(FrameView(*buffer, *stream));
    VXWork work;
    VXFrameInfo& frame = work.frameInfo();
    frame.timestamp = timestamp;
    frame.flags = place == LAST ? VXFrameInfo::FLAG_END_OF_STREAM : 0;
    frame.mInfos = {std::move(stream), buffer};
    if (unit != nullptr) frame.mInfos.push_back(std::move(unit));
    attach(&work, PoolBuffer::payload(buffer));
    queue(&work);
}

void NodeDriver::give(const Work& work) {
    VXWork share;
    share.frameInfo() = work->frameInfo();
    attach(&share, bufferOf(*work));
    queue(&share);
}

VXInputPort& NodeDriver::input() const {
    if (mNode == nullptr) refuse("the node has been stopped");
    if (mNode->inputPorts().empty()) refuse("the node has no input");
    return *mNode->inputPorts().front();
}

void NodeDriver::queue(VXWork* work) {
    VXInputPort& port = input();
    struct Tracker {
        void onRelease(VXSharedWork* released) const {
            delete released;
            --state->inputs;
        }
        std::shared_ptr<State> state;
    };
    work->frameInfo().index = mGiven++;
    ++mState->inputs;
    port.queueWorks({work->share(Tracker{mState})});
}

NodeDriver::Work NodeDriver::receive() {
    State& state = *mState;
    Work work;
    {
        std::unique_lock<std::mutex> lock(state.lock);
        const bool inTime = state.changed.wait_for(
            lock, mLimit, [&] { return !state.sent.empty() || state.isOver; });
        if (inTime && state.sent.empty()) return nullptr;
        if (inTime) {
            work = std::move(state.sent.front());
            state.sent.pop_front();
        }
    }
    if (work == nullptr) refuse(concat("no frame and no end within ", mLimit.count(), " ms"));
    ++mReceived;
    ++state.outputs;
    VXSharedWork* const frame = work.get();
    return {frame, [work = std::move(work), held = mState](VXSharedWork*) mutable {
                work.reset();
                --held->outputs;
            }};
}

Verdict NodeDriver::stop() {
    if (mNode == nullptr) return evidence().verdict();
    within("stop", [this] {
        mNode->stop();
        mNode.reset();
    });
    std::deque<Work> dropped;
    {
        std::lock_guard<std::mutex> lock(mState->lock);
        mState->isOver = true;
        dropped.swap(mState->sent);
    }
    dropped.clear();
    const Living left = living();
    if (left.inputs + left.outputs + left.buffers > 0) {
        mState->print(mType + ": a leak" + counts());
        mState->evidence.setFailure(Verdict::NodeFailFatal);
        keep(mState);
    }
    return evidence().verdict();
}

NodeDriver::Living NodeDriver::living() const {
    Living living = {mState->inputs, mState->outputs, 0};
    for (const PoolRecord* pool : evidence().pools()) living.buffers += pool->out;
    std::lock_guard<std::mutex> lock(mState->lock);
    living.outputs += mState->sent.size();
    return living;
}

std::string NodeDriver::lines() const {
    std::lock_guard<std::mutex> lock(mState->lock);
    return mState->lines;
}

const Evidence& NodeDriver::evidence() const {
    return mState->evidence;
}

void NodeDriver::refuse(const std::string& text) const {
    throw Failure(mType + ": " + text + seen());
}

// The ends of lines.
std::string NodeDriver::counts() const {
    const Living left = living();
    return concat("; given ", mGiven, ", received ", mReceived, "; not released: inputs ",
                  left.inputs, ", outputs ", left.outputs, ", buffers ", left.buffers);
}

std::string NodeDriver::seen() const {
    const std::string said = lines();
    return counts() + (said.empty() ? "; the node said nothing" : "; the node said:\n" + said);
}

}  // namespace vexa_testing
