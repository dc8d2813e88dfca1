// tavik watch: the user's mail check every "CheckMail Interval" minutes until Ctrl-C or SIGTERM.
#include <memory>
#include <optional>

#include "host/Commands.h"
#include "host/MailWatch.h"
#include "host/ManageSupport.h"
#include "host/StopSignals.h"

namespace tavik::host {

namespace {

int Run(const Invocation& call) {
    const Arguments& args = call.args;
    WatchOptions o;
    o.once = args.Has("once");
    o.check.user = args.Get("user");
    o.check.account = args.Get("account");
    o.check.trustFile = args.Get("ca-file");
    const std::string file = args.Get("password-file");
    // Asked once, not every round.
    auto known = std::make_shared<std::optional<std::string>>();
    o.check.password = [file, known](const std::string& user) {
        if (!*known) *known = ReadPassword(file, "TAVIK_PASSWORD", "Password for " + user + ": ");
        return **known;
    };
    o.check.out = call.out;
    o.check.err = call.err;
    StopSignals signals;
    o.check.stop = signals.Flag();
    return RunWatch(o);
}

}  // namespace

const Command& WatchCommand() {
    static const Command command{
        .name = "watch",
        .summary = "check the user's accounts for junk mail every few minutes until stopped",
        .options = WithSignIn({
            Option::Flag("once", "check once and end (what the systemd timer's service runs)"),
            Option::Value("account", "NAME", "check this account only"),
            Option::Value("ca-file", "FILE", "also trust the authorities in FILE (PEM)"),
        }),
        .details =
            "Each round is `tavik check`: every enabled account, each new message judged once and acted on.\n"
            "Rounds start every \"CheckMail Interval\" minutes of the user's settings (`tavik config`), "
            "read\n"
            "again after each round. Ctrl-C or SIGTERM ends the watch between messages: the account in hand\n"
            "quits and the user is saved, never cut off half way (exit code 130). With --once the exit code\n"
            "is the check's: 0 nothing new, 3 new mail, 1 errors.",
        .run = Run,
    };
    return command;
}

}  // namespace tavik::host
