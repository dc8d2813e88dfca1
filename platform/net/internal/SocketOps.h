// The narrow interface between the Windows Sockets names (Winsock.cpp) and one operating system's socket
// calls (WinsockPosix.cpp). Only plain types cross it, so neither side sees the other's declarations.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace tavik::platform::net {

// An IPv4 endpoint, both fields in network order.
struct Endpoint {
    std::uint32_t addr = 0;
    std::uint16_t port = 0;
};

struct HostInfo {
    std::string name;
    std::vector<std::string> aliases;
    std::vector<std::uint32_t> addrs;  // network order, first address first
};

// Every call returns a value >= 0 on success; on failure it returns -1 and stores the Windows Sockets
// code in error. Constants (families, types, flags, options, shutdown directions) are the Windows values.
int OsSocket(int af, int type, int protocol, int& error);
int OsClose(int fd, int& error);
int OsShutdown(int fd, int how, int& error);
int OsBind(int fd, const Endpoint& at, int& error);
int OsListen(int fd, int backlog, int& error);
int OsAccept(int fd, Endpoint* peer, int& error);
// Gives up with WSAETIMEDOUT after the connect limit (21 seconds, as Windows). A non-blocking socket
// gets WSAEWOULDBLOCK at once while the connection is being made.
int OsConnect(int fd, const Endpoint& to, int& error);
int OsSetNonBlocking(int fd, bool on, int& error);
// For tests: the connect limit in milliseconds.
void SetConnectLimit(int milliseconds);
// Beside the Windows flags: a transfer that never waits, failing with WSAEWOULDBLOCK instead.
constexpr int kMsgDontWait = 0x40000000;
long OsSend(int fd, const char* data, int length, int flags, int& error);
long OsRecv(int fd, char* data, int length, int flags, int& error);
long OsSendTo(int fd, const char* data, int length, int flags, const Endpoint& to, int& error);
long OsRecvFrom(int fd, char* data, int length, int flags, Endpoint* from, int& error);
int OsPeerName(int fd, Endpoint& peer, int& error);
int OsSockName(int fd, Endpoint& local, int& error);
int OsSetOption(int fd, int level, int name, int value, int& error);
int OsGetOption(int fd, int level, int name, int& value, int& error);
// 1 ready, 0 limit passed, -1 failure. Negative seconds waits without limit.
int OsWait(int fd, bool forWrite, long seconds, long microseconds, int& error);
int OsHostByName(const char* name, HostInfo& out, int& error);
int OsHostByAddr(std::uint32_t addr, HostInfo& out, int& error);
int OsHostName(std::string& out, int& error);

// The translation from resolver results to Windows Sockets codes, exposed so that a test can walk it;
// system error numbers go through the platform's one errno table (platform/internal/OsErrors.h).
struct CodeRow {
    int from;
    int to;
    const char* what;
};
std::span<const CodeRow> ResolverTable();
// Codes not in the tables become WSASYSCALLFAILURE, so an unexpected failure is still a failure.
int WsaFromErrno(int err);
int WsaFromResolver(int result, int savedErrno);

}  // namespace tavik::platform::net
