#include "host/Commands.h"

namespace tavik::host {

namespace {

int Run(const Invocation& call) {
    std::fprintf(call.out, "tavik 0.1.0\n");
    return 0;
}

}  // namespace

const Command& VersionCommand() {
    static const Command command{.name = "version", .summary = "print the version", .run = Run};
    return command;
}

}  // namespace tavik::host
