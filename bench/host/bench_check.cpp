// The junk-mail check of a signed-in user (what `tavik check` does) against a private Dovecot on loopback
// holding 10,000 messages, next to the header scan alone on the same server in the same run:
// - the scan: connect, log in, STAT, the pipelined LIST n / TOP n 0 / UIDL n of every message, QUIT,
//   as the check itself scans (CPopMail::GetHeaders), the records thrown away;
// - the first check of a fresh user whose one account has 2,000 friends, 2,000 spammers and 20 shields,
//   with 10 global shields beside them: scan, decide each message, act, add every record to the
//   account's message file, log the actions and save the user;
// - a second check of the same user over the same mailbox, where nothing is new.
// The shields look at header fields only (a shield on the body makes the check fetch every message it
// reaches, which is another benchmark), and every action keeps mail on the server (Mark, Move To
// Folder, Do Nothing), so the mailbox stays as it was from round to round.
//
// Targets: the first check within 1.3 times the scan; the second within 0.2 times the first. Each figure
// is the best of several rounds, each round with a fresh user; the machine is shared and noisy.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/AccountEdit.h"
#include "host/RuleEdit.h"
#include "host/UserCheck.h"
#include "host/UserSession.h"
#include "library/LibraryMain.h"
#include "platform/FileSystem.h"
#include "platform/Registry.h"
#include "tests/support/DovecotServer.h"
#include "tests/support/TempDir.h"
#include "transport/CPopMail.h"

using tavik::test::DovecotServer;
using namespace tavik::host;

namespace {

int kMessages = 10000;  // an argument may lower it for a quick look
constexpr int kRounds = 3;
constexpr int kFriends = 2000;
constexpr int kSpammers = 2000;

double Now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

double Timed(const std::function<void()>& f) {
    double start = Now();
    f();
    return Now() - start;
}

void Scan(const DovecotServer& server) {
    CPopMail pop(nullptr, nullptr, 60);
    if (!pop.Connect("127.0.0.1", server.Port()) ||
        !pop.Login(server.User().c_str(), server.Password().c_str()))
        throw std::runtime_error("CPopMail could not log in");
    int count = 0, size = 0;
    pop.MailBoxStats(&count, &size);
    int seen = 0;
    if (!pop.GetHeaders(1, count, [&](int, std::unique_ptr<CMessageList>) { return ++seen > 0; }) ||
        seen != kMessages)
        throw std::runtime_error("the scan stopped after " + std::to_string(seen) + " messages");
    pop.Quit();
}

struct Shield {
    bool global;
    const char* tag;
    const char* match;
    const char* object;
    const char* action;
};

// The generated mailbox's subjects end in one of five topics, one of them "cheap watches!!!"; its senders
// are "userN@" one of three domains. Most shields catch nothing here, as most shields catch little of a
// day's mail.
const Shield kShields[] = {
    {true, "Subject", "contains", "viagra", "Mark"},
    {true, "Subject", "contains", "casino bonus", "Mark"},
    {true, "Subject", "starts with", "[SPAM]", "Mark"},
    {true, "From", "contains", "@bulk-mailer.example", "Mark"},
    {true, "Subject", "matches", "^(re: )?win(ner)? .*\\$[0-9]+", "Mark"},
    {true, "Header", "contains", "X-Mailer: MassMail", "Mark"},
    {true, "Size", "greater than", "5000000", "Mark"},
    {true, "Received", "contains", ".dynamic.example", "Mark"},
    {true, "Message-ID", "ends with", "@spamhost.example>", "Mark"},
    {true, "Reply-To", "contains", "@drop-box.example", "Mark"},
    {false, "Subject", "contains", "cheap watches", "Mark"},
    {false, "Subject", "ends with", "meeting notes", "Move To Folder"},
    {false, "Subject", "contains", "lottery", "Mark"},
    {false, "Subject", "contains", "unclaimed prize", "Mark"},
    {false, "Subject", "matches", "lowest (price|rate)s?", "Mark"},
    {false, "From", "contains", "@pharma-direct.example", "Mark"},
    {false, "From", "starts with", "\"Prize Office\"", "Mark"},
    {false, "From", "equals", "offers@deals.example", "Mark"},
    {false, "To", "contains", "undisclosed-recipients", "Mark"},
    {false, "Cc", "contains", "@list-rental.example", "Mark"},
    {false, "Header", "contains", "Precedence: bulk", "Mark"},
    {false, "Header", "contains", "X-Spam-Flag: YES", "Mark"},
    {false, "Subject", "contains", "act now", "Mark"},
    {false, "Subject", "contains", "limited time offer", "Mark"},
    {false, "Subject", "matches", "\\b(rolex|replica)\\b", "Mark"},
    {false, "Subject", "contains", "work from home", "Mark"},
    {false, "Received", "contains", "unknown-relay.example", "Mark"},
    {false, "Message-ID", "contains", "@mailer-farm.example", "Mark"},
    {false, "Size", "less than", "10", "Mark"},
    {false, "Reply-To", "ends with", "@freemail-drop.example", "Mark"},
};

// A fresh user in a directory of its own: one account on the server with the lists and shields.
class BenchUser {
public:
    explicit BenchUser(const DovecotServer& server) {
        RegSetStorePath(m_dir.file("registry.db").c_str());
        if (!TavikUseDataDirectory(m_dir.file("data").c_str())) throw std::runtime_error("no data directory");
        UserSession session("", [](const std::string&) { return std::string(); });
        auto account = std::make_unique<CMailBoxProfile>();
        account->SetGeneralData("Bench", "Bench User", "alice@localhost", "", "");
        const std::string pop3 = "127.0.0.1:" + std::to_string(server.Port());
        account->SetServerData(pop3.c_str(), "127.0.0.1:25", "POP3", "SMTP", server.User().c_str(),
                               server.Password().c_str(), "", "");
        account->SetConnectionSecurity(CMailBoxData::SECURITY_NONE, CMailBoxData::SECURITY_NONE);
        DWORD processLimit, sessionMax, leaveFull;
        account->GetExtraData(processLimit, sessionMax, leaveFull);
        account->SetExtraData(processLimit, 0, leaveFull);  // scan every message
        CMailBoxProfile& bench = session.AddAccount(std::move(account));
        // Every fifth sender is a friend and the next one a spammer.
        std::vector<std::string> friends, spammers;
        for (int i = 0; i < kFriends; ++i) friends.push_back("user" + std::to_string(5 * i + 5) + "@");
        for (int i = 0; i < kSpammers; ++i) spammers.push_back("user" + std::to_string(5 * i + 1) + "@");
        AddEntries(bench, AccountList::kFriends, friends);
        AddEntries(bench, AccountList::kSpammers, spammers);
        AddEntries(bench, AccountList::kFolders, {"Notes"});
        int n = 0;
        for (const Shield& s : kShields) {
            CMailBoxProfile& owner =
                s.global ? static_cast<CMailBoxProfile&>(session.GlobalShields()) : bench;
            auto& shield = static_cast<CSpamBlockProfile&>(
                AddRule(owner, RuleKind::kShield, "shield " + std::to_string(++n)));
            CString name, tag, match, object, onSuccess, activeOn;
            DWORD filterAll, useDate, useTime;
            shield.GetFilterData(name, tag, match, object, onSuccess, activeOn, filterAll, useDate, useTime);
            shield.SetFilterData(name, s.tag, s.match, s.object, onSuccess, "All Days", filterAll, 0, 0);
            if (std::string(s.action) == "Move To Folder") shield.SetMailBoxFolder("Notes");
            CString t1, t2;
            DWORD n1, n2, n3, n4, n5, n6, n7;
            shield.GetSpamOptions(t1, t2, n1, n2, n3, n4, n5, n6, n7);
            shield.SetSpamOptions(t1, s.action, n1, n2, n3, n4, n5, n6, n7);
            SetRuleEnabled(shield, RuleKind::kShield, true);
        }
        session.Save();
    }
    ~BenchUser() {
        RegCloseStore();
        RegSetStorePath(nullptr);
        TavikSetApplicationDirectory(nullptr);
    }

    UserCheckResult Check() {
        UserCheckOptions o;
        o.out = nullptr;
        o.err = stderr;
        o.actionLog = m_dir.file("actions.log");
        UserCheckResult r = CheckUser(o);
        std::string error = r.error;
        for (const AccountCheckResult& a : r.accounts)
            if (!a.error.empty()) error = a.error;
        if (!error.empty() || r.totals.messages != static_cast<size_t>(kMessages))
            throw std::runtime_error("the check failed: " + error);
        return r;
    }

private:
    tavik::test::TempDir m_dir;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1) kMessages = std::max(1, std::atoi(argv[1]));
    TavikLibraryAttach();
    try {
        WSAStartup(0x0101, nullptr);
        DovecotServer server;
        for (int i = 1; i <= kMessages; ++i)
            server.AddMessage(tavik::test::MakeTestMessage(i, 100 + (i * 37) % 1500).text);
        server.Start();
        Scan(server);  // Dovecot indexes the new mailbox on the first access; keep that out of every figure

        std::vector<double> scan, first, second;
        CheckTotals firstTotals, secondTotals;
        for (int round = 0; round < kRounds; ++round) {
            scan.push_back(Timed([&] { Scan(server); }));
            BenchUser user(server);
            first.push_back(Timed([&] { firstTotals = user.Check().totals; }));
            second.push_back(Timed([&] { secondTotals = user.Check().totals; }));
        }
        if (secondTotals.fresh != 0) throw std::runtime_error("the second check judged messages again");
        const double bestScan = *std::min_element(scan.begin(), scan.end());
        const double bestFirst = *std::min_element(first.begin(), first.end());
        const double bestSecond = *std::min_element(second.begin(), second.end());
        std::fprintf(stderr, "first check: %s\n", SummaryLine(firstTotals, false).c_str());
        std::printf("bench host_scan_%d %.3f s\n", kMessages, bestScan);
        std::printf("bench host_check_first_%d %.3f s\n", kMessages, bestFirst);
        std::printf("bench host_check_second_%d %.3f s\n", kMessages, bestSecond);
        std::printf("bench host_check_vs_scan ratio %.2f\n", bestFirst / bestScan);
        std::printf("bench host_second_run_vs_first ratio %.2f\n", bestSecond / bestFirst);
        WSACleanup();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "bench_check: %s\n", e.what());
        return 1;
    }
    return 0;
}
