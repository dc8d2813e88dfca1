#include "host/SystemdTimer.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "accounts/CRegistryOptions.h"
#include "host/CheckReport.h"
#include "host/MessageShow.h"
#include "library/Resource.h"
#include "platform/CString.h"
#include "platform/Registry.h"

namespace tavik::host {

namespace {

namespace fs = std::filesystem;

struct UnitFile {
    fs::path path;
    std::string text;
};

}  // namespace

std::string SystemdUserDirectory() {
    if (const char* config = std::getenv("XDG_CONFIG_HOME"); config && *config == '/')
        return std::string(config) + "/systemd/user";
    if (const char* home = std::getenv("HOME"); home && *home)
        return std::string(home) + "/.config/systemd/user";
    return {};
}

std::vector<std::pair<std::string, std::string>> TimerEnvironment() {
    std::vector<std::pair<std::string, std::string>> set;
    for (const char* name : kTimerVariables)
        if (const char* value = std::getenv(name); value && *value) set.emplace_back(name, value);
    return set;
}

std::string SystemdQuote(std::string_view word, bool dollars) {
    std::string out = "\"";
    for (char c : word) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) return {};
        if (c == '\\' || c == '"') out += '\\';
        if (c == '%') out += '%';
        if (c == '$' && dollars) out += '$';
        out += c;
    }
    return out + "\"";
}

std::string ServiceUnitText(const TimerSpec& settings) {
    const std::string program = SystemdQuote(settings.program, true);
    if (settings.program.empty() || program.empty()) return {};
    std::string text = "# Written by tavik install-timer: one check of every account, started by " +
                       std::string(kTimerUnit) +
                       ".timer.\n"
                       "[Unit]\n"
                       "Description=tavikmail: check mail and fight junk\n"
                       "\n"
                       "[Service]\n"
                       "Type=oneshot\n"
                       "ExecStart=" +
                       program + " " + kTimerCommand + "\n";
    for (const auto& [name, value] : settings.environment) {
        const std::string quoted = SystemdQuote(name + "=" + value, false);
        if (quoted.empty()) return {};
        text += "Environment=" + quoted + "\n";
    }
    // New mail is good news, not a failure of the unit.
    text += "SuccessExitStatus=" + std::to_string(kExitNewMail) + "\n";
    return text;
}

std::string TimerUnitText(const TimerSpec& settings) {
    const std::string every = std::to_string(settings.intervalMinutes);
    return "# Written by tavik install-timer.\n"
           "[Unit]\n"
           "Description=tavikmail: check mail every " +
           every + (settings.intervalMinutes == 1 ? " minute" : " minutes") +
           "\n"
           "\n"
           "[Timer]\n"
           "OnStartupSec=1min\n"
           "OnUnitActiveSec=" +
           every +
           "min\n"
           "Unit=" +
           kTimerUnit +
           ".service\n"
           "\n"
           "[Install]\n"
           "WantedBy=timers.target\n";
}

unsigned ConfiguredCheckInterval(const std::string& configurationKey, unsigned fallback) {
    HKEY key = nullptr;
    if (configurationKey.empty() ||
        RegOpenKeyEx(HKEY_CURRENT_USER, configurationKey.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS)
        return fallback;
    RegCloseKey(key);
    const CRegistryOptions options{CString(configurationKey)};
    return static_cast<unsigned>(options.GetCheckInterval());
}

std::string DefaultConfigurationKey() {
    CString root;
    root.LoadString(IDS_REGISTRY_ROOT);
    return root.str() + "\\Configuration";
}

int InstallTimer(const InstallOptions& o, FILE* out, FILE* err) {
    const auto fail = [&](const std::string& why) {
        std::fprintf(err, "tavik install-timer: %s\n", TerminalText(why).c_str());
        return 1;
    };
    if (o.settings.intervalMinutes < 1 || o.settings.intervalMinutes > kMaxIntervalMinutes)
        return fail("the interval must be 1 to " + std::to_string(kMaxIntervalMinutes) + " minutes");
    const std::string service = ServiceUnitText(o.settings);
    if (service.empty())
        return fail("the program's path or a variable holds a control character: " + o.settings.program);
    const UnitFile files[] = {
        {fs::path(o.directory) / (std::string(kTimerUnit) + ".service"), service},
        {fs::path(o.directory) / (std::string(kTimerUnit) + ".timer"), TimerUnitText(o.settings)}};
    if (o.print) {
        for (const UnitFile& f : files)
            std::fprintf(out, "# %s\n%s\n", f.path.string().c_str(), f.text.c_str());
        return 0;
    }
    if (o.directory.empty()) return fail("no place for systemd user units: set XDG_CONFIG_HOME or HOME");
    std::error_code ec;
    for (const UnitFile& f : files)
        if (fs::exists(f.path, ec) && !o.force) return fail(f.path.string() + " exists: --force replaces it");
    fs::create_directories(o.directory, ec);
    if (ec) return fail("cannot create " + o.directory + ": " + ec.message());
    // Both files written aside first, then renamed: a failure leaves the old units whole.
    std::vector<fs::path> written;
    const auto cleanUp = [&] {
        for (const fs::path& p : written) fs::remove(p, ec);
    };
    for (const UnitFile& f : files) {
        fs::path temporary = f.path;
        temporary += ".new";
        std::ofstream file(temporary, std::ios::binary | std::ios::trunc);
        file << f.text;
        file.close();
        written.push_back(temporary);
        if (!file) {
            cleanUp();
            return fail("cannot write " + temporary.string());
        }
    }
    for (size_t i = 0; i < written.size(); ++i) {
        fs::rename(written[i], files[i].path, ec);
        if (ec) {
            cleanUp();
            return fail("cannot write " + files[i].path.string() + ": " + ec.message());
        }
    }
    for (const UnitFile& f : files) std::fprintf(out, "wrote %s\n", TerminalText(f.path.string()).c_str());
    std::fprintf(out,
                 "a check of every account every %u minute%s (%s %s)\n"
                 "next:\n"
                 "  systemctl --user daemon-reload\n"
                 "  systemctl --user enable --now %s.timer\n"
                 "to keep checking while you are logged out: loginctl enable-linger\n",
                 o.settings.intervalMinutes, o.settings.intervalMinutes == 1 ? "" : "s",
                 TerminalText(o.settings.program).c_str(), kTimerCommand, kTimerUnit);
    return 0;
}

}  // namespace tavik::host
