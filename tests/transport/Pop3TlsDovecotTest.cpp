// The POP3 client over TLS against real Dovecots: STLS and POP3S with a certificate from an authority the
// test makes, and every way the certificate or the server can make the connection unsafe, each ending in
// an error that says why before any password goes out.
#include <gtest/gtest.h>

#include <memory>

#include "messages/CMessageList.h"
#include "tests/support/DovecotServer.h"
#include "tests/support/TempDir.h"
#include "tests/support/TestCertificates.h"
#include "tests/transport/Pop3TestSupport.h"

using namespace tavik::test;

namespace {

constexpr int kMessages = 5;

class Pop3TlsDovecot : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        s_dir = new TempDir;
        const std::string dir = s_dir->path().string();
        s_authority = new TestAuthority(dir, "tavik", "Tavik Test Authority");
        s_stranger = new TestAuthority(dir, "stranger", "Somebody Else's Authority");
        // Valid for "localhost" only: reached as 127.0.0.1 it names the wrong server.
        const auto good = s_authority->Issue("good", {"localhost"});
        const auto expired = s_authority->Issue("expired", {"localhost", "127.0.0.1"}, -30L * 86400, -86400);
        s_good = Start(good);
        s_expired = Start(expired);
        s_plain = new DovecotServer;
        s_plain->Start();
    }
    static DovecotServer* Start(const TestAuthority::Issued& certificate) {
        auto* server = new DovecotServer;
        for (int i = 1; i <= kMessages; ++i)
            server->AddMessage(MakeTestMessage(i, i == 3 ? 300000 : 400).text);
        server->EnableTls(certificate.certificateFile, certificate.keyFile);
        server->Start();
        return server;
    }
    static void TearDownTestSuite() {
        for (DovecotServer** s : {&s_good, &s_expired, &s_plain}) {
            delete *s;
            *s = nullptr;
        }
        delete s_authority;
        delete s_stranger;
        delete s_dir;
    }

    // A client that trusts the test's authority (or the one given).
    std::unique_ptr<CPopMail> Client(CBlockingSocket::SECURITY security, HWND window = nullptr,
                                     const TestAuthority* trusted = s_authority, bool verify = true) {
        auto pop = std::make_unique<CPopMail>(nullptr, window, 10);
        pop->SetSecurity(security, verify, trusted->CertificateFile().c_str());
        return pop;
    }

    WinsockSession winsock;
    static TempDir* s_dir;
    static TestAuthority* s_authority;
    static TestAuthority* s_stranger;
    static DovecotServer* s_good;
    static DovecotServer* s_expired;
    static DovecotServer* s_plain;
};

TempDir* Pop3TlsDovecot::s_dir = nullptr;
TestAuthority* Pop3TlsDovecot::s_authority = nullptr;
TestAuthority* Pop3TlsDovecot::s_stranger = nullptr;
DovecotServer* Pop3TlsDovecot::s_good = nullptr;
DovecotServer* Pop3TlsDovecot::s_expired = nullptr;
DovecotServer* Pop3TlsDovecot::s_plain = nullptr;

// A whole session: log in, statistics, a pipelined scan, one large message, quit.
void RunSession(CPopMail& pop, const DovecotServer& server) {
    ASSERT_TRUE(pop.Login(server.User().c_str(), server.Password().c_str()));
    int count = 0, size = 0;
    ASSERT_TRUE(pop.MailBoxStats(&count, &size));
    EXPECT_EQ(count, kMessages);
    int scanned = 0;
    ASSERT_TRUE(pop.GetHeaders(1, count, [&](int n, std::unique_ptr<CMessageList> record) {
        EXPECT_EQ(std::string(record->GetHeader()), MakeTestMessage(n, 0).headerCrlf) << n;
        ++scanned;
        return true;
    }));
    EXPECT_EQ(scanned, kMessages);
    CString message;
    ASSERT_TRUE(pop.Retrieve(3, message));
    EXPECT_GT(message.GetLength(), 300000);
    EXPECT_EQ(message.Find("Line 0 of message 3"), message.Find("\r\n\r\n") + 4);
    EXPECT_TRUE(pop.Quit());
}

}  // namespace

TEST_F(Pop3TlsDovecot, StlsAndPop3sCarryAWholeSessionAndShowWhatWasAgreed) {
    {
        StatusWindow window;
        auto pop = Client(CBlockingSocket::SECURITY_STARTTLS, window.hwnd());
        ASSERT_TRUE(pop->Connect("localhost", s_good->Port()));
        EXPECT_TRUE(pop->IsSecure());
        RunSession(*pop, *s_good);
        const std::string all = window.All();
        // Plain greeting, then STLS and its reply, then the agreement, then the login.
        const size_t greeting = all.find("] +OK Dovecot (Debian) ready.\r\n");
        const size_t stls = all.find("] STLS\r\n");
        const size_t secure = all.find("] Secure connection: TLSv1.3, TLS_");
        const size_t user = all.find("] USER alice\r\n");
        EXPECT_TRUE(greeting < stls && stls < secure && secure < user) << all;
        EXPECT_NE(all.find("-bit key\r\n"), std::string::npos) << all;
        EXPECT_EQ(all.find("not checked"), std::string::npos) << all;
        EXPECT_EQ(all.find(s_good->Password()), std::string::npos);
    }
    {
        StatusWindow window;
        auto pop = Client(CBlockingSocket::SECURITY_TLS, window.hwnd());
        ASSERT_TRUE(pop->Connect("localhost", s_good->TlsPort()));
        EXPECT_TRUE(pop->IsSecure());
        EXPECT_NE(pop->GetSecurityDescription().Find("TLSv1.3, TLS_"), -1);
        RunSession(*pop, *s_good);
        const std::string all = window.All();
        EXPECT_LT(all.find("] Secure connection: TLSv1.3"), all.find("] +OK Dovecot (Debian) ready.")) << all;
        EXPECT_EQ(all.find("STLS"), std::string::npos) << all;
    }
}

TEST_F(Pop3TlsDovecot, BadCertificatesEndTheConnectionWithTheReason) {
    struct Case {
        const char* what;
        const char* host;
        DovecotServer* server;
        const TestAuthority* trusted;
        std::string expected;
    };
    const Case cases[] = {
        {"wrong name", "127.0.0.1", s_good, s_authority,
         "The server's certificate does not name the server: it is for localhost, not 127.0.0.1\r\n"},
        {"unknown authority", "localhost", s_good, s_stranger,
         "The server's certificate is not signed by a trusted authority: it was issued by O = Tavik tests, "
         "CN = Tavik Test Authority, which is not trusted here\r\n"},
        {"expired", "localhost", s_expired, s_authority,
         "The server's certificate has expired or is not valid yet: it expired on "},
    };
    for (const Case& c : cases) {
        for (auto security : {CBlockingSocket::SECURITY_STARTTLS, CBlockingSocket::SECURITY_TLS}) {
            SCOPED_TRACE(std::string(c.what) +
                         (security == CBlockingSocket::SECURITY_TLS ? " POP3S" : " STLS"));
            StatusWindow window;
            auto pop = Client(security, window.hwnd(), c.trusted);
            const int port =
                security == CBlockingSocket::SECURITY_TLS ? c.server->TlsPort() : c.server->Port();
            const std::string error = PopError([&] { pop->Connect(c.host, port); });
            EXPECT_EQ(error.substr(0, c.expected.size()), c.expected);
            // Shown in the status window as every socket failure is, and nothing sent after it.
            EXPECT_EQ(window.lines.back().substr(window.lines.back().find("] ") + 2), error);
            EXPECT_FALSE(pop->IsSecure());
            EXPECT_EQ(PopError([&] { pop->Login("alice", "s3cret-Pa55"); }),
                      "The connection is not encrypted, so the user name and password were not sent\r\n");
        }
    }
    // Turning the check off is the one way through, and says so.
    auto pop = Client(CBlockingSocket::SECURITY_TLS, nullptr, s_stranger, false);
    ASSERT_TRUE(pop->Connect("127.0.0.1", s_expired->TlsPort()));
    EXPECT_NE(pop->GetSecurityDescription().Find(", certificate not checked"), -1);
    RunSession(*pop, *s_expired);
}

TEST_F(Pop3TlsDovecot, AServerWithoutTlsIsAnErrorNeverAFallBackToPlainText) {
    StatusWindow window;
    auto pop = Client(CBlockingSocket::SECURITY_STARTTLS, window.hwnd());
    EXPECT_EQ(PopError([&] { pop->Connect("127.0.0.1", s_plain->Port()); }),
              "The server does not offer STLS, so the connection cannot be encrypted\r\n");
    EXPECT_EQ(window.All().find("USER"), std::string::npos);

    // TLS from the first byte to a port that speaks plain POP3: the server's own words say what is wrong.
    pop = Client(CBlockingSocket::SECURITY_TLS);
    EXPECT_EQ(PopError([&] { pop->Connect("127.0.0.1", s_plain->Port()); }),
              "The TLS handshake with the server failed: the server did not answer in TLS; it sent \"+OK "
              "Dovecot (Debian) ready.\"\r\n");

    // Without security the dialogue is the plain one, on a server that could have offered TLS.
    StatusWindow plain;
    pop = std::make_unique<CPopMail>(nullptr, plain.hwnd(), 10);
    ASSERT_TRUE(pop->Connect("127.0.0.1", s_good->Port()));
    EXPECT_FALSE(pop->IsSecure());
    RunSession(*pop, *s_good);
    EXPECT_EQ(plain.All().find("STLS"), std::string::npos);
    EXPECT_EQ(plain.All().find("Secure"), std::string::npos);
}
