// The SMTP client's extended session against the scripted server: EHLO listings in pieces, a relay that
// hides or refuses STARTTLS, one that hangs up half-way, and a handshake that stalls.
#include <gtest/gtest.h>

#include <chrono>

#include "tests/support/ScriptedServer.h"
#include "tests/transport/Pop3TestSupport.h"
#include "transport/CSMTP.h"

using namespace tavik::test;

namespace {

std::string Ehlo() {
    CString name, ip;
    CBlockingSocket::GetLocalAddress(name, ip);
    return "EHLO " + std::string(name) + "\r\n";
}

// Connect's outcome: the reply, or the text of what it threw.
std::string Connected(CSMTP& smtp, unsigned short port) {
    try {
        CString reply;
        if (!smtp.Connect("127.0.0.1", reply, port)) return "<closed>";
        return "ok: " + std::string(reply);
    } catch (CSMTPException* e) {
        std::string text = e->GetErrorMessage().GetString();
        e->Delete();
        return text;
    }
}

}  // namespace

TEST(SmtpTlsScripted, StartTlsMustBeListedAndAcceptedOrNothingElseIsSent) {
    WinsockSession winsock;
    struct Case {
        const char* what;
        std::string listing;        // the EHLO reply
        std::string starttlsReply;  // empty: STARTTLS is not asked
        std::string result;
    };
    const Case cases[] = {
        // The listing in pieces that end inside and right after continuation lines.
        {"not listed", "250-mta.test Hello\r\n250-PIPELINING\r\n250-STARTTLSX\r\n250 HELP\r\n", "",
         "The server does not offer STARTTLS, so the connection cannot be encrypted"},
        {"refused", "250-mta.test Hello\r\n250-starttls\r\n250 HELP\r\n", "454 TLS not available\r\n",
         "454 TLS not available"},
        {"EHLO refused", "502 EHLO not implemented\r\n", "", "502 EHLO not implemented"},
        {"hangs up", "250-mta.test Hello\r\n250-STARTTLS\r\n", "", "The server closed the connection"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ScriptedServer s;
        s.Send("220 mta.test ESMTP\r\n").Expect(Ehlo()).Send(c.listing, 7, 5);
        if (!c.starttlsReply.empty()) s.Expect("STARTTLS\r\n").Send(c.starttlsReply);
        // A session that is still sound ends with QUIT; one the server broke off gets none.
        if (c.what == std::string("hangs up"))
            s.Close();
        else
            s.Expect("QUIT\r\n").Send("221 bye\r\n");
        s.Start();
        {
            CSMTP smtp(nullptr, 5);
            smtp.SetSecurity(CBlockingSocket::SECURITY_STARTTLS);
            smtp.SetLogin("carol", "secret");
            EXPECT_EQ(Connected(smtp, s.Port()), c.result);
        }
        EXPECT_EQ(s.Finish(), "");
        // No AUTH, no MAIL after the refusal.
        const std::string sent = s.Received();
        EXPECT_EQ(sent.find("AUTH"), std::string::npos) << Visible(sent);
        EXPECT_EQ(sent.find("MAIL"), std::string::npos) << Visible(sent);
    }
}

TEST(SmtpTlsScripted, AStalledHandshakeEndsAtTheTimeLimit) {
    WinsockSession winsock;
    ScriptedServer s;
    s.Send("220 mta.test ESMTP\r\n")
        .Expect(Ehlo())
        .Send("250-mta.test\r\n250 STARTTLS\r\n")
        .Expect("STARTTLS\r\n")
        .Send("220 go ahead\r\n")
        .Hold();
    s.Start();
    CSMTP smtp(nullptr, 1);
    smtp.SetSecurity(CBlockingSocket::SECURITY_STARTTLS);
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(Connected(smtp, s.Port()), "TLS handshake timeout error");
    const double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    EXPECT_GT(took, 0.9);
    EXPECT_LT(took, 2.5);
    s.Stop();
}
