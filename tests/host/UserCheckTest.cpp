// The junk-mail check of a user's accounts against a private Dovecot (the mailbox) and a private Exim that
// delivers into that same mailbox, so that what the check sends can be read back over POP3.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <string>
#include <vector>

#include "host/MailWatch.h"
#include "host/StopSignals.h"
#include "host/UserCheck.h"
#include "tests/host/ManageFixture.h"
#include "tests/support/DovecotServer.h"
#include "tests/support/EximServer.h"
#include "tests/support/ScriptedServer.h"
#include "transport/CPopMail.h"

using namespace tavik::test;
using tavik::host::CheckUser;
using tavik::host::ResultRow;
using tavik::host::UserCheckOptions;
using tavik::host::UserCheckResult;
using tavik::host::Verdict;

namespace {

std::string Mail(const std::string& from, const std::string& subject, const std::string& extra = "") {
    return "From: " + from + "\nTo: alice@tavik.test\nSubject: " + subject + "\nMessage-ID: <" +
           std::to_string(std::hash<std::string>()(subject)) + "@example.org>\n" + extra +
           "\nHello,\nthis is about " + subject + ".\n";
}

size_t Count(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

class UserCheckTest : public ManageTest {
protected:
    void SetUp() override {
        ManageTest::SetUp();
        setenv("XDG_STATE_HOME", m_state.path().c_str(), 1);
        m_log = m_state.file("tavikmail/actions.log");
    }
    void TearDown() override {
        unsetenv("XDG_STATE_HOME");
        ManageTest::TearDown();
    }

    // Dovecot with the messages, Exim delivering into its mailbox, and the account "Home" with a
    // friend, a shield that deletes, a redirector and an auto-responder.
    void Start(const std::vector<std::string>& messages) {
        for (const std::string& m : messages) m_dovecot.AddMessage(m);
        m_dovecot.Start();
        m_exim = std::make_unique<EximServer>(m_dovecot.Dir() + "/Maildir");
        m_exim->Start();
        WriteFile(m_dir.file("pop-password"), m_dovecot.Password() + "\n");
        WriteFile(m_dir.file("answer.txt"), "I am away until Monday.\n");
        Ok({"account", "add", "--server", "127.0.0.1:" + std::to_string(m_dovecot.Port()), "--login",
            m_dovecot.User(), "--set-password", "--account-password-file", m_dir.file("pop-password"),
            "--smtp", "127.0.0.1:" + std::to_string(m_exim->Port()), "--email", "alice@tavik.test", "Home"});
        Ok({"friends", "add", "Home", "ann@tavik.test"});
        Ok({"rule", "add", "shield", "Pills", "--account", "Home", "--tag", "Subject", "--match", "contains",
            "--text", "pills", "--spam-action", "Delete", "--enabled", "yes"});
        Ok({"rule", "add", "redirector", "Invoices", "--account", "Home", "--tag", "Subject", "--match",
            "contains", "--text", "invoice", "--recipient", "boss@tavik.test", "--enabled", "yes"});
        Ok({"rule", "add", "responder", "Away", "--account", "Home", "--tag", "From", "--match", "contains",
            "--text", "carol", "--text-file", m_dir.file("answer.txt"), "--enabled", "yes"});
    }

    // Every message of the mailbox, as RETR gives it.
    std::vector<std::string> Mailbox() {
        std::vector<std::string> texts;
        WSAStartup(0x0101, nullptr);
        {
            CPopMail pop(nullptr, nullptr, 10);
            EXPECT_TRUE(pop.Connect("127.0.0.1", m_dovecot.Port()));
            EXPECT_TRUE(pop.Login(m_dovecot.User().c_str(), m_dovecot.Password().c_str()));
            int count = 0, size = 0;
            EXPECT_TRUE(pop.MailBoxStats(&count, &size));
            for (int n = 1; n <= count; ++n) {
                CString text;
                EXPECT_TRUE(pop.Retrieve(n, text));
                texts.push_back(text.str());
            }
            pop.Quit();
        }
        WSACleanup();
        return texts;
    }

    std::string Joined() {
        std::string all;
        for (const std::string& m : Mailbox()) all += m + "\n=====\n";
        return all;
    }

    std::string Log() { return std::filesystem::exists(m_log) ? ReadFile(m_log) : ""; }

    TempDir m_state;
    std::string m_log;
    DovecotServer m_dovecot;
    std::unique_ptr<EximServer> m_exim;
};

const std::vector<std::string> kMessages = {
    Mail("Ann <ann@tavik.test>", "lunch"),
    Mail("Shop <deals@example.net>", "cheap pills"),
    Mail("Dave <dave@tavik.test>", "invoice 42"),
    Mail("Carol <carol@tavik.test>", "a question"),
    Mail("Carol <carol@tavik.test>", "the newsletter", "Precedence: bulk\n"),
};

TEST_F(UserCheckTest, DryRunThenTwoRunsActOnEachMessageOnce) {
    if (!DovecotServer::Installed() || !EximServer::Installed()) GTEST_SKIP() << "Dovecot or Exim missing";
    Start(kMessages);

    // With the account's spam filter off, no shield judges its mail.
    Ok({"account", "set", "--filtering", "no", "Home"});
    Outcome unfiltered = RunTavikLine({"check", "--dry-run"});
    EXPECT_EQ(unfiltered.out.find("Delete"), std::string::npos) << unfiltered.out;
    EXPECT_NE(unfiltered.out.find("would Forward"), std::string::npos) << unfiltered.out;
    Ok({"account", "set", "--filtering", "yes", "Home"});

    // A dry run shows every decision and changes nothing anywhere.
    Outcome dry = RunTavikLine({"check", "--dry-run"});
    EXPECT_EQ(dry.rc, 3) << dry.out << dry.err;
    EXPECT_NE(dry.out.find("would Delete"), std::string::npos) << dry.out;
    EXPECT_NE(dry.out.find("would Forward"), std::string::npos) << dry.out;
    EXPECT_NE(dry.out.find("would Respond"), std::string::npos) << dry.out;
    EXPECT_NE(dry.out.find("not answe"), std::string::npos) << dry.out;
    EXPECT_EQ(Mailbox().size(), kMessages.size());
    EXPECT_EQ(m_exim->MaildirCount(), kMessages.size());
    EXPECT_EQ(Log(), "");

    // The real run: the junk is gone from the server, the forward and the answer arrive.
    Outcome first = RunTavikLine({"check"});
    EXPECT_EQ(first.rc, 3) << first.out << first.err;
    EXPECT_NE(first.out.find("5 messages, 5 new: 1 junk, 1 deleted, 1 forwarded, 1 answered, 4 kept"),
              std::string::npos)
        << first.out;
    ASSERT_TRUE(m_exim->WaitForMessages(kMessages.size() - 1 + 2)) << m_exim->Log();
    std::string box = Joined();
    EXPECT_EQ(Count(box, "cheap pills"), 0u) << box;
    EXPECT_EQ(Count(box, "Subject: FWD: invoice 42"), 1u) << box;
    EXPECT_EQ(Count(box, "X-Tavik-Forwarded-By: alice@tavik.test"), 1u) << box;
    EXPECT_EQ(Count(box, "Subject: AUTO-RESPONSE: a question"), 1u) << box;
    EXPECT_EQ(Count(box, "Auto-Submitted: auto-replied"), 1u) << box;
    EXPECT_EQ(Count(box, "In-Reply-To: <" + std::to_string(std::hash<std::string>()("a question"))), 1u)
        << box;
    EXPECT_EQ(Count(box, "I am away until Monday."), 1u) << box;  // the newsletter got no answer
    const std::string log = Log();
    EXPECT_EQ(Count(log, "\n"), 3u) << log;
    EXPECT_EQ(Count(log, "\tDelete\n"), 1u) << log;
    EXPECT_EQ(log.find("s3cret"), std::string::npos);

    // The second run judges nothing twice; the forward and the answer it now finds are not acted on
    // (this account forwarded the one, and the other is an answer).
    Outcome second = RunTavikLine({"check"});
    EXPECT_EQ(second.rc, 3) << second.out << second.err;
    EXPECT_NE(second.out.find("6 messages, 2 new"), std::string::npos) << second.out;
    EXPECT_NE(second.out.find("not forwarded"), std::string::npos) << second.out;
    EXPECT_EQ(Log(), log);
    EXPECT_FALSE(m_exim->WaitForMessages(kMessages.size() + 2, 300));

    // A third run finds nothing new at all.
    Outcome third = RunTavikLine({"check"});
    EXPECT_EQ(third.rc, 0) << third.out << third.err;
    EXPECT_NE(third.out.find("6 messages, 0 new"), std::string::npos) << third.out;
}

TEST_F(UserCheckTest, AnAccountThatFailsLeavesTheOthersChecked) {
    if (!DovecotServer::Installed() || !EximServer::Installed()) GTEST_SKIP() << "Dovecot or Exim missing";
    Start({kMessages[0], kMessages[1]});
    // Ahead of Home in the user's order; nothing listens on port 1.
    Ok({"account", "add", "--server", "127.0.0.1:1", "--login", "x", "Broken"});
    Ok({"account", "add", "--server", "127.0.0.1:1", "--login", "x", "--disabled", "yes", "Off"});

    Outcome run = RunTavikLine({"check"});
    EXPECT_EQ(run.rc, 1) << run.out << run.err;
    EXPECT_NE(run.err.find("tavik check: Broken: "), std::string::npos) << run.err;
    EXPECT_EQ(run.err.find("Off"), std::string::npos) << run.err;
    EXPECT_NE(run.out.find("2 messages, 2 new: 1 junk, 1 deleted, 1 kept; 1 error"), std::string::npos)
        << run.out;
    EXPECT_EQ(Mailbox().size(), 1u);

    // --account names one account, even a disabled one.
    Outcome one = RunTavikLine({"check", "--account", "home"});
    EXPECT_EQ(one.rc, 0) << one.out << one.err;
    Outcome off = RunTavikLine({"check", "--account", "Off"});
    EXPECT_EQ(off.rc, 1);
    EXPECT_NE(off.err.find("tavik check: Off: "), std::string::npos) << off.err;
}

TEST_F(UserCheckTest, StoppedBetweenMessagesKeepsWhatWasDone) {
    if (!DovecotServer::Installed() || !EximServer::Installed()) GTEST_SKIP() << "Dovecot or Exim missing";
    Start({Mail("a@example.net", "pills one"), Mail("Dave <dave@tavik.test>", "invoice 7"),
           Mail("b@example.net", "pills two")});

    std::atomic<bool> stop{false};
    UserCheckOptions options;
    options.out = nullptr;
    options.err = nullptr;
    options.actionLog = m_log;
    options.stop = &stop;
    std::vector<ResultRow> seen;
    options.onRow = [&](const ResultRow& row) {
        seen.push_back(row);
        stop = true;
    };
    UserCheckResult stopped = CheckUser(options);
    EXPECT_TRUE(stopped.stopped);
    EXPECT_EQ(stopped.exitCode, 130);
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].verdict, Verdict::kJunk);
    // The deletion was done at QUIT and remembered: two messages are left, none was sent.
    EXPECT_EQ(Mailbox().size(), 2u);
    EXPECT_EQ(Count(Log(), "\tDelete\n"), 1u);

    // The saved user is whole: the next run takes up the rest, and acts on each message once.
    stop = false;
    seen.clear();
    options.onRow = nullptr;
    UserCheckResult rest = CheckUser(options);
    EXPECT_EQ(rest.error, "");
    EXPECT_FALSE(rest.stopped);
    ASSERT_EQ(rest.accounts.size(), 1u);
    EXPECT_EQ(rest.accounts[0].error, "");
    EXPECT_EQ(rest.totals.fresh, 2u);
    EXPECT_EQ(rest.totals.deleted, 1u);
    EXPECT_EQ(rest.totals.forwarded, 1u);
    ASSERT_TRUE(m_exim->WaitForMessages(2));
    std::string box = Joined();
    EXPECT_EQ(Count(box, "pills"), 0u) << box;
    EXPECT_EQ(Count(box, "Subject: FWD: invoice 7"), 1u) << box;
    EXPECT_EQ(Count(Log(), "\n"), 3u) << Log();
}

TEST_F(UserCheckTest, WatchEndsBetweenAccountsOnSigterm) {
    if (!DovecotServer::Installed() || !EximServer::Installed()) GTEST_SKIP() << "Dovecot or Exim missing";
    Start({Mail("a@example.net", "pills one"), Mail("Ann <ann@tavik.test>", "lunch")});
    Ok({"account", "add", "--server", "127.0.0.1:" + std::to_string(m_dovecot.Port()), "--login",
        m_dovecot.User(), "--set-password", "--account-password-file", m_dir.file("pop-password"), "Second"});

    auto signals = std::make_unique<tavik::host::StopSignals>();
    tavik::host::WatchOptions watch;
    watch.check.out = nullptr;
    watch.check.err = nullptr;
    watch.check.actionLog = m_log;
    watch.check.stop = signals->Flag();
    watch.intervalSeconds = 3600;
    std::vector<ResultRow> seen;
    watch.check.onRow = [&](const ResultRow& row) {
        seen.push_back(row);
        if (seen.size() == 2) std::raise(SIGTERM);  // the last message of the first account
    };
    const auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(tavik::host::RunWatch(watch), 130);
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(60));
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[1].account, "Home");
    EXPECT_EQ(Mailbox().size(), 1u);  // the first account finished: its deletion was done

    // What the first account did was saved: one round more judges nothing twice there.
    signals.reset();
    signals = std::make_unique<tavik::host::StopSignals>();
    watch.check.onRow = nullptr;
    watch.check.account = "Home";
    watch.once = true;
    EXPECT_EQ(tavik::host::RunWatch(watch), 0);
    EXPECT_EQ(Count(Log(), "\tDelete\n"), 1u) << Log();
}

TEST_F(UserCheckTest, AForwardThatFailsIsTriedAgainNextTime) {
    if (!DovecotServer::Installed() || !EximServer::Installed()) GTEST_SKIP() << "Dovecot or Exim missing";
    Start({Mail("Dave <dave@tavik.test>", "invoice 9")});
    m_exim->Stop();

    Outcome down = RunTavikLine({"check"});
    EXPECT_EQ(down.rc, 1) << down.out << down.err;
    EXPECT_NE(down.out.find("failed"), std::string::npos) << down.out;
    EXPECT_EQ(Log(), "");

    m_exim = std::make_unique<EximServer>(m_dovecot.Dir() + "/Maildir");
    m_exim->Start();
    Ok({"account", "set", "--smtp", "127.0.0.1:" + std::to_string(m_exim->Port()), "Home"});
    Outcome up = RunTavikLine({"check"});
    EXPECT_EQ(up.rc, 3) << up.out << up.err;
    ASSERT_TRUE(m_exim->WaitForMessages(2)) << m_exim->Log();
    EXPECT_EQ(Count(Joined(), "Subject: FWD: invoice 9"), 1u);
    EXPECT_EQ(Count(Log(), "\tForward\n"), 1u) << Log();
}

// A server that gives two messages the same UIDL: neither is deleted on the strength of that identifier,
// and the check says why once.
TEST_F(ManageTest, SharedIdentifiersAreNeverDeleted) {
    ScriptedServer server;
    server.Send("+OK\r\n").Expect("USER u\r\n").Send("+OK\r\n").Expect("PASS p\r\n").Send("+OK\r\n");
    server.Expect("STAT\r\n").Send("+OK 2 200\r\n").Expect("CAPA\r\n").Send("-ERR\r\n");
    for (const char* n : {"1", "2"}) {
        server.Expect(std::string("LIST ") + n + "\r\n").Send(std::string("+OK ") + n + " 100\r\n");
        server.Expect(std::string("TOP ") + n + " 0\r\n")
            .Send(std::string("+OK\r\nFrom: x@example.net\r\nSubject: pills ") + n + "\r\n\r\n.\r\n");
        server.Expect(std::string("UIDL ") + n + "\r\n").Send(std::string("+OK ") + n + " 00000000\r\n");
    }
    server.Expect("QUIT\r\n").Send("+OK\r\n");
    server.Start();
    WriteFile(m_dir.file("pw"), "p\n");
    Ok({"account", "add", "--server", "127.0.0.1:" + std::to_string(server.Port()), "--login", "u",
        "--set-password", "--account-password-file", m_dir.file("pw"), "Home"});
    Ok({"rule", "add", "shield", "Pills", "--account", "Home", "--tag", "Subject", "--match", "contains",
        "--text", "pills", "--spam-action", "Delete", "--enabled", "yes"});

    Outcome run = RunTavikLine({"check"});
    EXPECT_EQ(server.Finish(), "");  // no DELE
    EXPECT_EQ(run.rc, 0) << run.out << run.err;
    EXPECT_EQ(Count(run.out, "share an identifier"), 1u) << run.out;
    EXPECT_EQ(Count(run.out, "Delete: withhel"), 2u) << run.out;
}

}  // namespace
