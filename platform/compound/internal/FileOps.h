// Every file call a commit makes goes through this table, so that tests can fail the Nth write, flush or
// rename without a full disk. Calls follow POSIX: -1 with errno set on failure.
#pragma once

#include <cstddef>
#include <cstdint>

namespace detail {

// One piece of a gathered write.
struct IoPiece {
    const void* base;
    std::size_t length;
};
constexpr int kMaxIoPieces = 1024;

struct FileOps {
    int (*open)(const char* path, int flags, unsigned mode);
    long long (*pread)(int fd, void* buf, std::size_t count, std::uint64_t offset);
    // Writes the pieces in order as one write does (count <= kMaxIoPieces); may write fewer bytes.
    long long (*writev)(int fd, const IoPiece* pieces, int count);
    int (*fsync)(int fd);
    int (*rename)(const char* from, const char* to);
    int (*unlink)(const char* path);
    int (*close)(int fd);
};

// The table in use; tests replace entries and restore RealFileOps() afterwards.
FileOps& CurrentFileOps();
const FileOps& RealFileOps();

}  // namespace detail
