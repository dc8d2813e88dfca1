// What the check sends (forwards and answers, composed from their rule and the original) and how it reads
// an account's server names.
#include <gtest/gtest.h>

#include <string>

#include "accounts/CMailBoxProfile.h"
#include "host/AccountCheck.h"
#include "host/CheckMailer.h"
#include "tests/support/TempDir.h"

using namespace tavik::host;

namespace {

std::string Field(const OutgoingMail& mail, const std::string& name) {
    for (const HeaderLine& line : mail.extra)
        if (line.name == name) return line.value;
    return "<none>";
}

TEST(CheckMailer, ServerNamesWithAndWithoutPorts) {
    const struct {
        const char* text;
        bool ok;
        const char* host;
        int port;
    } rows[] = {
        {"mail.example.com", true, "mail.example.com", 0},
        {" 127.0.0.1:1100 ", true, "127.0.0.1", 1100},
        {"[::1]:995", true, "::1", 995},
        {"[::1]", true, "::1", 0},
        {"::1", true, "::1", 0},  // a bare IPv6 address has no port
        {"host:", false, "", 0},
        {"host:0", false, "", 0},
        {"host:65536", false, "", 0},
        {"host:12a", false, "", 0},
        {"[::1", false, "", 0},
        {"[::1]x", false, "", 0},
    };
    for (const auto& row : rows) {
        std::string host;
        int port = -1;
        EXPECT_EQ(SplitServerName(row.text, host, port), row.ok) << row.text;
        if (!row.ok) continue;
        EXPECT_EQ(host, row.host) << row.text;
        EXPECT_EQ(port, row.port) << row.text;
    }
}

class MailerTest : public ::testing::Test {
protected:
    void SetUp() override { m_account.SetGeneralData("Home", "Ann Lee", "ann@example.org", "", ""); }
    CMailBoxProfile m_account;
    tavik::test::TempDir m_dir;
};

TEST_F(MailerTest, ForwardGoesToTheRedirectorsRecipientsWithTheOriginalAndTheLoopMark) {
    CForwardMailProfile redirector;
    CStringArray recipients;
    recipients.Add("Boss <boss@example.org>");
    recipients.Add("");
    recipients.Add("desk@example.org");
    redirector.SetRecipients(recipients);
    redirector.SetRedirectOptions("", "Seen: %subject% (fwd)", 0, 0, 1);
    const std::string original =
        "From: dave@example.net\r\nSubject: invoice\r\nX-Tavik-Forwarded-By: bob@example.com\r\n\r\nPay.\r\n";
    std::string error;
    OutgoingMail mail = ForwardMail(redirector, m_account, original, "invoice\r\nBcc: x@y", error);
    EXPECT_EQ(error, "");
    EXPECT_EQ(mail.to, (std::vector<std::string>{"boss@example.org", "desk@example.org"}));
    EXPECT_EQ(mail.from, "Ann Lee <ann@example.org>");
    EXPECT_EQ(mail.subject.find('\n'), std::string::npos) << mail.subject;  // no field smuggled in
    EXPECT_EQ(mail.subject.rfind("Seen: invoice", 0), 0u) << mail.subject;
    EXPECT_NE(mail.body.find("Subject: invoice\r\n"), std::string::npos);
    EXPECT_NE(mail.body.find("Pay."), std::string::npos);
    EXPECT_EQ(Field(mail, "Auto-Submitted"), "auto-generated");
    size_t marks = 0;
    for (const HeaderLine& line : mail.extra) marks += line.name == "X-Tavik-Forwarded-By";
    EXPECT_EQ(marks, 2u);  // the original's mark kept, this account's added

    CForwardMailProfile nobody;
    ForwardMail(nobody, m_account, original, "invoice", error);
    EXPECT_EQ(error, "the redirector has no recipient");
}

TEST_F(MailerTest, AnswerCarriesTheRespondersTextAndRefusesFilesItCannotRead) {
    tavik::test::WriteFile(m_dir.file("away.txt"), "Back on Monday.\n");
    CAutoResponderProfile responder;
    responder.SetAutoResponderOptions(m_dir.file("away.txt").c_str(), "", "", "Daily", 0, 1, 1);
    const std::string header = "From: carol@example.net\r\nSubject: hi\r\nMessage-ID: <m1@example.net>\r\n";
    std::string error;
    OutgoingMail mail = AnswerMail(responder, m_account, "carol@example.net", header, "hi", error);
    EXPECT_EQ(error, "");
    EXPECT_EQ(mail.to, std::vector<std::string>{"carol@example.net"});
    EXPECT_EQ(mail.subject, "AUTO-RESPONSE: hi");
    EXPECT_EQ(mail.body, "Back on Monday.\n");
    EXPECT_EQ(Field(mail, "Auto-Submitted"), "auto-replied");
    EXPECT_EQ(Field(mail, "In-Reply-To"), "<m1@example.net>");

    responder.SetAutoResponderOptions(m_dir.file("gone.txt").c_str(), "", "", "Daily", 0, 1, 1);
    AnswerMail(responder, m_account, "carol@example.net", header, "hi", error);
    EXPECT_NE(error.find("gone.txt"), std::string::npos) << error;

    error.clear();
    responder.SetAutoResponderOptions(m_dir.file("away.txt").c_str(), m_dir.file("missing.pdf").c_str(), "",
                                      "Daily", 0, 1, 1);
    AnswerMail(responder, m_account, "carol@example.net", header, "hi", error);
    EXPECT_NE(error.find("missing.pdf"), std::string::npos) << error;
}

}  // namespace
