#include <gtest/gtest.h>

#include <signal.h>
#include <sys/time.h>

#include <chrono>
#include <cstring>
#include <string>

#include "transport/CBlockingSocket.h"

namespace {

class Sockets : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(WSAStartup(0x0101, nullptr), 0); }
    void TearDown() override { WSACleanup(); }

    // A listener on 127.0.0.1 and a client connected to it, accepted into server.
    void connectPair(CBlockingSocket& client, CBlockingSocket& server) {
        CBlockingSocket listener;
        listener.Create();
        listener.Bind(CSockAddr(INADDR_LOOPBACK, 0));
        listener.Listen();
        CSockAddr at;
        listener.GetSockAddr(at);
        client.Create();
        client.Connect(at);
        CSockAddr peer;
        ASSERT_TRUE(listener.Accept(server, peer));
        EXPECT_EQ(peer.DottedDecimal(), CString("127.0.0.1"));
    }
};

// Runs f and returns the exception's text and code, failing the test when nothing is thrown.
template <class F>
std::pair<std::string, int> thrown(F f) {
    try {
        f();
    } catch (CBlockingSocketException* e) {
        std::pair<std::string, int> r{e->GetErrorMessage().GetString(), e->m_nError};
        e->Delete();
        return r;
    }
    ADD_FAILURE() << "nothing thrown";
    return {};
}

CBlockingSocketException* withCode(int code, const char* label) {
    WSASetLastError(code);
    return new CBlockingSocketException(label);
}

TEST(CBlockingSocketException, TextPrecedenceAndTruncation) {
    CBlockingSocketException* e = withCode(0, "Receive timeout");
    char buf[64];
    UINT help = 77;
    EXPECT_TRUE(e->GetErrorMessage(buf, sizeof buf, &help));
    EXPECT_STREQ(buf, "Receive timeout error");
    EXPECT_EQ(help, 0u);
    // The no-argument form replaces the label with the text, so a second call builds on the first.
    EXPECT_EQ(e->GetErrorMessage(), CString("Receive timeout error"));
    EXPECT_EQ(e->GetErrorMessage(), CString("Receive timeout error error"));
    e->Delete();

    e = withCode(10060, "Connect");
    EXPECT_EQ(e->GetErrorMessage(),
              CString("Attempt to connect timed out without establishing a connection"));
    e->Delete();
    for (int gap : {12345, 10059, 10063, 10046}) {  // unknown codes and gaps in the known range
        e = withCode(gap, "Op");
        EXPECT_EQ(e->GetErrorMessage(), CString("Op error #") + CString(std::to_string(gap)));
        e->Delete();
    }

    e = withCode(10054, "Receive");
    char small[16];
    std::memset(small, 0xbd, sizeof small);
    EXPECT_TRUE(e->GetErrorMessage(small, 10, nullptr));
    EXPECT_STREQ(small, "A existin");
    EXPECT_EQ(static_cast<unsigned char>(small[10]), 0xbd);
    EXPECT_TRUE(e->GetErrorMessage(small, 0, nullptr));  // nothing to write into
    EXPECT_EQ(static_cast<unsigned char>(small[10]), 0xbd);
    e->Delete();

    std::string longLabel(3000, 'L');  // the work buffer bounds the text
    e = withCode(0, longLabel.c_str());
    EXPECT_EQ(e->GetErrorMessage().GetLength(), 1023);
    e->Delete();
}

TEST(CSockAddr, LayoutAndConversions) {
    EXPECT_EQ(CSockAddr().sin_family, AF_INET);
    CSockAddr a(0xC0A80102u, 110);
    const auto* raw = reinterpret_cast<const unsigned char*>(&a);
    EXPECT_EQ(raw[2], 0);  // port 110 in network order
    EXPECT_EQ(raw[3], 110);
    EXPECT_EQ(raw[4], 192);  // address in network order
    EXPECT_EQ(raw[7], 2);
    EXPECT_EQ(a.DottedDecimal(), CString("192.168.1.2"));
    EXPECT_EQ(a.Port(), 110);
    EXPECT_EQ(CSockAddr("10.0.0.9", 25).IPAddr(), 0x0A000009u);
    EXPECT_EQ(CSockAddr("not an address", 1).IPAddr(), 0xFFFFFFFFu);
    sockaddr generic = a;
    CSockAddr back(generic);
    EXPECT_EQ(std::memcmp(&back, &a, 16), 0);
}

TEST_F(Sockets, ConnectedPairCarriesDataAndSeesClose) {
    CBlockingSocket client, server;
    connectPair(client, server);
    EXPECT_EQ(client.Write("USER x\r\n", 8, 5), 8);
    char buf[32] = {};
    int got = 0;
    while (got < 8) got += server.Receive(buf + got, sizeof buf - got, 5);
    EXPECT_EQ(std::string(buf, 8), "USER x\r\n");

    // Nothing waiting and no time to wait: the timeout comes at once.
    WSASetLastError(0);
    auto start = std::chrono::steady_clock::now();
    auto [text, code] = thrown([&] { server.Receive(buf, sizeof buf, 0); });
    EXPECT_EQ(text, "Receive timeout error");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));

    client.Close();
    EXPECT_EQ(client.m_hSocket, 0u);
    EXPECT_EQ(server.Receive(buf, sizeof buf, 5), 0);  // the peer has gone: 0, no exception

    // Writing into the closed connection fails as "Send" with the reset code, without a signal.
    std::string chunk(65536, 'x');
    auto [sendText, sendCode] = thrown([&] {
        for (int i = 0; i < 100; ++i) server.Write(chunk.data(), static_cast<int>(chunk.size()), 5);
    });
    EXPECT_EQ(sendCode, WSAECONNRESET);
    EXPECT_EQ(sendText, "A existing connection was forcibly closed by the remote host");
}

TEST_F(Sockets, FailuresCarryTheirLabelsAndSentences) {
    CBlockingSocket probe;
    probe.Create();
    probe.Bind(CSockAddr(INADDR_LOOPBACK, 0));
    CSockAddr unused;
    probe.GetSockAddr(unused);
    probe.Close();  // the port is free and nobody listens on it

    CBlockingSocket s;
    s.Create();
    auto [refused, code] = thrown([&] { s.Connect(unused); });
    EXPECT_EQ(code, WSAECONNREFUSED);
    EXPECT_EQ(refused, "The attempt to connect was rejected");

    auto [unknown, hostCode] = thrown([] { CBlockingSocket::GetHostByName("mail.nowhere.invalid", 110); });
    EXPECT_EQ(hostCode, WSAHOST_NOT_FOUND);
    EXPECT_EQ(unknown, "Host not found. No such host is known");

    EXPECT_EQ(thrown([] {
                  CBlockingSocket none;
                  none.Close();
              }).first,
              "The descriptor is not a socket");
    CBlockingSocket closed;
    closed.Create();
    SOCKET stale = closed.m_hSocket;
    closed.Close();
    closed.m_hSocket = stale;  // a handle that is no longer open
    EXPECT_EQ(thrown([&] { closed.Close(); }).second, WSAENOTSOCK);
    EXPECT_EQ(closed.m_hSocket, stale);  // a failed Close keeps the handle
    closed.m_hSocket = 0;
    EXPECT_EQ(thrown([&] { s.GetPeerAddr(unused); }).first, "The socket is not connected");
}

// A peer that stops reading cannot hold Write past its limits: the send returns what fitted and the
// next wait times out.
TEST_F(Sockets, StalledPeerEndsWriteWithSendTimeout) {
    CBlockingSocket client, server;
    connectPair(client, server);
    std::string big(32 << 20, 'x');  // more than both socket buffers hold
    WSASetLastError(0);
    const auto start = std::chrono::steady_clock::now();
    auto [text, code] = thrown([&] { client.Write(big.data(), static_cast<int>(big.size()), 1); });
    EXPECT_EQ(text, "Send timeout error");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
}

// Send is a virtual slot: a client that sends a few bytes at a time still gets the whole buffer out of
// Write, and Write calls Send even for nothing.
TEST(CBlockingSocketWrite, LoopsOverPartialSends) {
    struct Dribble : CBlockingSocket {
        std::string wire;
        int calls = 0;
        int Send(const char* data, int size, int) override {
            ++calls;
            int n = size < 3 ? size : 3;
            wire.append(data, static_cast<size_t>(n));
            return n;
        }
    } d;
    EXPECT_EQ(d.Write("RETR 1\r\n", 8, 1), 8);
    EXPECT_EQ(d.wire, "RETR 1\r\n");
    EXPECT_EQ(d.calls, 3);
    EXPECT_EQ(d.Write("", 0, 1), 0);
    EXPECT_EQ(d.calls, 4);
}

TEST_F(Sockets, DatagramsAndLookups) {
    CBlockingSocket rx, tx;
    rx.Create(SOCK_DGRAM);
    tx.Create(SOCK_DGRAM);
    rx.Bind(CSockAddr(INADDR_LOOPBACK, 0));
    CSockAddr at;
    rx.GetSockAddr(at);
    EXPECT_EQ(tx.SendDatagram("ping", 4, at, 5), 4);
    char buf[16];
    CSockAddr from;
    EXPECT_EQ(rx.ReceiveDatagram(buf, sizeof buf, from, 5), 4);
    EXPECT_EQ(from.DottedDecimal(), CString("127.0.0.1"));
    WSASetLastError(0);  // a timeout's text depends on whatever the last error was
    EXPECT_EQ(thrown([&] { rx.ReceiveDatagram(buf, sizeof buf, from, 0); }).first, "Receive timeout error");

    CSockAddr local = CBlockingSocket::GetHostByName("localhost", 110);
    EXPECT_EQ(local.DottedDecimal(), CString("127.0.0.1"));
    EXPECT_EQ(local.Port(), 110);
    EXPECT_STREQ(CBlockingSocket::GetHostByAddr(CSockAddr(INADDR_LOOPBACK, 0)), "localhost");

    EXPECT_EQ(CBlockingSocket::ResolveHostToIP("pop.nowhere.invalid"),
              CString("Can't resolve pop.nowhere.invalid"));
    EXPECT_EQ(CBlockingSocket::ResolveIPToHost("192.0.2.1"), CString("192.0.2.1"));  // no reverse entry

    CString name, ip;
    EXPECT_TRUE(CBlockingSocket::GetLocalAddress(name, ip));
    EXPECT_NE(CSockAddr(ip, 0).IPAddr(), INADDR_NONE);
    EXPECT_EQ(WSACleanup(), 0);  // GetLocalAddress balanced its own start: ours is still the only one
    EXPECT_EQ(WSACleanup(), SOCKET_ERROR);
    ASSERT_EQ(WSAStartup(0x0101, nullptr), 0);
}

void onAlarm(int) {}

// A signal arriving while Accept waits is the interrupted call: FALSE, no exception, into untouched.
TEST_F(Sockets, AcceptInterruptedReturnsFalse) {
    struct sigaction action {
    }, previous{};
    action.sa_handler = onAlarm;  // no SA_RESTART, so the wait is interrupted
    sigemptyset(&action.sa_mask);
    ASSERT_EQ(sigaction(SIGALRM, &action, &previous), 0);
    CBlockingSocket listener, into;
    listener.Create();
    listener.Bind(CSockAddr(INADDR_LOOPBACK, 0));
    listener.Listen();
    itimerval timer{};
    timer.it_value.tv_usec = 50000;
    ASSERT_EQ(setitimer(ITIMER_REAL, &timer, nullptr), 0);
    EXPECT_FALSE(listener.Accept(into, nullptr));
    EXPECT_EQ(into.m_hSocket, 0u);
    sigaction(SIGALRM, &previous, nullptr);
}

}  // namespace
