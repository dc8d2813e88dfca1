// The commands of `tavik`, each defined in its own host/Cmd*.cpp (host/CommandLine.h tells how to add one).
#pragma once

#include <string>
#include <vector>

#include "host/CommandLine.h"

namespace tavik::host {

const Command& VersionCommand();
const Command& CheckCommand();
const Command& WatchCommand();
const Command& DemoCommand();
const Command& ScanCommand();
const Command& RegistryCommand();
const Command& StoreCommand();
const Command& SendCommand();
const Command& ShowCommand();
const Command& LogCommand();
const Command& InstallTimerCommand();
const Command& UserCommand();
const Command& AccountCommand();
const Command& FriendsCommand();
const Command& SpammersCommand();
const Command& FoldersCommand();
const Command& RuleCommand();
const Command& ContactCommand();
const Command& ConfigCommand();

// Every command, in the order `tavik help` lists them.
const std::vector<const Command*>& AllCommands();

// Help that belongs to no one command: `tavik help TOPIC`.
struct HelpTopic {
    std::string name;
    std::string summary;    // one line, for the overview
    std::string (*text)();  // the whole text
};
const std::vector<HelpTopic>& AllHelpTopics();

}  // namespace tavik::host
