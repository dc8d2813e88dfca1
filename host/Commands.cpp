#include "host/Commands.h"

namespace tavik::host {

const std::vector<const Command*>& AllCommands() {
    // clang-format off
    static const std::vector<const Command*> commands = {
        &VersionCommand(),
        &CheckCommand(),
        &SendCommand(),
        &ShowCommand(),
        &DemoCommand(),
        &ScanCommand(),
        &RegistryCommand(),
        &StoreCommand(),
    };
    // clang-format on
    return commands;
}

}  // namespace tavik::host
