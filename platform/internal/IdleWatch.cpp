#include "platform/internal/IdleWatch.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include "platform/internal/SystemCalls.h"

using tavik::platform::Sys;

// The kernel's count of runnable threads (the "4/180" field of /proc/loadavg) includes the caller.
bool tavik::platform::CpusOversubscribed() {
    static const long cpus = Sys().sysconf(_SC_NPROCESSORS_ONLN);
    int fd = Sys().open("/proc/loadavg", O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0) return false;
    char text[128];
    ssize_t n = Sys().read(fd, text, sizeof text - 1);
    Sys().close(fd);
    if (n <= 0) return false;
    text[n] = '\0';
    long running = 0;
    if (std::sscanf(text, "%*s %*s %*s %ld/", &running) != 1) return false;
    return cpus > 0 && running > cpus;
}
