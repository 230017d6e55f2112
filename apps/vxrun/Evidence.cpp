#include "Evidence.h"

#include "Console.h"

#include <VXUtils.h>

#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <map>

namespace vxrun {

int exitCode(const std::string& verdict) {
    static const std::map<std::string, int> codes = {
        {"PASS", 0},
        {"DONE", 0},
        {"FAIL", 1},
        {"CRC_MISMATCH", 1},
        {"INFO_VALIDATION_FAIL", 1},
        {"NO_END_OF_STREAM", 1},
        {"BAD_OPTION", 2},
        {"CORRUPT_DESCR", 2},
        {"NODE_NOT_FOUND", 2},
        {"NOTHING_CHECKED", 4},
        {"NOT_SUPPORTED", 77},
        {"SKIPPED", 77},
        {"STALL", 124},
        {"TIMEOUT", 124},
        {"SIGINT", 128 + SIGINT},
        {"SIGTERM", 128 + SIGTERM},
    };
    constexpr int kCouldNotRun = 3;  // the library's other names
    const auto code = codes.find(verdict);
    return code != codes.end() ? code->second : kCouldNotRun;
}

NodeRecord& Evidence::addNode(vexa::VXNode& node, const std::string& name,
                              const std::string& allocator, bool sink) {
    std::lock_guard<std::mutex> lock(mLock);
    return mNodes.emplace_back(node, mNodes.size(), name, allocator, sink);
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
    if (!mFirstError.empty()) return false;
    mFirstError = word;
    return true;
}

std::string Evidence::verdict() const {
    std::lock_guard<std::mutex> lock(mLock);
    if (!mFirstError.empty()) return mFirstError;
    bool allEnded = true;
    bool anyChecking = false;
    bool allChecked = true;
    for (const NodeRecord& node : mNodes) {
        if (node.sink && !node.endOfStream) allEnded = false;
        if (node.checking) anyChecking = true;
        if (node.checking && node.checked == 0) allChecked = false;
    }
    if (!allEnded) return "NO_END_OF_STREAM";
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
        totals.firstBad = std::min<uint64_t>(totals.firstBad, node.firstBad);
    }
    return totals;
}

uint64_t Evidence::moved() const {
    std::lock_guard<std::mutex> lock(mLock);
    uint64_t sum = 0;
    for (const NodeRecord& node : mNodes) sum += node.moved;
    return sum;
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

std::string Evidence::unfinished() const {
    std::lock_guard<std::mutex> lock(mLock);
    std::string names;
    for (const NodeRecord& node : mNodes) {
        if (!node.endOfStream) names += (names.empty() ? "" : ", ") + node.name;
    }
    return names;
}

std::string Evidence::allocators() const {
    std::lock_guard<std::mutex> lock(mLock);
    std::string wishes;
    for (const NodeRecord& node : mNodes) {
        if (node.allocator.empty()) continue;
        wishes += (wishes.empty() ? "" : ", ") + node.name + " wants " + node.allocator;
    }
    return wishes;
}

void Evidence::closePools(bool report) {
    for (const PoolRecord& pool : mPools) {  // nothing is added any more
        const std::string line = "vxrun: pool of '" + pool.name +
                                 "': made=" + std::to_string(pool.made) +
                                 " recycled=" + std::to_string(pool.recycled) +
                                 " high_water=" + std::to_string(pool.highWater) +
                                 " left_out=" + std::to_string(pool.out);
        if (pool.out != 0) {
            console::line(line);
        } else if (report) {
            console::note(line);
        }
        if (pool.out != 0) fail(errorName(vexa::NODE_FAIL_FATAL));
    }
}

int Evidence::printVerdict() const {
    const std::string word = verdict();
    const Totals sums = totals();
    const std::string firstBad =
        sums.firstBad == NodeRecord::kNone ? "-" : std::to_string(sums.firstBad);
    std::fprintf(mOut, "verdict: %s frames=%" PRIu64 " checked=%" PRIu64 " first_bad=%s\n",
                 console::painted(word, exitCode(word) == 0, fileno(mOut)).c_str(), sums.frames,
                 sums.checked, firstBad.c_str());
    std::fflush(mOut);
    return exitCode(word);
}

}  // namespace vxrun
