// StreamCut: a video file in pieces, and files of some of them.
#pragma once

#include "Vxkit.h"

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace vxrun {

// What can be cut out: a slice or tile group, or a whole access unit where these cannot be told.
// A plain value.
struct StreamPiece {
    size_t unit = 0;     // its access unit
    bool isKey = false;  // that unit is a key frame
};

// Threads  one at a time.
// Owns     the access units.
class StreamCut {
public:
    virtual ~StreamCut() = default;

    // In the order of the file.
    virtual const std::vector<StreamPiece>& pieces() const = 0;
    // Writes the pieces with these numbers, in ascending order, to a file of the same container.
    // Bytes and times stay as they are. The parameter sets of a unit without any of its pieces come
    // with the next unit that is there. Throws Failure.
    virtual void write(const std::vector<size_t>& kept, const std::string& path) const = 0;
};
// Reads the best video stream of the file `path`. Throws Failure for what is no video file,
// Verdict::NotSupported for a container that cannot be written, and without FFmpeg's libraries.
std::unique_ptr<StreamCut> cutStream(const std::string& path);

}  // namespace vxrun
