#include "tests/support/GeneratedPop3Server.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

namespace tavik::test {

namespace {

bool SendAll(int fd, const std::string& bytes) {
    for (size_t at = 0; at < bytes.size();) {
        ssize_t n = ::send(fd, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
        if (n <= 0) return false;
        at += static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

GeneratedPop3Server::GeneratedPop3Server(int messages, std::size_t headerBytes)
    : m_messages(messages), m_headerBytes(headerBytes) {
    const std::string line = "X-Filler: " + std::string(988, 'f') + "\r\n";
    while (m_filler.size() + line.size() <= headerBytes) m_filler += line;
    if (::pipe2(m_wake, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    m_listen = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (m_listen < 0 || ::bind(m_listen, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
        ::listen(m_listen, 4) != 0 || ::getsockname(m_listen, reinterpret_cast<sockaddr*>(&a), &len) != 0)
        throw std::runtime_error("cannot listen on 127.0.0.1");
    m_port = ntohs(a.sin_port);
    m_thread = std::thread([this] { Run(); });
}

GeneratedPop3Server::~GeneratedPop3Server() {
    char stop = 1;
    (void)!::write(m_wake[1], &stop, 1);
    m_thread.join();
    ::close(m_listen);
    ::close(m_wake[0]);
    ::close(m_wake[1]);
}

std::string GeneratedPop3Server::Header(int n) const {
    const std::string k = std::to_string(n);
    return "From: Sender " + k + " <sender" + k + "@example.org>\r\nSubject: Generated message " + k +
           "\r\nDate: Mon, 02 Nov 2026 10:00:00 +0000\r\n" + m_filler;
}

void GeneratedPop3Server::Run() {
    for (;;) {
        pollfd p[2] = {{m_listen, POLLIN, 0}, {m_wake[0], POLLIN, 0}};
        if (::poll(p, 2, -1) < 0) continue;
        if (p[1].revents) return;
        int conn = ::accept4(m_listen, nullptr, nullptr, SOCK_CLOEXEC);
        if (conn < 0) continue;
        Serve(conn);
        ::close(conn);
    }
}

void GeneratedPop3Server::Serve(int conn) {
    std::string in;
    char buffer[4096];
    if (!SendAll(conn, "+OK generated mailbox ready\r\n")) return;
    for (;;) {
        size_t eol = in.find("\r\n");
        if (eol == std::string::npos) {
            pollfd p[2] = {{conn, POLLIN, 0}, {m_wake[0], POLLIN, 0}};
            if (::poll(p, 2, -1) < 0) continue;
            if (p[1].revents) return;
            ssize_t got = ::recv(conn, buffer, sizeof buffer, 0);
            if (got <= 0) return;
            in.append(buffer, static_cast<size_t>(got));
            continue;
        }
        const std::string line = in.substr(0, eol);
        in.erase(0, eol + 2);
        const size_t space = line.find(' ');
        const std::string command = line.substr(0, space);
        const int n = space == std::string::npos ? 0 : std::atoi(line.c_str() + space + 1);
        const bool known = n >= 1 && n <= m_messages;
        std::string reply;
        if (command == "CAPA") {
            reply = "+OK\r\nTOP\r\nUIDL\r\nPIPELINING\r\n.\r\n";
        } else if (command == "STAT") {
            reply =
                "+OK " + std::to_string(m_messages) + " " +
                std::to_string(static_cast<long long>(m_messages) * static_cast<long long>(m_headerBytes)) +
                "\r\n";
        } else if (command == "LIST" && known) {
            reply = "+OK " + std::to_string(n) + " " + std::to_string(Header(n).size() + 40) + "\r\n";
        } else if (command == "TOP" && known) {
            reply = "+OK\r\n" + Header(n) + "\r\n.\r\n";
        } else if (command == "UIDL" && known) {
            reply = "+OK " + std::to_string(n) + " gen-" + std::to_string(n) + "\r\n";
        } else if (command == "QUIT") {
            SendAll(conn, "+OK bye\r\n");
            return;
        } else if (command == "USER" || command == "PASS" || command == "NOOP") {
            reply = "+OK\r\n";
        } else {
            reply = "-ERR unknown command or message\r\n";
        }
        if (!SendAll(conn, reply)) return;
    }
}

}  // namespace tavik::test
