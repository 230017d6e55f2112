#include "Archive.h"

#include "Files.h"
#include "Text.h"

#include <archive.h>
#include <archive_entry.h>

#include <algorithm>
#include <ctime>
#include <memory>

namespace vxrun {
namespace {

constexpr size_t kPiece = 256 << 10;

using Archive = std::unique_ptr<archive, int (*)(archive*)>;
using Entry = std::unique_ptr<archive_entry, void (*)(archive_entry*)>;

std::string errorOf(const Archive& archive) {
    const char* const text = archive_error_string(archive.get());
    return text != nullptr ? text : "no memory";
}

}  // namespace

void pack(const std::string& path, const std::vector<PackedFile>& files, const Check& check) {
    OutputFile output(path);
    const Archive tar(archive_write_new(), archive_write_free);
    const auto expect = [&](la_ssize_t result) {
        if (result < ARCHIVE_OK) throw Failure(path + ": " + errorOf(tar));
    };
    expect(archive_write_set_format_pax_restricted(tar.get()));
    expect(archive_write_add_filter_zstd(tar.get()));
    expect(archive_write_open_filename(tar.get(), output.alias().c_str()));
    std::vector<char> piece(kPiece);
    for (const PackedFile& file : files) {
        const Entry entry(archive_entry_new(), archive_entry_free);
        archive_entry_set_pathname(entry.get(), file.name.c_str());
        archive_entry_set_filetype(entry.get(), AE_IFREG);
        archive_entry_set_perm(entry.get(), 0644);
        archive_entry_set_mtime(entry.get(), std::time(nullptr), 0);
        archive_entry_set_size(entry.get(), static_cast<int64_t>(file.size));
        expect(archive_write_header(tar.get(), entry.get()));
        InputFile input(file.path);
        while (const size_t size = input.read(piece.data(), piece.size())) {
            check();
            if (input.offset() > file.size) break;
            expect(archive_write_data(tar.get(), piece.data(), size));
        }
        if (input.offset() != file.size) input.fail("has changed while it was packed");
    }
    expect(archive_write_close(tar.get()));
    output.commit();
}

void unpack(const std::string& path,
            const std::function<TakeBytes(const std::string& name, uint64_t size)>& take,
            const Check& check) {
    const auto fail = [&](const std::string& text) {
        throw Failure(path + ": not a bundle: " + text);
    };
    InputFile opened(path);  // whose failure says why it cannot be
    const Archive tar(archive_read_new(), archive_read_free);
    archive_read_support_format_tar(tar.get());
    archive_read_support_filter_zstd(tar.get());
    if (archive_read_open_filename(tar.get(), path.c_str(), kPiece) != ARCHIVE_OK) {
        fail(errorOf(tar));
    }
    std::vector<char> piece(kPiece);
    archive_entry* entry = nullptr;
    int next = ARCHIVE_OK;
    while ((next = archive_read_next_header(tar.get(), &entry)) == ARCHIVE_OK) {
        check();
        const char* const name = archive_entry_pathname(entry);
        if (name == nullptr) fail("a file without a name");
        const bool isLink =
            archive_entry_symlink(entry) != nullptr || archive_entry_hardlink(entry) != nullptr;
        if (isLink || archive_entry_filetype(entry) != AE_IFREG ||
            archive_entry_size_is_set(entry) == 0 || archive_entry_size(entry) < 0) {
            fail(quote(name) + " is not a plain file");
        }
        const TakeBytes bytes = take(name, static_cast<uint64_t>(archive_entry_size(entry)));
        la_ssize_t size = 0;
        do {
            check();
            size = archive_read_data(tar.get(), piece.data(), piece.size());
            if (size < 0) fail(quote(name) + ": " + errorOf(tar));
            bytes(piece.data(), static_cast<size_t>(size));
        } while (size > 0);
    }
    if (next != ARCHIVE_EOF) fail(errorOf(tar));
}

}  // namespace vxrun
