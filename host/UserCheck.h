// The junk-mail check of a signed-in user: every enabled account (or the one asked for) checked in the
// user's order, then the user saved once, a result table and a summary. An account that cannot be
// checked is reported and the others still run.
//
//     std::atomic<bool> stop{false};
//     UserCheckOptions options;
//     options.user = "ann";  // empty: the default user
//     options.stop = &stop;
//     UserCheckResult result = CheckUser(options);  // or RunUserCheck(options) to print it all
#pragma once

#include <atomic>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "host/AccountCheck.h"
#include "host/ActionLog.h"
#include "host/CheckReport.h"

namespace tavik::host {

struct UserCheckOptions {
    std::string user;  // empty: the default user
    // Asked only for a user who has a password; null: such a user cannot be signed in.
    std::function<std::string(const std::string& user)> password;
    std::string account;  // only this account (letter case ignored, checked even when disabled)
    bool dryRun = false;
    FILE* out = stdout;  // progress, notices, the table and the summary; null: nothing shown
    FILE* err = stderr;  // failures; null: not shown
    bool table = true;   // RunUserCheck prints the result table (the summary is always printed)
    // Set from another thread or a signal handler: the check ends after the message in hand; the
    // account quits (its deletions done) and the user is saved, so what was done is remembered.
    const std::atomic<bool>* stop = nullptr;
    std::string actionLog = ActionLogPath();  // empty: no action log
    std::string trustFile;                    // authorities trusted beside the system's (TLS)
    // Called after each message is handled, account after account; may set the stop flag.
    std::function<void(const ResultRow& row)> onRow;
};

struct UserCheckResult {
    std::string user;
    std::vector<AccountCheckResult> accounts;  // the accounts checked, in order
    CheckTotals totals;                        // of every account
    std::string error;                         // signing in or saving failed (nothing was saved)
    bool stopped = false;
    int exitCode = kExitNothingNew;  // CheckExitCode, or kExitErrors for error
    unsigned checkInterval = 0;      // the user's "CheckMail Interval" (minutes); 0 when not signed in
};

UserCheckResult CheckUser(const UserCheckOptions& options);

// CheckUser, then the table and the summary to out and every failure to err.
UserCheckResult RunUserCheckShown(const UserCheckOptions& options);
// The same; returns the exit code.
int RunUserCheck(const UserCheckOptions& options);

}  // namespace tavik::host
