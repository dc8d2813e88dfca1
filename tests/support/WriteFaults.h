// Failure-point sweeps over every call that changes the file system (an open for writing, write, pwrite,
// writev, fsync, ftruncate, rename, link, unlink, mkdir, fchmod), made through the platform's system-call
// table: the Nth such call fails once, with the error given.
#pragma once

#include <fcntl.h>

#include <atomic>
#include <cerrno>

#include "platform/internal/SystemCalls.h"

namespace tavik::test {

class WriteFault {
public:
    // failAt 0 only counts.
    explicit WriteFault(int failAt, int error = EIO) {
        State().calls = 0;
        State().failAt = failAt;
        State().error = error;
        State().hit = false;
        m_calls->open = Open;
        m_calls->write = Write;
        m_calls->pwrite = Pwrite;
        m_calls->writev = Writev;
        m_calls->fsync = Fsync;
        m_calls->ftruncate = Ftruncate;
        m_calls->rename = Rename;
        m_calls->link = Link;
        m_calls->unlink = Unlink;
        m_calls->mkdir = Mkdir;
        m_calls->fchmod = Fchmod;
    }
    WriteFault(const WriteFault&) = delete;
    WriteFault& operator=(const WriteFault&) = delete;

    bool Hit() const { return State().hit; }
    int Calls() const { return State().calls; }

private:
    struct Shared {
        std::atomic<int> calls{0};
        std::atomic<int> failAt{0};
        std::atomic<int> error{EIO};
        std::atomic<bool> hit{false};
    };
    static Shared& State() {
        static Shared state;
        return state;
    }
    static const platform::SystemCalls& Real() { return platform::RealSystemCalls(); }
    // True when this call is the one to fail; errno is then set.
    static bool Trip() {
        Shared& s = State();
        if (++s.calls != s.failAt) return false;
        s.hit = true;
        errno = s.error;
        return true;
    }
    static int Open(const char* path, int flags, mode_t mode) {
        bool changes =
            (flags & (O_WRONLY | O_RDWR | O_CREAT | O_TRUNC)) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
        return changes && Trip() ? -1 : Real().open(path, flags, mode);
    }
    static ssize_t Write(int fd, const void* b, size_t n) { return Trip() ? -1 : Real().write(fd, b, n); }
    static ssize_t Pwrite(int fd, const void* b, size_t n, off_t o) {
        return Trip() ? -1 : Real().pwrite(fd, b, n, o);
    }
    static ssize_t Writev(int fd, const iovec* v, int n) { return Trip() ? -1 : Real().writev(fd, v, n); }
    static int Fsync(int fd) { return Trip() ? -1 : Real().fsync(fd); }
    static int Ftruncate(int fd, off_t n) { return Trip() ? -1 : Real().ftruncate(fd, n); }
    static int Rename(const char* a, const char* b) { return Trip() ? -1 : Real().rename(a, b); }
    static int Link(const char* a, const char* b) { return Trip() ? -1 : Real().link(a, b); }
    static int Unlink(const char* p) { return Trip() ? -1 : Real().unlink(p); }
    static int Mkdir(const char* p, mode_t m) { return Trip() ? -1 : Real().mkdir(p, m); }
    static int Fchmod(int fd, mode_t m) { return Trip() ? -1 : Real().fchmod(fd, m); }

    platform::ScopedSystemCalls m_calls;
};

// Runs attempt(n) with the nth file-system change failing, for n = 1, 2, ... until a run meets no
// fault (attempt returns whether its fault was hit). Returns the number of runs that met one.
template <class Attempt>
int SweepWriteFaults(Attempt attempt, int limit = 5000) {
    int n = 1;
    for (; n < limit; ++n)
        if (!attempt(n)) break;
    return n - 1;
}

}  // namespace tavik::test
