// The host's mail check end to end against the demo server, and the demo server as a POP3 server.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <string>
#include <thread>

#include "host/DemoPop3Server.h"
#include "host/MailCheck.h"
#include "host/SampleMailbox.h"
#include "messages/CMessageList.h"
#include "tests/support/ScriptedServer.h"
#include "transport/CPopMail.h"

using namespace tavik::host;

namespace {

std::vector<std::string> SampleTexts() {
    std::vector<std::string> texts;
    for (const auto& m : MakeSampleMailbox()) texts.push_back(m.text);
    return texts;
}

// Runs a check with its output in a temporary file; returns the exit code and fills out.
int Check(const CheckOptions& o, std::string& out) {
    FILE* f = std::tmpfile();
    int rc = RunMailCheck(o, f);
    std::rewind(f);
    char buf[4096];
    size_t n;
    out.clear();
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) out.append(buf, n);
    std::fclose(f);
    return rc;
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
    EXPECT_NE(out.find("\n12 messages\n"), std::string::npos) << out;

    EXPECT_EQ(Check(Options(server.Port(), "wrong"), out), 1);
    EXPECT_EQ(out.find(" messages\n"), std::string::npos) << "no table after a refused login";
}

TEST(MailCheck, InterruptStopsTheCheckThroughTheTerminationEvent) {
    tavik::test::ScriptedServer server;
    // The reply to USER comes late enough for the interrupt to have reached the termination event.
    server.Send("+OK\r\n").Expect("USER demo\r\n").Mark("user").Delay(1000).Send("+OK\r\n").Hold();
    server.Start();
    std::string out;
    int rc = -1;
    std::thread check([&] { rc = Check(Options(server.Port(), "x"), out); });
    ASSERT_TRUE(server.WaitMark("user"));
    std::raise(SIGINT);
    check.join();
    EXPECT_EQ(rc, 130);
    EXPECT_EQ(server.Finish(), "");
    EXPECT_EQ(server.Received(), "USER demo\r\n");
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
        EXPECT_EQ(count, 12);
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
    EXPECT_EQ(count, 11) << "the deletion took effect at QUIT";
    CMessageList record;
    ASSERT_TRUE(pop.GetHeader(2, record));
    EXPECT_EQ(std::string(record.GetSubject()), "Nightly build 1841 passed");
    EXPECT_TRUE(pop.Quit());
}
