// `tavik install-timer`: a systemd user timer that runs one check of every account at an interval, for
// people who prefer systemd to a `tavik watch` left running. The service runs `tavik watch --once`; it
// counts the new-mail exit code as success, and it carries the variables that choose tavik's data (so the
// timer checks the same accounts as the shell that installed it).
#pragma once

#include <cstdio>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tavik::host {

inline constexpr char kTimerUnit[] = "tavikmail-check";  // .service and .timer
inline constexpr char kTimerCommand[] = "watch --once";  // what the service runs after the program
// The variables a service copies from the installing shell when they are set.
inline constexpr const char* kTimerVariables[] = {"TAVIK_DATA", "TAVIK_REGISTRY", "XDG_DATA_HOME",
                                                  "XDG_CONFIG_HOME", "XDG_STATE_HOME"};
inline constexpr unsigned kMaxIntervalMinutes = 7 * 24 * 60;

struct TimerSpec {
    std::string program;            // absolute path of tavik
    unsigned intervalMinutes = 10;  // 1 .. kMaxIntervalMinutes
    std::vector<std::pair<std::string, std::string>> environment;
};

// $XDG_CONFIG_HOME/systemd/user when XDG_CONFIG_HOME is absolute, else $HOME/.config/systemd/user; empty
// when neither can be named.
std::string SystemdUserDirectory();
// The set kTimerVariables of the current environment, in that order.
std::vector<std::pair<std::string, std::string>> TimerEnvironment();

// A word quoted for a unit file: in double quotes, with backslash and quote escaped and '%' doubled
// (systemd's specifiers); '$' doubled as well when dollars is set (ExecStart expands variables). Empty
// when the word holds a control character, which a unit file cannot carry.
std::string SystemdQuote(std::string_view word, bool dollars);

// The unit files' text. Empty when the program or a variable cannot be quoted.
std::string ServiceUnitText(const TimerSpec& settings);
std::string TimerUnitText(const TimerSpec& settings);

// The "CheckMail Interval" option (minutes) of an option set's registry key, as the user's configuration
// holds it; fallback when the key does not exist (which is then not created).
unsigned ConfiguredCheckInterval(const std::string& configurationKey, unsigned fallback = 10);
// The default user's configuration key.
std::string DefaultConfigurationKey();

struct InstallOptions {
    std::string directory = SystemdUserDirectory();
    TimerSpec settings;
    bool force = false;  // replace unit files that exist
    bool print = false;  // print the two files instead of writing them
};

// Writes kTimerUnit.service and kTimerUnit.timer into the directory (created when missing), each through a
// temporary file renamed into place, and prints what it wrote and the commands to run next. Refuses,
// writing nothing, when either file exists and force is not set. Returns 0, or 1 with the reason on err.
int InstallTimer(const InstallOptions& options, FILE* out, FILE* err);

}  // namespace tavik::host
