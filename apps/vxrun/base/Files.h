// Files: reading with the place known, and writing that is complete or not there.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

namespace vxrun {

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using FileHandle = std::unique_ptr<std::FILE, FileCloser>;

// InputFile: a file, pipe or device that is read from its start to its end. Every failure is a
// Failure whose text begins with the path.
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

// The whole of a text file; a Failure when it is larger than `limit` bytes.
std::string readTextFile(const std::string& path, size_t limit);

// OutputFile: a file that appears under its name when it is complete, by commit(). Until then it is
// written as "<name>.part", which is removed if commit() is never reached.
class OutputFile {
public:
    // A Failure when `path` or "<path>.part" names something other than a regular file, which must not be
    // replaced.
    explicit OutputFile(const std::string& path);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    // A path for those who can only write to one: to this file, whatever has come to its name since.
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

// For what an option names, which the Failure then does, too: writes a file as a whole; makes a folder
// where there is none; opens a file that is overwritten, and returns its descriptor.
void writeTextFile(const std::string& option, const std::string& path, const std::string& text);
void makeFolder(const std::string& option, const std::string& path);
int openOutput(const std::string& option, const std::string& path);

}  // namespace vxrun
