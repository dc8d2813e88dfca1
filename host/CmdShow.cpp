// tavik show: a safe preview of a message file or of a message cached in a store.
#include "host/Commands.h"
#include "host/MessageShow.h"

namespace tavik::host {

namespace {

int Run(const Invocation& call) {
    const Arguments& args = call.args;
    ShowOptions o;
    o.file = args.Positional(0);
    if (args.Positional().size() > 1) o.record = args.Positional(1);
    o.htmlFile = args.Get("html");
    o.saveDir = args.Get("save-attachments");
    o.raw = args.Has("raw");
    if (o.raw && (!o.htmlFile.empty() || !o.saveDir.empty()))
        throw UsageError("--raw shows the source alone: leave out --html and --save-attachments");
    return RunMessageShow(o, call.out, call.err);
}

}  // namespace

const Command& ShowCommand() {
    static const Command command{
        .name = "show",
        .summary = "show a message file, or a message cached in a store, safely",
        .options =
            {
                Option::Value("html", "FILE", "also write the HTML rendering to FILE, attachments beside it"),
                Option::Value("save-attachments", "DIR", "save the attachments into DIR"),
                Option::Flag("raw", "show the message's source instead"),
            },
        .arguments = "FILE [RECORD]",
        .minArguments = 1,
        .maxArguments = 2,
        .details =
            "FILE is a message (RFC 822 text, as saved by a mail program) or a message store; in a store,\n"
            "RECORD names the cached message by its path (as `tavik store tree` lists it), and without\n"
            "RECORD the store's messages are listed. Shown are the header fields, the text of the message\n"
            "(HTML parts without their tags) and the attachments with their type and size. Control\n"
            "characters are shown as \\xNN, so that no message can drive the terminal.\n"
            "--html writes the HTML rendering (other parts, HTML ones included, as boxes that link to\n"
            "their files) to FILE and the attachments into the new directory FILE_files; the page loads\n"
            "nothing else and runs no script. --save-attachments writes each attachment's decoded bytes\n"
            "into DIR under its cleaned name, never over an existing file (\"-1\", \"-2\", ... are added).",
        .run = Run,
    };
    return command;
}

}  // namespace tavik::host
