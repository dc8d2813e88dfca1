#include "host/Commands.h"

#include "host/RuleMatcher.h"

namespace tavik::host {

const std::vector<const Command*>& AllCommands() {
    // clang-format off
    static const std::vector<const Command*> commands = {
        &VersionCommand(),
        &CheckCommand(),
        &WatchCommand(),
        &SendCommand(),
        &ShowCommand(),
        &LogCommand(),
        &InstallTimerCommand(),
        &DemoCommand(),
        &ScanCommand(),
        &RegistryCommand(),
        &StoreCommand(),
        &UserCommand(),
        &AccountCommand(),
        &FriendsCommand(),
        &SpammersCommand(),
        &FoldersCommand(),
        &RuleCommand(),
        &ContactCommand(),
        &ConfigCommand(),
    };
    // clang-format on
    return commands;
}

const std::vector<HelpTopic>& AllHelpTopics() {
    static const std::vector<HelpTopic> topics = {
        {"rules", "how rules pick messages: the Mail Tag, Action and Object words", RulesHelpText},
    };
    return topics;
}

}  // namespace tavik::host
