// The system-call table filled with the POSIX calls. The only file of the platform that calls them.
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <type_traits>

#include "platform/internal/SystemCalls.h"

namespace tavik::platform {
namespace {

int Open(const char* path, int flags, mode_t mode) { return ::open(path, flags, mode); }
int Fcntl(int fd, int command, int argument) { return ::fcntl(fd, command, argument); }
int FcntlLock(int fd, int command, struct flock* range) { return ::fcntl(fd, command, range); }
int Rename(const char* from, const char* to) { return std::rename(from, to); }
int Stat(const char* path, struct stat* out) { return ::stat(path, out); }
int Fstat(int fd, struct stat* out) { return ::fstat(fd, out); }
pid_t Getpid() { return ::getpid(); }

static_assert(std::is_same_v<socklen_t, unsigned> && std::is_same_v<nfds_t, unsigned long>,
              "the table spells socklen_t and nfds_t as these types");

constexpr SystemCalls MakeReal() {
    return SystemCalls{
        .open = Open,
        .close = ::close,
        .read = ::read,
        .pread = ::pread,
        .write = ::write,
        .pwrite = ::pwrite,
        .writev = ::writev,
        .lseek = ::lseek,
        .fsync = ::fsync,
        .ftruncate = ::ftruncate,
        .flock = ::flock,
        .fcntl = Fcntl,
        .fcntl_lock = FcntlLock,
        .fstat = Fstat,
        .fchmod = ::fchmod,
        .stat = Stat,
        .access = ::access,
        .rename = Rename,
        .link = ::link,
        .unlink = ::unlink,
        .mkdir = ::mkdir,
        .readlink = ::readlink,
        .getcwd = ::getcwd,
        .opendir = ::opendir,
        .readdir = ::readdir,
        .closedir = ::closedir,
        .mmap = ::mmap,
        .munmap = ::munmap,
        .msync = ::msync,
        .madvise = ::madvise,
        .memfd_create = ::memfd_create,
        .clock_gettime = ::clock_gettime,
        .getpid = Getpid,
        .sysconf = ::sysconf,
        .getuid = ::getuid,
        .getpwuid = ::getpwuid,
        .socket = ::socket,
        .accept4 = ::accept4,
        .bind = ::bind,
        .connect = ::connect,
        .listen = ::listen,
        .shutdown = ::shutdown,
        .send = ::send,
        .recv = ::recv,
        .sendto = ::sendto,
        .recvfrom = ::recvfrom,
        .getsockopt = ::getsockopt,
        .setsockopt = ::setsockopt,
        .getsockname = ::getsockname,
        .getpeername = ::getpeername,
        .poll = ::poll,
        .getaddrinfo = ::getaddrinfo,
        .freeaddrinfo = ::freeaddrinfo,
        .getnameinfo = ::getnameinfo,
        .gethostname = ::gethostname,
    };
}

const SystemCalls kReal = MakeReal();
// Constant-initialised, so that calls made while other files' statics are built find it filled.
constinit SystemCalls g_current = MakeReal();

}  // namespace

const SystemCalls& RealSystemCalls() { return kReal; }
SystemCalls& Sys() { return g_current; }

}  // namespace tavik::platform
