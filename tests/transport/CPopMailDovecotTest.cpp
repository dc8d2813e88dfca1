// The POP3 client against a real server: a private Dovecot started by the tests themselves.
#include <gtest/gtest.h>

#include <memory>

#include "messages/CMessageList.h"
#include "platform/Clock.h"
#include "tests/support/DovecotServer.h"
#include "tests/transport/Pop3TestSupport.h"

using namespace tavik::test;

namespace {

constexpr int kMessages = 24;

// What a POP3 server sends for a stored message: CRLF lines, a dot doubled in front of a line that
// starts with one. The client keeps the doubling, so this is also what Retrieve returns (without the
// final line end, which goes with the end mark).
std::string OnTheWire(const GeneratedMessage& m) {
    std::string all = m.headerCrlf + "\r\n" + m.bodyCrlf, out;
    bool lineStart = true;
    for (char c : all) {
        if (lineStart && c == '.') out += '.';
        out += c;
        lineStart = c == '\n';
    }
    return out;
}

class Pop3Dovecot : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        s_server = new DovecotServer;
        for (int i = 1; i <= kMessages; ++i) {
            // One message is large enough to need many receives.
            s_sent.push_back(MakeTestMessage(i, i == 7 ? 400000 : 200 + 90 * i));
            s_server->AddMessage(s_sent.back().text);
        }
        s_server->Start();
    }
    static void TearDownTestSuite() {
        delete s_server;
        s_server = nullptr;
        s_sent.clear();
    }

    std::unique_ptr<CPopMail> LoggedIn(DovecotServer& server, HWND window = nullptr) {
        auto pop = std::make_unique<CPopMail>(nullptr, window, 10);
        EXPECT_TRUE(pop->Connect("127.0.0.1", server.Port()));
        EXPECT_TRUE(pop->Login(server.User().c_str(), server.Password().c_str()));
        return pop;
    }

    WinsockSession winsock;
    static DovecotServer* s_server;
    static std::vector<GeneratedMessage> s_sent;
};

DovecotServer* Pop3Dovecot::s_server = nullptr;
std::vector<GeneratedMessage> Pop3Dovecot::s_sent;

}  // namespace

TEST_F(Pop3Dovecot, LogsInReadsStatsAndScansEveryHeader) {
    StatusWindow window;
    auto pop = LoggedIn(*s_server, window.hwnd());
    EXPECT_NE(window.All().find("] +OK Dovecot (Debian) ready.\r\n"), std::string::npos) << window.All();
    EXPECT_NE(window.All().find("] PASS xxxxxxx\r\n"), std::string::npos);
    EXPECT_EQ(window.All().find(s_server->Password()), std::string::npos);

    int count = 0, size = 0;
    ASSERT_TRUE(pop->MailBoxStats(&count, &size));
    EXPECT_EQ(count, kMessages);
    long total = 0;
    for (int n = 1; n <= kMessages; ++n) {
        const GeneratedMessage& sent = s_sent[n - 1];
        CMessageList record;
        ASSERT_TRUE(pop->GetHeader(n, record)) << n;
        EXPECT_EQ(std::string(record.GetHeader()), sent.headerCrlf) << n;
        EXPECT_EQ(record.GetMsgSize(), sent.headerCrlf.size() + 2 + sent.bodyCrlf.size()) << n;
        EXPECT_EQ(std::string(record.GetSubject()), sent.subject) << n;
        CString uid;
        ASSERT_TRUE(pop->GetIDString(n, uid));
        EXPECT_EQ(uid.GetLength(), 16) << "Dovecot's %08Xu%08Xv: " << uid.GetString();
        EXPECT_EQ(record.GetID(), Crc(uid.GetString())) << n;
        total += static_cast<long>(record.GetMsgSize());
    }
    EXPECT_EQ(size, total);
    EXPECT_TRUE(pop->KeepAlive());
    EXPECT_TRUE(pop->Quit());
}

// Dovecot lists PIPELINING, so this is the pipelined path against a real server.
TEST_F(Pop3Dovecot, PipelinedScanGivesTheRecordsAndStatusLinesOfTheOneMessagePath) {
    ScopedClockPin clock;
    auto describe = [](const CMessageList& r) {
        return std::string(r.GetHeader()) + "|" + std::to_string(r.GetID()) + "|" +
               std::to_string(r.GetMsgSize()) + "|" + std::string(r.GetSubject());
    };
    std::vector<std::string> one, piped, oneScan;
    StatusWindow oneLines, pipedLines;
    {
        auto pop = LoggedIn(*s_server, oneLines.hwnd());
        oneLines.lines.clear();
        for (int n = 1; n <= kMessages; ++n) {
            CMessageList record;
            ASSERT_TRUE(pop->GetHeader(n, record));
            one.push_back(describe(record));
        }
        oneScan = oneLines.lines;
        EXPECT_TRUE(pop->Quit());
    }
    auto pop = LoggedIn(*s_server, pipedLines.hwnd());
    pipedLines.lines.clear();
    // Twice, from the middle: the second scan asks no CAPA again and the session stays in step.
    EXPECT_TRUE(pop->GetHeaders(1, 10, [&](int, std::unique_ptr<CMessageList> r) {
        piped.push_back(describe(*r));
        return true;
    }));
    EXPECT_TRUE(pop->GetHeaders(11, kMessages, [&](int, std::unique_ptr<CMessageList> r) {
        piped.push_back(describe(*r));
        return true;
    }));
    EXPECT_EQ(piped, one);
    EXPECT_EQ(pipedLines.lines, oneScan);
    EXPECT_EQ(oneScan.size(), 2u * kMessages);
    EXPECT_TRUE(pop->KeepAlive());
    EXPECT_TRUE(pop->Quit());
}

TEST_F(Pop3Dovecot, RetrievesWholeMessagesWithTheirDotsAndRefusesAWrongPassword) {
    auto pop = LoggedIn(*s_server);
    for (int n : {1, 5, 7, kMessages}) {
        CString message;
        ASSERT_TRUE(pop->Retrieve(n, message)) << n;
        std::string expected = OnTheWire(s_sent[n - 1]);
        expected.resize(expected.size() - 2);
        EXPECT_EQ(message.GetLength(), static_cast<int>(expected.size())) << n;
        EXPECT_TRUE(std::string(message) == expected) << n;
    }
    EXPECT_TRUE(pop->Quit());

    CPopMail wrong(nullptr, nullptr, 10);
    ASSERT_TRUE(wrong.Connect("127.0.0.1", s_server->Port()));
    EXPECT_FALSE(wrong.Login(s_server->User().c_str(), "not the password"));
}

// Its own mailbox: this test changes it for good.
TEST_F(Pop3Dovecot, ResetUndoesDeletionsAndTheRestTakeEffectAtQuit) {
    DovecotServer server;
    std::vector<GeneratedMessage> sent;
    for (int i = 1; i <= 5; ++i) {
        sent.push_back(MakeTestMessage(100 + i));
        server.AddMessage(sent.back().text);
    }
    server.Start();
    {
        StatusWindow window;
        auto pop = LoggedIn(server, window.hwnd());
        EXPECT_TRUE(pop->DeleteMsg(2));
        EXPECT_EQ(PopError([&] { pop->DeleteMsg(2); }), "-ERR Message is deleted.\r\n");
        EXPECT_TRUE(pop->ResetMailbox());
        EXPECT_TRUE(pop->DeleteMsg(2)) << "reset brought it back";
        EXPECT_TRUE(pop->DeleteMsg(4));
        EXPECT_TRUE(pop->Quit());
        EXPECT_NE(window.lines.back().find("+OK Logging out, messages deleted."), std::string::npos);
    }
    auto pop = LoggedIn(server);
    int count = 0, size = 0;
    ASSERT_TRUE(pop->MailBoxStats(&count, &size));
    EXPECT_EQ(count, 3);
    int kept[] = {1, 3, 5};
    for (int n = 1; n <= 3; ++n) {
        CMessageList record;
        ASSERT_TRUE(pop->GetHeader(n, record));
        EXPECT_EQ(std::string(record.GetSubject()), sent[kept[n - 1] - 1].subject);
    }
    EXPECT_TRUE(pop->Quit());
}
