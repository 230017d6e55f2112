// TraceFile: a trace as a Chrome trace file, which trace viewers show.
#pragma once

#include "Vxkit.h"

#include <vxkit/Trace.h>

#include <nlohmann/json_fwd.hpp>

#include <cstdint>
#include <mutex>
#include <string>

namespace vxrun {

// Life     made before the graph of its run.
// Threads  any.
// Owns     the file, which is a complete JSON array from the start and after every write. A kill in
//          the middle of one may cost the closing bracket, which trace viewers can do without. When
//          the file cannot be written any more, it ends with the last events that could.
class TraceFile final : public Trace {
public:
    // Throws Failure, Verdict::BadOption, when `path` cannot be written.
    explicit TraceFile(const std::string& path);
    ~TraceFile() override;
    TraceFile(const TraceFile&) = delete;
    TraceFile& operator=(const TraceFile&) = delete;

    void nameRow(size_t node, const std::string& name) override;
    void span(size_t node, const std::string& name, Clock::time_point start) override;
    void frame(const char* phase, size_t node, const std::string& maker, uint64_t id) override;
    void counter(const std::string& name, const Counts& counts) override;
    void instant(size_t node, const std::string& name, const std::string& detail) override;

    // Writes the events so far to the file. False when that, now or before, has failed.
    bool flush();

private:
    void addEvent(const char* phase, const std::string& name, size_t node, Clock::time_point time,
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

}  // namespace vxrun
