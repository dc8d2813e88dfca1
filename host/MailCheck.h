// One mail check as the host runs it: a worker thread drives the POP3 client (connect, log in, read the
// statistics, scan the headers, quit) and owns the status window, so every status line is a direct call
// that prints it; the calling thread only watches for Ctrl-C and keeps the output flowing. Ctrl-C
// signals the client's termination event, which ends the check within a second in any state.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "host/ConnectionSecurity.h"

namespace tavik::host {

struct CheckOptions {
    std::string server;
    int port = 0;  // 0: the port of the security chosen (110, or 995 for TLS from the first byte)
    std::string user;
    std::string password;
    int timeLimit = 30;    // seconds for each socket wait
    int scanLimit = 999;   // most messages scanned, as an account's "Maximum Scan Limit"; 0: every one
    bool pipeline = true;  // pipeline the scan when the server offers it
    SecurityOptions security;
};

// What the table shows of one message: a few fields cut to their column, not the whole header, so that
// a mailbox of huge headers costs the check no more than one header at a time.
struct CheckedMessage {
    unsigned id = 0;
    unsigned size = 0;
    std::string sender, subject, date;
};

struct CheckOutcome {
    std::vector<CheckedMessage> messages;
    int count = 0;         // messages in the mailbox (STAT)
    std::string error;     // empty: the check went through
    bool stopped = false;  // Ctrl-C
};

// The check itself, with status lines (LF line ends) printed to out as they come. A password about to
// cross the network in plain text (--tls none to another machine) is announced there first.
CheckOutcome CheckMailbox(const CheckOptions& options, FILE* out);

// The whole `tavik check`: CheckMailbox, then a table (number, id, size, sender, subject, date) to out,
// and a failure to err. Returns the exit code: 0 done, 1 failed, 130 stopped by Ctrl-C.
int RunMailCheck(const CheckOptions& options, FILE* out, FILE* err = stderr);

}  // namespace tavik::host
