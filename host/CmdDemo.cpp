// tavik demo: a whole mail check against a sample mailbox, with nothing to set up.
#include "host/Commands.h"
#include "host/DemoCheck.h"

namespace tavik::host {

const Command& DemoCommand() {
    static const Command command{
        .name = "demo",
        .summary = "a mail check against a sample mailbox served on this machine",
        .details =
            "Serves a generated mailbox (ordinary mail and junk) from a POP3 server on 127.0.0.1 and\n"
            "checks it as 'tavik check' checks a real one.",
        .run = [](const Invocation&) { return RunPop3Demo(); },
    };
    return command;
}

}  // namespace tavik::host
