#include "host/MailWatch.h"

#include <chrono>
#include <ctime>
#include <thread>

namespace tavik::host {

namespace {

bool Stopping(const WatchOptions& o) { return o.check.stop && o.check.stop->load(); }

std::string ClockTime(std::time_t when) {
    char text[16] = "";
    std::tm local{};
    localtime_r(&when, &local);
    std::strftime(text, sizeof text, "%H:%M", &local);
    return text;
}

}  // namespace

int RunWatch(const WatchOptions& o) {
    for (;;) {
        const UserCheckResult round = RunUserCheckShown(o.check);
        // A user that cannot be signed in will not be next time either.
        if (o.once || round.user.empty()) return round.exitCode;
        if (round.stopped || Stopping(o)) return kExitStopped;
        unsigned seconds = o.intervalSeconds;
        if (seconds == 0) seconds = (round.checkInterval ? round.checkInterval : 10) * 60;
        if (o.check.out) {
            std::fprintf(o.check.out, "next check at %s (Ctrl-C stops)\n",
                         ClockTime(std::time(nullptr) + seconds).c_str());
            std::fflush(o.check.out);
        }
        const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
        while (std::chrono::steady_clock::now() < until) {
            if (Stopping(o)) return kExitStopped;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    }
}

}  // namespace tavik::host
