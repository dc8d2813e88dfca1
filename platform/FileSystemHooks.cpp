#include "platform/internal/FileSystemHooks.h"

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

namespace {

detail::FileSystemHooks makeReal() {
    detail::FileSystemHooks h;
    h.open = [](const char* path, int flags, unsigned mode) { return ::open(path, flags, mode_t(mode)); };
    h.read = [](int fd, void* buf, std::size_t n) -> std::ptrdiff_t { return ::read(fd, buf, n); };
    h.write = [](int fd, const void* buf, std::size_t n) -> std::ptrdiff_t { return ::write(fd, buf, n); };
    h.lseek = [](int fd, std::int64_t off, int whence) -> std::int64_t {
        return ::lseek(fd, off_t(off), whence);
    };
    h.ftruncate = [](int fd, std::int64_t length) { return ::ftruncate(fd, off_t(length)); };
    h.fsync = [](int fd) { return ::fsync(fd); };
    h.rename = [](const char* from, const char* to) { return ::rename(from, to); };
    h.unlink = [](const char* path) { return ::unlink(path); };
    h.close = [](int fd) { return ::close(fd); };
    return h;
}

}  // namespace

const detail::FileSystemHooks& detail::RealFileSystemHooks() {
    static const FileSystemHooks real = makeReal();
    return real;
}

detail::FileSystemHooks& detail::GetFileSystemHooks() {
    static FileSystemHooks hooks = RealFileSystemHooks();
    return hooks;
}
