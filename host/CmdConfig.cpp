// tavik config get|set: the user's option sets (scanning, sounds, notification files; logging, window
// behaviour).
#include <cstdio>

#include "host/Commands.h"
#include "host/ConfigOptions.h"
#include "host/ManageSupport.h"

namespace tavik::host {

namespace {

int RunGet(const Invocation& call) {
    try {
        auto session = SignIn(call);
        CRegistryOptions configuration(session->ConfigurationKey().c_str());
        CEnvironmentOptions environment(session->EnvironmentKey().c_str());
        std::vector<ConfigValue> values = ConfigValues(configuration, environment);
        if (!call.args.Positional().empty()) {
            const std::string& name = call.args.Positional(0);
            std::erase_if(values, [&](const ConfigValue& v) { return v.name != name; });
            if (values.empty()) return call.Fail("no setting named '" + name + "' (see 'tavik config get')");
        }
        bool json = call.args.Has("json");
        std::string out = json ? "{" : "";
        for (size_t i = 0; i < values.size(); ++i) {
            const ConfigValue& v = values[i];
            if (json)
                out += std::string(i ? ",\n  " : "\n  ") + Json(v.name) + ": " +
                       (v.number ? v.value : Json(v.value));
            else
                out += (call.args.Positional().empty() ? v.name + " = " : "") + v.value + "\n";
        }
        if (json) out += "\n}\n";
        std::fputs(out.c_str(), call.out);
        return 0;
    } catch (const SessionError& e) {
        return call.Fail(e.what());
    }
}

int RunSet(const Invocation& call) {
    try {
        auto session = SignIn(call);
        CRegistryOptions configuration(session->ConfigurationKey().c_str());
        CEnvironmentOptions environment(session->EnvironmentKey().c_str());
        const std::string& name = call.args.Positional(0);
        SetConfigValue(configuration, environment, name, call.args.Positional(1));
        if (name.starts_with("configuration."))
            configuration.SaveSettings(session->ConfigurationKey().c_str());
        else
            environment.SaveSettings(session->EnvironmentKey().c_str());
        return 0;
    } catch (const SessionError& e) {
        return call.Fail(e.what());
    }
}

}  // namespace

const Command& ConfigCommand() {
    static const Command command{
        .name = "config",
        .summary = "read and change the user's settings",
        .details =
            "Names are 'configuration.NAME' (scanning, sounds, the external client, notification files) "
            "and 'environment.NAME' (logging, window behaviour); 'tavik config get' lists them all.",
        .subcommands =
            {
                {.name = "get",
                 .summary = "every setting, or the one named",
                 .options = WithSignIn({Option::Flag("json", "print a JSON object")}),
                 .arguments = "[NAME]",
                 .minArguments = 0,
                 .maxArguments = 1,
                 .run = RunGet},
                {.name = "set",
                 .summary = "change one setting",
                 .options = SignInOptions(),
                 .arguments = "NAME VALUE",
                 .minArguments = 2,
                 .maxArguments = 2,
                 .run = RunSet},
            },
    };
    return command;
}

}  // namespace tavik::host
