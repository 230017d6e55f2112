#include "Evidence.h"

#include "Console.h"
#include "Text.h"

#include <VXUtils.h>

#include <algorithm>
#include <csignal>
#include <set>

namespace vxrun {

int exitCode(const std::string& verdict) {
    static const std::map<int, std::set<std::string>> codes = {
        {0, {"PASS", "DONE"}},
        {1, {"FAIL", "CRC_MISMATCH", "INFO_VALIDATION_FAIL", "NO_END_OF_STREAM"}},
        {2, {"BAD_OPTION", "CORRUPT_DESCR", "NODE_NOT_FOUND"}},
        {4, {"NOTHING_CHECKED"}},
        {77, {"NOT_SUPPORTED", "SKIPPED"}},
        {124, {"STALL", "TIMEOUT"}},
        {128 + SIGINT, {"SIGINT"}},
        {128 + SIGTERM, {"SIGTERM"}},
    };
    for (const auto& [code, verdicts] : codes) {
        if (verdicts.count(verdict) > 0) return code;
    }
    return 3;  // could not run: kNotWritten and the library's other names
}

int printResult(const std::string& text, int code, int out, std::chrono::milliseconds patience) {
    return console::result(text, out, patience) || code != 0 ? code : exitCode(kNotWritten);
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

bool Evidence::fail(const std::string& word) {
    std::lock_guard<std::mutex> lock(mLock);
    const int failed = exitCode("FAIL");
    const bool isFirst = mError.empty();
    if (isFirst || (exitCode(word) == failed && exitCode(mError) != failed)) mError = word;
    return isFirst;
}

std::string Evidence::verdict() const {
    std::lock_guard<std::mutex> lock(mLock);
    if (!mError.empty()) return mError;
    bool anyChecking = false, allChecked = true;
    for (const NodeRecord& node : mNodes) {
        if (node.sink && !node.endOfStream) return "NO_END_OF_STREAM";
        anyChecking = anyChecking || node.checking;
        allChecked = allChecked && (!node.checking || node.checked > 0);
    }
    if (!anyChecking && !mChecks) return "DONE";
    return anyChecking && allChecked ? "PASS" : "NOTHING_CHECKED";
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
    for (const NodeRecord& record : mNodes) {
        if (record.node == nullptr) continue;
        Moment moment{record, record.node->status(), 0};
        moment.queued = moment.status.pendingInputs;
        for (const auto& port : moment.status.inputPorts) moment.queued += port.queuedWorks;
        moments.push_back(std::move(moment));
    }
    return moments;
}

std::vector<const PoolRecord*> Evidence::pools() const {
    std::lock_guard<std::mutex> lock(mLock);
    std::vector<const PoolRecord*> pools;
    for (const PoolRecord& pool : mPools) pools.push_back(&pool);
    return pools;
}

// What `textOf` says of each node; nothing where it is empty.
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
    return textOfNodes([](const auto& node) { return node.endOfStream ? "" : node.name; });
}

size_t Evidence::stopped() const {
    std::lock_guard<std::mutex> lock(mLock);
    return static_cast<size_t>(std::count_if(mNodes.begin(), mNodes.end(), [](const auto& node) {
        return node.node == nullptr || node.node->status().state >= vexa::VXNode::STOPPED;
    }));
}

std::string Evidence::allocators() const {
    return textOfNodes([](const auto& node) {
        return node.allocator.empty() ? "" : node.name + " wants " + node.allocator;
    });
}

void Evidence::closePools(bool report) {
    for (const PoolRecord& pool : mPools) {  // nothing is added any more
        const std::string line = concat("vxrun: pool of '", pool.name, "': made=", pool.made,
                                        " recycled=", pool.recycled, " high_water=", pool.highWater,
                                        " left_out=", pool.out);
        if (pool.out != 0) {
            console::line(line);
            fail(errorName(vexa::NODE_FAIL_FATAL));
        } else if (report) {
            console::note(line);
        }
    }
}

int Evidence::printVerdict() const {
    const std::string word = verdict();
    const Totals sums = totals();
    const std::string firstBad =
        sums.firstBad == NodeRecord::kNone ? "-" : std::to_string(sums.firstBad);
    const std::string line =
        concat("verdict: ", console::painted(word, exitCode(word) == 0, mOut),
               " frames=", sums.frames, " checked=", sums.checked, " first_bad=", firstBad, "\n");
    return printResult(line, exitCode(word), mOut, console::kPatience);
}

}  // namespace vxrun
