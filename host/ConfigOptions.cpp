#include "host/ConfigOptions.h"

#include <functional>

#include "host/UserSession.h"

namespace tavik::host {

namespace {

struct Entry {
    const char* name;
    std::function<std::string(const CRegistryOptions&, const CEnvironmentOptions&)> get;
    std::function<void(CRegistryOptions&, CEnvironmentOptions&, DWORD, const CString&)>
        set;  // null: read-only
    bool number;
};

#define CONF_NUM(n, G, S)                                                                                \
    {                                                                                                    \
        "configuration." n,                                                                              \
            [](const CRegistryOptions& c, const CEnvironmentOptions&) { return std::to_string(c.G()); }, \
            [](CRegistryOptions& c, CEnvironmentOptions&, DWORD v, const CString&) { c.S(v); }, true     \
    }
#define CONF_TEXT(n, G, S)                                                                            \
    {                                                                                                 \
        "configuration." n,                                                                           \
            [](const CRegistryOptions& c, const CEnvironmentOptions&) { return std::string(c.G()); }, \
            [](CRegistryOptions& c, CEnvironmentOptions&, DWORD, const CString& t) { c.S(t); }, false \
    }
#define ENV_NUM(n, G, S)                                                                                 \
    {                                                                                                    \
        "environment." n,                                                                                \
            [](const CRegistryOptions&, const CEnvironmentOptions& e) { return std::to_string(e.G()); }, \
            [](CRegistryOptions&, CEnvironmentOptions& e, DWORD v, const CString&) { e.S(v); }, true     \
    }
#define ENV_TEXT(n, G, S)                                                                             \
    {                                                                                                 \
        "environment." n,                                                                             \
            [](const CRegistryOptions&, const CEnvironmentOptions& e) { return std::string(e.G()); }, \
            [](CRegistryOptions&, CEnvironmentOptions& e, DWORD, const CString& t) { e.S(t); }, false \
    }

const std::vector<Entry>& Table() {
    static const std::vector<Entry> table = {
        CONF_NUM("auto-scan", GetAutoScan, SetAutoScan),
        CONF_NUM("scan-startup", GetScanStartup, SetScanStartup),
        CONF_NUM("check-interval", GetCheckInterval, SetCheckInterval),
        CONF_NUM("no-disconnect", GetNoDisconnect, SetNoDisconnect),
        CONF_NUM("scan-strict", GetScanStrict, SetScanStrict),
        CONF_NUM("dialup-enabled", GetDialupEnabled, SetDialupEnabled),
        CONF_TEXT("active-ras", GetActiveRAS, SetActiveRAS),
        CONF_NUM("enable-sound", GetEnableSound, SetEnableSound),
        CONF_TEXT("sound-file", GetSoundFilename, SetSoundFilename),
        CONF_NUM("enable-popup", GetEnablePopupMsg, SetEnablePopupMsg),
        CONF_NUM("enable-external", GetEnableExternal, SetEnableExternal),
        CONF_TEXT("external-client", GetExternalClient, SetExternalClient),
        CONF_TEXT("abuse-file", GetAbuseFilename, SetAbuseFilename),
        CONF_TEXT("admin-file", GetAdminFilename, SetAdminFilename),
        CONF_TEXT("postmaster-file", GetPostmasterFilename, SetPostmasterFilename),
        {"configuration.database",
         [](const CRegistryOptions& c, const CEnvironmentOptions&) { return std::string(c.GetDataFile()); },
         nullptr, false},
        ENV_NUM("auto-remove", GetAutoRemove, SetAutoRemove),
        ENV_NUM("log-enabled", GetLogEnabled, SetLogEnabled),
        ENV_NUM("log-debug", GetLogDebug, SetLogDebug),
        ENV_NUM("log-standard", GetLogStandard, SetLogStandard),
        ENV_TEXT("log-file", GetLogFilename, SetLogFilename),
        ENV_NUM("save-headers", GetSaveHeaders, SetSaveHeaders),
        ENV_NUM("start-minimized", GetStartMinimized, SetStartMinimized),
        ENV_NUM("hide-minimized", GetHideMinimized, SetHideMinimized),
        ENV_NUM("view-type", GetViewType, SetViewType),
        ENV_NUM("auto-maintain", GetAutoMaintain, SetAutoMaintain),
        ENV_NUM("timeout", GetTimeoutValue, SetTimeoutValue),
        ENV_NUM("threshold", GetThreshold, SetThreshold),
        ENV_NUM("retrieve-body", GetRetrieveBody, SetRetrieveBody),
        ENV_NUM("always-on-top", GetAlwaysOnTop, SetAlwaysOnTop),
        ENV_NUM("no-instance-prompt", GetNoInstancePrompt, SetNoInstancePrompt),
    };
    return table;
}

}  // namespace

std::vector<ConfigValue> ConfigValues(const CRegistryOptions& configuration,
                                      const CEnvironmentOptions& environment) {
    std::vector<ConfigValue> out;
    for (const Entry& e : Table()) out.push_back({e.name, e.get(configuration, environment), e.number});
    return out;
}

void SetConfigValue(CRegistryOptions& configuration, CEnvironmentOptions& environment,
                    const std::string& name, const std::string& value) {
    for (const Entry& e : Table()) {
        if (name != e.name) continue;
        if (!e.set) throw SessionError(name + " is kept by the library and cannot be set");
        DWORD number = 0;
        if (e.number) {
            if (value.empty() || value.size() > 10 ||
                value.find_first_not_of("0123456789") != std::string::npos ||
                std::stoull(value) > 0xFFFFFFFFull)
                throw SessionError(name + " takes a whole number from 0 to 4294967295, not '" + value + "'");
            number = static_cast<DWORD>(std::stoull(value));
        }
        e.set(configuration, environment, number, value.c_str());
        return;
    }
    std::string known;
    for (const Entry& e : Table()) known += std::string(known.empty() ? "" : ", ") + e.name;
    throw SessionError("no setting named '" + name + "' (settings: " + known + ")");
}

}  // namespace tavik::host
