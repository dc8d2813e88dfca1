// tavik: the command-line host of the mail library.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "host/Commands.h"
#include "host/ErrorWindowHost.h"

namespace {

const tavik::host::Command kCommands[] = {
    {"version", "print the version", tavik::host::RunVersion},
    {"check", "check a POP3 mailbox: log in and list every message's header", tavik::host::RunCheck},
    {"demo", "a mail check against a sample mailbox served on this machine", tavik::host::RunDemo},
    {"scan", "scan message files' headers and print the fields found", tavik::host::RunScan},
    {"registry", "export a registry key to a .reg file, or import one", tavik::host::RunRegistry},
    {"store", "show the tree of a compound file, or one stream's bytes", tavik::host::RunStore},
};

void usage(FILE* out) {
    std::fprintf(out, "usage: tavik COMMAND [ARGS...]\n\ncommands:\n");
    for (const auto& c : kCommands) std::fprintf(out, "  %-10s %s\n", c.name, c.summary);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2 || std::strcmp(argv[1], "help") == 0 || std::strcmp(argv[1], "--help") == 0) {
        usage(argc < 2 ? stderr : stdout);
        return argc < 2 ? 2 : 0;
    }
    std::vector<std::string> args(argv + 2, argv + argc);
    // Storage failures the library reports go to standard error while a command runs.
    tavik::host::ErrorWindowHost errorWindow;
    for (const auto& c : kCommands) {
        if (std::strcmp(argv[1], c.name) == 0) return c.run(args);
    }
    std::fprintf(stderr, "tavik: unknown command '%s'\n", argv[1]);
    usage(stderr);
    return 2;
}
