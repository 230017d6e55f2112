#include "AppNode.h"

#include "Console.h"
#include "Failure.h"
#include "Trace.h"

#include <algorithm>

namespace vxrun {

using namespace vexa;

// ---- Node types -------------------------------------------------------------------------------

extern const NodeType kY4mSource;
extern const NodeType kFileSource;
extern const NodeType kBitstreamSource;
extern const NodeType kDecoder;
extern const NodeType kEncoder;
extern const NodeType kPassthrough;
extern const NodeType kDelay;
extern const NodeType kFence;
extern const NodeType kConvert;
extern const NodeType kChecksumSink;
extern const NodeType kCompareSink;
extern const NodeType kFileSink;
extern const NodeType kNullSink;

const std::vector<const NodeType*>& nodeTypes() {
    static const std::vector<const NodeType*> types = {
        &kY4mSource,   &kFileSource, &kBitstreamSource, &kDecoder, &kEncoder,
        &kPassthrough, &kConvert,    &kDelay,           &kFence,   &kChecksumSink,
        &kCompareSink, &kFileSink,   &kNullSink};
    return types;
}

const NodeType* findNodeType(const std::string& name) {
    for (const NodeType* type : nodeTypes()) {
        if (type->name == name) return type;
    }
    return nullptr;
}

const std::vector<ConfigKey>& commonConfigs(bool isSource) {
    static const std::vector<ConfigKey> ofAny = {
        {"allocator", false, "insists on a buffer allocator: dmabuf or xcodec2"}};
    static const std::vector<ConfigKey> ofSources = {
        ofAny.front(),
        {"slots", false, "buffers of the node's pool, default 8"},
        {"fence_ms", false, "before a transform/fence: when fences fire, default 1"}};
    return isSource ? ofSources : ofAny;
}

const ConfigKey* NodeType::find(const std::string& key) const {
    for (const auto* known : {&configs, &commonConfigs(inputs == 0)}) {
        for (const ConfigKey& config : *known) {
            if (config.name == key) return &config;
        }
    }
    return nullptr;
}

static bool isAllocator(const std::string& name) {
    return name == "dmabuf" || name == "xcodec2";
}

bool NodeType::checks(const VXNodeDescriptor& node) const {
    if (checksWith == nullptr || *checksWith == '\0') return checksWith != nullptr;
    const auto config = node.configs.find(checksWith);
    return config != node.configs.end() && !config->second.empty();
}

// What is wrong with an entry; empty when nothing is.
static std::string mistakeOf(const NodeType& type, const VXNodeDescriptor::ConfigEntry& entry) {
    const auto nameOf = [](uint32_t kind, const std::string& key) {
        const bool command = kind == VXNodeDescriptor::ConfigEntry::COMMAND;
        return (command ? "command '" : "tuning '") + key + "'";
    };
    const std::string text = std::string(entry.alternate != 0 ? "alternate " : "") +
                             nameOf(entry.kind, entry.key) + " at frame " +
                             std::to_string(entry.frameIndex);
    std::string known = type.entries.empty() ? " no entries" : "";
    for (const EntryKey& key : type.entries) {
        if (key.kind == entry.kind && key.name == entry.key && entry.alternate == 0) {
            try {
                parseNumber(entry.value, key.low, key.high);
                return "";
            } catch (const Failure& failure) {
                return text + ": " + failure.what();
            }
        }
        known += (known.empty() ? " " : ", ") + nameOf(key.kind, key.name);
    }
    return text + ": a " + type.name + " takes" + known;
}

std::vector<std::pair<std::string, std::string>> mistakesOf(const NodeType& type,
                                                            const VXNodeDescriptor& node) {
    std::vector<std::pair<std::string, std::string>> mistakes;
    const auto checkCount = [&](const char* kind, size_t wanted, size_t got) {
        if (got == wanted) return;
        mistakes.emplace_back("", "a " + type.name + " has " + std::to_string(wanted) + " " + kind +
                                      " port(s), the description gives it " + std::to_string(got));
    };
    checkCount("input", type.inputs, node.inputPorts.size());
    checkCount("output", type.outputs, node.outputPorts.size());
    for (const auto& [key, value] : node.configs) {
        if (type.find(key) != nullptr) continue;
        std::string text =
            "unknown config '" + key + "' = " + quote(value) + ", a " + type.name + " knows:";
        for (const auto* keys : {&type.configs, &commonConfigs(type.inputs == 0)}) {
            for (const ConfigKey& config : *keys) text += " " + config.name;
        }
        mistakes.emplace_back(key, text);
    }
    const auto allocator = node.configs.find("allocator");
    if (allocator != node.configs.end() && !allocator->second.empty() &&
        !isAllocator(allocator->second)) {
        mistakes.emplace_back("allocator", "config 'allocator': expected dmabuf or xcodec2, got " +
                                               quote(allocator->second));
    }
    for (const auto& entry : node.entries) {
        const std::string mistake = mistakeOf(type, entry);
        if (!mistake.empty()) mistakes.emplace_back("", mistake);
    }
    return mistakes;
}

NodeFactory::NodeFactory(const NodeType& type, Evidence& evidence)
    : VXNodeBaseFactory(type.name), mType(type), mEvidence(evidence) {}

void NodeFactory::createNode(const std::string& name, std::unique_ptr<VXNodeDescriptor> descriptor,
                             std::unique_ptr<VXNode>* node) {
    const auto mistakes = mistakesOf(mType, *descriptor);
    *node = mType.make({mType, name, descriptor->name, descriptor->entries,
                        mistakes.empty() ? "" : mistakes.front().second, std::move(descriptor),
                        mEvidence});
}

// ---- AppNode ----------------------------------------------------------------------------------

AppNode::AppNode(NodeArguments arguments)
    : VXNode(arguments.fullName, std::move(arguments.descriptor)),
      mType(arguments.type),
      mEvidence(arguments.evidence),
      mRecord(
          mEvidence.addNode(*this, arguments.nodeName, config("allocator"), mType.outputs == 0)),
      mEntries(std::move(arguments.entries)),
      mMistake(std::move(arguments.mistake)) {
    if (gTrace != nullptr) gTrace->nameRow(mRecord.number, arguments.fullName);
}

std::vector<std::string> AppNode::getPreferredAllocatorTypes() {
    // What is none is refused at set-up, by a line that names the node.
    return {isAllocator(mRecord.allocator) ? mRecord.allocator : "any"};
}

VXError AppNode::onSetup(bool beforeFence) {
    return guarded(NODE_FAIL_INIT, [=] {
        if (!mMistake.empty()) throw Failure(mMistake);
        constexpr uint64_t kLongest = 3600000;
        mBeforeFence = beforeFence;
        mFenceDelay = static_cast<unsigned>(numberConfig("fence_ms", 0, kLongest, 1));
        createPorts();
        open();
    });
}

VXError AppNode::onProcess(SharedWorks inputs, Works* outputs) {
    if (mBroken) return VX_OK;  // the run is ending; what still arrives is not worth another line
    ++mRecord.moved;
    mRecord.busy = true;
    Trace::Clock::time_point start;
    if (gTrace != nullptr) {
        traceQueue();
        start = Trace::Clock::now();
    }
    const VXError result = guarded(NODE_FAIL_FATAL, [&] {
        hold(&inputs);
        process(inputs, outputs);
        mark(*outputs);
        traceFrames(*outputs);
    });
    if (gTrace != nullptr) gTrace->span(mRecord.number, "process", start);
    mRecord.busy = false;
    mBroken = result != VX_OK;
    return result;
}

// EVENT_FENCE, which only wakeUp() posts.
VXError AppNode::onBufferFilled(int) {
    if (mBroken) return VX_OK;
    const VXError result = guarded(NODE_FAIL_FATAL, [this] { wake(); });
    mBroken = result != VX_OK;
    if (mBroken) signalError(result, errorName(NODE_FAIL_FATAL));
    return result;
}

void AppNode::wakeUp(unsigned delay) {
    const auto to = handler();
    if (to != nullptr) to->postAsyncDelayed(std::make_shared<xc2::Event>(EVENT_FENCE), delay);
}

std::unique_ptr<VXWork> AppNode::passOn(const VXSharedWork& input) {
    auto work = std::make_unique<VXWork>();
    work->frameInfo() = input.frameInfo();
    attach(work.get(), bufferOf(input));
    return work;
}

std::shared_ptr<VXBuffer> AppNode::fenced(std::shared_ptr<VXBuffer> buffer,
                                          const VXFrameInfo& frame) {
    if (!mBeforeFence) return buffer;
    auto given = mFences.add(buffer, *infoOf<StreamInfo>(frame));
    if (given != buffer) wakeUp(mFenceDelay);
    return given;
}

// In the place of the mark of whoever sent the frame to this node.
void AppNode::mark(const Works& works) const {
    for (const auto& work : works) {
        auto& infos = work->frameInfo().mInfos;
        const auto isRoute = [](const auto& info) {
            return dynamic_cast<const Route*>(info.get()) != nullptr;
        };
        infos.erase(std::remove_if(infos.begin(), infos.end(), isRoute), infos.end());
        infos.push_back(mRoute);
    }
}

// Replaces each work by a share of it that tells the pool of its buffer when the node lets go of it.
void AppNode::hold(SharedWorks* works) {
    for (auto& work : *works) {
        PoolRecord* const pool = Pool::recordOf(bufferOf(*work));
        if (pool == nullptr) continue;
        pool->held(mRecord, 1);
        const auto letGo = [work, pool, &record = mRecord](VXSharedWork*) mutable {
            pool->held(record, -1);
            work.reset();
        };
        work = std::shared_ptr<VXSharedWork>(work.get(), letGo);
    }
}

VXError AppNode::returnWorks(Works works) {
    ++mRecord.moved;
    mark(works);
    traceFrames(works);
    return VXNode::returnWorks(std::move(works));
}

// A frame's span begins with the node that makes it, and ends when nobody has it any more.
void AppNode::traceFrames(const Works& works) {
    if (gTrace == nullptr) return;
    for (const auto& work : works) {
        if (infoOf<TracedFrame>(work->frameInfo()) != nullptr) continue;
        work->frameInfo().mInfos.push_back(
            std::make_shared<TracedFrame>(mRecord.name, mRecord.number, mTraced++));
    }
}

void AppNode::traceQueue() {
    const Status now = status();
    Trace::Figures figures = {{"pending", now.pendingInputs}, {"out", now.outstandingWorks}};
    for (const auto& port : now.inputPorts) figures.push_back({port.name, port.queuedWorks});
    gTrace->counter("queue." + mRecord.name, figures);
}

// Runs `action` and turns whatever it throws into the run's error. The status that is returned makes
// the library end the build or the run.
template <typename Action>
VXError AppNode::guarded(VexaError error, Action action) {
    try {
        action();
        return VX_OK;
    } catch (const Failure& failure) {
        fail(failure.verdict().empty() ? errorName(error) : failure.verdict(), failure.what());
    } catch (const std::exception& exception) {  // memory, for instance
        fail(errorName(error), exception.what());
    }
    return VX_ERROR;
}

void AppNode::fail(const std::string& verdict, const std::string& text) {
    mEvidence.fail(verdict);
    if (gTrace != nullptr) gTrace->instant(mRecord.number, verdict, text);
    console::line("vxrun: node '" + mRecord.name + "': " + text);
}

void AppNode::failCheck(VexaError error, const std::string& text) {
    fail(errorName(error), text);
    signalError(VX_OK, errorName(error));  // VX_OK: the graph tells its listener and goes on
}

void AppNode::createPorts() {
    for (const auto& port : inputPortInfos()) addInputPort(port.name, {port.format});
    for (const auto& port : outputPortInfos()) addOutputPort(port.name, {port.format});
    if (outputPorts().empty()) return;
    mRoute = std::make_shared<Route>();
    mRoute->port = outputPorts().front();
}

std::string AppNode::config(const std::string& key) {
    std::string value;
    getInitConfig(key, &value);
    return value;
}

std::string AppNode::requiredConfig(const std::string& key) {
    std::string value = config(key);
    if (value.empty()) throw Failure("config '" + key + "' is missing");
    return value;
}

uint64_t AppNode::numberConfig(const std::string& key, uint64_t low, uint64_t high,
                               uint64_t preset) {
    const std::string value = config(key);
    try {
        return value.empty() ? preset : parseNumber(value, low, high);
    } catch (const Failure& failure) {
        throw Failure("config '" + key + "': " + failure.what());
    }
}

bool AppNode::flagConfig(const std::string& key) {
    const std::string value = config(key);
    if (!value.empty() && value != "true" && value != "false") {
        throw Failure("config '" + key + "': expected true or false, got " + quote(value));
    }
    return value == "true";
}

void AppNode::countFrame(const VXFrameInfo& frame) {
    ++mRecord.frames;
    if ((frame.flags & VXFrameInfo::FLAG_END_OF_STREAM) == 0) return;
    mRecord.endOfStream = true;
    if (gTrace != nullptr) gTrace->instant(mRecord.number, "end of stream", "");
}

void AppNode::noteBad(uint64_t number) {
    ++mRecord.mismatches;
    if (mRecord.firstBad == NodeRecord::kNone) mRecord.firstBad = number;
    if (gTrace != nullptr) {
        gTrace->instant(mRecord.number, "mismatch", "frame " + std::to_string(number));
    }
}

// Works are released before their buffers are, so a node that found no buffer is told by its pool.
std::function<void()> AppNode::scheduleSelf() {
    return [weakHandler = std::weak_ptr<Handler>(handler())] {
        if (const auto handler = weakHandler.lock()) {
            handler->postAsync(std::make_shared<xc2::Event>(EVENT_SCHEDULE));
        }
    };
}

// ---- Source -----------------------------------------------------------------------------------

void Source::makePicturePool(const PictureFormat& format) {
    mPool = Pool::ofPictures(allocatorType(), format, slots(), newPoolRecord(), scheduleSelf());
}

void Source::makeBlockPool(size_t bytes) {
    mPool = Pool::ofBlocks(allocatorType(), bytes, slots(), newPoolRecord(), scheduleSelf());
}

VXError Source::countAvailablePendingInputWorks(unsigned long maxCount, unsigned long* actualCount,
                                                bool* hasEOS) {
    if (actualCount == nullptr || hasEOS == nullptr || maxCount == 0) return VX_BAD_VALUE;
    *actualCount = 0;
    *hasEOS = false;
    if (mEnded) return VX_OK;
    // Without memory the input is offered all the same: process() says what is wrong.
    if (mNext == nullptr && mPool->fetch(&mNext) == VX_NO_FREE_SLOT) return VX_OK;
    *actualCount = 1;  // a batch is one
    return VX_OK;
}

VXError Source::getPendingInputWorks(unsigned long requestedCount, SharedWorks* works) {
    if (works == nullptr) return VX_BAD_VALUE;
    works->clear();
    if (requestedCount > (mEnded ? 0 : 1)) return VX_INVALID_OPERATION;
    works->push_back(std::make_shared<VXSharedWork>(VXAuxInfo(), VXFrameInfo()));
    return VX_OK;
}

void Source::process(const SharedWorks& inputs, Works* outputs) {
    for (size_t i = 0; i < inputs.size() && !mEnded; ++i) {
        mEnded = true;  // also if something is thrown below
        if (mNext == nullptr) throw Failure("no memory for a buffer");
        auto work = std::make_unique<VXWork>();
        fill(mNext, &work->frameInfo());
        attach(work.get(), fenced(std::move(mNext), work->frameInfo()));
        VXFrameInfo& frame = outputs->emplace_back(std::move(work))->frameInfo();
        mEnded = !hasNext();  // may throw: then the frame before the trouble is sent on
        if (mEnded) frame.flags |= VXFrameInfo::FLAG_END_OF_STREAM;
        countFrame(frame);
    }
}

// ---- Sink -------------------------------------------------------------------------------------

void Sink::process(const SharedWorks& inputs, Works*) {
    for (const auto& work : inputs) {
        const auto buffer = bufferOf(*work);
        const StreamInfo* const stream = infoOf<StreamInfo>(work->frameInfo());
        if (buffer == nullptr || stream == nullptr) throw Failure("a work without a payload");
        consume(Payload(buffer, *stream), *stream, work->frameInfo());
        const bool last = (work->frameInfo().flags & VXFrameInfo::FLAG_END_OF_STREAM) != 0;
        if (last) finish();
        countFrame(work->frameInfo());
        if (last) signalComplete();
    }
}

}  // namespace vxrun
