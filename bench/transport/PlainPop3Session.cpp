#include "PlainPop3Session.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

PlainPop3Session::PlainPop3Session(unsigned short port, const std::string& user,
                                   const std::string& password) {
    m_fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (m_fd < 0 || ::connect(m_fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0)
        throw std::runtime_error("plain connect failed");
    ReadTo("\r\n");
    Command("USER " + user + "\r\n", "\r\n");
    Command("PASS " + password + "\r\n", "\r\n");
}

PlainPop3Session::~PlainPop3Session() {
    try {
        Command("QUIT\r\n", "\r\n");
    } catch (...) {
    }
    ::close(m_fd);
}

size_t PlainPop3Session::Command(const std::string& command, const char* mark, std::string* keep) {
    if (::send(m_fd, command.data(), command.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(command.size()))
        throw std::runtime_error("plain send failed");
    return ReadTo(mark, keep);
}

size_t PlainPop3Session::ReadTo(const char* mark, std::string* keep) {
    const size_t m = std::strlen(mark);
    std::string carry;  // the last m-1 bytes, where a mark cut by a receive starts
    size_t total = 0;
    for (;;) {
        ssize_t got = ::recv(m_fd, m_buffer, sizeof m_buffer, 0);
        if (got <= 0) throw std::runtime_error("plain recv ended");
        size_t n = static_cast<size_t>(got);
        total += n;
        if (keep) keep->append(m_buffer, n);
        std::string edge = carry;
        edge.append(m_buffer, std::min(n, m - 1));
        if (edge.find(mark) != std::string::npos || ::memmem(m_buffer, n, mark, m) != nullptr) return total;
        if (n >= m - 1)
            carry.assign(m_buffer + n - (m - 1), m - 1);
        else {
            carry.append(m_buffer, n);
            if (carry.size() > m - 1) carry.erase(0, carry.size() - (m - 1));
        }
    }
}
