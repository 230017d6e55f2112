// Recording: the list of --record. Until the run has succeeded the list is kept beside its place,
// under a name of its own.
#pragma once

#include <VXGraph.h>

#include <string>

namespace vxrun {

// Life     from before the run until after it; without commit() it leaves nothing behind.
// Threads  one.
// Owns     the file that is not yet in its place.
class Recording {
public:
    // Makes the one sink/checksum of `graph` write it. Throws Failure, Verdict::BadOption.
    Recording(const std::string& path, bool force, vexa::VXGraphInfo* graph);
    ~Recording();
    Recording(const Recording&) = delete;
    Recording& operator=(const Recording&) = delete;

    // Moves it to its place.
    void commit();

private:
    const std::string mPath;
    std::string mUnproven;
};

}  // namespace vxrun
