// The platform's one door to the operating system: every file, directory, mapping, clock and socket call
// the platform makes goes through this table, so that a test can fail the Nth write, flush or rename, return
// short writes or EINTR, or pin the clock, without root or a full disk. Each entry has the signature and
// the behaviour of the POSIX call of the same name (-1 with errno set on failure); retrying after EINTR
// and short transfers is the caller's business, as with the real calls.
//
// Entries may be replaced while other threads call them (each is read atomically), but a test that swaps
// them should do so through ScopedSystemCalls, which puts the whole table back however the test ends.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <time.h>

#include <atomic>
#include <cstddef>

// Declared, not included: the socket headers would clash with the Windows names of platform/Winsock.h,
// which a test of the socket calls includes beside this table.
struct sockaddr;
struct pollfd;
struct addrinfo;
struct passwd;

namespace tavik::platform {

// One entry: a function pointer that can be swapped while other threads call through it.
template <class Signature>
class SystemCall;

template <class R, class... A>
class SystemCall<R(A...)> {
public:
    using Function = R (*)(A...);
    constexpr SystemCall(Function f) : m_function(f) {}
    SystemCall(const SystemCall& other) : m_function(other.get()) {}
    SystemCall& operator=(const SystemCall& other) {
        m_function.store(other.get(), std::memory_order_relaxed);
        return *this;
    }
    SystemCall& operator=(Function f) {
        m_function.store(f, std::memory_order_relaxed);
        return *this;
    }
    R operator()(A... args) const { return get()(args...); }
    Function get() const { return m_function.load(std::memory_order_relaxed); }

private:
    std::atomic<Function> m_function;
};

struct SystemCalls {
    // Files and descriptors.
    SystemCall<int(const char* path, int flags, mode_t mode)> open;
    SystemCall<int(int fd)> close;
    SystemCall<ssize_t(int fd, void* buffer, size_t count)> read;
    SystemCall<ssize_t(int fd, void* buffer, size_t count, off_t offset)> pread;
    SystemCall<ssize_t(int fd, const void* buffer, size_t count)> write;
    SystemCall<ssize_t(int fd, const void* buffer, size_t count, off_t offset)> pwrite;
    SystemCall<ssize_t(int fd, const struct iovec* pieces, int count)> writev;
    SystemCall<off_t(int fd, off_t offset, int whence)> lseek;
    SystemCall<int(int fd)> fsync;
    SystemCall<int(int fd, off_t length)> ftruncate;
    SystemCall<int(int fd, int operation)> flock;
    // Only the commands that take an int (or nothing): F_GETFD, F_GETFL, F_SETFL, F_DUPFD_CLOEXEC.
    SystemCall<int(int fd, int command, int argument)> fcntl;
    // The commands that take a range (F_OFD_SETLK, F_OFD_GETLK, ...).
    SystemCall<int(int fd, int command, struct flock* range)> fcntl_lock;
    SystemCall<int(int fd, struct stat* out)> fstat;
    SystemCall<int(int fd, mode_t mode)> fchmod;
    // Names.
    SystemCall<int(const char* path, struct stat* out)> stat;
    SystemCall<int(const char* path, int mode)> access;
    SystemCall<int(const char* from, const char* to)> rename;
    SystemCall<int(const char* from, const char* to)> link;
    SystemCall<int(const char* path)> unlink;
    SystemCall<int(const char* path, mode_t mode)> mkdir;
    SystemCall<ssize_t(const char* path, char* buffer, size_t size)> readlink;
    SystemCall<char*(char* buffer, size_t size)> getcwd;
    // Directories.
    SystemCall<DIR*(const char* path)> opendir;
    SystemCall<struct dirent*(DIR* dir)> readdir;
    SystemCall<int(DIR* dir)> closedir;
    // Memory.
    SystemCall<void*(void* address, size_t length, int protection, int flags, int fd, off_t offset)> mmap;
    SystemCall<int(void* address, size_t length)> munmap;
    SystemCall<int(void* address, size_t length, int flags)> msync;
    SystemCall<int(void* address, size_t length, int advice)> madvise;
    SystemCall<int(const char* name, unsigned flags)> memfd_create;
    // The clocks, the process and the machine.
    SystemCall<int(clockid_t clock, struct timespec* out)> clock_gettime;
    SystemCall<pid_t()> getpid;
    SystemCall<long(int name)> sysconf;
    SystemCall<uid_t()> getuid;
    SystemCall<struct passwd*(uid_t user)> getpwuid;
    // Sockets. Lengths are socklen_t and poll's count nfds_t, spelled as the types they are here.
    SystemCall<int(int domain, int type, int protocol)> socket;
    SystemCall<int(int fd, sockaddr* address, unsigned* length, int flags)> accept4;
    SystemCall<int(int fd, const sockaddr* address, unsigned length)> bind;
    SystemCall<int(int fd, const sockaddr* address, unsigned length)> connect;
    SystemCall<int(int fd, int backlog)> listen;
    SystemCall<int(int fd, int how)> shutdown;
    SystemCall<ssize_t(int fd, const void* buffer, size_t count, int flags)> send;
    SystemCall<ssize_t(int fd, void* buffer, size_t count, int flags)> recv;
    SystemCall<ssize_t(int fd, const void* buffer, size_t count, int flags, const sockaddr* to,
                       unsigned length)>
        sendto;
    SystemCall<ssize_t(int fd, void* buffer, size_t count, int flags, sockaddr* from, unsigned* length)>
        recvfrom;
    SystemCall<int(int fd, int level, int name, void* value, unsigned* length)> getsockopt;
    SystemCall<int(int fd, int level, int name, const void* value, unsigned length)> setsockopt;
    SystemCall<int(int fd, sockaddr* address, unsigned* length)> getsockname;
    SystemCall<int(int fd, sockaddr* address, unsigned* length)> getpeername;
    SystemCall<int(pollfd* fds, unsigned long count, int timeout)> poll;
    // The resolver.
    SystemCall<int(const char* node, const char* service, const addrinfo* hints, addrinfo** out)> getaddrinfo;
    SystemCall<void(addrinfo* list)> freeaddrinfo;
    SystemCall<int(const sockaddr* address, unsigned length, char* host, unsigned hostLength, char* service,
                   unsigned serviceLength, int flags)>
        getnameinfo;
    SystemCall<int(char* name, size_t length)> gethostname;
};

// The table in use.
SystemCalls& Sys();
// The operating system's own calls, to restore an entry or to wrap it.
const SystemCalls& RealSystemCalls();

// Swaps entries for its lifetime: change them through table() (or ->); the destructor puts back every
// entry as it was when the guard was made, even when the test fails half-way.
class ScopedSystemCalls {
public:
    ScopedSystemCalls() : m_saved(Sys()) {}
    ~ScopedSystemCalls() { Sys() = m_saved; }
    ScopedSystemCalls(const ScopedSystemCalls&) = delete;
    ScopedSystemCalls& operator=(const ScopedSystemCalls&) = delete;
    SystemCalls& table() { return Sys(); }
    SystemCalls* operator->() { return &Sys(); }

private:
    SystemCalls m_saved;
};

}  // namespace tavik::platform
