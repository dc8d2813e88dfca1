// The file-system calls under CFile, in one replaceable table, so tests can fail the Nth write or
// fsync, return short writes or EINTR, without root or a full disk. Each entry behaves as the POSIX
// call of the same name: -1 with errno set on failure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

namespace detail {

struct FileSystemHooks {
    std::function<int(const char* path, int flags, unsigned mode)> open;
    std::function<std::ptrdiff_t(int fd, void* buf, std::size_t count)> read;
    std::function<std::ptrdiff_t(int fd, const void* buf, std::size_t count)> write;
    std::function<std::int64_t(int fd, std::int64_t offset, int whence)> lseek;
    std::function<int(int fd, std::int64_t length)> ftruncate;
    std::function<int(int fd)> fsync;
    std::function<int(const char* from, const char* to)> rename;
    std::function<int(const char* path)> unlink;
    std::function<int(int fd)> close;
};

// The table in use. Replace entries only while no other thread does file I/O (tests, at setup).
FileSystemHooks& GetFileSystemHooks();
// The real POSIX calls, to restore an entry or to wrap it.
const FileSystemHooks& RealFileSystemHooks();

// Restores the whole table when it goes out of scope.
class ScopedFileSystemHooks {
public:
    ScopedFileSystemHooks() : m_saved(GetFileSystemHooks()) {}
    ~ScopedFileSystemHooks() { GetFileSystemHooks() = m_saved; }
    ScopedFileSystemHooks(const ScopedFileSystemHooks&) = delete;
    ScopedFileSystemHooks& operator=(const ScopedFileSystemHooks&) = delete;
    FileSystemHooks& hooks() { return GetFileSystemHooks(); }

private:
    FileSystemHooks m_saved;
};

}  // namespace detail
