#include "PlainSmtpSession.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

namespace {

// Reads one reply (through a line end at the end of what arrived) and checks its code.
void Expect(int fd, const char* code) {
    std::string reply;
    char buffer[4096];
    while (reply.size() < 2 || reply.compare(reply.size() - 2, 2, "\r\n") != 0) {
        ssize_t got = ::recv(fd, buffer, sizeof buffer, 0);
        if (got <= 0) throw std::runtime_error("plain recv ended");
        reply.append(buffer, static_cast<size_t>(got));
    }
    if (reply.compare(0, 3, code) != 0) throw std::runtime_error("plain session got " + reply);
}

}  // namespace

PlainSmtpSession::PlainSmtpSession(unsigned short port) {
    m_fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (m_fd < 0 || ::connect(m_fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0)
        throw std::runtime_error("plain connect failed");
    Expect(m_fd, "220");
    Command("HELO localhost\r\n", "250");
}

PlainSmtpSession::~PlainSmtpSession() {
    try {
        Command("QUIT\r\n", "221");
    } catch (...) {
    }
    ::close(m_fd);
}

void PlainSmtpSession::Write(const char* data, size_t size) {
    while (size > 0) {
        ssize_t sent = ::send(m_fd, data, size, MSG_NOSIGNAL);
        if (sent <= 0) throw std::runtime_error("plain send failed");
        data += sent;
        size -= static_cast<size_t>(sent);
    }
}

void PlainSmtpSession::Command(const std::string& command, const char* code) {
    Write(command.data(), command.size());
    Expect(m_fd, code);
}

void PlainSmtpSession::SendMessage(const std::string& from, const std::string& to, const std::string& bytes) {
    Command("MAIL From: <" + from + ">\r\n", "250");
    Command("RCPT TO: <" + to + ">\r\n", "250");
    Command("DATA\r\n", "354");
    Write(bytes.data(), bytes.size());
    Command("\r\n.\r\n", "250");
}
