// tavik log: what the checker did to messages, from the action log.
#include "host/ActionLog.h"
#include "host/Commands.h"
#include "host/MessageShow.h"

namespace tavik::host {

namespace {

int Run(const Invocation& call) {
    const Arguments& args = call.args;
    LogQuery query;
    if (args.Has("path")) {
        std::fprintf(call.out, "%s\n", TerminalText(query.path).c_str());
        return 0;
    }
    query.last = static_cast<size_t>(args.GetNumber("last", 1, 1000000, 0));
    query.account = args.Get("account");
    query.raw = args.Has("raw");
    return ShowActionLog(query, call.out, call.err);
}

}  // namespace

const Command& LogCommand() {
    static const Command command{
        .name = "log",
        .summary = "show what checks did to messages: deleted, moved, marked, forwarded, answered",
        .options =
            {
                Option::Value("last", "N", "only the last N actions"),
                Option::Value("account", "NAME", "only the actions on this account"),
                Option::Flag("raw", "the lines as stored (tab-separated) instead of a table"),
                Option::Flag("path", "print where the log is kept, and nothing else"),
            },
        .details =
            "Every action a check takes on a message is logged with the time, the account, the message's\n"
            "identifier and Message-ID, its sender and subject, the rule and the action. The log is kept in\n"
            "$XDG_STATE_HOME/tavikmail/actions.log (else ~/.local/state/tavikmail/actions.log), readable by\n"
            "its owner only; past a megabyte it moves to actions.log.1 and a new one starts, and both are\n"
            "shown. Control characters are shown as \\xNN.",
        .run = Run,
    };
    return command;
}

}  // namespace tavik::host
