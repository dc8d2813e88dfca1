// The socket calls of a POSIX system, made through the platform's system-call table. This file never
// includes platform/Winsock.h: the Windows names (socket, sockaddr, ...) would collide with the system's,
// so the two meet only through SocketOps.h.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>

#include "platform/internal/OsErrors.h"
#include "platform/internal/SystemCalls.h"
#include "platform/net/internal/SocketOps.h"

namespace tavik::platform::net {
namespace {

// Windows values of the constants that cross SocketOps.h.
constexpr int kAfInet = 2;
constexpr int kSockStream = 1;
constexpr int kSockDgram = 2;
constexpr int kMsgOob = 0x1;
constexpr int kMsgPeek = 0x2;
constexpr int kSolSocket = 0xffff;

// getaddrinfo/getnameinfo results -> Windows Sockets code. EAI_SYSTEM goes through errno instead.
constexpr CodeRow kResolverRows[] = {
    {EAI_NONAME, 11001, "host not found"},
    {EAI_AGAIN, 11002, "temporary failure"},
    {EAI_FAIL, 11003, "non-recoverable failure"},
    {EAI_NODATA, 11004, "no address of the requested family"},
    {EAI_ADDRFAMILY, 11004, "no address in the family"},
    {EAI_FAMILY, 10047, "family not supported"},
    {EAI_SOCKTYPE, 10044, "socket type not supported"},
    {EAI_SERVICE, 10109, "service not known"},
    {EAI_BADFLAGS, 10022, "bad flags"},
    {EAI_MEMORY, 10055, "out of memory"},
    {EAI_OVERFLOW, 10014, "buffer too small"},
};

constexpr int kUnmapped = 10107;  // WSASYSCALLFAILURE

std::atomic<int> g_connectLimitMs{21000};

int fail(int& error, int err) {
    error = WsaFromErrno(err);
    return -1;
}

bool isNonBlocking(int fd) {
    const int flags = Sys().fcntl(fd, F_GETFL, 0);
    return flags >= 0 && (flags & O_NONBLOCK) != 0;
}

// On a blocking socket EAGAIN from a transfer means its SO_SNDTIMEO/SO_RCVTIMEO ran out, which Windows
// reports as a time-out; on a non-blocking one, or for a transfer that was not to wait, it is "would
// block".
int failTransfer(int fd, int& error, int err, int flags = 0) {
    if (err == EAGAIN || err == EWOULDBLOCK) {
        error = (flags & kMsgDontWait) || isNonBlocking(fd) ? 10035 : 10060;
        return -1;
    }
    return fail(error, err);
}

bool isTimeOption(int sysName) { return sysName == SO_SNDTIMEO || sysName == SO_RCVTIMEO; }

// Windows never hands out handle 0 and callers use 0 for "no socket", so a descriptor that lands on 0
// (stdin closed) is moved up.
int avoidZero(int fd) {
    if (fd != 0) return fd;
    int moved = Sys().fcntl(fd, F_DUPFD_CLOEXEC, 1);
    int saved = errno;
    Sys().close(fd);
    errno = saved;
    return moved;
}

sockaddr_in toSystem(const Endpoint& e) {
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = e.port;
    sa.sin_addr.s_addr = e.addr;
    return sa;
}

Endpoint fromSystem(const sockaddr_storage& ss) {
    Endpoint e;
    if (ss.ss_family == AF_INET) {
        const auto* sa = reinterpret_cast<const sockaddr_in*>(&ss);
        e.addr = sa->sin_addr.s_addr;
        e.port = sa->sin_port;
    }
    return e;
}

int sysFlags(int flags) {
    int out = MSG_NOSIGNAL;
    if (flags & kMsgOob) out |= MSG_OOB;
    if (flags & kMsgPeek) out |= MSG_PEEK;
    if (flags & kMsgDontWait) out |= MSG_DONTWAIT;
    return out;
}

bool sysOption(int level, int name, int& sysLevel, int& sysName) {
    if (level != kSolSocket) return false;
    sysLevel = SOL_SOCKET;
    switch (name) {
        case 0x0004:
            sysName = SO_REUSEADDR;
            return true;
        case 0x0008:
            sysName = SO_KEEPALIVE;
            return true;
        case 0x0020:
            sysName = SO_BROADCAST;
            return true;
        case 0x1001:
            sysName = SO_SNDBUF;
            return true;
        case 0x1002:
            sysName = SO_RCVBUF;
            return true;
        case 0x1007:
            sysName = SO_ERROR;
            return true;
        case 0x1008:
            sysName = SO_TYPE;
            return true;
        case 0x1005:
            sysName = SO_SNDTIMEO;
            return true;
        case 0x1006:
            sysName = SO_RCVTIMEO;
            return true;
        default:
            return false;
    }
}

bool reservedInvalidName(const char* name) {
    // Names under "invalid" never resolve; answering here spares a resolver round trip that an offline
    // machine would report as a temporary failure instead of "not found".
    size_t n = std::strlen(name);
    if (n > 0 && name[n - 1] == '.') --n;
    if (n < 7) return false;
    if (strncasecmp(name + n - 7, "invalid", 7) != 0) return false;
    return n == 7 || name[n - 8] == '.';
}

}  // namespace

std::span<const CodeRow> ResolverTable() { return kResolverRows; }

int WsaFromErrno(int err) { return tavik::platform::SocketErrorFromErrno(err); }

int WsaFromResolver(int result, int savedErrno) {
    if (result == EAI_SYSTEM) return WsaFromErrno(savedErrno);
    for (const CodeRow& row : kResolverRows)
        if (row.from == result) return row.to;
    return kUnmapped;
}

int OsSocket(int af, int type, int protocol, int& error) {
    if (af != kAfInet) return fail(error, EAFNOSUPPORT);
    int sysType = type == kSockStream ? SOCK_STREAM : type == kSockDgram ? SOCK_DGRAM : -1;
    if (sysType < 0) return fail(error, ESOCKTNOSUPPORT);
    int fd = Sys().socket(AF_INET, sysType | SOCK_CLOEXEC, protocol);
    if (fd < 0) return fail(error, errno);
    fd = avoidZero(fd);
    if (fd < 0) return fail(error, errno);
#ifdef SO_NOSIGPIPE
    int on = 1;
    Sys().setsockopt(fd, SOL_SOCKET, SO_NOSIGPIPE, &on, sizeof on);
#endif
    return fd;
}

int OsClose(int fd, int& error) {
    // After close, the descriptor is gone even when close reports EINTR; retrying could close another
    // thread's new descriptor.
    if (Sys().close(fd) != 0 && errno != EINTR) return fail(error, errno);
    return 0;
}

int OsShutdown(int fd, int how, int& error) {
    int sysHow = how == 0 ? SHUT_RD : how == 1 ? SHUT_WR : how == 2 ? SHUT_RDWR : -1;
    if (sysHow < 0) return fail(error, EINVAL);
    return Sys().shutdown(fd, sysHow) == 0 ? 0 : fail(error, errno);
}

int OsBind(int fd, const Endpoint& at, int& error) {
    sockaddr_in sa = toSystem(at);
    return Sys().bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0 ? 0 : fail(error, errno);
}

int OsListen(int fd, int backlog, int& error) {
    return Sys().listen(fd, backlog) == 0 ? 0 : fail(error, errno);
}

int OsAccept(int fd, Endpoint* peer, int& error) {
    sockaddr_storage ss{};
    socklen_t len = sizeof ss;
    int client = Sys().accept4(fd, reinterpret_cast<sockaddr*>(&ss), &len, SOCK_CLOEXEC);
    if (client < 0) return fail(error, errno);
    client = avoidZero(client);
    if (client < 0) return fail(error, errno);
    if (peer) *peer = fromSystem(ss);
    return client;
}

int OsConnect(int fd, const Endpoint& to, int& error) {
    // Windows gives up on an unanswered connect after about 21 seconds (three tries); the system's own
    // limit is minutes. The connect runs non-blocking under our limit, then the socket goes back to
    // blocking.
    const int flags = Sys().fcntl(fd, F_GETFL, 0);
    if (flags < 0) return fail(error, errno);
    if (flags & O_NONBLOCK) {
        // The caller waits for the outcome itself, as a Windows caller of a non-blocking connect does.
        sockaddr_in sa = toSystem(to);
        if (Sys().connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0) return 0;
        if (errno == EINPROGRESS || errno == EINTR) {
            error = 10035;
            return -1;
        }
        return fail(error, errno);
    }
    if (Sys().fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0) return fail(error, errno);
    const auto restore = [&](int result) {
        Sys().fcntl(fd, F_SETFL, flags);
        return result;
    };
    sockaddr_in sa = toSystem(to);
    if (Sys().connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0) return restore(0);
    if (errno != EINPROGRESS && errno != EINTR) return restore(fail(error, errno));
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::milliseconds(g_connectLimitMs.load());
    pollfd p{fd, POLLOUT, 0};
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        const int r = Sys().poll(&p, 1, left <= 0 ? 0 : static_cast<int>(std::min<long long>(left, INT_MAX)));
        if (r > 0) break;
        if (r == 0) {
            error = 10060;
            return restore(-1);
        }
        if (errno != EINTR) return restore(fail(error, errno));
    }
    int soError = 0;
    socklen_t len = sizeof soError;
    if (Sys().getsockopt(fd, SOL_SOCKET, SO_ERROR, &soError, &len) != 0) return restore(fail(error, errno));
    return restore(soError == 0 ? 0 : fail(error, soError));
}

void SetConnectLimit(int milliseconds) { g_connectLimitMs = milliseconds; }

int OsSetNonBlocking(int fd, bool on, int& error) {
    const int flags = Sys().fcntl(fd, F_GETFL, 0);
    if (flags < 0) return fail(error, errno);
    const int wanted = on ? flags | O_NONBLOCK : flags & ~O_NONBLOCK;
    if (wanted != flags && Sys().fcntl(fd, F_SETFL, wanted) != 0) return fail(error, errno);
    return 0;
}

long OsSend(int fd, const char* data, int length, int flags, int& error) {
    for (;;) {
        ssize_t n = Sys().send(fd, data, static_cast<size_t>(length), sysFlags(flags));
        if (n >= 0) return static_cast<long>(n);
        if (errno != EINTR) return failTransfer(fd, error, errno, flags);
    }
}

long OsRecv(int fd, char* data, int length, int flags, int& error) {
    for (;;) {
        ssize_t n = Sys().recv(fd, data, static_cast<size_t>(length), sysFlags(flags));
        if (n >= 0) return static_cast<long>(n);
        if (errno != EINTR) return failTransfer(fd, error, errno, flags);
    }
}

long OsSendTo(int fd, const char* data, int length, int flags, const Endpoint& to, int& error) {
    sockaddr_in sa = toSystem(to);
    for (;;) {
        ssize_t n = Sys().sendto(fd, data, static_cast<size_t>(length), sysFlags(flags),
                                 reinterpret_cast<sockaddr*>(&sa), sizeof sa);
        if (n >= 0) return static_cast<long>(n);
        if (errno != EINTR) return failTransfer(fd, error, errno);
    }
}

long OsRecvFrom(int fd, char* data, int length, int flags, Endpoint* from, int& error) {
    for (;;) {
        sockaddr_storage ss{};
        socklen_t len = sizeof ss;
        // A datagram longer than the buffer is cut and reported, as Windows does with WSAEMSGSIZE.
        ssize_t n = Sys().recvfrom(fd, data, static_cast<size_t>(length), sysFlags(flags) | MSG_TRUNC,
                                   reinterpret_cast<sockaddr*>(&ss), &len);
        if (n >= 0) {
            if (from) *from = fromSystem(ss);
            int type = 0;
            socklen_t tlen = sizeof type;
            if (n > length && Sys().getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &tlen) == 0 &&
                type == SOCK_DGRAM)
                return fail(error, EMSGSIZE);
            return static_cast<long>(n);
        }
        if (errno != EINTR) return failTransfer(fd, error, errno);
    }
}

int OsPeerName(int fd, Endpoint& peer, int& error) {
    sockaddr_storage ss{};
    socklen_t len = sizeof ss;
    if (Sys().getpeername(fd, reinterpret_cast<sockaddr*>(&ss), &len) != 0) return fail(error, errno);
    peer = fromSystem(ss);
    return 0;
}

int OsSockName(int fd, Endpoint& local, int& error) {
    sockaddr_storage ss{};
    socklen_t len = sizeof ss;
    if (Sys().getsockname(fd, reinterpret_cast<sockaddr*>(&ss), &len) != 0) return fail(error, errno);
    local = fromSystem(ss);
    return 0;
}

int OsSetOption(int fd, int level, int name, int value, int& error) {
    int sysLevel = 0, sysName = 0;
    if (!sysOption(level, name, sysLevel, sysName)) return fail(error, ENOPROTOOPT);
    if (isTimeOption(sysName)) {
        const unsigned ms = static_cast<unsigned>(value);
        timeval tv{static_cast<time_t>(ms / 1000), static_cast<suseconds_t>(ms % 1000 * 1000)};
        return Sys().setsockopt(fd, sysLevel, sysName, &tv, sizeof tv) == 0 ? 0 : fail(error, errno);
    }
    return Sys().setsockopt(fd, sysLevel, sysName, &value, sizeof value) == 0 ? 0 : fail(error, errno);
}

int OsGetOption(int fd, int level, int name, int& value, int& error) {
    int sysLevel = 0, sysName = 0;
    if (!sysOption(level, name, sysLevel, sysName)) return fail(error, ENOPROTOOPT);
    if (isTimeOption(sysName)) {
        timeval tv{};
        socklen_t len = sizeof tv;
        if (Sys().getsockopt(fd, sysLevel, sysName, &tv, &len) != 0) return fail(error, errno);
        value = static_cast<int>(tv.tv_sec * 1000 + tv.tv_usec / 1000);
        return 0;
    }
    socklen_t len = sizeof value;
    if (Sys().getsockopt(fd, sysLevel, sysName, &value, &len) != 0) return fail(error, errno);
    if (sysName == SO_ERROR && value != 0) value = WsaFromErrno(value);
    if (sysName == SO_TYPE) value = value == SOCK_DGRAM ? kSockDgram : kSockStream;
    return 0;
}

int OsWait(int fd, bool forWrite, long seconds, long microseconds, int& error) {
    using Clock = std::chrono::steady_clock;
    const bool forever = seconds < 0;
    const auto deadline = Clock::now() + std::chrono::seconds(forever ? 0 : seconds) +
                          std::chrono::microseconds(forever ? 0 : microseconds);
    pollfd p{fd, static_cast<short>(forWrite ? POLLOUT : POLLIN), 0};
    for (;;) {
        int ms = -1;
        if (!forever) {
            auto left =
                std::chrono::duration_cast<std::chrono::microseconds>(deadline - Clock::now()).count();
            // Round up so that a short wait is never a busy loop of zero-length polls.
            ms = left <= 0 ? 0 : static_cast<int>(std::min<long long>((left + 999) / 1000, INT_MAX));
        }
        int r = Sys().poll(&p, 1, ms);
        if (r > 0) {
            if (p.revents & POLLNVAL) return fail(error, EBADF);
            return 1;  // POLLHUP and POLLERR count as ready, so the following call reports what happened
        }
        if (r == 0) return 0;
        if (errno != EINTR) return fail(error, errno);
    }
}

int OsHostByName(const char* name, HostInfo& out, int& error) {
    out = HostInfo{};
    if (reservedInvalidName(name)) {
        error = 11001;
        return -1;
    }
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_CANONNAME;
    addrinfo* list = nullptr;
    int rc = Sys().getaddrinfo(name, nullptr, &hints, &list);
    if (rc != 0) {
        error = WsaFromResolver(rc, errno);
        return -1;
    }
    out.name = list->ai_canonname ? list->ai_canonname : name;
    for (addrinfo* ai = list; ai; ai = ai->ai_next) {
        if (ai->ai_family != AF_INET) continue;
        std::uint32_t a = reinterpret_cast<const sockaddr_in*>(ai->ai_addr)->sin_addr.s_addr;
        bool seen = false;
        for (std::uint32_t b : out.addrs) seen = seen || a == b;
        if (!seen) out.addrs.push_back(a);
    }
    Sys().freeaddrinfo(list);
    if (out.addrs.empty()) {
        error = 11004;
        return -1;
    }
    if (out.name != name) out.aliases.push_back(name);
    return 0;
}

int OsHostByAddr(std::uint32_t addr, HostInfo& out, int& error) {
    out = HostInfo{};
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = addr;
    char host[NI_MAXHOST];
    int rc = Sys().getnameinfo(reinterpret_cast<sockaddr*>(&sa), sizeof sa, host, sizeof host, nullptr, 0,
                               NI_NAMEREQD);
    if (rc != 0) {
        error = WsaFromResolver(rc, errno);
        return -1;
    }
    out.name = host;
    out.addrs.push_back(addr);
    return 0;
}

int OsHostName(std::string& out, int& error) {
    char buf[256] = {};
    if (Sys().gethostname(buf, sizeof buf - 1) != 0) return fail(error, errno);
    out = buf;
    return 0;
}

}  // namespace tavik::platform::net
