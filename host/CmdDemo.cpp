// tavik demo: the junk-mail check against a sample mailbox, with nothing to set up.
#include "host/Commands.h"
#include "host/DemoCheck.h"

namespace tavik::host {

const Command& DemoCommand() {
    static const Command command{
        .name = "demo",
        .summary = "the junk-mail check against a sample mailbox served on this machine",
        .details =
            "Serves a generated mailbox (friends' mail, junk, an order enquiry, a mailing list) from a POP3\n"
            "server on 127.0.0.1, with an SMTP server beside it, and sets up a demo user in a private\n"
            "store (removed afterwards; your own users and accounts are not touched): friends, spammers,\n"
            "spam shields and an auto-responder. Then checks the mailbox as 'tavik check' checks yours,\n"
            "shows what happened on the servers (junk deleted, friends' mail kept, an answer delivered),\n"
            "and checks it again to show that nothing is judged twice.",
        .run = [](const Invocation& call) { return RunDemo(call.out, call.err); },
    };
    return command;
}

}  // namespace tavik::host
