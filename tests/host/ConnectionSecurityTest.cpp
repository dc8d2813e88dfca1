// The security `tavik check` and `tavik send` choose when the user names none, and the options that
// change it.
#include "host/ConnectionSecurity.h"

#include <gtest/gtest.h>

#include "platform/Winsock.h"

using namespace tavik::host;

namespace {

struct Winsock {
    Winsock() { WSAStartup(0x0101, nullptr); }
    ~Winsock() { WSACleanup(); }
};

constexpr auto kNone = CBlockingSocket::SECURITY_NONE;
constexpr auto kStartTls = CBlockingSocket::SECURITY_STARTTLS;
constexpr auto kTls = CBlockingSocket::SECURITY_TLS;

}  // namespace

TEST(ConnectionSecurity, PlainTextOnlyForThisMachineAndTlsByPortElsewhere) {
    Winsock winsock;
    const struct {
        MailProtocol protocol;
        const char* tls;
        const char* server;
        int port;  // 0: not given
        CBlockingSocket::SECURITY security;
        int defaultPort;
    } rows[] = {
        {MailProtocol::kPop3, "", "127.0.0.1", 0, kNone, 110},
        {MailProtocol::kPop3, "", "localhost", 110, kNone, 110},
        {MailProtocol::kPop3, "", "127.0.0.1", 995, kTls, 995},
        {MailProtocol::kPop3, "", "192.0.2.7", 0, kTls, 995},
        {MailProtocol::kPop3, "", "192.0.2.7", 110, kStartTls, 110},
        {MailProtocol::kPop3, "", "192.0.2.7", 1995, kTls, 995},
        {MailProtocol::kPop3, "", "no-such-host.invalid", 0, kTls, 995},
        {MailProtocol::kPop3, "none", "192.0.2.7", 995, kNone, 110},
        {MailProtocol::kPop3, "starttls", "127.0.0.1", 0, kStartTls, 110},
        {MailProtocol::kSmtp, "", "127.0.0.1", 0, kNone, 25},
        {MailProtocol::kSmtp, "", "127.0.0.1", 465, kTls, 465},
        {MailProtocol::kSmtp, "", "192.0.2.7", 0, kTls, 465},
        {MailProtocol::kSmtp, "", "192.0.2.7", 25, kStartTls, 587},
        {MailProtocol::kSmtp, "", "192.0.2.7", 587, kStartTls, 587},
        {MailProtocol::kSmtp, "implicit", "127.0.0.1", 25, kTls, 465},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(std::string(r.server) + ":" + std::to_string(r.port) + " --tls " + r.tls);
        SecurityOptions o;
        o.tls = r.tls;
        const auto security = ChooseSecurity(o, r.protocol, r.server, r.port);
        EXPECT_EQ(security, r.security);
        EXPECT_EQ(DefaultPort(r.protocol, security), r.defaultPort);
    }
    EXPECT_EQ(SecurityName(MailProtocol::kPop3, kStartTls), "STLS");
    EXPECT_EQ(SecurityName(MailProtocol::kSmtp, kStartTls), "STARTTLS");
}

// An account's setting decides as --tls would; automatic, and a value this version does not know, as no
// --tls does: TLS for every server but this machine.
TEST(ConnectionSecurity, AnAccountsSettingActsAsTheOptionWould) {
    Winsock winsock;
    const struct {
        DWORD setting;
        const char* server;
        CBlockingSocket::SECURITY pop3, smtp;
        const char* word;
    } rows[] = {
        {CMailBoxData::SECURITY_AUTOMATIC, "127.0.0.1", kNone, kNone, "auto"},
        {CMailBoxData::SECURITY_AUTOMATIC, "192.0.2.7", kTls, kTls, "auto"},
        {CMailBoxData::SECURITY_NONE, "192.0.2.7", kNone, kNone, "none"},
        {CMailBoxData::SECURITY_UPGRADE, "127.0.0.1", kStartTls, kStartTls, "starttls"},
        {CMailBoxData::SECURITY_TLS, "127.0.0.1", kTls, kTls, "implicit"},
        {77, "192.0.2.7", kTls, kTls, "auto"},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(std::to_string(r.setting) + " " + r.server);
        const SecurityOptions o = AccountSecurityOptions(r.setting);
        EXPECT_FALSE(o.insecure);
        EXPECT_EQ(ChooseSecurity(o, MailProtocol::kPop3, r.server, 0), r.pop3);
        EXPECT_EQ(ChooseSecurity(o, MailProtocol::kSmtp, r.server, 0), r.smtp);
        EXPECT_EQ(SecuritySettingName(r.setting), r.word);
        DWORD parsed = 99;
        ASSERT_TRUE(ParseSecuritySetting(r.word, parsed));
        if (r.setting != 77) EXPECT_EQ(parsed, r.setting);
    }
    DWORD untouched = CMailBoxData::SECURITY_TLS;
    EXPECT_FALSE(ParseSecuritySetting("tls", untouched));
    EXPECT_FALSE(ParseSecuritySetting("", untouched));
    EXPECT_EQ(untouched, static_cast<DWORD>(CMailBoxData::SECURITY_TLS));
}

TEST(ConnectionSecurity, AdviceOnlyForCertificateErrors) {
    EXPECT_NE(
        CertificateAdvice("The server's certificate has expired or is not valid yet: it expired on ..."), "");
    EXPECT_EQ(CertificateAdvice("The server does not offer STLS, so the connection cannot be encrypted"), "");
    EXPECT_EQ(CertificateAdvice("Receive timeout error"), "");
}
