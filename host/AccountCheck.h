// The junk-mail check of one account: connect with the account's security, log in, scan the headers,
// add new records to the account, decide each message (host/CheckDecision.h), fetch a body only when a
// rule needs one, act, and remember what was done so that no message is judged twice.
//
// Deletions happen on the server at QUIT, which the check always sends before it returns (also when it
// is stopped), so that what the rules remember matches what the server did. A dry run decides every
// message and does nothing at all: no DELE, no mail sent, no record added, no rule changed.
#pragma once

#include <atomic>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "host/CheckReport.h"

class CGlobalProfile;
class CMailBoxProfile;

namespace tavik::host {

class ActionLog;

struct AccountCheckOptions {
    bool dryRun = false;
    FILE* out = nullptr;                      // progress and notices; null: none
    bool terminal = false;                    // out redraws a progress bar in place
    const std::atomic<bool>* stop = nullptr;  // once set, no further message is started
    ActionLog* log = nullptr;                 // one line per action done; null: none
    std::string trustFile;                    // authorities trusted beside the system's (TLS)
    std::vector<std::string> ownAddresses;    // never answered; the account's own address is added
    // Called after each message is handled (its action done, or left for QUIT when it is a deletion).
    std::function<void(const ResultRow& row)> onRow;
};

struct AccountCheckResult {
    std::string account;
    std::vector<ResultRow> rows;       // one per message scanned, in mailbox order
    CheckTotals totals;                // totals.errors counts the failed actions and the failure below
    std::string error;                 // empty: the account was checked (its actions may still fail)
    std::vector<std::string> notices;  // broken rules, shared identifiers, withheld answers' reasons
    bool stopped = false;
};

// "host" or "host:port" (a bracketed IPv6 address may carry a port too). port is 0 when none is given.
bool SplitServerName(const std::string& text, std::string& host, int& port);

// The account's check. global holds the global shields; its processed identifiers are shared by every
// account. Never throws for what a server, a rule or a message does: failures land in the result.
AccountCheckResult CheckAccount(CMailBoxProfile& account, CGlobalProfile& global,
                                const AccountCheckOptions& options);

}  // namespace tavik::host
