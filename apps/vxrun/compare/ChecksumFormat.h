// ChecksumFormat: what the frames of a stream are compared with: lists of their checksums, and
// checksums of the whole, as other programs write them (docs/checksum-lists.md). Each format is one
// source file here that registers itself.
#pragma once

#include "Files.h"
#include "Vxkit.h"

#include <vxkit/FrameView.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vxrun {

// A row of a list: the checksum of a frame, or of the whole stream.
struct ChecksumRow {
    // Whether this row expects a frame (or stream) with the row `actual`. A size of 0 is unknown.
    // A hash with a digit too many, as published lists have them, stands for each hash that it
    // becomes without one digit.
    bool matches(const ChecksumRow& actual) const;

    uint64_t size = 0;
    std::string hash;
};
using ChecksumRows = std::vector<ChecksumRow>;

// ChecksumWriter: writes a list, which appears when it is complete.
//
// Threads  one at a time.
// Owns     the file.
class ChecksumWriter {
public:
    explicit ChecksumWriter(const std::string& path) : mFile(path) {}
    virtual ~ChecksumWriter() = default;
    ChecksumWriter(const ChecksumWriter&) = delete;
    ChecksumWriter& operator=(const ChecksumWriter&) = delete;

    // Adds a frame with its checksum of the writer's format. Throws Failure when it is empty.
    void writeFrame(const Frame& frame, const std::string& hash);
    void commit();

protected:
    virtual void addFrame(const Frame& frame, const std::string& hash) = 0;
    // What follows the last frame.
    virtual void addEnd() {}

    void write(const std::string& text) { mFile.write(text); }
    uint64_t frames() const { return mFrames; }  // that were added, the one being added among them

private:
    OutputFile mFile;
    uint64_t mFrames = 0;
};

// The checksum of each frame's visible bytes.
using Checksums = std::vector<std::string> (*)(const std::vector<const FrameView*>& frames);

// Life     static; registered before main().
// Threads  any.
struct ChecksumFormat {
    bool isOfWholeStream() const { return hashes == nullptr; }

    std::string name;       // in the config "format" of a sink/checksum
    std::string extension;  // of files that are written in this format; empty: none
    // Those of rows, as they spell them; null where one row stands for all frames.
    Checksums hashes;
    size_t atOnce;  // of how many frames it pays to ask together
    // The rows of the file `path`, whose content is `text`; empty when that is of another format.
    // Throws Failure with the file and line of what is malformed.
    std::optional<ChecksumRows> (*read)(const std::string& path, const std::string& text);
    std::unique_ptr<ChecksumWriter> (*newWriter)(const std::string& path);
};

// Returns true, so that a static object of the format's source file can call it.
bool registerChecksumFormat(const ChecksumFormat& format);

// The format of that name. Throws Failure for an unknown one.
const ChecksumFormat& checksumFormat(const std::string& name);
// The name of the format that the extension of `path` stands for, else "framemd5".
std::string checksumFormatOf(const std::string& path);

struct ChecksumList {
    const ChecksumFormat* format;
    ChecksumRows rows;  // in order; at least one, just one of a whole stream
};

// Reads a list of any format; only sizes and hashes are kept. Throws Failure with file and line:
// what is not a list, holds no row, mixes formats or streams, or expects the hash of nothing.
ChecksumList readChecksumList(const std::string& path);

}  // namespace vxrun
