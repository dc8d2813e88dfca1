
#include "platform/compound/internal/FileOps.h"

#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace detail {
namespace {

int RealOpen(const char* path, int flags, unsigned mode) {
    int fd;
    do fd = ::open(path, flags | O_CLOEXEC, static_cast<mode_t>(mode));
    while (fd < 0 && errno == EINTR);
    return fd;
}

long long RealPread(int fd, void* buf, std::size_t count, std::uint64_t offset) {
    ssize_t n;
    do n = ::pread(fd, buf, count, static_cast<off_t>(offset));
    while (n < 0 && errno == EINTR);
    return n;
}

long long RealWritev(int fd, const IoPiece* pieces, int count) {
    iovec vec[kMaxIoPieces];
    if (count > kMaxIoPieces) count = kMaxIoPieces;
    for (int i = 0; i < count; ++i) vec[i] = {const_cast<void*>(pieces[i].base), pieces[i].length};
    ssize_t n;
    do n = ::writev(fd, vec, count);
    while (n < 0 && errno == EINTR);
    return n;
}

int RealFsync(int fd) { return ::fsync(fd); }
int RealRename(const char* from, const char* to) { return std::rename(from, to); }
int RealUnlink(const char* path) { return ::unlink(path); }
int RealClose(int fd) { return ::close(fd); }

const FileOps kReal = {RealOpen, RealPread, RealWritev, RealFsync, RealRename, RealUnlink, RealClose};
FileOps g_current = kReal;

}  // namespace

FileOps& CurrentFileOps() { return g_current; }
const FileOps& RealFileOps() { return kReal; }

}  // namespace detail
