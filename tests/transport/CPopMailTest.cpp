// The POP3 client against the scripted server: whole sessions compared by transcript and status lines,
// and the replies a real server will not produce on demand.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <memory>
#include <thread>

#include "messages/CMessageList.h"
#include "platform/Clock.h"
#include "platform/Kernel.h"
#include "tests/support/ScriptedServer.h"
#include "tests/transport/Pop3TestSupport.h"

using namespace tavik::test;

namespace {

const std::string kHeader =
    "Return-Path: <ann@example.org>\r\n"
    "From: Ann Example <ann@example.org>\r\n"
    "To: bob@example.net\r\n"
    "Subject: Quarterly figures\r\n"
    "Date: Mon, 02 Nov 2026 10:00:00 +0000\r\n";
const std::string kBody = "Subject: s\r\n\r\nbody\r\n..\r\n...x\r\n";  // as sent, dot-stuffed

class Pop3Client : public ::testing::Test {
protected:
    void SetUp() override {
        ::setenv("TZ", "UTC0", 1);
        ::tzset();
    }
    // A client of the scripted server, connected; the greeting is the script's first step.
    std::unique_ptr<CPopMail> Connected(HWND window, void* event = nullptr, int limit = 5) {
        server.Start();
        auto pop = std::make_unique<CPopMail>(event, window, limit);
        EXPECT_TRUE(pop->Connect("127.0.0.1", server.Port()));
        return pop;
    }

    WinsockSession winsock;
    ScopedClockPin clock{1000, 1000000000};  // 2001-09-09 01:46:40 UTC
    StatusWindow window;
    ScriptedServer server;
};

void ScriptWholeSession(ScriptedServer& s, size_t chunk, const char* ok = "+OK") {
    std::string k = ok;
    // The greeting goes whole: Connect takes whatever its single receive returns as the greeting.
    s.Send(k + " POP3 ready <1.2@x>\r\n")
        .Expect("USER bob\r\n")
        .Send(k + "\r\n", chunk)
        .Expect("PASS p@ss word\r\n")
        .Send(k + " logged in\r\n", chunk)
        .Expect("STAT\r\n")
        .Send(k + " 2 5210\r\n", chunk)
        .Expect("LIST 1\r\n")
        .Send(k + " 1 1234\r\n", chunk)
        .Expect("TOP 1 0\r\n")
        .Send(k + "\r\n" + kHeader + "\r\n.\r\n", chunk)
        .Expect("UIDL 1\r\n")
        .Send(k + " 1 uid-one\r\n", chunk)
        .Expect("RETR 2\r\n")
        .Send(k + " 40 octets\r\n" + kBody + ".\r\n", chunk)
        .Expect("DELE 2\r\n")
        .Send(k + " deleted\r\n", chunk)
        .Expect("RSET\r\n")
        .Send(k + "\r\n", chunk)
        .Expect("NOOP\r\n")
        .Send(k + "\r\n", chunk)
        .Expect("QUIT\r\n")
        .Send(k + " bye\r\n", chunk);
}

}  // namespace

TEST_F(Pop3Client, WholeSessionHasTheWireOrderAndStatusLinesOfTheDesign) {
    // Whole replies, replies dribbled byte by byte, and replies in 3-byte pieces (end marks cut apart);
    // last, lower-case positive replies to a client without a status window.
    struct Row {
        size_t chunk;
        const char* ok;
        bool window;
    };
    for (const Row& row :
         {Row{0, "+OK", true}, Row{1, "+OK", true}, Row{3, "+OK", true}, Row{0, "+ok", false}}) {
        SCOPED_TRACE("chunk " + std::to_string(row.chunk) + " " + row.ok);
        ScriptedServer s;
        ScriptWholeSession(s, row.chunk, row.ok);
        s.Start();
        StatusWindow w;
        std::string failure = PopError([&] {
            CPopMail pop(nullptr, row.window ? w.hwnd() : nullptr, 5);
            ASSERT_TRUE(pop.Connect("127.0.0.1", s.Port()));
            ASSERT_TRUE(pop.Login("bob", "p@ss word"));
            int count = -1, size = -1;
            ASSERT_TRUE(pop.MailBoxStats(&count, &size));
            EXPECT_EQ(count, 2);
            EXPECT_EQ(size, 5210);
            CMessageList record;
            ASSERT_TRUE(pop.GetHeader(1, record));
            EXPECT_EQ(std::string(record.GetHeader()), kHeader);
            EXPECT_EQ(record.GetID(), Crc("uid-one"));
            EXPECT_EQ(record.GetMsgSize(), 1234u);
            EXPECT_EQ(std::string(record.GetSubject()), "Quarterly figures");
            CString message = "stale";
            ASSERT_TRUE(pop.Retrieve(2, message));
            EXPECT_EQ(std::string(message), "Subject: s\r\n\r\nbody\r\n..\r\n...x") << "dots stay doubled";
            EXPECT_TRUE(pop.DeleteMsg(2));
            EXPECT_TRUE(pop.ResetMailbox());
            EXPECT_TRUE(pop.KeepAlive());
            EXPECT_TRUE(pop.Quit());
            EXPECT_EQ(w.finished, 0);
        });
        EXPECT_EQ(failure, "<no exception>");
        EXPECT_EQ(s.Finish(), "");
        EXPECT_EQ(s.Received(),
                  "USER bob\r\nPASS p@ss word\r\nSTAT\r\nLIST 1\r\nTOP 1 0\r\nUIDL 1\r\nRETR 2\r\nDELE 2\r\n"
                  "RSET\r\nNOOP\r\nQUIT\r\n");
        if (!row.window) continue;
        EXPECT_EQ(w.finished, 1) << "destruction says the session is over";
        EXPECT_EQ(w.All(),
                  "\r\n01:46:40 Sunday, September 09, 2001 - Connected to 127.0.0.1\r\n"
                  "[01:46:40] Looking up 127.0.0.1..\r\n"
                  "[01:46:40] Connecting to 127.0.0.1..\r\n"
                  "[01:46:40] +OK POP3 ready <1.2@x>\r\n"
                  "[01:46:40] USER bob\r\n"
                  "[01:46:40] +OK\r\n"
                  "[01:46:40] PASS xxxxxxx\r\n"
                  "[01:46:40] +OK logged in\r\n"
                  "[01:46:40] TOP 1 0\r\n"
                  "[01:46:40] +OK\r\n"
                  "[01:46:40] RETR 2\r\n"
                  "[01:46:40] +OK 40 octets\r\n"
                  "[01:46:40] DELE 2\r\n"
                  "[01:46:40] +OK deleted\r\n"
                  "[01:46:40] QUIT\r\n"
                  "[01:46:40] +OK bye\r\n");
        EXPECT_EQ(w.All().find("p@ss"), std::string::npos);
    }
}

TEST_F(Pop3Client, GreetingDecidesConnect) {
    struct Case {
        const char* greeting;  // null: the server closes before sending anything
        bool expected;
    } cases[] = {{"+OK ready\r\n", true}, {"-ERR busy\r\n", false}, {"+ok hi\r\n", true}, {nullptr, true}};
    for (auto& c : cases) {
        ScriptedServer s;
        if (c.greeting)
            s.Send(c.greeting).Hold();
        else
            s.Close();
        s.Start();
        StatusWindow w;
        CPopMail pop(nullptr, w.hwnd(), 5);
        EXPECT_EQ(pop.Connect("127.0.0.1", s.Port()), c.expected) << (c.greeting ? c.greeting : "closed");
        if (c.greeting)
            EXPECT_EQ(w.lines.back(), std::string("[01:46:40] ") + c.greeting);
        else
            EXPECT_EQ(w.lines.size(), 3u) << "banner, look-up and connect lines only";
        EXPECT_EQ(s.Finish(), "");
    }
}

TEST_F(Pop3Client, NegativeRepliesThrowTheReplyButARefusedPasswordIsFalse) {
    struct Case {
        const char* command;
        std::function<bool(CPopMail&)> call;
    } cases[] = {
        {"USER bob\r\n", [](CPopMail& p) { return p.Login("bob", "x"); }},
        {"STAT\r\n",
         [](CPopMail& p) {
             int a, b;
             return p.MailBoxStats(&a, &b);
         }},
        {"LIST 3\r\n", [](CPopMail& p) { return p.GetMsgSize(3) != 0; }},
        {"DELE 3\r\n", [](CPopMail& p) { return p.DeleteMsg(3); }},
        {"RSET\r\n", [](CPopMail& p) { return p.ResetMailbox(); }},
        {"NOOP\r\n", [](CPopMail& p) { return p.KeepAlive(); }},
        {"QUIT\r\n", [](CPopMail& p) { return p.Quit(); }},
    };
    for (auto& c : cases) {
        ScriptedServer s;
        s.Send("+OK\r\n").Expect(c.command).Send("-ERR no way\r\n").Hold();
        s.Start();
        CPopMail pop(nullptr, nullptr, 5);
        ASSERT_TRUE(pop.Connect("127.0.0.1", s.Port()));
        EXPECT_EQ(PopError([&] { c.call(pop); }), "-ERR no way\r\n") << c.command;
        EXPECT_EQ(s.Finish(), "");
    }

    server.Send("+OK\r\n")
        .Expect("USER bob\r\n")
        .Send("+OK\r\n")
        .Expect("PASS wrong\r\n")
        .Send("-ERR [AUTH] Authentication failed.\r\n");
    auto pop = Connected(window.hwnd());
    EXPECT_FALSE(pop->Login("bob", "wrong"));
    EXPECT_EQ(window.lines.back(), "[01:46:40] -ERR [AUTH] Authentication failed.\r\n");
    EXPECT_EQ(server.Finish(), "");
}

TEST_F(Pop3Client, NegativeTopStatusThrowsTheStatusLine) {
    server.Send("+OK\r\n")
        .Expect("LIST 9\r\n")
        .Send("+OK 9 100\r\n")
        .Expect("TOP 9 0\r\n")
        .Send("-ERR There's no message 9.\r\n")
        .Close();
    auto pop = Connected(nullptr);
    CMessageList record;
    EXPECT_EQ(PopError([&] { pop->GetHeader(9, record); }), "-ERR There's no message 9.");
    EXPECT_EQ(server.Finish(), "");
}

// A refused UIDL is fatal; unanswered UIDL and LIST fall back to the header's CRC and a size of 0.
TEST_F(Pop3Client, UidlRefusedIsFatalButUnansweredRepliesFallBack) {
    server.Send("+OK\r\n")
        .Expect("LIST 1\r\n")
        .Send("+OK 1 300\r\n")
        .Expect("TOP 1 0\r\n")
        .Send("+OK\r\n" + kHeader + "\r\n.\r\n")
        .Expect("UIDL 1\r\n")
        .Send("-ERR unknown command\r\n")
        .Hold();
    auto pop = Connected(window.hwnd());
    CMessageList record;
    const std::string refused =
        "-ERR unknown command\r\n\r\nThis server does not support the UIDL command. TavikMail cannot work "
        "with this server\r\n";
    EXPECT_EQ(PopError([&] { pop->GetHeader(1, record); }), refused);
    EXPECT_EQ(window.lines.back(), "[01:46:40] " + refused);
    EXPECT_EQ(server.Finish(), "");

    ScriptedServer closing;
    closing.Send("+OK\r\n")
        .Expect("LIST 1\r\n")
        .Send("+OK 1 300\r\n")
        .Expect("TOP 1 0\r\n")
        .Send("+OK\r\n" + kHeader + "\r\n.\r\n")
        .Expect("UIDL 1\r\n")
        .Close();
    closing.Start();
    CPopMail second(nullptr, nullptr, 5);
    ASSERT_TRUE(second.Connect("127.0.0.1", closing.Port()));
    CMessageList fallback;
    ASSERT_TRUE(second.GetHeader(1, fallback));
    EXPECT_EQ(fallback.GetID(), Crc(kHeader));
    EXPECT_EQ(fallback.GetMsgSize(), 300u);
    EXPECT_EQ(closing.Finish(), "");

    ScriptedServer silent;
    silent.Send("+OK\r\n").Expect("LIST 4\r\n").Close();
    silent.Start();
    CPopMail third(nullptr, nullptr, 5);
    ASSERT_TRUE(third.Connect("127.0.0.1", silent.Port()));
    EXPECT_EQ(third.GetMsgSize(4), 0);
    EXPECT_EQ(silent.Finish(), "");
}

TEST_F(Pop3Client, RetrieveRefusedRunsIntoTheTimeLimit) {
    server.Send("+OK\r\n").Expect("RETR 7\r\n").Send("-ERR no such message\r\n").Hold();
    auto pop = Connected(window.hwnd(), nullptr, 1);
    CString message;
    auto start = std::chrono::steady_clock::now();
    std::string text = PopError([&] { pop->Retrieve(7, message); });
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_EQ(text.rfind("Receive timeout", 0), 0u) << text;
    EXPECT_EQ(text.substr(text.size() - 2), "\r\n");
    EXPECT_GE(seconds, 0.9);
    EXPECT_LT(seconds, 4.0);
    EXPECT_EQ(window.lines.back(), "[01:46:40] " + text) << "socket failures are shown before the throw";
    EXPECT_EQ(server.Finish(), "");
}

TEST_F(Pop3Client, SignalledEventAbortsTheFirstReadThatReturnsData) {
    HANDLE event = CreateEvent(nullptr, TRUE, FALSE, nullptr);
    server.Send("+OK\r\n").Expect("NOOP\r\n").Send("+OK\r\n").Expect("NOOP\r\n").Send("+OK\r\n").Hold();
    auto pop = Connected(window.hwnd(), event);
    EXPECT_TRUE(pop->KeepAlive());
    SetEvent(event);
    size_t shown = window.lines.size();
    EXPECT_EQ(PopError([&] { pop->KeepAlive(); }), "Forced Termination by user");
    EXPECT_EQ(window.lines.size(), shown) << "termination is not shown";
    EXPECT_EQ(server.Finish(), "");
    pop.reset();

    ScriptedServer greeting;  // already signalled: the greeting is the first read with data
    greeting.Send("+OK\r\n").Hold();
    greeting.Start();
    CPopMail late(event, nullptr, 5);
    EXPECT_EQ(PopError([&] { late.Connect("127.0.0.1", greeting.Port()); }), "Forced Termination by user");
    EXPECT_EQ(greeting.Finish(), "");
    CloseHandle(event);
}

TEST_F(Pop3Client, EventSignalledFromAnotherThreadStopsALongRetrieve) {
    HANDLE event = CreateEvent(nullptr, TRUE, FALSE, nullptr);
    HANDLE release = CreateEvent(nullptr, TRUE, FALSE, nullptr);
    std::string part(100000, 'x');
    server.Send("+OK\r\n")
        .Expect("RETR 1\r\n")
        .Send("+OK\r\n" + part)
        .Mark("first part sent")
        .Gate("more")
        .Send(part + "\r\n.\r\n")
        .Mark("all sent")
        .Hold();
    server.Start();
    std::string error;
    std::thread worker([&] {
        CPopMail pop(event, nullptr, 10);
        pop.Connect("127.0.0.1", server.Port());
        CString message;
        error = PopError([&] { pop.Retrieve(1, message); });
        // Whether the client gave up on the first part or on the second, the server sends both.
        WaitForSingleObject(release, INFINITE);
    });
    ASSERT_TRUE(server.WaitMark("first part sent"));
    SetEvent(event);
    server.Open("more");
    EXPECT_TRUE(server.WaitMark("all sent"));
    SetEvent(release);
    worker.join();
    EXPECT_EQ(error, "Forced Termination by user");
    EXPECT_EQ(server.Finish(), "");
    CloseHandle(release);
    CloseHandle(event);
}

TEST_F(Pop3Client, EndlessReplyAndRefusedConnectionBecomeExceptions) {
    server.Send("+OK\r\n").Expect("NOOP\r\n").Send(std::string(CPopMail::kMaxLineReply + 100, 'z')).Hold();
    auto pop = Connected(nullptr);
    EXPECT_EQ(PopError([&] { pop->KeepAlive(); }), "The server's reply is too long\r\n");
    EXPECT_EQ(server.Finish(), "");

    unsigned short port = 0;
    {
        ScriptedServer gone;  // its listening socket closes with it: nothing answers on that port
        port = gone.Port();
    }
    StatusWindow w;
    CPopMail refused(nullptr, w.hwnd(), 5);
    std::string text = PopError([&] { refused.Connect("127.0.0.1", port); });
    EXPECT_EQ(text, "The attempt to connect was rejected\r\n");
    EXPECT_EQ(w.lines.back(), "[01:46:40] " + text);
}
