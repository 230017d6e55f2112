#include <vxkit/Evidence.h>
#include <vxkit/Text.h>

#include <algorithm>

namespace vxkit {

// Not allocated at the first access, as a signal handler needs it.
[[gnu::tls_model("initial-exec")]] static thread_local const NodeRecord* tAtWork = nullptr;

AtWork::AtWork(NodeRecord& record) : mRecord(record) {
    tAtWork = &mRecord;
    mRecord.busy = true;
}

AtWork::~AtWork() {
    mRecord.busy = false;
    tAtWork = nullptr;
}

const NodeRecord* AtWork::onThisThread() {
    return tAtWork;
}

NodeRecord& Evidence::addNode(vexa::VXNode& node, const std::string& name,
                              const std::string& allocator, bool sink) {
    std::lock_guard<std::mutex> lock(mLock);
    NodeRecord& record = mNodes.emplace_back();
    record.node = &node;
    record.number = mNodes.size() - 1;
    record.name = name;
    record.allocator = allocator;
    record.sink = sink;
    if (mMeasuresTimes) record.times.start();
    return record;
}

void Evidence::removeNode(NodeRecord& record) {
    std::lock_guard<std::mutex> lock(mLock);
    record.node = nullptr;
}

PoolRecord& Evidence::addPool(const std::string& name, size_t slots) {
    std::lock_guard<std::mutex> lock(mLock);
    return mPools.emplace_back(name, slots);
}

bool Evidence::setFailure(Verdict verdict) {
    std::lock_guard<std::mutex> lock(mLock);
    const bool isFirst = !mFailure;
    // Which of two errors is noticed first depends on threads; a wrong frame must win either way.
    if (isFirst || (isFailedTest(verdict) && !isFailedTest(*mFailure))) mFailure = verdict;
    return isFirst;
}

void Evidence::setStreamMd5(const std::string& md5) {
    std::lock_guard<std::mutex> lock(mLock);
    mStreamMd5 = md5;
}

std::string Evidence::streamMd5() const {
    std::lock_guard<std::mutex> lock(mLock);
    return mStreamMd5;
}

Verdict Evidence::verdict() const {
    std::lock_guard<std::mutex> lock(mLock);
    if (mFailure) return *mFailure;
    // A graph completes after errors, too, and a sink that checks may have got nothing: so each
    // sink has to have seen the end, and each that checks a frame.
    bool anyChecking = false, allChecked = true;
    for (const NodeRecord& node : mNodes) {
        if (node.sink && !node.endOfStream) return Verdict::NoEndOfStream;
        anyChecking = anyChecking || node.checking;
        allChecked = allChecked && (!node.checking || node.checked > 0);
    }
    if (!anyChecking && !mChecks) return Verdict::Done;
    return anyChecking && allChecked ? Verdict::Pass : Verdict::NothingChecked;
}

Evidence::Totals Evidence::totals() const {
    std::lock_guard<std::mutex> lock(mLock);
    Totals totals;
    for (const NodeRecord& node : mNodes) {
        if (node.sink) totals.frames = std::max<uint64_t>(totals.frames, node.frames);
        totals.checked += node.checked;
        totals.mismatches += node.mismatches;
        totals.expected = std::max<uint64_t>(totals.expected, node.expected);
        totals.moved += node.moved;
        totals.firstBad = std::min<uint64_t>(totals.firstBad, node.firstBad);
    }
    return totals;
}

std::vector<Evidence::Moment> Evidence::nodes() const {
    std::lock_guard<std::mutex> lock(mLock);
    std::vector<Moment> moments;
    // Under the lock no node can go: its destructor waits in removeNode().
    for (const NodeRecord& record : mNodes) {
        if (record.node == nullptr) continue;
        Moment moment{record, record.node->status(), 0};
        moment.queued = moment.status.pendingInputs;
        for (const auto& port : moment.status.inputPorts) moment.queued += port.queuedWorks;
        moments.push_back(std::move(moment));
    }
    return moments;
}

double Evidence::seconds() const {
    const Clock::duration start = mStart, end = mEnd, zero(0);
    if (start == zero) return 0;
    const Clock::duration last = end != zero ? end : Clock::now().time_since_epoch();
    return std::chrono::duration<double>(last - start).count();
}

double Evidence::framesPerSecond() const {
    const double time = seconds();
    return time > 0 ? static_cast<double>(totals().frames) / time : 0;
}

std::vector<const NodeRecord*> Evidence::records() const {
    std::lock_guard<std::mutex> lock(mLock);
    std::vector<const NodeRecord*> records;
    for (const NodeRecord& record : mNodes) records.push_back(&record);
    return records;
}

std::vector<const PoolRecord*> Evidence::pools() const {
    std::lock_guard<std::mutex> lock(mLock);
    std::vector<const PoolRecord*> pools;
    for (const PoolRecord& pool : mPools) pools.push_back(&pool);
    return pools;
}

std::map<std::string, double> Evidence::figures() const {
    std::lock_guard<std::mutex> lock(mLock);
    std::map<std::string, double> figures;
    for (const NodeRecord& node : mNodes) {
        for (const auto& [name, value] : node.figures()) figures[node.name + "." + name] = value;
    }
    return figures;
}

// The texts that `textOf` returns for the nodes; those that are empty are left out.
template <typename TextOf>
std::string Evidence::textOfNodes(TextOf textOf) const {
    std::lock_guard<std::mutex> lock(mLock);
    std::vector<std::string> texts;
    for (const NodeRecord& node : mNodes) {
        const std::string text = textOf(node);
        if (!text.empty()) texts.push_back(text);
    }
    return joined(texts);
}

std::string Evidence::unfinished() const {
    return textOfNodes([](const auto& node) -> std::string {
        if (node.endOfStream) return "";
        const std::string what = node.waitsFor();
        return node.name + (what.empty() ? "" : " (waits for " + what + ")");
    });
}

size_t Evidence::stopped() const {
    std::lock_guard<std::mutex> lock(mLock);
    return static_cast<size_t>(std::count_if(mNodes.begin(), mNodes.end(), [](const auto& node) {
        return node.node == nullptr || node.node->status().state >= vexa::VXNode::STOPPED;
    }));
}

std::string Evidence::allocators() const {
    return textOfNodes([](const auto& node) {
        return node.allocator.empty() ? "" : node.name + " requires " + node.allocator;
    });
}

}  // namespace vxkit
