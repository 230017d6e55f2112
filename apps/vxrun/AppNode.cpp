#include "AppNode.h"

#include "Console.h"
#include "Failure.h"
#include "Text.h"
#include "Trace.h"

#include <algorithm>

namespace vxrun {

using namespace vexa;

// ---- Node types -------------------------------------------------------------------------------

static std::deque<NodeType>& types() {
    static std::deque<NodeType> all;  // made when the first type is added
    return all;
}

bool addNodeType(NodeType type) {
    auto& configs = type.configs;
    configs.push_back({"allocator", kText, "insists on a buffer allocator: dmabuf or xcodec2"});
    if (type.hasPool) {
        configs.push_back({"slots", number(1, 1000, 8), "buffers of the node's pool, default 8"});
        configs.push_back({"fence_ms", number(0, 3600000, 1),
                           "before a transform/fence: when fences fire, default 1"});
    }
    types().push_back(std::move(type));
    return true;
}

const std::deque<NodeType>& nodeTypes() {
    return types();
}

const NodeType* findNodeType(const std::string& name) {
    for (const NodeType& type : types()) {
        if (type.name == name) return &type;
    }
    return nullptr;
}

const ConfigKey* NodeType::find(const std::string& key) const {
    for (const ConfigKey& config : configs) {
        if (config.name == key) return &config;
    }
    return nullptr;
}

const ConfigKey& NodeType::declared(const std::string& key) const {
    const ConfigKey* const config = find(key);
    if (config == nullptr) throw Failure("a " + name + " declares no config '" + key + "'");
    return *config;
}

uint64_t NodeType::number(const std::string& key, const std::string& text) const {
    const ConfigKind& value = declared(key).value;
    try {
        return text.empty() ? value.preset : parseNumber(text, value.low, value.high);
    } catch (const Failure&) {
        return value.preset;
    }
}

std::string configOf(const VXNodeDescriptor& node, const std::string& key) {
    const auto config = node.configs.find(findNodeType(node.type)->declared(key).name);
    return config != node.configs.end() ? config->second : "";
}

uint64_t numberOf(const VXNodeDescriptor& node, const std::string& key) {
    return findNodeType(node.type)->number(key, configOf(node, key));
}

static bool isAllocator(const std::string& name) {
    return name == "dmabuf" || name == "xcodec2";
}

// What is wrong with the value of a config that was given; empty when nothing is. An empty value counts as
// not given, but not that of a file: a variable that is not set must not drop a check or an output.
static std::string mistakeOf(const ConfigKey& config, const std::string& text) {
    if (text.empty()) {
        return config.value.kind == ConfigKind::FILE ? "expected the name of a file, got ''" : "";
    }
    try {
        const ConfigKind& value = config.value;
        if (value.kind == ConfigKind::NUMBER) parseNumber(text, value.low, value.high);
        if (value.kind == ConfigKind::REAL) parseReal(text, value.least, value.most);
    } catch (const Failure& failure) {
        return failure.what();
    }
    if (config.value.kind == ConfigKind::FLAG && text != "true" && text != "false") {
        return "expected true or false, got " + quote(text);
    }
    if (config.name == "allocator" && !isAllocator(text)) {
        return "expected dmabuf or xcodec2, got " + quote(text);
    }
    return "";
}

// What is wrong with an entry; empty when nothing is.
static std::string mistakeOf(const NodeType& type, const VXNodeDescriptor::ConfigEntry& entry) {
    const auto nameOf = [](uint32_t kind, const std::string& key) {
        const bool command = kind == VXNodeDescriptor::ConfigEntry::COMMAND;
        return (command ? "command '" : "tuning '") + key + "'";
    };
    const std::string text = concat(entry.alternate != 0 ? "alternate " : "",
                                    nameOf(entry.kind, entry.key), " at frame ", entry.frameIndex);
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
        mistakes.emplace_back("", concat("a ", type.name, " has ", wanted, " ", kind,
                                         " port(s), the description gives it ", got));
    };
    checkCount("input", type.inputs, node.inputPorts.size());
    checkCount("output", type.outputs, node.outputPorts.size());
    std::string alone;  // the config that excludes others
    for (const auto& [key, value] : node.configs) {
        const ConfigKey* const config = type.find(key);
        if (config != nullptr) {
            if (config->alone && !value.empty()) {
                if (!alone.empty()) {
                    const auto& [first, second] = std::minmax(alone, key);
                    mistakes.emplace_back(
                        key, concat("configs '", first, "' and '", second, "' exclude each other"));
                }
                alone = key;
            }
            const std::string mistake = mistakeOf(*config, value);
            if (!mistake.empty()) {
                mistakes.emplace_back(key, concat("config '", key, "': ", mistake));
            }
            continue;
        }
        std::string text =
            concat("unknown config '", key, "' = ", quote(value), ", a ", type.name, " knows:");
        for (const ConfigKey& known : type.configs) text.append(" ").append(known.name);
        mistakes.emplace_back(key, text);
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
        mBeforeFence = beforeFence;
        for (const auto& port : inputPortInfos()) addInputPort(port.name, {port.format});
        for (const auto& port : outputPortInfos()) addOutputPort(port.name, {port.format});
        if (!outputPorts().empty()) mRoute->port = outputPorts().front();
        open();
    });
}

VXError AppNode::onStart() {
    return guarded(NODE_FAIL_START, [this] { begin(); });
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
        process(inputs);
    });
    outputs->swap(mOutputs);
    if (gTrace != nullptr) gTrace->span(mRecord.number, "process", start);
    mRecord.busy = false;
    return result;
}

// EVENT_FENCE, which only wakeUp() posts.
VXError AppNode::onBufferFilled(int) {
    if (mBroken) return VX_OK;
    const VXError result = guarded(NODE_FAIL_FATAL, [this] { wake(); });
    if (mBroken) signalError(result, errorName(NODE_FAIL_FATAL));
    return result;
}

void AppNode::wakeUp(unsigned delay) {
    const auto to = handler();
    if (to != nullptr) to->postAsyncDelayed(std::make_shared<xc2::Event>(EVENT_FENCE), delay);
}

void AppNode::send(std::unique_ptr<VXWork> work) {
    finish(*work);
    Works works;
    works.push_back(std::move(work));
    returnWorks(std::move(works));
}

void AppNode::sendOutput(std::unique_ptr<VXWork> work) {
    finish(*work);
    mOutputs.push_back(std::move(work));
}

void AppNode::finish(VXWork& work) {
    ++mRecord.moved;
    countFrame(work.frameInfo());
    // In the place of the mark of whoever sent the frame to this node.
    auto& infos = work.frameInfo().mInfos;
    const auto isRoute = [](const auto& info) {
        return dynamic_cast<const Route*>(info.get()) != nullptr;
    };
    infos.erase(std::remove_if(infos.begin(), infos.end(), isRoute), infos.end());
    infos.push_back(mRoute);
    // A frame's span begins with the node that makes it, and ends when nobody has it any more.
    if (gTrace != nullptr && infoOf<TracedFrame>(work.frameInfo()) == nullptr) {
        infos.push_back(std::make_shared<TracedFrame>(mRecord.name, mRecord.number, mTraced++));
    }
}

std::unique_ptr<VXWork> AppNode::shareOf(const VXSharedWork& input) {
    auto work = std::make_unique<VXWork>();
    work->frameInfo() = input.frameInfo();
    attach(work.get(), bufferOf(input));
    return work;
}

std::shared_ptr<VXBuffer> AppNode::fenced(std::shared_ptr<VXBuffer> buffer,
                                          const VXFrameInfo& frame) {
    if (!mBeforeFence) return buffer;
    auto given = mFences.add(buffer, *infoOf<StreamInfo>(frame));
    if (given != buffer) wakeUp(static_cast<unsigned>(numberConfig("fence_ms")));
    return given;
}

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
    mBroken = true;
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

std::string AppNode::config(const std::string& key) {
    std::string value;
    getInitConfig(mType.declared(key).name, &value);
    return value;
}

std::string AppNode::requiredConfig(const std::string& key) {
    std::string value = config(key);
    if (value.empty()) throw Failure("config '" + key + "' is missing");
    return value;
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
std::shared_ptr<Pool> AppNode::newPool(const PictureFormat& format) {
    const auto scheduleSelf = [weakHandler = std::weak_ptr<Handler>(handler())] {
        if (const auto handler = weakHandler.lock()) {
            handler->postAsync(std::make_shared<xc2::Event>(EVENT_SCHEDULE));
        }
    };
    const size_t slots = numberConfig("slots");
    return Pool::make(allocatorType(), format, slots, mEvidence.addPool(mRecord.name, slots),
                      scheduleSelf);
}

void Sink::process(const SharedWorks& inputs) {
    for (const auto& work : inputs) {
        const Frame frame(*work);
        consume(frame);
        const bool last = (frame.info.flags & VXFrameInfo::FLAG_END_OF_STREAM) != 0;
        if (last) finish();
        countFrame(frame.info);
        if (last) signalComplete();
    }
}

}  // namespace vxrun
