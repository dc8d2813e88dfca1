// tavik check: the junk-mail check of a signed-in user's accounts, or with --server a look at one POP3
// mailbox's headers. Passwords come from a file (first line) or from TAVIK_PASSWORD, never from the
// command line, where every other user of the machine could read it.
#include <cstdlib>
#include <fstream>

#include "host/Commands.h"
#include "host/MailCheck.h"
#include "host/StopSignals.h"
#include "host/UserCheck.h"
#include "host/UserSession.h"

namespace tavik::host {

namespace {

// Options that only make sense for one mailbox named by --server.
constexpr const char* kServerOnly[] = {"port", "timeout", "all", "no-pipelining", "tls", "insecure"};

int RunForUser(const Invocation& call) {
    const Arguments& args = call.args;
    for (const char* name : kServerOnly)
        if (args.Has(name)) throw UsageError(std::string("--") + name + " goes with --server");
    UserCheckOptions o;
    o.user = args.Get("user");
    o.account = args.Get("account");
    o.dryRun = args.Has("dry-run");
    o.trustFile = args.Get("ca-file");
    const std::string file = args.Get("password-file");
    o.password = [file](const std::string& user) {
        return ReadPassword(file, "TAVIK_PASSWORD", "Password for " + user + ": ");
    };
    o.out = call.out;
    o.err = call.err;
    StopSignals signals;
    o.stop = signals.Flag();
    return RunUserCheck(o);
}

int Run(const Invocation& call) {
    const Arguments& args = call.args;
    if (!args.Has("server")) return RunForUser(call);
    if (!args.Has("user")) throw UsageError("--server needs --user USER, the mailbox's user name");
    if (args.Has("account") || args.Has("dry-run"))
        throw UsageError("--account and --dry-run check a signed-in user's accounts, not --server");
    CheckOptions o;
    o.server = args.Get("server");
    o.user = args.Get("user");
    o.port = static_cast<int>(args.GetNumber("port", 1, 65535, 0));
    o.security = ReadSecurityOptions(args);
    o.timeLimit = static_cast<int>(args.GetNumber("timeout", 1, 3600, o.timeLimit));
    if (args.Has("all")) o.scanLimit = 0;
    o.pipeline = !args.Has("no-pipelining");
    if (args.Has("password-file")) {
        const std::string file = args.Get("password-file");
        std::ifstream in(file);
        if (!in || !std::getline(in, o.password)) return call.Fail("cannot read the password file " + file);
        if (!o.password.empty() && o.password.back() == '\r') o.password.pop_back();
    } else if (const char* env = std::getenv("TAVIK_PASSWORD")) {
        o.password = env;
    } else {
        throw UsageError("no password: give --password-file FILE or set TAVIK_PASSWORD");
    }
    return RunMailCheck(o, call.out, call.err);
}

}  // namespace

std::vector<Option> CheckOptionList() {
    std::vector<Option> options = {
        Option::Value("user", "NAME",
                      "the user whose accounts are checked (default: the default user); "
                      "with --server, the mailbox's user name"),
        Option::Value("password-file", "FILE", "read the password from the first line of FILE"),
        Option::Value("account", "NAME", "check this account only (even when it is disabled)"),
        Option::Flag("dry-run", "show what would be done to each message and do nothing"),
        Option::Value("server", "HOST", "list the headers of this POP3 server's mailbox instead"),
        Option::Value("port", "PORT", "its port (default 110, or 995 with TLS from the first byte)"),
        Option::Value("timeout", "SECONDS", "longest wait for the server, 1 to 3600 (default 30)"),
        Option::Flag("all", "scan every message (without it the scan stops after 999)"),
        Option::Flag(
            "no-pipelining",
            "send each command only after the previous reply, even to a server that offers pipelining"),
    };
    for (Option& o : SecurityOptionList(MailProtocol::kPop3)) options.push_back(std::move(o));
    options.push_back(Option::Refused(
        "password",
        "a password on the command line is visible to every user; use --password-file or TAVIK_PASSWORD"));
    return options;
}

const Command& CheckCommand() {
    static const Command command{
        .name = "check",
        .summary = "check the user's accounts for junk mail and act on it (or list a mailbox's headers)",
        .options = CheckOptionList(),
        .details =
            "Without --server, every enabled account of the user is checked: headers are scanned, each new\n"
            "message is judged once (friends, spammers, global shields, the account's shields, redirectors,\n"
            "auto-responders, each rule only while its schedule has it active) and its rule's action is\n"
            "carried out: Delete (on the server), Mark, Move To Folder, Forward, Respond. A result table, a\n"
            "summary and one line per action in the action log (`tavik log`) tell what was done. The user's\n"
            "password (when it has one) is the first line of FILE, else TAVIK_PASSWORD, else asked for.\n"
            "An account's server may be written HOST:PORT. --ca-file applies to every account's servers.\n"
            "Exit codes: 0 nothing new, 3 new mail, 1 errors, 130 stopped by Ctrl-C or SIGTERM (between\n"
            "messages: what was done is saved).\n\n"
            "With --server, one mailbox's headers are listed and nothing is judged. The password is the\n"
            "first line of FILE, or else the environment variable TAVIK_PASSWORD.\n" +
            SecurityDetails(MailProtocol::kPop3) +
            "\nThe status lines show the TLS version and cipher agreed.\n"
            "Ctrl-C stops the listing within a second, whatever the server is doing (exit code 130).",
        .run = Run,
    };
    return command;
}

}  // namespace tavik::host
