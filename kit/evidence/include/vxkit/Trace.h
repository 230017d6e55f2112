// Trace: what happened when in a run. Nodes and pools report to this interface; the application
// decides where the reports go.
#pragma once

#include <VXWork.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace vxkit {

// Life     shared by its reporters; may outlive the graph.
// Threads  any.
// Owns     what the application's class owns.
class Trace {
public:
    using Clock = std::chrono::steady_clock;
    using Counts = std::vector<std::pair<std::string, uint64_t>>;
    static constexpr size_t kGraph = SIZE_MAX;  // in place of a node's number

    virtual ~Trace() = default;

    // The row of the node with this number is called `name`.
    virtual void nameRow(size_t node, const std::string& name) = 0;
    // A node has done `name` from `start` to now.
    virtual void span(size_t node, const std::string& name, Clock::time_point start) = 0;
    // The frame `id` of the node called `maker` begins ("b") or ends ("e").
    virtual void frame(const char* phase, size_t node, const std::string& maker, uint64_t id) = 0;
    // The counts called `name` are these from now on.
    virtual void counter(const std::string& name, const Counts& counts) = 0;
    // Something happened, at a node or to the whole graph (kGraph).
    virtual void instant(size_t node, const std::string& name, const std::string& detail) = 0;
};

// TracedFrame: travels with a frame's infos, and so lasts from its maker until its last holder.
//
// Life     shared by the frame's works.
// Threads  any.
// Owns     a share of the trace.
class TracedFrame final : public vexa::VXInfo {
public:
    TracedFrame(std::shared_ptr<Trace> trace, std::string maker, size_t number, uint64_t id);
    ~TracedFrame() override;  // NOLINT(bugprone-exception-escape): see its source

private:
    const std::shared_ptr<Trace> mTrace;
    const std::string mMaker;
    const size_t mNumber;
    const uint64_t mId;
};

}  // namespace vxkit
