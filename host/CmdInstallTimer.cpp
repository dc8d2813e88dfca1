// tavik install-timer: a systemd user timer that checks mail at an interval.
#include <filesystem>

#include "host/Commands.h"
#include "host/SystemdTimer.h"

namespace tavik::host {

namespace {

int Run(const Invocation& call) {
    const Arguments& args = call.args;
    InstallOptions o;
    o.force = args.Has("force");
    o.print = args.Has("print");
    o.settings.intervalMinutes = static_cast<unsigned>(args.GetNumber("interval", 1, kMaxIntervalMinutes, 0));
    if (o.settings.intervalMinutes == 0) {
        o.settings.intervalMinutes = ConfiguredCheckInterval(DefaultConfigurationKey());
        if (o.settings.intervalMinutes == 0 || o.settings.intervalMinutes > kMaxIntervalMinutes)
            return call.Fail("the CheckMail Interval option is " +
                             std::to_string(o.settings.intervalMinutes) +
                             " minutes: give --interval MINUTES");
    }
    std::error_code ec;
    o.settings.program = std::filesystem::canonical("/proc/self/exe", ec).string();
    if (ec) return call.Fail("cannot tell where this program is: " + ec.message());
    o.settings.environment = TimerEnvironment();
    return InstallTimer(o, call.out, call.err);
}

}  // namespace

const Command& InstallTimerCommand() {
    static const Command command{
        .name = "install-timer",
        .summary = "check mail on a schedule with a systemd user timer",
        .options =
            {
                Option::Value("interval", "MINUTES",
                              "minutes between checks (default: the CheckMail Interval option)"),
                Option::Flag("force", "replace the timer and service if they exist"),
                Option::Flag("print", "print the two unit files instead of writing them"),
            },
        .details =
            "Writes tavikmail-check.service and tavikmail-check.timer into $XDG_CONFIG_HOME/systemd/user\n"
            "(else ~/.config/systemd/user). The timer starts the service a minute after you log in and then\n"
            "every interval; the service runs `tavik watch --once`, one check of every account, with the\n"
            "TAVIK_DATA, TAVIK_REGISTRY and XDG_* variables of this shell, so it checks the same accounts.\n"
            "Without --interval the interval is the CheckMail Interval option (10 minutes unless changed).\n"
            "Then run: systemctl --user daemon-reload; systemctl --user enable --now tavikmail-check.timer",
        .run = Run,
    };
    return command;
}

}  // namespace tavik::host
