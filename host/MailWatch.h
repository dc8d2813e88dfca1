// `tavik watch`: the user's check, round after round, every "CheckMail Interval" minutes of the user's
// settings (read again each round), until stopped. A stop ends the round in hand between messages, after
// which the account quits and the user is saved, and it cuts a wait short at once.
#pragma once

#include "host/UserCheck.h"

namespace tavik::host {

struct WatchOptions {
    UserCheckOptions check;        // check.stop ends the watch
    bool once = false;             // one round (what the systemd service runs)
    unsigned intervalSeconds = 0;  // between rounds; 0: the user's "CheckMail Interval"
};

// Returns the exit code of the last round, or kExitStopped when a stop ended the watch.
int RunWatch(const WatchOptions& options);

}  // namespace tavik::host
