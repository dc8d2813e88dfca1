#include "platform/Console.h"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

bool TavikReadSecret(const std::string& prompt, std::string& secret) {
    int fd = ::open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) return false;
    termios saved{};
    bool restore = ::tcgetattr(fd, &saved) == 0;
    if (restore) {
        termios quiet = saved;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        restore = ::tcsetattr(fd, TCSAFLUSH, &quiet) == 0;
    }
    (void)!::write(fd, prompt.data(), prompt.size());
    secret.clear();
    char c;
    while (::read(fd, &c, 1) == 1 && c != '\n' && c != '\r') secret += c;
    if (restore) ::tcsetattr(fd, TCSAFLUSH, &saved);
    (void)!::write(fd, "\n", 1);
    ::close(fd);
    return true;
}
