#include "host/UserCheck.h"

#include <memory>

#include "host/SystemdTimer.h"
#include "host/UserSession.h"
#include "platform/Winsock.h"

namespace tavik::host {

namespace {

void Add(CheckTotals& sum, const CheckTotals& t) {
    sum.messages += t.messages;
    sum.fresh += t.fresh;
    sum.kept += t.kept;
    sum.junk += t.junk;
    sum.deleted += t.deleted;
    sum.moved += t.moved;
    sum.forwarded += t.forwarded;
    sum.answered += t.answered;
    sum.errors += t.errors;
}

std::string Text(const CString& s) { return std::string(static_cast<const char*>(s)); }

bool Stopping(const UserCheckOptions& o) { return o.stop && o.stop->load(); }

void CheckAccounts(UserSession& session, const UserCheckOptions& o, UserCheckResult& result) {
    std::list<CMailBoxProfile*> accounts;
    if (!o.account.empty()) {
        accounts.push_back(&session.Account(o.account));
    } else {
        for (CMailBoxProfile* account : session.Accounts())
            if (!account->GetAccountDisabled()) accounts.push_back(account);
        if (accounts.empty() && o.out)
            std::fprintf(o.out, "%s has no enabled account to check\n", result.user.c_str());
    }
    std::unique_ptr<ActionLog> log;
    if (!o.actionLog.empty() && !o.dryRun) log = std::make_unique<ActionLog>(o.actionLog);
    AccountCheckOptions options;
    options.dryRun = o.dryRun;
    options.out = o.out;
    options.terminal = o.out && IsInteractive(o.out);
    options.stop = o.stop;
    options.log = log.get();
    options.trustFile = o.trustFile;
    options.onRow = o.onRow;
    for (CMailBoxProfile* account : session.Accounts()) {
        const std::string address = Text(account->GetEmailAddress());
        if (!address.empty()) options.ownAddresses.push_back(address);
    }
    for (CMailBoxProfile* account : accounts) {
        if (Stopping(o)) {
            result.stopped = true;
            break;
        }
        AccountCheckResult checked = CheckAccount(*account, session.GlobalShields(), options);
        Add(result.totals, checked.totals);
        result.stopped = result.stopped || checked.stopped;
        if (!checked.error.empty() && o.err)
            std::fprintf(o.err, "tavik check: %s: %s\n", checked.account.c_str(), checked.error.c_str());
        result.accounts.push_back(std::move(checked));
        if (result.stopped) break;
    }
}

}  // namespace

UserCheckResult CheckUser(const UserCheckOptions& o) {
    UserCheckResult result;
    // The host starts Windows Sockets; the library never does it for its clients.
    if (WSAStartup(0x0101, nullptr) != 0) {
        result.error = "cannot start Windows Sockets";
        result.exitCode = kExitErrors;
        return result;
    }
    try {
        std::function<std::string(const std::string&)> password = o.password;
        if (!password)
            password = [](const std::string& user) -> std::string {
                throw SessionError("user " + user + " has a password and none was given");
            };
        UserSession session(o.user, password, true);
        result.user = session.UserName();
        result.checkInterval = ConfiguredCheckInterval(session.ConfigurationKey());
        CheckAccounts(session, o, result);
        // Also after a stop: what was done must be remembered. A signal now only sets the flag.
        if (!o.dryRun) session.Save(true);
    } catch (const SessionError& e) {
        result.error = e.what();
    }
    WSACleanup();
    result.stopped = result.stopped || Stopping(o);
    result.exitCode = result.error.empty() ? CheckExitCode(result.totals, result.stopped) : kExitErrors;
    return result;
}

int RunUserCheck(const UserCheckOptions& options) { return RunUserCheckShown(options).exitCode; }

UserCheckResult RunUserCheckShown(const UserCheckOptions& o) {
    UserCheckResult result = CheckUser(o);
    if (!result.error.empty()) {
        if (o.err) std::fprintf(o.err, "tavik check: %s\n", result.error.c_str());
        return result;
    }
    if (o.out) {
        std::vector<ResultRow> rows;
        for (const AccountCheckResult& account : result.accounts)
            for (const ResultRow& row : account.rows)
                if (row.verdict != Verdict::kJudged) rows.push_back(row);
        if (o.table && !rows.empty())
            PrintResultTable(rows, o.dryRun, o.out);
        else if (o.dryRun)
            std::fprintf(o.out, "dry run: nothing was done\n");
        std::fprintf(o.out, "%s%s\n", SummaryLine(result.totals, o.dryRun).c_str(),
                     result.stopped ? " (stopped)" : "");
        std::fflush(o.out);
    }
    return result;
}

}  // namespace tavik::host
