// tavik send: compose a message and send it to an SMTP relay, the dialogue shown as it goes.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "host/Commands.h"
#include "host/MailSend.h"

namespace tavik::host {

namespace {

bool ReadBody(const std::string& file, std::string& body) {
    if (file.empty() || file == "-") {
        char buf[65536];
        for (size_t n; (n = std::fread(buf, 1, sizeof buf, stdin)) > 0;) body.append(buf, n);
        return !std::ferror(stdin);
    }
    std::ifstream in(file, std::ios::binary);
    if (!in) return false;
    std::ostringstream text;
    text << in.rdbuf();
    body = text.str();
    return !in.bad();
}

int Run(const Invocation& call) {
    const Arguments& args = call.args;
    SendOptions o;
    o.server = args.Get("server");
    o.port = static_cast<int>(args.GetNumber("port", 1, 65535, 0));
    o.security = ReadSecurityOptions(args);
    o.user = args.Get("user");
    if (!o.user.empty()) {
        if (args.Has("password-file")) {
            const std::string file = args.Get("password-file");
            std::ifstream in(file);
            if (!in || !std::getline(in, o.password))
                return call.Fail("cannot read the password file " + file);
            if (!o.password.empty() && o.password.back() == '\r') o.password.pop_back();
        } else if (const char* env = std::getenv("TAVIK_PASSWORD")) {
            o.password = env;
        } else {
            throw UsageError("no password for --user: give --password-file FILE or set TAVIK_PASSWORD");
        }
    } else if (args.Has("password-file")) {
        throw UsageError("--password-file needs --user");
    }
    o.timeLimit = static_cast<int>(args.GetNumber("timeout", 1, 3600, o.timeLimit));
    o.from = args.Get("from");
    o.to = args.GetAll("to");
    o.subject = args.Get("subject");
    o.attachments = args.GetAll("attach");
    for (const std::string& to : o.to) {
        std::string address, name;
        if (!SplitRecipient(to, address, name)) throw UsageError("cannot read the recipient \"" + to + "\"");
    }
    const std::string bodyFile = args.Get("body");
    if (!ReadBody(bodyFile, o.body))
        return call.Fail("cannot read the message text from " +
                         (bodyFile.empty() ? "standard input" : bodyFile));
    return RunMailSend(o, call.out, call.err);
}

}  // namespace

std::vector<Option> SendOptionList() {
    std::vector<Option> options = {
        Option::Value("server", "HOST", "the SMTP server", true),
        Option::Value("port", "PORT",
                      "its port (default 25, 587 with STARTTLS, 465 with TLS from the first byte)"),
        Option::Value("from", "ADDRESS", "the sender", true),
        Option::Repeated("to", "RECIPIENT", "a recipient, ADDRESS or \"NAME <ADDRESS>\"", true),
        Option::Value("subject", "TEXT", "the subject"),
        Option::Value("body", "FILE", "the message text (default: standard input)"),
        Option::Repeated("attach", "FILE", "attach a file"),
        Option::Value("timeout", "SECONDS", "longest wait for the server, 1 to 3600 (default 30)"),
        Option::Value("user", "USER", "log in as USER (AUTH PLAIN or LOGIN, over TLS only)"),
        Option::Value("password-file", "FILE", "read the login's password from the first line of FILE"),
    };
    for (Option& o : SecurityOptionList(MailProtocol::kSmtp)) options.push_back(std::move(o));
    options.push_back(Option::Refused(
        "password",
        "a password on the command line is visible to every user; use --password-file or TAVIK_PASSWORD"));
    return options;
}

const Command& SendCommand() {
    static const Command command{
        .name = "send",
        .summary = "send a message through an SMTP server",
        .options = SendOptionList(),
        .details =
            "The text is read from FILE, or from standard input when --body is missing or \"-\".\n"
            "With attachments, or text that is not plain ASCII, the message goes as MIME (the text\n"
            "labelled UTF-8 when it is). The server's replies are shown as they come; recipients it\n"
            "refuses are left out, and the message goes to the others.\n"
            "With --user the password is the first line of --password-file, or else TAVIK_PASSWORD;\n"
            "it is sent only over TLS.\n" +
            SecurityDetails(MailProtocol::kSmtp),
        .run = Run,
    };
    return command;
}

}  // namespace tavik::host
