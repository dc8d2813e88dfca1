// The SMTP client over TLS against a real Exim that takes mail only from users who log in, as a
// submission server does: STARTTLS and TLS from the first byte, AUTH PLAIN and AUTH LOGIN, and the
// refusals (a password over plain text, a wrong password, a certificate for another name).
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <fstream>
#include <memory>

#include "tests/support/DovecotServer.h"
#include "tests/support/EximServer.h"
#include "tests/support/TempDir.h"
#include "tests/support/TestCertificates.h"
#include "tests/transport/Pop3TestSupport.h"
#include "transport/CMailMessage.h"
#include "transport/CSMTP.h"

using namespace tavik::test;

namespace {

constexpr const char* kUser = "carol";
constexpr const char* kPassword = "Sub-m1ssion pass";

class SmtpTlsExim : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        s_dir = new TempDir;
        s_authority = new TestAuthority(s_dir->path().string(), "tavik", "Tavik Test Authority");
        const auto certificate = s_authority->Issue("mta", {"localhost"});
        s_dovecot = new DovecotServer;
        s_dovecot->Start();
        s_exim = new EximServer(s_dovecot->Dir() + "/Maildir");
        s_exim->EnableTls(certificate.certificateFile, certificate.keyFile);
        // Mail only from users who logged in; both mechanisms only over TLS, PLAIN unless a flag file
        // says otherwise (so that one server can show the client both).
        s_exim->AddMainOptions("acl_smtp_mail = accept authenticated = *\n");
        const std::string check = std::string("{eq{$auth2}{") + kUser + "}}{eq{$auth3}{" + kPassword + "}}";
        s_exim->SetAuthenticators(
            "plain:\n  driver = plaintext\n  public_name = PLAIN\n  server_prompts = :\n"
            "  server_advertise_condition = ${if and{{def:tls_in_cipher}{!exists{" +
            NoPlainFlag() + "}}}}\n  server_condition = ${if and{" + check +
            "}}\n  server_set_id = $auth2\n"
            "login:\n  driver = plaintext\n  public_name = LOGIN\n  server_prompts = <| Username: | "
            "Password:\n"
            "  server_advertise_condition = ${if def:tls_in_cipher}\n"
            "  server_condition = ${if and{{eq{$auth1}{" +
            kUser + "}}{eq{$auth2}{" + kPassword + "}}}}\n  server_set_id = $auth1\n");
        s_exim->Start();
    }
    static void TearDownTestSuite() {
        delete s_exim;
        delete s_dovecot;
        delete s_authority;
        delete s_dir;
    }
    void TearDown() override {
        ::unlink(NoPlainFlag().c_str());
        if (HasFailure()) std::cerr << s_exim->Log();
    }
    static std::string NoPlainFlag() { return s_exim ? s_exim->Dir() + "/no-plain" : "/nonexistent"; }

    std::unique_ptr<CSMTP> Client(CBlockingSocket::SECURITY security, bool login = true,
                                  const char* password = kPassword) {
        auto smtp = std::make_unique<CSMTP>(nullptr, 10);
        smtp->SetSecurity(security, true, s_authority->CertificateFile().c_str());
        if (login) smtp->SetLogin(kUser, password);
        return smtp;
    }
    int Port(CBlockingSocket::SECURITY security) const {
        return security == CBlockingSocket::SECURITY_TLS ? s_exim->TlsPort() : s_exim->Port();
    }

    // Large enough for many records and many sends; a lone dot line to be doubled on the way.
    static std::string Body() {
        std::string body = "Sent over TLS.\r\n.\r\nwith a lone dot above.\r\n";
        for (int i = 0; body.size() < 3000000; ++i)
            body += "Line " + std::to_string(i) + " of a long text.\r\n";
        return body;
    }
    static CMailMessage Message(const char* subject) {
        CMailMessage m;
        m.m_sFrom = "carol@example.org";
        m.m_sSubject = subject;
        m.AddRecipient(("alice@" + s_exim->Domain()).c_str());
        m.m_sBody = Body().c_str();
        return m;
    }
    // The last message of the mailbox over POP3, dot-stuffing undone.
    static std::string LastMessage() {
        CPopMail pop(nullptr, nullptr, 10);
        int count = 0, size = 0;
        CString text;
        EXPECT_TRUE(pop.Connect("127.0.0.1", s_dovecot->Port()));
        EXPECT_TRUE(pop.Login(s_dovecot->User().c_str(), s_dovecot->Password().c_str()));
        EXPECT_TRUE(pop.MailBoxStats(&count, &size));
        EXPECT_TRUE(pop.Retrieve(count, text));
        pop.Quit();
        std::string out;
        for (size_t at = 0; at < text.str().size();) {
            const size_t end = std::min(text.str().find("\r\n", at), text.str().size());
            const size_t skip = text.str().compare(at, 2, "..") == 0 ? 1 : 0;
            out += text.str().substr(at + skip, end - at - skip) + "\r\n";
            at = end + 2;
        }
        return out;
    }

    std::string Error(CSMTP& smtp, int port, CMailMessage* message = nullptr) {
        try {
            CString reply;
            smtp.Connect("localhost", reply, port);
            if (message) smtp.SendMessage(message, reply);
        } catch (CSMTPException* e) {
            std::string text = e->GetErrorMessage().GetString();
            e->Delete();
            return text;
        }
        return "<no exception>";
    }

    WinsockSession winsock;
    static TempDir* s_dir;
    static TestAuthority* s_authority;
    static DovecotServer* s_dovecot;
    static EximServer* s_exim;
};

TempDir* SmtpTlsExim::s_dir = nullptr;
TestAuthority* SmtpTlsExim::s_authority = nullptr;
DovecotServer* SmtpTlsExim::s_dovecot = nullptr;
EximServer* SmtpTlsExim::s_exim = nullptr;

}  // namespace

TEST_F(SmtpTlsExim, LogsInOverStartTlsAndOverTlsAndTheMessageArrives) {
    struct Case {
        const char* what;
        CBlockingSocket::SECURITY security;
        bool plainOffered;
        const char* mechanism;  // as Exim's log names the authenticator
    };
    const Case cases[] = {
        {"STARTTLS, AUTH PLAIN", CBlockingSocket::SECURITY_STARTTLS, true, "A=plain:carol"},
        {"TLS, AUTH LOGIN", CBlockingSocket::SECURITY_TLS, false, "A=login:carol"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        if (!c.plainOffered) std::ofstream(NoPlainFlag()) << "\n";
        const size_t before = s_exim->MaildirCount();
        CMailMessage m = Message(c.what);
        {
            auto smtp = Client(c.security);
            CString reply;
            ASSERT_TRUE(smtp->Connect("localhost", reply, Port(c.security)));
            EXPECT_EQ(reply.Left(4), "235 ") << reply.GetString();
            EXPECT_TRUE(smtp->IsSecure());
            EXPECT_NE(smtp->GetSecurityDescription().Find("TLSv1.3, TLS_"), -1);
            ASSERT_TRUE(smtp->SendMessage(&m, reply));
        }
        ASSERT_TRUE(s_exim->WaitForMessages(before + 1));
        const std::string stored = LastMessage();
        EXPECT_TRUE(stored.size() > Body().size() &&
                    stored.compare(stored.size() - Body().size(), Body().size(), Body()) == 0)
            << "the message did not arrive whole";
        // The arrival line of the message just sent: the last one in the main log.
        const std::string log = s_exim->Log().substr(0, s_exim->Log().find("== log/rejectlog"));
        const size_t arrival = log.rfind(" <= ");
        ASSERT_NE(arrival, std::string::npos) << log;
        const std::string line = log.substr(arrival, log.find('\n', arrival) - arrival);
        EXPECT_NE(line.find(c.mechanism), std::string::npos) << line;
        EXPECT_NE(line.find(" X=TLS1.3:"), std::string::npos) << line;
        ::unlink(NoPlainFlag().c_str());
    }
}

TEST_F(SmtpTlsExim, WithoutALoginTheServerRefusesTheMailAndAWrongPasswordIsItsReply) {
    CMailMessage m = Message("not logged in");
    auto smtp = Client(CBlockingSocket::SECURITY_STARTTLS, false);
    EXPECT_EQ(Error(*smtp, s_exim->Port(), &m), "550 Administrative prohibition");
    EXPECT_TRUE(smtp->IsSecure());

    smtp = Client(CBlockingSocket::SECURITY_STARTTLS, true, "wrong");
    EXPECT_EQ(Error(*smtp, s_exim->Port()), "535 Incorrect authentication data");
    std::ofstream(NoPlainFlag()) << "\n";
    smtp = Client(CBlockingSocket::SECURITY_TLS, true, "wrong");
    EXPECT_EQ(Error(*smtp, s_exim->TlsPort()), "535 Incorrect authentication data");
}

TEST_F(SmtpTlsExim, NoPasswordOverPlainTextAndNoTrustInTheWrongCertificate) {
    auto smtp = Client(CBlockingSocket::SECURITY_NONE);
    EXPECT_EQ(Error(*smtp, s_exim->Port()),
              "The password is sent only over an encrypted connection: ask for TLS or STARTTLS to log in");
    EXPECT_EQ(smtp->m_hSocket, 0u) << "refused before connecting";

    for (auto security : {CBlockingSocket::SECURITY_STARTTLS, CBlockingSocket::SECURITY_TLS}) {
        smtp = Client(security);
        try {
            CString reply;
            smtp->Connect("127.0.0.1", reply, Port(security));
            ADD_FAILURE() << "connected to a server whose certificate names another";
        } catch (CSMTPException* e) {
            EXPECT_EQ(
                std::string(e->GetErrorMessage()),
                "The server's certificate does not name the server: it is for localhost, not 127.0.0.1");
            e->Delete();
        }
        EXPECT_FALSE(smtp->IsSecure());
    }

    // The plain dialogue is unchanged on a server that offers TLS: HELO, and the relay's own refusal.
    CMailMessage m = Message("plain");
    smtp = Client(CBlockingSocket::SECURITY_NONE, false);
    CString reply;
    ASSERT_TRUE(smtp->Connect("localhost", reply, s_exim->Port()));
    EXPECT_EQ(reply.Left(4), "250 ");
    EXPECT_EQ(reply.Find("\r\n"), -1) << "one HELO line, not an EHLO listing";
    EXPECT_FALSE(smtp->IsSecure());
}
