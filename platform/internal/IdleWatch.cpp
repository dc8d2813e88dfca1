#include "platform/internal/IdleWatch.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

// The kernel's count of runnable threads (the "4/180" field of /proc/loadavg) includes the caller.
bool detail::CpusOversubscribed() {
    static const long cpus = sysconf(_SC_NPROCESSORS_ONLN);
    int fd = open("/proc/loadavg", O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    char text[128];
    ssize_t n = read(fd, text, sizeof text - 1);
    close(fd);
    if (n <= 0) return false;
    text[n] = '\0';
    long running = 0;
    if (std::sscanf(text, "%*s %*s %*s %ld/", &running) != 1) return false;
    return cpus > 0 && running > cpus;
}
