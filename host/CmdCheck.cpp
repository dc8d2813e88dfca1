// tavik check: one mail check of a real POP3 mailbox. The password comes from a file (first line) or from
// TAVIK_PASSWORD, never from the command line, where every other user of the machine could read it.
#include <cstdlib>
#include <fstream>

#include "host/Commands.h"
#include "host/MailCheck.h"

namespace tavik::host {

namespace {

int Run(const Invocation& call) {
    const Arguments& args = call.args;
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
        Option::Value("server", "HOST", "the POP3 server", true),
        Option::Value("port", "PORT", "its port (default 110, or 995 with TLS from the first byte)"),
        Option::Value("user", "USER", "the mailbox's user name", true),
        Option::Value("password-file", "FILE", "read the password from the first line of FILE"),
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
        .summary = "check a POP3 mailbox: log in and list every message's header",
        .options = CheckOptionList(),
        .details =
            "The password is the first line of FILE, or else the environment variable TAVIK_PASSWORD.\n" +
            SecurityDetails(MailProtocol::kPop3) +
            "\nThe status lines show the TLS version and cipher agreed.\n"
            "Ctrl-C stops the check within a second, whatever the server is doing (exit code 130).",
        .run = Run,
    };
    return command;
}

}  // namespace tavik::host
