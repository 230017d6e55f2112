// Trace: what happened when, as a Chrome trace file that trace viewers show.
#pragma once

#include <VXWork.h>

#include <nlohmann/json_fwd.hpp>

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace vxrun {

// Life     one per process, made before the graph; it outlives every node.
// Threads  any.
// Owns     the file, which is a complete JSON array from the start and after every write. A kill in the
//          middle of one may cost the closing bracket, which trace viewers can do without. When the file
//          cannot be written any more, it ends with the last events that could.
class Trace {
public:
    using Clock = std::chrono::steady_clock;
    using Figures = std::vector<std::pair<std::string, uint64_t>>;

    // A Failure with the verdict BAD_OPTION when `path` cannot be written.
    explicit Trace(const std::string& path);
    ~Trace();
    Trace(const Trace&) = delete;
    Trace& operator=(const Trace&) = delete;

    // The row of the node with this number is called `name`.
    void nameRow(size_t node, const std::string& name);
    // A node has done `name` from `start` to now.
    void span(size_t node, const std::string& name, Clock::time_point start);
    // The frame `id` of the node called `maker` begins ("b") or ends ("e").
    void frame(const char* phase, size_t node, const std::string& maker, uint64_t id);
    void counter(const std::string& name, const Figures& figures);
    // Something happened, at a node or to the whole graph (kGraph).
    void instant(size_t node, const std::string& name, const std::string& detail);
    static constexpr size_t kGraph = SIZE_MAX;

    // Puts what was traced so far into the file. False when that, now or before, could not be done.
    bool flush();

private:
    void add(const char* phase, const std::string& name, size_t node, Clock::time_point time,
             nlohmann::json more);

    const std::string mPath;
    const int mFile;
    const Clock::time_point mStart = Clock::now();
    std::mutex mLock;
    std::string mBuffer;   // guarded by mLock, as the rest is: not yet in the file
    int64_t mWritten = 0;  // bytes of the file that stay: all but the closing bracket
    bool mFirst = true;    // no event is in the file or buffer
    bool mFailed = false;
};

// The trace of this run; null when none is wanted. Set by the trace itself, on the main thread, while
// no other thread runs.
extern Trace* gTrace;

// TracedFrame: travels with a frame's infos, and so lasts from its maker until its last holder.
struct TracedFrame final : public vexa::VXInfo {
    TracedFrame(std::string makerName, size_t makerNumber, uint64_t frameId);
    ~TracedFrame() override;  // NOLINT(bugprone-exception-escape): see there

    const std::string maker;
    const size_t number;
    const uint64_t id;
};

}  // namespace vxrun
