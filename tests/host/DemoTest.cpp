// What `tavik demo` stands on: its SMTP server taking what a real client sends, and the demo user made in
// a private store that leaves the person's own untouched.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "host/DemoPop3Server.h"
#include "host/DemoSmtpServer.h"
#include "host/DemoUser.h"
#include "host/Dispatch.h"
#include "host/MailSend.h"
#include "host/RuleEdit.h"
#include "host/SampleMailbox.h"
#include "host/UserCheck.h"
#include "host/UserSession.h"
#include "platform/FileSystem.h"
#include "platform/Registry.h"
#include "tests/support/TempDir.h"

using namespace tavik::host;

namespace {

std::vector<std::string> SampleTexts() {
    std::vector<std::string> texts;
    for (const SampleMessage& m : MakeSampleMailbox()) texts.push_back(m.text);
    return texts;
}

int Send(unsigned short port, const std::string& body, std::vector<std::string> to) {
    SendOptions o;
    o.server = "127.0.0.1";
    o.port = port;
    o.from = "Ann <ann@example.org>";
    o.to = std::move(to);
    o.subject = "Hello";
    o.body = body;
    o.timeLimit = 10;
    o.security.tls = "none";
    FILE* out = std::tmpfile();
    FILE* err = std::tmpfile();
    int rc = RunMailSend(o, out, err);
    std::fclose(out);
    std::fclose(err);
    return rc;
}

class DemoUserTest : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("TAVIK_REGISTRY", m_dir.file("own-registry.db").c_str(), 1);
        RegSetStorePath(nullptr);
    }
    void TearDown() override {
        RegCloseStore();
        unsetenv("TAVIK_REGISTRY");
        RegSetStorePath(nullptr);
        TavikSetApplicationDirectory(nullptr);
    }
    tavik::test::TempDir m_dir;
};

}  // namespace

// Several messages in one session and in a second one, the envelope as given, a lone dot unstuffed; a message
// over the size limit is refused without ending the server.
TEST(DemoSmtpServer, KeepsWhatAClientSendsAndRefusesOnlyTheOversized) {
    DemoSmtpServer server(4096);
    ASSERT_TRUE(server.Start());
    EXPECT_EQ(Send(server.Port(), "First line\n.\nlast", {"bob@example.com", "Cy <cy@example.net>"}), 0);
    EXPECT_EQ(Send(server.Port(), std::string(8000, 'x'), {"bob@example.com"}), 1) << "over the limit";
    EXPECT_EQ(Send(server.Port(), "again", {"dee@example.com"}), 0) << "the server still takes mail";

    auto got = server.Deliveries();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].from, "ann@example.org");
    EXPECT_EQ(got[0].recipients, (std::vector<std::string>{"bob@example.com", "cy@example.net"}));
    EXPECT_NE(got[0].text.find("\r\nSubject: Hello\r\n"), std::string::npos) << got[0].text;
    EXPECT_NE(got[0].text.find("\r\nFirst line\r\n.\r\nlast"), std::string::npos) << got[0].text;
    EXPECT_EQ(got[1].recipients, std::vector<std::string>{"dee@example.com"});
    server.Stop();
}

// The demo user lives in the workspace's own store and data directory; the person's store is never
// opened, and everything goes with the workspace.
TEST_F(DemoUserTest, IsMadeInAPrivateStoreThatGoesWithTheWorkspace) {
    const std::string ownStore = RegGetStorePath();
    std::string dir;
    {
        DemoWorkspace workspace;
        dir = workspace.Dir();
        EXPECT_EQ(std::filesystem::status(dir).permissions() & std::filesystem::perms::all,
                  std::filesystem::perms::owner_all);
        EXPECT_EQ(RegGetStorePath(), workspace.Path("registry.db"));
        DemoUserSetup setup = CreateDemoUser(workspace, 1110, 2525);
        EXPECT_EQ(setup.friends.size(), 3u);

        // Read back as any command would.
        UserSession session("", [](const std::string&) { return std::string(); });
        CMailBoxProfile& demo = session.Account("Demo");
        EXPECT_EQ(std::string(demo.GetIncomingServerName()), "127.0.0.1:1110");
        EXPECT_EQ(std::string(demo.GetOutgoingServer()), "127.0.0.1:2525");
        EXPECT_EQ(std::string(demo.GetPassword()), "demo-password");
        CStringArray friends, spammers;
        demo.GetFriendList(friends);
        demo.GetSpamList(spammers);
        EXPECT_EQ(friends.GetSize(), 3);
        EXPECT_EQ(spammers.GetSize(), 2);
        EXPECT_NE(FindRule(session.GlobalShields(), RuleKind::kShield, "Urgent offers"), nullptr);
        for (const char* shield : {"Phishing", "Pharmacy", "Dating"}) {
            auto* rule = static_cast<CSpamBlockProfile*>(FindRule(demo, RuleKind::kShield, shield));
            ASSERT_NE(rule, nullptr) << shield;
            EXPECT_EQ(rule->GetActiveEntry(), 1u) << shield << " is switched on";
        }
        auto* responder = static_cast<CAutoResponderProfile*>(FindRule(demo, RuleKind::kResponder, "Orders"));
        ASSERT_NE(responder, nullptr);
        CString textFile, attach, subject, duplicates;
        DWORD ignore, useDefault, active;
        responder->GetAutoResponderOptions(textFile, attach, subject, duplicates, ignore, useDefault, active);
        EXPECT_EQ(active, 1u);
        EXPECT_NE(tavik::test::ReadFile(static_cast<const char*>(textFile)).find("your order"),
                  std::string::npos);
    }
    EXPECT_FALSE(std::filesystem::exists(dir));
    EXPECT_EQ(RegGetStorePath(), ownStore);
    EXPECT_FALSE(std::filesystem::exists(ownStore)) << "the person's own store was never opened";
}

namespace {

size_t Count(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

}  // namespace

// The whole demo as a person runs it: junk deleted on the server, friends' mail kept, an order enquiry
// answered and a mailing list's message not, and a second check that judges nothing again; all of it in
// a store of its own that goes afterwards, leaving the person's registry and action log untouched.
TEST_F(DemoUserTest, TavikDemoShowsTheCheckAndLeavesNothingBehind) {
    const std::string state = m_dir.file("state");
    setenv("XDG_STATE_HOME", state.c_str(), 1);
    setenv("TAVIK_DATA", m_dir.file("data").c_str(), 1);
    FILE* out = std::tmpfile();
    FILE* err = std::tmpfile();
    const int rc = RunTavik({"demo"}, out, err);
    auto drain = [](FILE* f) {
        std::string text;
        std::rewind(f);
        char buf[4096];
        for (size_t n; (n = std::fread(buf, 1, sizeof buf, f)) > 0;) text.append(buf, n);
        std::fclose(f);
        return text;
    };
    const std::string text = drain(out), errors = drain(err);
    unsetenv("XDG_STATE_HOME");
    unsetenv("TAVIK_DATA");
    ASSERT_EQ(rc, 0) << text << errors;
    EXPECT_EQ(text.find("NOT AS EXPECTED"), std::string::npos) << text;

    const size_t second = text.find("== Second check");
    ASSERT_NE(second, std::string::npos) << text;
    const std::string first = text.substr(0, second), again = text.substr(second);
    EXPECT_NE(first.find("the POP3 server holds 10 of its 14 messages now"), std::string::npos) << first;
    for (const char* gone :
         {"\"Cheap meds, no prescription\" (Pharmacy)", "\"Your account has been suspended\" (Phishing)",
          "\"URGENT BUSINESS PROPOSAL\" (Urgent offers)", "\"3 singles near you want to meet\" (Dating)"})
        EXPECT_NE(first.find(std::string("deleted on the server: ") + gone), std::string::npos) << gone;
    EXPECT_EQ(Count(first, "deleted on the server: "), 4u);
    EXPECT_EQ(Count(first, "a friend's mail, kept: "), 3u);
    EXPECT_NE(first.find("delivered by SMTP to jane.doe@customer.example: \"AUTO-RESPONSE: Question about my "
                         "order 4471\""),
              std::string::npos)
        << first;
    EXPECT_NE(first.find("Auto-Submitted: auto-replied, In-Reply-To: <13.demo@tavik.invalid>"),
              std::string::npos);
    EXPECT_EQ(Count(first, "delivered by SMTP"), 1u) << "the list's message is not answered";
    EXPECT_NE(first.find("\"Your order history is now online\""), std::string::npos);

    EXPECT_NE(again.find("10 messages, 0 new"), std::string::npos) << again;
    EXPECT_EQ(again.find("delivered by SMTP"), std::string::npos);

    const size_t at = text.find("a demo user in ");
    ASSERT_NE(at, std::string::npos);
    const std::string workspace = text.substr(at + 15, text.find(' ', at + 15) - at - 15);
    EXPECT_FALSE(std::filesystem::exists(workspace)) << workspace;
    EXPECT_FALSE(std::filesystem::exists(m_dir.file("own-registry.db")))
        << "the person's store was not opened";
    EXPECT_FALSE(std::filesystem::exists(state)) << "nor the person's action log";
}

// A second check scans only what is new: the messages the account knows come from one UIDL listing, a
// new one is fetched and judged, and nothing known is judged again.
TEST_F(DemoUserTest, ASecondCheckScansOnlyNewMail) {
    DemoPop3Server pop3(SampleTexts(), "demo", "demo-password");
    DemoSmtpServer smtp;
    ASSERT_TRUE(pop3.Start());
    ASSERT_TRUE(smtp.Start());
    DemoWorkspace workspace;
    CreateDemoUser(workspace, pop3.Port(), smtp.Port());
    UserCheckOptions o;
    o.out = nullptr;
    o.err = nullptr;
    o.actionLog = workspace.Path("actions.log");
    UserCheckResult first = CheckUser(o);
    ASSERT_TRUE(first.error.empty()) << first.error;
    ASSERT_EQ(first.totals.messages, 14u);
    const size_t tops = pop3.Commands("TOP");
    EXPECT_GE(tops, 14u);

    auto sample = MakeSampleMailbox();
    std::string junk = sample[9].text;  // the "URGENT" one, deleted by the first check
    junk.replace(junk.find("Message-ID: <10."), 16, "Message-ID: <99.");
    pop3.Deliver(junk);
    UserCheckResult second = CheckUser(o);
    ASSERT_TRUE(second.error.empty()) << second.error;
    EXPECT_EQ(pop3.Commands("TOP") - tops, 1u) << "only the new message is scanned";
    EXPECT_EQ(second.totals.fresh, 1u);
    EXPECT_EQ(second.totals.deleted, 1u);
    EXPECT_EQ(pop3.Mailbox().size(), 10u);
    const auto& rows = second.accounts.at(0).rows;
    ASSERT_EQ(rows.size(), 11u);
    EXPECT_EQ(std::count_if(rows.begin(), rows.end(),
                            [](const ResultRow& r) { return r.verdict == Verdict::kJudged; }),
              10);
}
