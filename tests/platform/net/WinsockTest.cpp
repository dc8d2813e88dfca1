#include "platform/Winsock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "platform/internal/SystemCalls.h"
#include "platform/net/internal/SocketOps.h"

namespace {

class Started : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(WSAStartup(0x0101, nullptr), 0); }
    void TearDown() override { WSACleanup(); }

    static sockaddr_in loopback(USHORT port) {
        sockaddr_in sa{};
        sa.sin_family = AF_INET;
        sa.sin_port = htons(port);
        sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return sa;
    }

    // A listening socket on 127.0.0.1 with a port chosen by the system.
    static SOCKET listener(USHORT& port, int backlog = 5) {
        SOCKET s = socket(AF_INET, SOCK_STREAM, 0);
        EXPECT_NE(s, INVALID_SOCKET);
        sockaddr_in sa = loopback(0);
        EXPECT_EQ(bind(s, reinterpret_cast<sockaddr*>(&sa), sizeof sa), 0);
        EXPECT_EQ(listen(s, backlog), 0);
        int len = sizeof sa;
        EXPECT_EQ(getsockname(s, reinterpret_cast<sockaddr*>(&sa), &len), 0);
        port = ntohs(sa.sin_port);
        return s;
    }

    // A connected pair over loopback.
    static void pair(SOCKET& client, SOCKET& server) {
        USHORT port = 0;
        SOCKET l = listener(port);
        client = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in sa = loopback(port);
        ASSERT_EQ(connect(client, reinterpret_cast<sockaddr*>(&sa), sizeof sa), 0);
        server = accept(l, nullptr, nullptr);
        ASSERT_NE(server, INVALID_SOCKET);
        closesocket(l);
    }
};

// Stand-ins for the system's calls: each interrupted call fails with EINTR, then goes through when made
// again (the signal has been handled).
std::atomic<int> g_interruptions{0};
thread_local bool t_retrying = false;
bool Interrupted() {
    t_retrying = !t_retrying;
    if (!t_retrying) return false;
    ++g_interruptions;
    errno = EINTR;
    return true;
}
const tavik::platform::SystemCalls& Real() { return tavik::platform::RealSystemCalls(); }
// The connection goes on being made, as it does after a real interruption.
int InterruptedConnect(int fd, const struct sockaddr* to, unsigned length) {
    if (Real().connect(fd, to, length) != 0 && errno != EINPROGRESS) return -1;
    ++g_interruptions;
    errno = EINTR;
    return -1;
}
ssize_t InterruptedSend(int fd, const void* data, size_t count, int flags) {
    return Interrupted() ? -1 : Real().send(fd, data, count, flags);
}
ssize_t InterruptedRecv(int fd, void* data, size_t count, int flags) {
    return Interrupted() ? -1 : Real().recv(fd, data, count, flags);
}
int InterruptedPoll(struct pollfd* fds, unsigned long count, int timeout) {
    return Interrupted() ? -1 : Real().poll(fds, count, timeout);
}
int ResolverOffline(const char*, const char*, const struct addrinfo*, struct addrinfo** out) {
    *out = nullptr;
    return -3;  // EAI_AGAIN (netdb.h would clash with the Windows names)
}
ssize_t NoBufferSpace(int, const void*, size_t, int) {
    errno = ENOBUFS;
    return -1;
}

// Real sockets below produce the common codes; an errno with no row must still land on a named code.
TEST(WinsockCodes, UnknownErrorsFallBackAndCodesHaveNames) {
    EXPECT_EQ(tavik::platform::net::WsaFromErrno(EIO), WSASYSCALLFAILURE);
    EXPECT_STREQ(WSAErrorName(WSAHOST_NOT_FOUND), "WSAHOST_NOT_FOUND");
    EXPECT_EQ(WSAErrorName(10059 + 10000), nullptr);
}

TEST(WinsockStartup, IsCountedAndGuardsEveryCall) {
    // Balanced by the fixtures; at this point no start is outstanding.
    WSASetLastError(0);
    EXPECT_EQ(socket(AF_INET, SOCK_STREAM, 0), INVALID_SOCKET);
    EXPECT_EQ(WSAGetLastError(), WSANOTINITIALISED);
    EXPECT_EQ(WSACleanup(), SOCKET_ERROR);
    EXPECT_EQ(WSAStartup(0x0000, nullptr), WSAVERNOTSUPPORTED);

    WSADATA data;
    std::memset(&data, 0xbd, sizeof data);
    ASSERT_EQ(WSAStartup(0x0101, &data), 0);
    EXPECT_EQ(data.wVersion, 0x0101);
    EXPECT_EQ(data.wHighVersion, 0x0202);
    ASSERT_EQ(WSAStartup(0x0202, nullptr), 0);
    EXPECT_EQ(WSACleanup(), 0);
    SOCKET s = socket(AF_INET, SOCK_STREAM, 0);  // one start still outstanding
    EXPECT_NE(s, INVALID_SOCKET);
    EXPECT_EQ(closesocket(s), 0);
    EXPECT_EQ(WSACleanup(), 0);
    EXPECT_EQ(WSACleanup(), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSANOTINITIALISED);
    char name[64];
    EXPECT_EQ(gethostname(name, static_cast<int>(sizeof name)), SOCKET_ERROR);
}

TEST(WinsockAddresses, ParseAndFormatAsWindows) {
    EXPECT_EQ(inet_addr("127.0.0.1"), htonl(0x7f000001u));
    EXPECT_EQ(inet_addr("10.258"), htonl(0x0a000102u));      // a.b: b fills three bytes
    EXPECT_EQ(inet_addr("0x7f.1"), htonl(0x7f000001u));      // hex part
    EXPECT_EQ(inet_addr("010.0.0.1"), htonl(0x08000001u));   // octal part
    EXPECT_EQ(inet_addr("3232235777"), htonl(0xc0a80101u));  // one number
    for (const char* bad : {"", "1.2.3.256", "1.2.3.4.5", "08.1.1.1", "a.b.c.d", "1..2", "1.2.3.4x",
                            "4294967296", "1.2.65536", "-1.2.3.4", "255.255.255.255"})
        EXPECT_EQ(inet_addr(bad), INADDR_NONE) << bad;
    EXPECT_EQ(inet_addr(nullptr), INADDR_NONE);

    in_addr a;
    a.s_addr = inet_addr("192.168.200.7");
    EXPECT_STREQ(inet_ntoa(a), "192.168.200.7");
    EXPECT_EQ(a.S_un.S_un_b.s_b1, 192);  // network order in memory
}

TEST_F(Started, LoopbackStreamCarriesBytesAndReportsClose) {
    SOCKET client = 0, server = 0;
    pair(client, server);

    sockaddr_in peer{}, local{};
    int len = sizeof peer;
    ASSERT_EQ(getpeername(client, reinterpret_cast<sockaddr*>(&peer), &len), 0);
    EXPECT_EQ(len, 16);
    len = sizeof local;
    ASSERT_EQ(getsockname(server, reinterpret_cast<sockaddr*>(&local), &len), 0);
    EXPECT_EQ(peer.sin_port, local.sin_port);
    EXPECT_EQ(peer.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    int tooShort = 8;
    EXPECT_EQ(getpeername(client, reinterpret_cast<sockaddr*>(&peer), &tooShort), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAEFAULT);

    // Nothing waiting: an immediate wait says "not ready" and leaves the last error alone.
    WSASetLastError(1234);
    EXPECT_EQ(WaitForSocket(server, SOCKET_WAIT_READ, 0), 0);
    EXPECT_EQ(WSAGetLastError(), 1234);
    EXPECT_EQ(WaitForSocket(client, SOCKET_WAIT_WRITE, 0), 1);

    ASSERT_EQ(send(client, "hello", 5, 0), 5);
    EXPECT_EQ(WaitForSocket(server, SOCKET_WAIT_READ, 5), 1);
    char buf[16] = {};
    EXPECT_EQ(recv(server, buf, sizeof buf, MSG_PEEK), 5);
    EXPECT_EQ(recv(server, buf, sizeof buf, 0), 5);
    EXPECT_EQ(std::string(buf, 5), "hello");

    // A receive limit ends a blocking receive with the Windows time-out code.
    const DWORD limitMs = 100;
    ASSERT_EQ(
        setsockopt(server, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&limitMs), sizeof limitMs),
        0);
    EXPECT_EQ(recv(server, buf, sizeof buf, 0), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAETIMEDOUT);

    ASSERT_EQ(closesocket(client), 0);
    EXPECT_EQ(WaitForSocket(server, SOCKET_WAIT_READ, 5), 1);
    EXPECT_EQ(recv(server, buf, sizeof buf, 0), 0);

    // Sending into a closed connection fails with a reset code; the process gets no SIGPIPE.
    int result = 0;
    for (int i = 0; i < 100 && result != SOCKET_ERROR; ++i) result = send(server, buf, sizeof buf, 0);
    EXPECT_EQ(result, SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAECONNRESET);
    closesocket(server);
}

TEST_F(Started, FailuresCarryWindowsCodes) {
    USHORT port = 0;
    SOCKET l = listener(port);
    closesocket(l);  // nothing listens there any more

    SOCKET s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in sa = loopback(port);
    EXPECT_EQ(connect(s, reinterpret_cast<sockaddr*>(&sa), sizeof sa), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAECONNREFUSED);
    closesocket(s);
    EXPECT_EQ(closesocket(s), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAENOTSOCK);

    SOCKET a = listener(port);
    SOCKET b = socket(AF_INET, SOCK_STREAM, 0);
    sa = loopback(port);
    EXPECT_EQ(bind(b, reinterpret_cast<sockaddr*>(&sa), sizeof sa), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAEADDRINUSE);
    sa.sin_family = 23;
    EXPECT_EQ(connect(b, reinterpret_cast<sockaddr*>(&sa), sizeof sa), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAEAFNOSUPPORT);
    char c;
    EXPECT_EQ(recv(b, &c, 1, 0), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAENOTCONN);
    closesocket(a);
    closesocket(b);
}

// A listener whose queue is full drops new connection requests, so the next connect goes unanswered and
// must end at the connect limit.
TEST_F(Started, UnansweredConnectTimesOut) {
    USHORT port = 0;
    SOCKET l = listener(port, 0);
    tavik::platform::net::SetConnectLimit(300);
    std::vector<SOCKET> queued;
    int result = 0;
    for (int i = 0; i < 8 && result == 0; ++i) {
        SOCKET c = socket(AF_INET, SOCK_STREAM, 0);
        queued.push_back(c);
        sockaddr_in to = loopback(port);
        result = connect(c, reinterpret_cast<sockaddr*>(&to), sizeof to);
    }
    tavik::platform::net::SetConnectLimit(21000);
    EXPECT_EQ(result, SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAETIMEDOUT);
    // A socket that did connect is blocking again: its receive waits for the limit instead of failing
    // at once with "would block".
    const DWORD limitMs = 50;
    setsockopt(queued[0], SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&limitMs), sizeof limitMs);
    char c;
    EXPECT_EQ(recv(queued[0], &c, 1, 0), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAETIMEDOUT);
    for (SOCKET q : queued) closesocket(q);
    closesocket(l);
}

// The caller of a non-blocking connect waits for it itself: writable when done, SO_ERROR the outcome.
TEST_F(Started, NonBlockingConnectCompletesInTheBackground) {
    auto outcome = [](SOCKET s, USHORT port, long waitMs) {
        ULONG on = 1;
        EXPECT_EQ(ioctlsocket(s, FIONBIO, &on), 0);
        sockaddr_in to = loopback(port);
        if (connect(s, reinterpret_cast<sockaddr*>(&to), sizeof to) == 0) return 0;
        EXPECT_EQ(WSAGetLastError(), WSAEWOULDBLOCK);
        if (WaitForSocket(s, SOCKET_WAIT_WRITE, 0, waitMs * 1000) != 1) return -1;
        int error = -1, len = sizeof error;
        EXPECT_EQ(getsockopt(s, SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&error), &len), 0);
        return error;
    };
    USHORT port = 0;
    SOCKET l = listener(port);
    SOCKET ok = socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_EQ(outcome(ok, port, 900), 0);
    char c;
    EXPECT_EQ(recv(ok, &c, 1, 0), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAEWOULDBLOCK) << "nothing to read yet, and no waiting";
    ULONG off = 0;
    EXPECT_EQ(ioctlsocket(ok, FIONBIO, &off), 0);
    const DWORD limitMs = 50;
    setsockopt(ok, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&limitMs), sizeof limitMs);
    EXPECT_EQ(recv(ok, &c, 1, 0), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAETIMEDOUT) << "blocking again";
    EXPECT_EQ(ioctlsocket(ok, 0x4004667F, &off), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAEINVAL);
    closesocket(ok);
    closesocket(l);

    SOCKET refused = socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_EQ(outcome(refused, port, 900), WSAECONNREFUSED);
    closesocket(refused);

    // A full queue leaves the connect pending: the wait ends at its own limit, not the system's.
    SOCKET full = listener(port, 0);
    std::vector<SOCKET> queued;
    int last = 0;
    for (int i = 0; i < 8 && last != -1; ++i) {
        queued.push_back(socket(AF_INET, SOCK_STREAM, 0));
        last = outcome(queued.back(), port, 200);
    }
    EXPECT_EQ(last, -1);
    for (SOCKET q : queued) closesocket(q);
    closesocket(full);
}

TEST_F(Started, DatagramsKeepTheirSenderAndReportTruncation) {
    SOCKET rx = socket(AF_INET, SOCK_DGRAM, 0), tx = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in at = loopback(0);
    ASSERT_EQ(bind(rx, reinterpret_cast<sockaddr*>(&at), sizeof at), 0);
    int len = sizeof at;
    ASSERT_EQ(getsockname(rx, reinterpret_cast<sockaddr*>(&at), &len), 0);

    ASSERT_EQ(sendto(tx, "datagram", 8, 0, reinterpret_cast<sockaddr*>(&at), sizeof at), 8);
    char buf[32];
    sockaddr_in from{};
    int fromLen = sizeof from;
    ASSERT_EQ(WaitForSocket(rx, SOCKET_WAIT_READ, 5), 1);
    EXPECT_EQ(recvfrom(rx, buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&from), &fromLen), 8);
    sockaddr_in txAddr{};
    len = sizeof txAddr;
    getsockname(tx, reinterpret_cast<sockaddr*>(&txAddr), &len);
    EXPECT_EQ(from.sin_port, txAddr.sin_port);

    ASSERT_EQ(sendto(tx, "0123456789", 10, 0, reinterpret_cast<sockaddr*>(&at), sizeof at), 10);
    ASSERT_EQ(WaitForSocket(rx, SOCKET_WAIT_READ, 5), 1);
    EXPECT_EQ(recvfrom(rx, buf, 4, 0, nullptr, nullptr), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAEMSGSIZE);
    EXPECT_EQ(std::string(buf, 4), "0123");
    closesocket(rx);
    closesocket(tx);
}

// What real sockets cannot be made to do on demand: a signal arriving during a call, a resolver that is
// offline, a system out of buffers.
TEST_F(Started, InterruptedCallsGoOnAndSystemFailuresKeepTheirWindowsCodes) {
    SOCKET client = INVALID_SOCKET, server = INVALID_SOCKET;
    {
        tavik::platform::ScopedSystemCalls calls;
        calls->connect = InterruptedConnect;
        calls->send = InterruptedSend;
        calls->recv = InterruptedRecv;
        calls->poll = InterruptedPoll;
        g_interruptions = 0;
        pair(client, server);
        EXPECT_EQ(send(client, "ping", 4, 0), 4);
        EXPECT_EQ(WaitForSocket(server, SOCKET_WAIT_READ, 5, 0), 1);
        char got[8] = {};
        EXPECT_EQ(recv(server, got, sizeof got, 0), 4);
        EXPECT_STREQ(got, "ping");
        EXPECT_EQ(g_interruptions, 5);  // connect and its wait, send, the wait for the reply, recv

        calls->getaddrinfo = ResolverOffline;
        EXPECT_EQ(gethostbyname("mail.example.org"), nullptr);
        EXPECT_EQ(WSAGetLastError(), WSATRY_AGAIN);
        calls->send = NoBufferSpace;
        EXPECT_EQ(send(client, "x", 1, 0), SOCKET_ERROR);
        EXPECT_EQ(WSAGetLastError(), WSAENOBUFS);
    }
    EXPECT_EQ(send(client, "pong", 4, 0), 4);
    closesocket(client);
    closesocket(server);
}

TEST_F(Started, HostLookups) {
    hostent* h = gethostbyname("localhost");
    ASSERT_NE(h, nullptr);
    in_addr first;
    std::memcpy(&first, h->h_addr, 4);
    EXPECT_STREQ(inet_ntoa(first), "127.0.0.1");

    h = gethostbyname("10.20.30.40");
    ASSERT_NE(h, nullptr);
    std::memcpy(&first, h->h_addr_list[0], 4);
    EXPECT_EQ(first.s_addr, inet_addr("10.20.30.40"));
    EXPECT_EQ(h->h_addr_list[1], nullptr);

    for (const char* unknown : {"no-such-host.invalid", "x.INVALID.", "invalid"}) {
        WSASetLastError(0);
        EXPECT_EQ(gethostbyname(unknown), nullptr) << unknown;
        EXPECT_EQ(WSAGetLastError(), WSAHOST_NOT_FOUND) << unknown;
    }

    ULONG lo = htonl(INADDR_LOOPBACK);
    h = gethostbyaddr(reinterpret_cast<const char*>(&lo), 4, AF_INET);
    ASSERT_NE(h, nullptr);
    EXPECT_STREQ(h->h_name, "localhost");

    char tiny[1];
    EXPECT_EQ(gethostname(tiny, 1), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAEFAULT);
}

}  // namespace
