// Files: reading with the place known, and files that appear complete or not at all.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

namespace vxrun {

// Closes a file. Owns its buffer: setvbuf() would ignore the size of one that it is to allocate.
struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }

    std::unique_ptr<char[]> buffer;
};
using FileHandle = std::unique_ptr<std::FILE, FileCloser>;

// InputFile: a file, pipe or device that is read from its start to its end. Failures begin with the
// path.
//
// Threads  one at a time.
// Owns     the open file.
class InputFile {
public:
    explicit InputFile(const std::string& path);

    // Reads up to `size` bytes; fewer only at the end of the file. Returns the number read.
    size_t read(void* data, size_t size);
    // Reads a line, without its line feed. False, and what there was, when the file ends or `limit`
    // is reached before a line feed.
    bool readLine(size_t limit, std::string* line);
    // True when nothing follows.
    bool atEnd();

    const std::string& path() const { return mPath; }
    uint64_t offset() const { return mOffset; }  // of the next byte
    [[noreturn]] void fail(const std::string& text) const;

private:
    void checkError();

    const std::string mPath;
    FileHandle mFile;
    uint64_t mOffset = 0;
};

// The whole of a text file. Throws Failure when it is larger than `limit` bytes.
std::string readTextFile(const std::string& path, size_t limit);

// OutputFile: a file that appears under its name when it is complete, by commit(). Until then it is
// written as "<name>.part", which is removed if commit() is never reached.
//
// Threads  one at a time.
// Owns     the open file.
class OutputFile {
public:
    // Throws Failure when `path` or "<path>.part" names something other than a regular file, which
    // must not be replaced.
    explicit OutputFile(const std::string& path);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    // A path for libraries that can only write to one: it leads to this file, whatever its name has
    // come to mean since.
    std::string alias() const;
    void write(const void* data, size_t size);
    void write(const std::string& text) { write(text.data(), text.size()); }
    // Moves to byte `offset` from the start; the next bytes go there.
    void seek(uint64_t offset);
    void commit();

private:
    [[noreturn]] void fail();

    const std::string mPath;
    const std::string mPartPath;
    FileHandle mFile;
};

// TemporaryFolder: a new folder, which is removed with all that is in it.
//
// Threads  one at a time.
// Owns     the folder; copies of this process do not.
class TemporaryFolder {
public:
    // Throws Failure, Verdict::NodeFailInit, where none can be made.
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::string& path() const { return mPath; }

private:
    std::string mPath;
    const int mOwner;  // its process
};

// For files and folders that an option names, and that Failure then names, too: writes a file as a
// whole; makes a folder where there is none; opens a file that is overwritten, and returns its
// descriptor.
void writeTextFile(const std::string& option, const std::string& path, const std::string& text);
void makeFolder(const std::string& option, const std::string& path);
int openOutput(const std::string& option, const std::string& path);

}  // namespace vxrun
