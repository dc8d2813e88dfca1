// The SMTP client against the scripted server: whole sessions compared by transcript, and what a real
// relay will not do on demand (refusals at every step, multi-line replies, silence, dropped connections).
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "platform/Clock.h"
#include "platform/Kernel.h"
#include "tests/support/ScriptedServer.h"
#include "tests/transport/Pop3TestSupport.h"
#include "transport/CMIMEMessage.h"
#include "transport/CSMTP.h"

using namespace tavik::test;

namespace {

// The text of the CSMTPException that f throws, or "<no exception>".
template <class F>
std::string SmtpError(F&& f) {
    try {
        f();
    } catch (CSMTPException* e) {
        std::string text = e->GetErrorMessage().GetString();
        e->Delete();
        return text;
    }
    return "<no exception>";
}

std::string Helo() {
    CString name, ip;
    CBlockingSocket::GetLocalAddress(name, ip);
    return "HELO " + std::string(name) + "\r\n";
}

const std::string kHeader =
    "From: ann@example.org\r\n"
    "To: Carl <carl@example.net>,<nobody@example.net>,<eve@example.net>\r\n"
    "Date: Sun, 09 Sep 01 01:46:40 UTC\r\n"
    "Subject: Figures\r\n"
    "X-Mailer: Tavik Mail\r\n"
    "\r\n";

class SmtpClient : public ::testing::Test {
protected:
    void SetUp() override {
        ::setenv("TZ", "UTC0", 1);
        ::tzset();
        message.m_sFrom = "ann@example.org";
        message.AddRecipient("carl@example.net", "Carl");
        message.AddRecipient("nobody@example.net");
        message.AddRecipient("eve@example.net");
        message.m_sSubject = "Figures";
        message.m_sBody = "Hello\r\n";
    }
    // Greets and answers HELO; the rest of the script is the test's.
    ScriptedServer& Greeted(ScriptedServer& s) {
        return s.Send("220 mx.test ESMTP\r\n").Expect(helo).Send("250 mx.test\r\n");
    }
    std::unique_ptr<CSMTP> Connected(ScriptedServer& s, int limit = 5, void* event = nullptr) {
        s.Start();
        auto smtp = std::make_unique<CSMTP>(event, limit);
        CString reply;
        EXPECT_TRUE(smtp->Connect("127.0.0.1", reply, s.Port()));
        EXPECT_EQ(reply, "250 mx.test");
        return smtp;
    }

    WinsockSession winsock;
    ScopedClockPin clock{1000, 1000000000};  // 2001-09-09 01:46:40 UTC
    std::string helo = Helo();
    CMailMessage message;
};

}  // namespace

TEST_F(SmtpClient, WholeSessionHasTheWireBytesOfTheDialogue) {
    // Replies whole and dribbled byte by byte. The body has lone dots (first line and later), a line
    // starting with a dot, and a bare LF.
    message.m_sBody = ".\r\nfirst\r\n.\r\n.\r\n.x stays\nbare\r\nend";
    const std::string wireBody = "..\r\nfirst\r\n..\r\n..\r\n.x stays\r\nbare\r\nend\r\n";
    for (size_t chunk : {size_t(0), size_t(1)}) {
        SCOPED_TRACE("chunk " + std::to_string(chunk));
        ScriptedServer s;
        s.Send("220 mx.test ESMTP ready\r\n")
            .Expect(helo)
            .Send("250 mx.test\r\n", chunk)
            .Expect("MAIL From: <ann@example.org>\r\n")
            .Send("250 OK\r\n", chunk)
            .Expect("RCPT TO: <carl@example.net>\r\n")
            .Send("250 Accepted\r\n", chunk)
            .Expect("RCPT TO: <nobody@example.net>\r\n")
            .Send("550 No such user\r\n", chunk)
            .Expect("RCPT TO: <eve@example.net>\r\n")
            .Send("251 will forward\r\n", chunk)
            .Expect("DATA\r\n")
            .Send("354 go ahead\r\n", chunk)
            .ExpectData(kHeader + wireBody + "\r\n.\r\n")
            .Send("250 OK id=1\r\n", chunk)
            .Expect("QUIT\r\n")
            .Send("221 bye\r\n", chunk);
        s.Start();
        {
            CSMTP smtp(nullptr, 5);
            CString reply;
            EXPECT_EQ(SmtpError([&] {
                          ASSERT_TRUE(smtp.Connect("127.0.0.1", reply, s.Port()));
                          EXPECT_EQ(reply, "250 mx.test");
                          CMailMessage copy = message;
                          EXPECT_TRUE(smtp.SendMessage(&copy, reply));
                      }),
                      "<no exception>");
            EXPECT_EQ(reply, "250 OK id=1");
        }
        EXPECT_EQ(s.Finish(), "");
    }
}

TEST_F(SmtpClient, GreetingAndHeloRefusals) {
    struct Row {
        std::string greeting, heloReply, error;
    };
    for (const Row& row : {Row{"554 no service here\r\n", "", "554 no service here"},
                           Row{"hello there\r\n", "", "hello there"},  // no code counts as 500
                           Row{"220 ok\r\n", "501 bad HELO\r\n", "501 bad HELO"}}) {
        SCOPED_TRACE(row.greeting);
        ScriptedServer s;
        s.Send(row.greeting);
        if (!row.heloReply.empty()) s.Expect(helo).Send(row.heloReply);
        s.Expect("QUIT\r\n").Send("221 bye\r\n");  // a refusal is no broken session
        s.Start();
        {
            CSMTP smtp(nullptr, 5);
            CString reply;
            EXPECT_EQ(SmtpError([&] { smtp.Connect("127.0.0.1", reply, s.Port()); }), row.error);
        }
        EXPECT_EQ(s.Finish(), "");
    }

    // A server that closes without a greeting: no HELO, no error.
    ScriptedServer closed;
    closed.Close();
    closed.Start();
    CSMTP smtp(nullptr, 5);
    CString reply = "stale";
    EXPECT_FALSE(smtp.Connect("127.0.0.1", reply, closed.Port()));
    EXPECT_EQ(reply, "");
    EXPECT_EQ(closed.Finish(), "");
}

TEST_F(SmtpClient, RefusedSenderIsRetriedWithTheResentFromAddress) {
    struct Row {
        const char* resentFrom;
        const char* retryReply;
        std::string error;
    };
    for (const Row& row : {Row{"desk@example.org", "250 OK\r\n", "<no exception>"},
                           Row{"desk@example.org", "553 not you either\r\n", "553 not you either"},
                           Row{"", nullptr, "550 sender refused"}}) {
        SCOPED_TRACE(row.resentFrom);
        ScriptedServer s;
        Greeted(s).Expect("MAIL From: <ann@example.org>\r\n").Send("550 sender refused\r\n");
        if (row.retryReply) s.Expect("MAIL From: <desk@example.org>\r\n").Send(row.retryReply);
        if (row.error == "<no exception>") {
            for (const char* r : {"carl@example.net", "nobody@example.net", "eve@example.net"})
                s.Expect(std::string("RCPT TO: <") + r + ">\r\n").Send("250 OK\r\n");
            s.Expect("DATA\r\n")
                .Send("354 go\r\n")
                .ExpectData(kHeader.substr(0, 23) + "Resent-From: desk@example.org\r\n" + kHeader.substr(23) +
                            "Hello\r\n\r\n.\r\n");
            s.Send("250 OK\r\n");
        }
        s.Expect("QUIT\r\n").Send("221 bye\r\n");
        {
            auto smtp = Connected(s);
            message.m_sResentFrom = row.resentFrom;
            CString reply;
            EXPECT_EQ(SmtpError([&] { smtp->SendMessage(&message, reply); }), row.error);
        }
        EXPECT_EQ(s.Finish(), "");
    }
}

TEST_F(SmtpClient, RecipientReplyCodesSkipOrStop) {
    // 250 and 251 accept; 450-452 and 550-553 skip the recipient silently; anything else throws.
    for (const char* code :
         {"450", "451", "452", "550", "551", "552", "553", "421", "500", "503", "449", "554"}) {
        SCOPED_TRACE(code);
        const int n = std::atoi(code);
        const bool skips = (n >= 450 && n <= 452) || (n >= 550 && n <= 553);
        ScriptedServer s;
        Greeted(s)
            .Expect("MAIL From: <ann@example.org>\r\n")
            .Send("250 OK\r\n")
            .Expect("RCPT TO: <carl@example.net>\r\n")
            .Send("250 OK\r\n")
            .Expect("RCPT TO: <nobody@example.net>\r\n")
            .Send(std::string(code) + " not this one\r\n");
        if (skips) {
            s.Expect("RCPT TO: <eve@example.net>\r\n")
                .Send("250 OK\r\n")
                .Expect("DATA\r\n")
                .Send("354 go\r\n");
            s.ExpectData(kHeader + "Hello\r\n\r\n.\r\n").Send("250 OK\r\n");
        }
        s.Expect("QUIT\r\n").Send("221 bye\r\n");
        {
            auto smtp = Connected(s);
            CString reply;
            EXPECT_EQ(SmtpError([&] { smtp->SendMessage(&message, reply); }),
                      skips ? "<no exception>" : std::string(code) + " not this one");
        }
        EXPECT_EQ(s.Finish(), "");
    }

    // Every recipient refused: the last refusal is thrown and no DATA is sent.
    ScriptedServer s;
    Greeted(s).Expect("MAIL From: <ann@example.org>\r\n").Send("250 OK\r\n");
    for (const char* r : {"carl@example.net", "nobody@example.net", "eve@example.net"})
        s.Expect(std::string("RCPT TO: <") + r + ">\r\n").Send(std::string("550 no ") + r + "\r\n");
    s.Expect("QUIT\r\n").Send("221 bye\r\n");
    {
        auto smtp = Connected(s);
        CString reply;
        EXPECT_EQ(SmtpError([&] { smtp->SendMessage(&message, reply); }), "550 no eve@example.net");
    }
    EXPECT_EQ(s.Finish(), "");
}

TEST_F(SmtpClient, DataAndEndMarkRefusalsAndInvalidMessages) {
    struct Row {
        const char* dataReply;
        const char* endReply;
        std::string error;
    };
    for (const Row& row : {Row{"554 no data for you\r\n", nullptr, "554 no data for you"},
                           Row{"451 try later\r\n", nullptr, "451 try later"},
                           Row{"354 go\r\n", "552 too big\r\n", "552 too big"},
                           Row{"354 go\r\n", "452 no room\r\n", "452 no room"}}) {
        SCOPED_TRACE(row.dataReply);
        ScriptedServer s;
        Greeted(s).Expect("MAIL From: <ann@example.org>\r\n").Send("250 OK\r\n");
        for (const char* r : {"carl@example.net", "nobody@example.net", "eve@example.net"})
            s.Expect(std::string("RCPT TO: <") + r + ">\r\n").Send("250 OK\r\n");
        s.Expect("DATA\r\n").Send(row.dataReply);
        if (row.endReply) s.ExpectData(kHeader + "Hello\r\n\r\n.\r\n").Send(row.endReply);
        s.Expect("QUIT\r\n").Send("221 bye\r\n");
        {
            auto smtp = Connected(s);
            CString reply;
            EXPECT_EQ(SmtpError([&] { smtp->SendMessage(&message, reply); }), row.error);
        }
        EXPECT_EQ(s.Finish(), "");
    }

    CSMTP smtp(nullptr, 5);
    CString reply;
    EXPECT_EQ(SmtpError([&] { smtp.SendMessage(nullptr, reply); }), "INTERNAL ERROR: Message is Invalid");
    CMailMessage empty;
    EXPECT_EQ(SmtpError([&] { smtp.SendMessage(&empty, reply); }), "INTERNAL ERROR: No Recipients Specified");
}

TEST_F(SmtpClient, SilenceAndMultiLineRepliesRunIntoTheTimeLimitAndBreakTheSession) {
    // A multi-line reply in one piece is never "one line"; silence is silence. Either way the session is
    // broken and destruction sends no QUIT (the server would record it).
    for (bool multiLine : {true, false}) {
        SCOPED_TRACE(multiLine ? "multi-line" : "silent");
        ScriptedServer s;
        s.Send("220 mx.test\r\n").Expect(helo);
        if (multiLine) s.Send("250-mx.test\r\n250-PIPELINING\r\n250 HELP\r\n");
        s.Hold();
        s.Start();
        {
            CSMTP smtp(nullptr, 1);
            CString reply;
            auto start = std::chrono::steady_clock::now();
            std::string text = SmtpError([&] { smtp.Connect("127.0.0.1", reply, s.Port()); });
            double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            EXPECT_EQ(text.rfind("Receive timeout", 0), 0u) << text;
            EXPECT_GE(seconds, 0.9);
            EXPECT_LT(seconds, 4.0);
        }
        EXPECT_EQ(s.Finish(), "");
        EXPECT_EQ(s.Received(), helo);
    }

    // A first line that arrives alone is the whole reply; the rest is read as the next one, and the
    // session stays a reply behind. (The pauses keep each reply in a read of its own.)
    ScriptedServer split;
    split.Send("220 mx.test\r\n")
        .Expect(helo)
        .Send("250-mx.test\r\n")
        .Delay(200)
        .Send("250 HELP\r\n")
        .Expect("MAIL From: <ann@example.org>\r\n")
        .Delay(200)
        .Send("550 refused\r\n")
        .Expect("RCPT TO: <carl@example.net>\r\n")
        .Delay(200)
        .Send("250 OK\r\n")
        .Expect("QUIT\r\n");  // answered by "250 OK", which the destructor swallows
    {
        split.Start();
        CSMTP smtp(nullptr, 5);
        CString reply;
        ASSERT_TRUE(smtp.Connect("127.0.0.1", reply, split.Port()));
        EXPECT_EQ(reply, "250-mx.test");
        CMailMessage one;
        one.m_sFrom = "ann@example.org";
        one.AddRecipient("carl@example.net");
        EXPECT_EQ(SmtpError([&] { smtp.SendMessage(&one, reply); }), "550 refused");
    }
    EXPECT_EQ(split.Finish(), "");
}

TEST_F(SmtpClient, ConnectionDroppedDuringDataIsASocketFailure) {
    // 8 MB of body cannot all sit in the socket buffers, so the client is still sending when the
    // connection goes.
    message.m_sBody = CString('x', 8 << 20);
    ScriptedServer s;
    Greeted(s).Expect("MAIL From: <ann@example.org>\r\n").Send("250 OK\r\n");
    for (const char* r : {"carl@example.net", "nobody@example.net", "eve@example.net"})
        s.Expect(std::string("RCPT TO: <") + r + ">\r\n").Send("250 OK\r\n");
    s.Expect("DATA\r\n").Send("354 go\r\n").Close();
    {
        auto smtp = Connected(s);
        CString reply;
        std::string text = SmtpError([&] { smtp->SendMessage(&message, reply); });
        EXPECT_TRUE(text == "A existing connection was forcibly closed by the remote host" ||
                    text == "An established connection was aborted by the software in your host machine")
            << text;
    }
    EXPECT_EQ(s.Finish(), "");

    // Closed after the data, before the reply: the transaction ends quietly.
    ScriptedServer quiet;
    message.m_sBody = "short\r\n";
    Greeted(quiet).Expect("MAIL From: <ann@example.org>\r\n").Send("250 OK\r\n");
    for (const char* r : {"carl@example.net", "nobody@example.net", "eve@example.net"})
        quiet.Expect(std::string("RCPT TO: <") + r + ">\r\n").Send("250 OK\r\n");
    quiet.Expect("DATA\r\n").Send("354 go\r\n").ExpectData(kHeader + "short\r\n\r\n.\r\n").Close();
    {
        auto smtp = Connected(quiet);
        CString reply;
        bool accepted = true;
        EXPECT_EQ(SmtpError([&] { accepted = smtp->SendMessage(&message, reply); }), "<no exception>");
        EXPECT_FALSE(accepted);
    }
    EXPECT_EQ(quiet.Finish(), "");
}

TEST_F(SmtpClient, TerminationEventAndEndlessRepliesStopTheSession) {
    HANDLE event = CreateEvent(nullptr, TRUE, FALSE, nullptr);
    ScriptedServer s;
    // The reply to QUIT aborts too; the destructor swallows that.
    Greeted(s)
        .Expect("MAIL From: <ann@example.org>\r\n")
        .Send("250 OK\r\n")
        .Expect("QUIT\r\n")
        .Send("221 bye\r\n");
    auto smtp = Connected(s, 5, event);
    SetEvent(event);
    CString reply;
    EXPECT_EQ(SmtpError([&] { smtp->SendMessage(&message, reply); }), "Forced Termination by user");
    smtp.reset();
    EXPECT_EQ(s.Finish(), "");
    CloseHandle(event);

    // A reply that never ends its line is cut off instead of filling memory.
    ScriptedServer endless;
    endless.Send("220 mx.test\r\n").Expect(helo).Send(std::string(CSMTP::kMaxReply + 4096, 'x')).Hold();
    endless.Start();
    auto client = std::make_unique<CSMTP>(nullptr, 5);
    EXPECT_EQ(SmtpError([&] { client->Connect("127.0.0.1", reply, endless.Port()); }),
              "The server's reply is too long");
    client.reset();
    EXPECT_EQ(endless.Finish(), "");
    EXPECT_EQ(endless.Received(), helo) << "no QUIT into a reply that has not ended";
}

TEST_F(SmtpClient, HostileAddressesCannotAddCommands) {
    CMailMessage m;
    m.m_sFrom = "ann@example.org>\r\nRCPT TO: <spy@example.com";
    m.AddRecipient("carl@example.net>\r\nDATA\r\n", "Carl");
    m.m_sSubject = "x\r\n.\r\nQUIT";
    m.m_sBody = "body\n.\nQUIT\n";
    ScriptedServer s;
    Greeted(s)
        .Expect("MAIL From: <ann@example.org> RCPT TO: <spy@example.com>\r\n")
        .Send("250 OK\r\n")
        .Expect("RCPT TO: <carl@example.net> DATA >\r\n")
        .Send("250 OK\r\n")
        .Expect("DATA\r\n")
        .Send("354 go\r\n")
        .ExpectData(
            "From: ann@example.org> RCPT TO: <spy@example.com\r\n"
            "To: Carl <carl@example.net> DATA >\r\n"
            "Date: Sun, 09 Sep 01 01:46:40 UTC\r\n"
            "Subject: x . QUIT\r\n"
            "X-Mailer: Tavik Mail\r\n"
            "\r\n"
            "body\r\n..\r\nQUIT\r\n\r\n\r\n.\r\n")  // the CRLF the message adds to a body ending in LF
        .Send("250 OK\r\n")
        .Expect("QUIT\r\n")
        .Send("221 bye\r\n");
    {
        auto smtp = Connected(s);
        CString reply;
        EXPECT_EQ(SmtpError([&] { smtp->SendMessage(&m, reply); }), "<no exception>");
    }
    EXPECT_EQ(s.Finish(), "");
}

TEST_F(SmtpClient, MessagesComposedOnSeveralThreadsShareTheTypeManager) {
    std::vector<std::thread> threads;
    std::vector<std::string> bodies(4);
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t, &bodies] {
            for (int i = 0; i < 50; ++i) {
                CMIMEMessage m;
                m.m_sFrom = "a@x";
                m.AddRecipient("b@x");
                m.m_sBody = "some text to wrap, thread " + CString(char('0' + t));
                m.AddMIMEPart("more text", CMIMEMessage::TEXT_PLAIN, "", 0, 0);
                m.FormatMessage();
                bodies[t] = m.m_sBody.str();
            }
        });
    }
    for (auto& th : threads) th.join();
    for (int t = 0; t < 4; ++t)
        EXPECT_NE(bodies[t].find("thread " + std::string(1, char('0' + t)) + "\r\n--"), std::string::npos)
            << bodies[t];
}
