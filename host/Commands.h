// The commands of `tavik`, each defined in its own host/Cmd*.cpp (host/CommandLine.h tells how to add one).
#pragma once

#include <vector>

#include "host/CommandLine.h"

namespace tavik::host {

const Command& VersionCommand();
const Command& CheckCommand();
const Command& DemoCommand();
const Command& ScanCommand();
const Command& RegistryCommand();
const Command& StoreCommand();
const Command& SendCommand();
const Command& ShowCommand();

// Every command, in the order `tavik help` lists them.
const std::vector<const Command*>& AllCommands();

}  // namespace tavik::host
