// The host's mail check end to end against the demo server, and the demo server as a POP3 server.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <functional>
#include <string>
#include <thread>

#include <unistd.h>

#include "host/DemoPop3Server.h"
#include "host/MailCheck.h"
#include "host/SampleMailbox.h"
#include "messages/CMessageList.h"
#include "platform/Clock.h"
#include "platform/Kernel.h"
#include "tests/support/FullListener.h"
#include "tests/support/ScriptedServer.h"
#include "transport/CPopMail.h"

using namespace tavik::host;

namespace {

std::vector<std::string> SampleTexts() {
    std::vector<std::string> texts;
    for (const auto& m : MakeSampleMailbox()) texts.push_back(m.text);
    return texts;
}

std::string ReadAll(FILE* f) {
    std::rewind(f);
    std::string text;
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) text.append(buf, n);
    std::fclose(f);
    return text;
}

// Runs a check with its output and errors in temporary files; returns the exit code.
int Check(const CheckOptions& o, std::string& out, std::string* err = nullptr) {
    FILE* f = std::tmpfile();
    FILE* e = std::tmpfile();
    int rc = RunMailCheck(o, f, e);
    out = ReadAll(f);
    std::string errors = ReadAll(e);
    if (err) *err = errors;
    return rc;
}

// Whether the output the check has flushed so far holds text, within timeoutMs.
bool WaitForOutput(int fd, const std::string& text, int timeoutMs = 10000) {
    for (int waited = 0; waited < timeoutMs; waited += 10) {
        std::string seen;
        char buf[4096];
        ssize_t n;
        for (off_t at = 0; (n = ::pread(fd, buf, sizeof buf, at)) > 0; at += n) seen.append(buf, n);
        if (seen.find(text) != std::string::npos) return true;
        Sleep(10);
    }
    return false;
}

CheckOptions Options(unsigned short port, const char* password) {
    return {.server = "127.0.0.1", .port = port, .user = "demo", .password = password, .timeLimit = 10};
}

struct Winsock {
    Winsock() { WSAStartup(0x0101, nullptr); }
    ~Winsock() { WSACleanup(); }
};

}  // namespace

TEST(MailCheck, ListsEveryMessageOfTheDemoMailboxAndHidesThePassword) {
    DemoPop3Server server(SampleTexts(), "demo", "pw-demo");
    ASSERT_TRUE(server.Start());
    std::string out;
    EXPECT_EQ(Check(Options(server.Port(), "pw-demo"), out), 0) << out;
    for (const auto& m : MakeSampleMailbox()) {
        size_t at = m.text.find("Subject: ") + 9;
        std::string subject = m.text.substr(at, m.text.find("\r\n", at) - at).substr(0, 31);
        EXPECT_NE(out.find(subject), std::string::npos) << subject;
    }
    EXPECT_NE(out.find("PASS xxxxxxx\n"), std::string::npos);
    EXPECT_EQ(out.find("pw-demo"), std::string::npos);
    EXPECT_EQ(out.find('\r'), std::string::npos) << "status lines reach the terminal with LF ends";
    EXPECT_NE(out.find("\n14 messages\n"), std::string::npos) << out;

    EXPECT_EQ(Check(Options(server.Port(), "wrong"), out), 1);
    EXPECT_EQ(out.find(" messages\n"), std::string::npos) << "no table after a refused login";
}

// The same mailbox checked with pipelining and one command at a time prints the same, line for line.
TEST(MailCheck, PipelinedAndOneMessageChecksPrintTheSame) {
    ScopedClockPin clock;
    DemoPop3Server server(SampleTexts(), "demo", "pw-demo");
    ASSERT_TRUE(server.Start());
    CheckOptions o = Options(server.Port(), "pw-demo");
    std::string piped, single;
    EXPECT_EQ(Check(o, piped), 0);
    o.pipeline = false;
    EXPECT_EQ(Check(o, single), 0);
    EXPECT_EQ(piped, single);
}

// Connecting to a swamped server, a silent one, a dribbling one, and in the middle of a scan: Ctrl-C ends
// the check within a second although the time limit is 30 s.
TEST(MailCheck, CtrlCEndsTheCheckWithinASecondInEveryState) {
    tavik::test::FullListener swamped;
    const std::string login = "+OK\r\n";
    struct Case {
        const char* what;
        std::function<void(tavik::test::ScriptedServer&)> script;  // null: the swamped port
    } cases[] = {
        {"connecting", nullptr},
        {"silent greeting", [](auto& s) { s.Mark("there").Hold(); }},
        {"dribbling reply",
         [](auto& s) {
             s.Send("+OK\r\n")
                 .Expect("USER demo\r\n")
                 .Mark("there")
                 .Send("+OK " + std::string(300, 'x'), 1, 50);
         }},
        {"mid-scan",
         [](auto& s) {
             s.Send("+OK\r\n").Expect("USER demo\r\n").Send("+OK\r\n").Expect("PASS x\r\n").Send("+OK\r\n");
             s.Expect("STAT\r\n").Send("+OK 3 300\r\n").Expect("CAPA\r\n").Send("+OK\r\nPIPELINING\r\n.\r\n");
             s.Expect("LIST 1\r\n")
                 .Send("+OK 1 100\r\n")
                 .Expect("TOP 1 0\r\n")
                 .Send("+OK\r\nSubject: a\r\n\r\n.\r\n");
             s.Mark("there").Hold();
         }},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.what);
        tavik::test::ScriptedServer server;
        if (c.script) {
            c.script(server);
            server.Start();
        }
        CheckOptions o = Options(c.script ? server.Port() : swamped.Port(), "x");
        o.timeLimit = 30;
        FILE* out = std::tmpfile();
        FILE* err = std::tmpfile();
        const int outFd = fileno(out);
        int rc = -1;
        std::thread check([&] { rc = RunMailCheck(o, out, err); });
        // Ctrl-C before the check is watching for it would end the test process: wait until the
        // check says it is connecting (its handler is in place by then), or until the server got
        // as far as the case wants.
        const bool ready =
            c.script ? server.WaitMark("there") : WaitForOutput(outFd, "Connecting to 127.0.0.1");
        if (!ready) {
            // Ends the check so that the thread can be joined.
            std::raise(SIGINT);
            check.join();
            FAIL() << "the check never got into the wait: " << ReadAll(out);
        }
        Sleep(200);  // well into the wait
        auto raised = std::chrono::steady_clock::now();
        std::raise(SIGINT);
        check.join();
        EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - raised).count(), 1.0);
        EXPECT_EQ(rc, 130);
        ReadAll(out);
        EXPECT_EQ(ReadAll(err), "tavik: check stopped: Forced Termination by user\n");
        server.Stop();
    }
}

// What a user reads when the server does not play along.
TEST(MailCheck, FailuresSayWhatHappened) {
    struct Case {
        const char* what;
        std::function<void(tavik::test::ScriptedServer&)> script;
        std::string error;
    } cases[] = {
        {"negative greeting", [](auto& s) { s.Send("-ERR too busy, come back later\r\n").Hold(); },
         "the server's greeting was not positive: -ERR too busy, come back later"},
        {"no greeting", [](auto& s) { s.Close(); }, "the server closed the connection without a greeting"},
        {"count beyond an int",
         [](auto& s) {
             s.Send("+OK\r\n").Expect("USER demo\r\n").Send("+OK\r\n").Expect("PASS x\r\n").Send("+OK\r\n");
             s.Expect("STAT\r\n").Send("+OK 2147483648 0\r\n").Hold();
         },
         "The server reported an impossible message count: +OK 2147483648 0"},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.what);
        tavik::test::ScriptedServer server;
        c.script(server);
        server.Start();
        std::string out, err;
        EXPECT_EQ(Check(Options(server.Port(), "x"), out, &err), 1);
        EXPECT_EQ(err, "tavik: check failed: " + c.error + "\n");
        EXPECT_EQ(out.find(" messages\n"), std::string::npos) << "no table";
        server.Stop();
    }

    tavik::test::FullListener swamped;
    CheckOptions o = Options(swamped.Port(), "x");
    o.timeLimit = 1;
    std::string out, err;
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(Check(o, out, &err), 1);
    EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), 3.0);
    EXPECT_EQ(err, "tavik: check failed: Attempt to connect timed out without establishing a connection\n");
}

// A server that claims two thousand million messages gets a scan that stops at the limit.
TEST(MailCheck, ScanStopsAtTheLimit) {
    tavik::test::ScriptedServer server;
    server.Send("+OK\r\n").Expect("USER demo\r\n").Send("+OK\r\n").Expect("PASS x\r\n").Send("+OK\r\n");
    server.Expect("STAT\r\n")
        .Send("+OK 2147483647 0\r\n")
        .Expect("CAPA\r\n")
        .Send("+OK\r\nPIPELINING\r\n.\r\n");
    for (const char* n : {"1", "2", "3"}) {
        server.Expect(std::string("LIST ") + n + "\r\n").Send(std::string("+OK ") + n + " 10\r\n");
        server.Expect(std::string("TOP ") + n + " 0\r\n").Send("+OK\r\nSubject: s\r\n\r\n.\r\n");
        server.Expect(std::string("UIDL ") + n + "\r\n").Send(std::string("+OK ") + n + " u" + n + "\r\n");
    }
    server.Expect("QUIT\r\n").Send("+OK\r\n");
    server.Start();
    CheckOptions o = Options(server.Port(), "x");
    o.scanLimit = 3;
    std::string out;
    EXPECT_EQ(Check(o, out), 0);
    EXPECT_NE(out.find("\n3 of 2147483647 messages (the scan limit; --all lists every one)\n"),
              std::string::npos)
        << out;
    EXPECT_EQ(server.Finish(), "");
}

TEST(DemoPop3Server, ServesTheMailboxAsAPop3Server) {
    Winsock winsock;
    DemoPop3Server server(SampleTexts(), "demo", "pw");
    ASSERT_TRUE(server.Start());  // its refusal of a wrong password is in the mail check test
    {
        CPopMail pop(nullptr, nullptr, 10);
        ASSERT_TRUE(pop.Connect("127.0.0.1", server.Port()));
        ASSERT_TRUE(pop.Login("demo", "pw"));
        int count = 0, size = 0;
        ASSERT_TRUE(pop.MailBoxStats(&count, &size));
        EXPECT_EQ(count, 14);
        CString message;
        ASSERT_TRUE(pop.Retrieve(3, message));  // its body has a line made of one dot
        EXPECT_NE(std::string(message).find("\r\n..\r\nDuration"), std::string::npos) << "sent dot-stuffed";
        CMessageList record;
        ASSERT_TRUE(pop.GetHeader(2, record));
        EXPECT_EQ(std::string(record.GetSubject()), "You have WON $1,000,000 !!!");
        EXPECT_EQ(record.GetMsgSize(), SampleTexts()[1].size());
        EXPECT_TRUE(pop.DeleteMsg(2));
        EXPECT_TRUE(pop.ResetMailbox());
        EXPECT_TRUE(pop.DeleteMsg(2)) << "reset brought it back";
        EXPECT_TRUE(pop.Quit());
    }
    CPopMail pop(nullptr, nullptr, 10);
    ASSERT_TRUE(pop.Connect("127.0.0.1", server.Port()));
    ASSERT_TRUE(pop.Login("demo", "pw"));
    int count = 0, size = 0;
    ASSERT_TRUE(pop.MailBoxStats(&count, &size));
    EXPECT_EQ(count, 13) << "the deletion took effect at QUIT";
    CMessageList record;
    ASSERT_TRUE(pop.GetHeader(2, record));
    EXPECT_EQ(std::string(record.GetSubject()), "Nightly build 1841 passed");
    EXPECT_TRUE(pop.Quit());
}
