// The host's sub-commands. Each returns the process exit code: 0 done, 1 failed, 2 bad usage.
#pragma once

#include <string>
#include <vector>

namespace tavik::host {

using Args = std::vector<std::string>;

struct Command {
    const char* name;
    const char* summary;
    int (*run)(const Args& args);
};

int RunVersion(const Args& args);
int RunCheck(const Args& args);
int RunDemo(const Args& args);
int RunScan(const Args& args);
int RunRegistry(const Args& args);
int RunStore(const Args& args);

}  // namespace tavik::host
