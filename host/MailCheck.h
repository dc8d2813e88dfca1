// One mail check as the host runs it: a worker thread drives the POP3 client (connect, log in, read the
// statistics, scan every header into a message record, quit) while this thread owns the status window
// and pumps its messages, printing each status line as it arrives. Ctrl-C signals the client's
// termination event; the check then stops at the next read that returns data.
#pragma once

#include <cstdio>
#include <string>

namespace tavik::host {

struct CheckOptions {
    std::string server;
    int port = 110;
    std::string user;
    std::string password;
    int timeLimit = 30;  // seconds for each socket wait
};

// Prints status lines, then a table (number, id, size, sender, subject, date) to out. Returns the exit
// code: 0 done, 1 failed, 130 stopped by Ctrl-C.
int RunMailCheck(const CheckOptions& options, FILE* out);

}  // namespace tavik::host
