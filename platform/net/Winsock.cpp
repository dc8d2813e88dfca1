// The Windows Sockets names: argument checks, the start-up count, address parsing and the per-thread
// look-up results are the same on every system; the system calls themselves are behind SocketOps.h.
#include "platform/Winsock.h"

#include <array>
#include <atomic>
#include <cctype>
#include <climits>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/net/internal/SocketOps.h"
#include "platform/net/internal/TlsChannel.h"

using tavik::platform::net::Endpoint;
using tavik::platform::net::HostInfo;

namespace {

std::atomic<int> g_startups{0};

// The blocking clients set a send or receive time-out before every transfer, almost always to the value
// it already has; remembering the last value set on each socket spares a system call per transfer.
// Entries are dropped when a descriptor is made or closed, so a reused number never inherits one.
class TimeoutCache {
public:
    bool Same(int fd, int option, int value) {
        std::lock_guard lock(m_mutex);
        auto it = m_values.find(key(fd, option));
        return it != m_values.end() && it->second == value;
    }
    int Get(int fd, int option) {
        std::lock_guard lock(m_mutex);
        auto it = m_values.find(key(fd, option));
        return it == m_values.end() ? 0 : it->second;
    }
    void Remember(int fd, int option, int value) {
        std::lock_guard lock(m_mutex);
        m_values[key(fd, option)] = value;
    }
    void Forget(int fd) {
        std::lock_guard lock(m_mutex);
        m_values.erase(key(fd, SO_SNDTIMEO));
        m_values.erase(key(fd, SO_RCVTIMEO));
    }

private:
    static long long key(int fd, int option) { return (static_cast<long long>(fd) << 16) | option; }
    std::mutex m_mutex;
    std::unordered_map<long long, int> m_values;
};

TimeoutCache& timeouts() {
    static TimeoutCache cache;
    return cache;
}

int failWith(int error) {
    WSASetLastError(error);
    return SOCKET_ERROR;
}

bool started() {
    if (g_startups.load() > 0) return true;
    WSASetLastError(WSANOTINITIALISED);
    return false;
}

// Our handles are the system's descriptors; anything that cannot be one is "not a socket".
bool usable(SOCKET s, int& fd) {
    if (!started()) return false;
    if (s == 0 || s > static_cast<SOCKET>(INT_MAX)) {
        WSASetLastError(WSAENOTSOCK);
        return false;
    }
    fd = static_cast<int>(s);
    return true;
}

bool readAddress(const sockaddr* name, int namelen, Endpoint& e) {
    if (!name || namelen < static_cast<int>(sizeof(sockaddr_in))) {
        WSASetLastError(WSAEFAULT);
        return false;
    }
    sockaddr_in sa;
    std::memcpy(&sa, name, sizeof sa);
    if (sa.sin_family != AF_INET) {
        WSASetLastError(WSAEAFNOSUPPORT);
        return false;
    }
    e.addr = sa.sin_addr.s_addr;
    e.port = sa.sin_port;
    return true;
}

bool roomForAddress(const sockaddr* name, const int* namelen) {
    if (name && (!namelen || *namelen < static_cast<int>(sizeof(sockaddr_in)))) {
        WSASetLastError(WSAEFAULT);
        return false;
    }
    return true;
}

void writeAddress(const Endpoint& e, sockaddr* name, int* namelen) {
    if (!name) return;
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = e.port;
    sa.sin_addr.s_addr = e.addr;
    std::memcpy(name, &sa, sizeof sa);
    *namelen = sizeof sa;
}

bool validBuffer(const char* buf, int len) {
    if (len < 0 || (!buf && len > 0)) {
        WSASetLastError(len < 0 ? WSAEINVAL : WSAEFAULT);
        return false;
    }
    return true;
}

// The storage behind the hostent a look-up returns; one per thread, as Windows keeps it.
struct HostStore {
    HostInfo info;
    std::vector<char*> aliasPtrs;
    std::vector<std::array<char, 4>> addrBytes;
    std::vector<char*> addrPtrs;
    hostent entry{};
};
thread_local HostStore t_host;

hostent* publish(HostInfo&& info) {
    HostStore& h = t_host;
    h.info = std::move(info);
    h.aliasPtrs.clear();
    for (std::string& a : h.info.aliases) h.aliasPtrs.push_back(a.data());
    h.aliasPtrs.push_back(nullptr);
    h.addrBytes.assign(h.info.addrs.size(), {});
    h.addrPtrs.clear();
    for (size_t i = 0; i < h.info.addrs.size(); ++i) {
        std::memcpy(h.addrBytes[i].data(), &h.info.addrs[i], 4);
        h.addrPtrs.push_back(h.addrBytes[i].data());
    }
    h.addrPtrs.push_back(nullptr);
    h.entry.h_name = h.info.name.data();
    h.entry.h_aliases = h.aliasPtrs.data();
    h.entry.h_addrtype = AF_INET;
    h.entry.h_length = 4;
    h.entry.h_addr_list = h.addrPtrs.data();
    return &h.entry;
}

int digitValue(char c, int base) {
    int v = std::isdigit(static_cast<unsigned char>(c)) ? c - '0'
            : std::isxdigit(static_cast<unsigned char>(c))
                ? std::tolower(static_cast<unsigned char>(c)) - 'a' + 10
                : 99;
    return v < base ? v : -1;
}

struct NamedCode {
    int code;
    const char* name;
};
constexpr NamedCode kNames[] = {
    {WSAEINTR, "WSAEINTR"},
    {WSAEBADF, "WSAEBADF"},
    {WSAEACCES, "WSAEACCES"},
    {WSAEFAULT, "WSAEFAULT"},
    {WSAEINVAL, "WSAEINVAL"},
    {WSAEMFILE, "WSAEMFILE"},
    {WSAEWOULDBLOCK, "WSAEWOULDBLOCK"},
    {WSAEINPROGRESS, "WSAEINPROGRESS"},
    {WSAEALREADY, "WSAEALREADY"},
    {WSAENOTSOCK, "WSAENOTSOCK"},
    {WSAEDESTADDRREQ, "WSAEDESTADDRREQ"},
    {WSAEMSGSIZE, "WSAEMSGSIZE"},
    {WSAEPROTOTYPE, "WSAEPROTOTYPE"},
    {WSAENOPROTOOPT, "WSAENOPROTOOPT"},
    {WSAEPROTONOSUPPORT, "WSAEPROTONOSUPPORT"},
    {WSAESOCKTNOSUPPORT, "WSAESOCKTNOSUPPORT"},
    {WSAEOPNOTSUPP, "WSAEOPNOTSUPP"},
    {WSAEPFNOSUPPORT, "WSAEPFNOSUPPORT"},
    {WSAEAFNOSUPPORT, "WSAEAFNOSUPPORT"},
    {WSAEADDRINUSE, "WSAEADDRINUSE"},
    {WSAEADDRNOTAVAIL, "WSAEADDRNOTAVAIL"},
    {WSAENETDOWN, "WSAENETDOWN"},
    {WSAENETUNREACH, "WSAENETUNREACH"},
    {WSAENETRESET, "WSAENETRESET"},
    {WSAECONNABORTED, "WSAECONNABORTED"},
    {WSAECONNRESET, "WSAECONNRESET"},
    {WSAENOBUFS, "WSAENOBUFS"},
    {WSAEISCONN, "WSAEISCONN"},
    {WSAENOTCONN, "WSAENOTCONN"},
    {WSAESHUTDOWN, "WSAESHUTDOWN"},
    {WSAETOOMANYREFS, "WSAETOOMANYREFS"},
    {WSAETIMEDOUT, "WSAETIMEDOUT"},
    {WSAECONNREFUSED, "WSAECONNREFUSED"},
    {WSAELOOP, "WSAELOOP"},
    {WSAENAMETOOLONG, "WSAENAMETOOLONG"},
    {WSAEHOSTDOWN, "WSAEHOSTDOWN"},
    {WSAEHOSTUNREACH, "WSAEHOSTUNREACH"},
    {WSAENOTEMPTY, "WSAENOTEMPTY"},
    {WSAEPROCLIM, "WSAEPROCLIM"},
    {WSAEUSERS, "WSAEUSERS"},
    {WSAEDQUOT, "WSAEDQUOT"},
    {WSAESTALE, "WSAESTALE"},
    {WSAEREMOTE, "WSAEREMOTE"},
    {WSASYSNOTREADY, "WSASYSNOTREADY"},
    {WSAVERNOTSUPPORTED, "WSAVERNOTSUPPORTED"},
    {WSANOTINITIALISED, "WSANOTINITIALISED"},
    {WSAEDISCON, "WSAEDISCON"},
    {WSASYSCALLFAILURE, "WSASYSCALLFAILURE"},
    {WSATYPE_NOT_FOUND, "WSATYPE_NOT_FOUND"},
    {WSAHOST_NOT_FOUND, "WSAHOST_NOT_FOUND"},
    {WSATRY_AGAIN, "WSATRY_AGAIN"},
    {WSANO_RECOVERY, "WSANO_RECOVERY"},
    {WSANO_DATA, "WSANO_DATA"},
};

}  // namespace

int WSAStartup(WORD versionRequested, WSADATA* data) {
    const int major = versionRequested & 0xff;
    if (major == 0) return WSAVERNOTSUPPORTED;
    if (data) {
        std::memset(data, 0, sizeof *data);
        const int minor = versionRequested >> 8;
        data->wVersion = (major > 2 || (major == 2 && minor > 2)) ? 0x0202 : versionRequested;
        data->wHighVersion = 0x0202;
        std::snprintf(data->szDescription, sizeof data->szDescription, "Windows Sockets 2.2 over POSIX");
        std::snprintf(data->szSystemStatus, sizeof data->szSystemStatus, "Running");
    }
    ++g_startups;
    return 0;
}

int WSACleanup() {
    int n = g_startups.load();
    while (n > 0)
        if (g_startups.compare_exchange_weak(n, n - 1)) return 0;
    return failWith(WSANOTINITIALISED);
}

int WSAGetLastError() { return static_cast<int>(GetLastError()); }
void WSASetLastError(int error) { SetLastError(static_cast<DWORD>(error)); }

SOCKET socket(int af, int type, int protocol) {
    if (!started()) return INVALID_SOCKET;
    int error = 0;
    int fd = tavik::platform::net::OsSocket(af, type, protocol, error);
    if (fd < 0) {
        WSASetLastError(error);
        return INVALID_SOCKET;
    }
    timeouts().Forget(fd);
    tavik::platform::net::TlsForget(fd);
    return static_cast<SOCKET>(fd);
}

int closesocket(SOCKET s) {
    int fd = 0, error = 0;
    if (!usable(s, fd)) return SOCKET_ERROR;
    timeouts().Forget(fd);
    tavik::platform::net::TlsClose(fd);
    return tavik::platform::net::OsClose(fd, error) == 0 ? 0 : failWith(error);
}

int shutdown(SOCKET s, int how) {
    int fd = 0, error = 0;
    if (!usable(s, fd)) return SOCKET_ERROR;
    return tavik::platform::net::OsShutdown(fd, how, error) == 0 ? 0 : failWith(error);
}

int bind(SOCKET s, const sockaddr* name, int namelen) {
    int fd = 0, error = 0;
    Endpoint e;
    if (!usable(s, fd) || !readAddress(name, namelen, e)) return SOCKET_ERROR;
    return tavik::platform::net::OsBind(fd, e, error) == 0 ? 0 : failWith(error);
}

int listen(SOCKET s, int backlog) {
    int fd = 0, error = 0;
    if (!usable(s, fd)) return SOCKET_ERROR;
    return tavik::platform::net::OsListen(fd, backlog, error) == 0 ? 0 : failWith(error);
}

SOCKET accept(SOCKET s, sockaddr* addr, int* addrlen) {
    int fd = 0, error = 0;
    if (!usable(s, fd) || !roomForAddress(addr, addrlen)) return INVALID_SOCKET;
    Endpoint peer;
    int client = tavik::platform::net::OsAccept(fd, &peer, error);
    if (client < 0) {
        WSASetLastError(error);
        return INVALID_SOCKET;
    }
    timeouts().Forget(client);
    tavik::platform::net::TlsForget(client);
    writeAddress(peer, addr, addrlen);
    return static_cast<SOCKET>(client);
}

int connect(SOCKET s, const sockaddr* name, int namelen) {
    int fd = 0, error = 0;
    Endpoint e;
    if (!usable(s, fd) || !readAddress(name, namelen, e)) return SOCKET_ERROR;
    return tavik::platform::net::OsConnect(fd, e, error) == 0 ? 0 : failWith(error);
}

int send(SOCKET s, const char* buf, int len, int flags) {
    int fd = 0, error = 0;
    if (!usable(s, fd) || !validBuffer(buf, len)) return SOCKET_ERROR;
    if (tavik::platform::net::TlsAttached(fd)) {
        if (flags != 0) return failWith(WSAEOPNOTSUPP);
        long n = tavik::platform::net::TlsSend(fd, buf, len, error);
        return n < 0 ? failWith(error) : static_cast<int>(n);
    }
    long n = tavik::platform::net::OsSend(fd, buf, len, flags, error);
    return n < 0 ? failWith(error) : static_cast<int>(n);
}

int recv(SOCKET s, char* buf, int len, int flags) {
    int fd = 0, error = 0;
    if (!usable(s, fd) || !validBuffer(buf, len)) return SOCKET_ERROR;
    if (tavik::platform::net::TlsAttached(fd)) {
        if (flags != 0) return failWith(WSAEOPNOTSUPP);
        long n = tavik::platform::net::TlsRecv(fd, buf, len, error);
        return n < 0 ? failWith(error) : static_cast<int>(n);
    }
    long n = tavik::platform::net::OsRecv(fd, buf, len, flags, error);
    return n < 0 ? failWith(error) : static_cast<int>(n);
}

int sendto(SOCKET s, const char* buf, int len, int flags, const sockaddr* to, int tolen) {
    int fd = 0, error = 0;
    Endpoint e;
    if (!usable(s, fd) || !validBuffer(buf, len) || !readAddress(to, tolen, e)) return SOCKET_ERROR;
    long n = tavik::platform::net::OsSendTo(fd, buf, len, flags, e, error);
    return n < 0 ? failWith(error) : static_cast<int>(n);
}

int recvfrom(SOCKET s, char* buf, int len, int flags, sockaddr* from, int* fromlen) {
    int fd = 0, error = 0;
    if (!usable(s, fd) || !validBuffer(buf, len) || !roomForAddress(from, fromlen)) return SOCKET_ERROR;
    Endpoint peer;
    long n = tavik::platform::net::OsRecvFrom(fd, buf, len, flags, &peer, error);
    if (n < 0) return failWith(error);
    writeAddress(peer, from, fromlen);
    return static_cast<int>(n);
}

int getpeername(SOCKET s, sockaddr* name, int* namelen) {
    int fd = 0, error = 0;
    Endpoint e;
    if (!usable(s, fd)) return SOCKET_ERROR;
    if (!name || !roomForAddress(name, namelen)) return failWith(WSAEFAULT);
    if (tavik::platform::net::OsPeerName(fd, e, error) != 0) return failWith(error);
    writeAddress(e, name, namelen);
    return 0;
}

int getsockname(SOCKET s, sockaddr* name, int* namelen) {
    int fd = 0, error = 0;
    Endpoint e;
    if (!usable(s, fd)) return SOCKET_ERROR;
    if (!name || !roomForAddress(name, namelen)) return failWith(WSAEFAULT);
    if (tavik::platform::net::OsSockName(fd, e, error) != 0) return failWith(error);
    writeAddress(e, name, namelen);
    return 0;
}

int setsockopt(SOCKET s, int level, int optname, const char* optval, int optlen) {
    int fd = 0, error = 0;
    if (!usable(s, fd)) return SOCKET_ERROR;
    // Windows takes a one-byte BOOL too.
    if (!optval || optlen < 1) return failWith(WSAEFAULT);
    int value = 0;
    if (optlen >= static_cast<int>(sizeof value))
        std::memcpy(&value, optval, sizeof value);
    else
        value = static_cast<unsigned char>(optval[0]);
    const bool timeout = level == SOL_SOCKET && (optname == SO_SNDTIMEO || optname == SO_RCVTIMEO);
    if (timeout && timeouts().Same(fd, optname, value)) return 0;
    if (tavik::platform::net::OsSetOption(fd, level, optname, value, error) != 0) return failWith(error);
    if (timeout) timeouts().Remember(fd, optname, value);
    return 0;
}

int getsockopt(SOCKET s, int level, int optname, char* optval, int* optlen) {
    int fd = 0, error = 0, value = 0;
    if (!usable(s, fd)) return SOCKET_ERROR;
    if (!optval || !optlen || *optlen < static_cast<int>(sizeof value)) return failWith(WSAEFAULT);
    if (tavik::platform::net::OsGetOption(fd, level, optname, value, error) != 0) return failWith(error);
    std::memcpy(optval, &value, sizeof value);
    *optlen = sizeof value;
    return 0;
}

int ioctlsocket(SOCKET s, long cmd, ULONG* argp) {
    int fd = 0, error = 0;
    if (!usable(s, fd)) return SOCKET_ERROR;
    if (!argp) return failWith(WSAEFAULT);
    if (cmd != FIONBIO) return failWith(WSAEINVAL);
    if (tavik::platform::net::TlsAttached(fd)) return failWith(WSAEOPNOTSUPP);
    return tavik::platform::net::OsSetNonBlocking(fd, *argp != 0, error) == 0 ? 0 : failWith(error);
}

int WaitForSocket(SOCKET s, int what, long seconds, long microseconds) {
    int fd = 0, error = 0;
    if (!usable(s, fd)) return SOCKET_ERROR;
    if (what != SOCKET_WAIT_READ && what != SOCKET_WAIT_WRITE) return failWith(WSAEINVAL);
    if (seconds >= 0 && (microseconds < 0 || microseconds >= 1000000)) return failWith(WSAEINVAL);
    if (what == SOCKET_WAIT_READ && tavik::platform::net::TlsReadable(fd)) return 1;
    int r = tavik::platform::net::OsWait(fd, what == SOCKET_WAIT_WRITE, seconds, microseconds, error);
    return r < 0 ? failWith(error) : r;
}

hostent* gethostbyname(const char* name) {
    if (!started()) return nullptr;
    if (!name) {
        WSASetLastError(WSAEFAULT);
        return nullptr;
    }
    HostInfo info;
    int error = 0;
    if (tavik::platform::net::OsHostByName(name, info, error) != 0) {
        WSASetLastError(error);
        return nullptr;
    }
    return publish(std::move(info));
}

hostent* gethostbyaddr(const char* addr, int len, int type) {
    if (!started()) return nullptr;
    if (!addr || len < 4) {
        WSASetLastError(WSAEFAULT);
        return nullptr;
    }
    if (type != AF_INET || len != 4) {
        WSASetLastError(WSAEAFNOSUPPORT);
        return nullptr;
    }
    std::uint32_t a = 0;
    std::memcpy(&a, addr, 4);
    HostInfo info;
    int error = 0;
    if (tavik::platform::net::OsHostByAddr(a, info, error) != 0) {
        WSASetLastError(error);
        return nullptr;
    }
    return publish(std::move(info));
}

int gethostname(char* name, int namelen) {
    if (!started()) return SOCKET_ERROR;
    if (!name || namelen <= 0) return failWith(WSAEFAULT);
    std::string host;
    int error = 0;
    if (tavik::platform::net::OsHostName(host, error) != 0) return failWith(error);
    if (static_cast<int>(host.size()) + 1 > namelen) return failWith(WSAEFAULT);
    std::memcpy(name, host.c_str(), host.size() + 1);
    return 0;
}

ULONG inet_addr(const char* cp) {
    if (!cp) return INADDR_NONE;
    unsigned long long parts[4] = {};
    int count = 0;
    const char* p = cp;
    for (;;) {
        if (!std::isdigit(static_cast<unsigned char>(*p))) return INADDR_NONE;
        int base = 10;
        if (*p == '0') {
            base = 8;
            ++p;
            if (*p == 'x' || *p == 'X') {
                base = 16;
                ++p;
            }
        }
        unsigned long long v = 0;
        for (int d; (d = digitValue(*p, base)) >= 0; ++p) {
            v = v * static_cast<unsigned>(base) + static_cast<unsigned>(d);
            if (v > 0xffffffffull) return INADDR_NONE;
        }
        if (std::isxdigit(static_cast<unsigned char>(*p)) && base != 16) return INADDR_NONE;  // "08", "1a"
        parts[count++] = v;
        if (*p != '.') break;
        if (count == 4) return INADDR_NONE;
        ++p;
    }
    while (*p == ' ' || *p == '\t') ++p;
    if (*p != '\0') return INADDR_NONE;
    // The last part fills all the bytes the earlier parts leave.
    static constexpr unsigned long long kLastMax[] = {0xffffffffull, 0xffffffull, 0xffffull, 0xffull};
    if (parts[count - 1] > kLastMax[count - 1]) return INADDR_NONE;
    unsigned long long host = parts[count - 1];
    for (int i = 0; i < count - 1; ++i) {
        if (parts[i] > 0xff) return INADDR_NONE;
        host |= parts[i] << (24 - 8 * i);
    }
    return htonl(static_cast<ULONG>(host));
}

char* inet_ntoa(in_addr in) {
    thread_local char text[16];
    const auto& b = in.S_un.S_un_b;
    std::snprintf(text, sizeof text, "%u.%u.%u.%u", b.s_b1, b.s_b2, b.s_b3, b.s_b4);
    return text;
}

namespace tavik::platform::net {

bool UsableSocket(std::uintptr_t s, int& fd) { return usable(static_cast<SOCKET>(s), fd); }
int CachedTimeout(int fd, bool sending) { return timeouts().Get(fd, sending ? SO_SNDTIMEO : SO_RCVTIMEO); }

}  // namespace tavik::platform::net

const char* WSAErrorName(int error) {
    for (const NamedCode& n : kNames)
        if (n.code == error) return n.name;
    return nullptr;
}
