#include "Files.h"

#include "Text.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

namespace vxrun {
namespace {

// Pictures are read row by row: few calls to the kernel, and the buffer stays in a cache.
constexpr size_t kBufferSize = 1 << 17;

FileHandle withBuffer(std::FILE* file, const std::string& path) {
    if (file == nullptr) throw Failure(path + ": " + errnoText(errno));
    FileHandle handle(file, {std::make_unique<char[]>(kBufferSize)});
    std::setvbuf(file, handle.get_deleter().buffer.get(), _IOFBF, kBufferSize);
    return handle;
}

// A new file, in place of one that an aborted run has left. A link is not followed, and a pipe not
// waited for: whatever else is there stays.
FileHandle create(const std::string& path) {
    std::error_code ignored;
    const auto status = std::filesystem::symlink_status(path, ignored);
    if (std::filesystem::is_regular_file(status)) {
        std::remove(path.c_str());
    } else if (std::filesystem::exists(status)) {
        throw Failure(path + ": in the way, and not a regular file");
    }
    const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    return withBuffer(file < 0 ? nullptr : fdopen(file, "wb"), path);
}

}  // namespace

InputFile::InputFile(const std::string& path)
    : mPath(path), mFile(withBuffer(std::fopen(path.c_str(), "rbe"), path)) {}

size_t InputFile::read(void* data, size_t size) {
    const size_t got = std::fread(data, 1, size, mFile.get());
    mOffset += got;
    if (got < size) checkError();
    return got;
}

bool InputFile::readLine(size_t limit, std::string* line) {
    line->clear();
    while (line->size() < limit) {
        const int c = std::getc(mFile.get());
        if (c == EOF) {
            checkError();
            return false;
        }
        ++mOffset;
        if (c == '\n') return true;
        *line += static_cast<char>(c);
    }
    return false;
}

bool InputFile::atEnd() {
    const int c = std::getc(mFile.get());
    if (c == EOF) checkError();
    return std::ungetc(c, mFile.get()) == EOF;
}

void InputFile::checkError() {
    if (std::ferror(mFile.get()) != 0) fail(errnoText(errno));  // a directory, for instance
}

void InputFile::fail(const std::string& text) const {
    throw Failure(mPath + ": " + text);
}

std::string readTextFile(const std::string& path, size_t limit) {
    InputFile file(path);
    std::string text;
    char chunk[4096];
    while (const size_t got = file.read(chunk, sizeof chunk)) {
        text.append(chunk, got);
        if (text.size() > limit) file.fail("larger than " + std::to_string(limit) + " bytes");
    }
    return text;
}

OutputFile::OutputFile(const std::string& path) : mPath(path), mPartPath(path + ".part") {
    std::error_code ignored;
    const auto status = std::filesystem::status(path, ignored);
    if (std::filesystem::exists(status) && !std::filesystem::is_regular_file(status)) {
        throw Failure(path + ": not a regular file, so it cannot be written to");
    }
    mFile = create(mPartPath);
}

OutputFile::~OutputFile() {
    if (mFile != nullptr) std::remove(mPartPath.c_str());
}

std::string OutputFile::alias() const {
    return concat("/proc/self/fd/", fileno(mFile.get()));
}

void OutputFile::write(const void* data, size_t size) {
    if (std::fwrite(data, 1, size, mFile.get()) != size) fail();
}

void OutputFile::seek(uint64_t offset) {
    if (fseeko(mFile.get(), static_cast<off_t>(offset), SEEK_SET) != 0) fail();
}

void OutputFile::commit() {
    if (std::fflush(mFile.get()) != 0) fail();
    if (std::rename(mPartPath.c_str(), mPath.c_str()) != 0) fail();
    mFile.reset();
}

void OutputFile::fail() {
    throw Failure(mPath + ": " + errnoText(errno));
}

TemporaryFolder::TemporaryFolder() : mOwner(getpid()) {
    const std::string base = variable("TMPDIR");
    mPath = (base.empty() ? "/tmp" : base) + "/vxrun.XXXXXX";
    if (mkdtemp(mPath.data()) == nullptr) {
        throw Failure(mPath + ": " + errnoText(errno), Verdict::NodeFailInit);
    }
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code ignored;
    if (getpid() == mOwner) std::filesystem::remove_all(mPath, ignored);
}

void writeTextFile(const std::string& option, const std::string& path, const std::string& text) {
    try {
        OutputFile file(path);
        file.write(text);
        file.commit();
    } catch (const Failure& failure) {
        throw badOption(option, failure.what());
    }
}

void makeFolder(const std::string& option, const std::string& path) {
    std::error_code error;
    std::filesystem::create_directories(path, error);
    if (error) throw badOption(option, path + ": " + error.message());
}

int openOutput(const std::string& option, const std::string& path) {
    const int flags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NONBLOCK;
    const int file = ::open(path.c_str(), flags, 0666);
    if (file < 0) throw badOption(option, path + ": " + errnoText(errno));
    return file;
}

}  // namespace vxrun
