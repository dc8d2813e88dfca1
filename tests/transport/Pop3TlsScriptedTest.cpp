// The POP3 client's TLS against servers no real one would be: a CAPA that hides STLS, bytes slipped in
// behind the STLS reply, a handshake that stalls, dribbles or is cut off. Each ends in a clear error
// within the time limit, and none lets the password out in plain text.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "platform/Kernel.h"
#include "tests/support/ScriptedServer.h"
#include "tests/transport/Pop3TestSupport.h"

using namespace tavik::test;

namespace {

double SecondsSince(std::chrono::steady_clock::time_point t) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t).count();
}

std::unique_ptr<CPopMail> Client(CBlockingSocket::SECURITY security, int timeLimit = 5, void* stop = nullptr,
                                 HWND window = nullptr) {
    auto pop = std::make_unique<CPopMail>(stop, window, timeLimit);
    pop->SetSecurity(security);
    return pop;
}

// The first bytes of a TLS record from a server: a handshake record of 16 KB, never completed.
const std::string kRecordStart = std::string("\x16\x03\x03\x40\x00", 5);

}  // namespace

TEST(Pop3TlsScripted, StlsMissingRefusedOrTamperedWithStopsBeforeTheLogin) {
    WinsockSession winsock;
    struct Case {
        const char* what;
        std::string afterGreeting;  // the server's side after "CAPA"
        bool asksStls;
        std::string error;
    };
    const Case cases[] = {
        {"not listed", "+OK\r\nUSER\r\nPIPELINING\r\nSTLSX\r\n.\r\n", false,
         "The server does not offer STLS, so the connection cannot be encrypted\r\n"},
        {"no CAPA", "-ERR unknown command\r\n", false,
         "The server does not offer STLS, so the connection cannot be encrypted\r\n"},
        {"refused", "+OK\r\nstls\r\n.\r\n", true, "-ERR TLS not available now\r\n"},
        {"bytes behind the reply", "+OK\r\nSTLS\r\n.\r\n", true,
         "The server sent more than its STLS reply; the connection is not safe\r\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ScriptedServer s;
        s.Send("+OK ready\r\n").Expect("CAPA\r\n").Send(c.afterGreeting);
        if (c.asksStls) {
            s.Expect("STLS\r\n");
            s.Send(c.error.rfind("-ERR", 0) == 0 ? c.error : "+OK Begin TLS\r\n+OK logged in\r\n");
        }
        s.Hold();
        s.Start();
        StatusWindow w;
        auto pop = Client(CBlockingSocket::SECURITY_STARTTLS, 5, nullptr, w.hwnd());
        EXPECT_EQ(PopError([&] { pop->Connect("127.0.0.1", s.Port()); }), c.error);
        EXPECT_EQ(PopError([&] { pop->Login("alice", "secret"); }),
                  "The connection is not encrypted, so the user name and password were not sent\r\n");
        s.Stop();
        EXPECT_EQ(s.Received(), c.asksStls ? "CAPA\r\nSTLS\r\n" : "CAPA\r\n");
        EXPECT_EQ(w.All().find("USER"), std::string::npos);
    }
}

TEST(Pop3TlsScripted, AHandshakeThatStallsOrDribblesEndsAtTheTimeLimit) {
    WinsockSession winsock;
    struct Case {
        const char* what;
        bool stls;
        std::string server;
        size_t chunk;
        int pauseMs;
    };
    const Case cases[] = {
        {"silent after ClientHello", false, "", 0, 0},
        {"silent after STLS", true, "", 0, 0},
        {"a record byte by byte", false, kRecordStart + std::string(300, 'x'), 1, 150},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ScriptedServer s;
        if (c.stls)
            s.Send("+OK ready\r\n")
                .Expect("CAPA\r\n")
                .Send("+OK\r\nSTLS\r\n.\r\n")
                .Expect("STLS\r\n")
                .Send("+OK go\r\n");
        if (!c.server.empty()) s.Send(c.server, c.chunk, c.pauseMs);
        s.Hold();
        s.Start();
        auto pop = Client(c.stls ? CBlockingSocket::SECURITY_STARTTLS : CBlockingSocket::SECURITY_TLS, 1);
        const auto t0 = std::chrono::steady_clock::now();
        EXPECT_EQ(PopError([&] { pop->Connect("127.0.0.1", s.Port()); }), "TLS handshake timeout error\r\n");
        const double took = SecondsSince(t0);
        EXPECT_GT(took, 0.9);
        EXPECT_LT(took, 2.5);
        s.Stop();
    }
}

TEST(Pop3TlsScripted, TheTerminationEventEndsAStalledHandshakeAtOnce) {
    WinsockSession winsock;
    ScriptedServer s;
    s.Send(kRecordStart).Hold();
    s.Start();
    HANDLE stop = CreateEvent(nullptr, TRUE, FALSE, nullptr);
    auto pop = Client(CBlockingSocket::SECURITY_TLS, 30, stop);
    std::thread host([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        SetEvent(stop);
    });
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(PopError([&] { pop->Connect("127.0.0.1", s.Port()); }), "Forced Termination by user");
    EXPECT_LT(SecondsSince(t0), 1.5);
    host.join();
    s.Stop();
    CloseHandle(stop);
}

TEST(Pop3TlsScripted, AServerThatHangsUpOrAnswersInPlainTextFailsTheHandshake) {
    WinsockSession winsock;
    {
        ScriptedServer s;
        s.Send(kRecordStart.substr(0, 3)).Close();
        s.Start();
        auto pop = Client(CBlockingSocket::SECURITY_TLS);
        EXPECT_EQ(PopError([&] { pop->Connect("127.0.0.1", s.Port()); }),
                  "The TLS handshake with the server failed: the server closed the connection during the TLS "
                  "handshake\r\n");
        s.Stop();
    }
    {
        ScriptedServer s;
        s.Send("-ERR\tno TLS here\r\n").Close();
        s.Start();
        auto pop = Client(CBlockingSocket::SECURITY_TLS);
        EXPECT_EQ(PopError([&] { pop->Connect("127.0.0.1", s.Port()); }),
                  "The TLS handshake with the server failed: the server did not answer in TLS; it sent "
                  "\"-ERR?no TLS here\"\r\n");
        s.Stop();
    }
}
