#include "tests/support/DelayRelay.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <deque>
#include <stdexcept>
#include <string>

namespace tavik::test {

namespace {

using Clock = std::chrono::steady_clock;

sockaddr_in Loopback(unsigned short port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return a;
}

void NoDelay(int fd) {
    int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

bool SendAll(int fd, const std::string& bytes) {
    for (size_t at = 0; at < bytes.size();) {
        ssize_t n = ::send(fd, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
        if (n <= 0) return false;
        at += static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

DelayRelay::DelayRelay(unsigned short targetPort, int delayMs) : m_target(targetPort), m_delayMs(delayMs) {
    if (::pipe(m_wake) != 0) throw std::runtime_error("relay: no pipe");
    m_listen = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a = Loopback(0);
    socklen_t len = sizeof a;
    if (m_listen < 0 || ::bind(m_listen, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
        ::listen(m_listen, 8) != 0 || ::getsockname(m_listen, reinterpret_cast<sockaddr*>(&a), &len) != 0)
        throw std::runtime_error("relay: cannot listen on 127.0.0.1");
    m_port = ntohs(a.sin_port);
    m_acceptor = std::thread([this] { Accept(); });
}

DelayRelay::~DelayRelay() {
    char stop = 1;
    (void)!::write(m_wake[1], &stop, 1);
    m_acceptor.join();
    for (auto& t : m_pumps) t.join();
    for (int fd : m_sockets) ::close(fd);
    ::close(m_listen);
    ::close(m_wake[0]);
    ::close(m_wake[1]);
}

void DelayRelay::Accept() {
    for (;;) {
        pollfd p[2] = {{m_listen, POLLIN, 0}, {m_wake[0], POLLIN, 0}};
        if (::poll(p, 2, -1) < 0) continue;
        if (p[1].revents) return;
        int client = ::accept4(m_listen, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0) continue;
        int server = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in to = Loopback(m_target);
        if (server < 0 || ::connect(server, reinterpret_cast<sockaddr*>(&to), sizeof to) != 0) {
            ::close(client);
            if (server >= 0) ::close(server);
            continue;
        }
        NoDelay(client);
        NoDelay(server);
        m_sockets.push_back(client);
        m_sockets.push_back(server);
        m_pumps.emplace_back([this, client, server] { Pump(client, server); });
        m_pumps.emplace_back([this, client, server] { Pump(server, client); });
    }
}

// Reads what comes from `from` as it comes, and writes each chunk to `to` once it has been held for the
// delay; the end of `from` is passed on the same way.
void DelayRelay::Pump(int from, int to) {
    struct Chunk {
        Clock::time_point due;
        std::string bytes;  // empty: the end of the stream
    };
    std::deque<Chunk> held;
    bool ended = false;
    std::string buffer(64 * 1024, '\0');
    for (;;) {
        int timeout = -1;
        if (!held.empty()) {
            auto left = std::chrono::ceil<std::chrono::milliseconds>(held.front().due - Clock::now()).count();
            timeout = left < 0 ? 0 : static_cast<int>(left);
        }
        pollfd p[2] = {{ended ? -1 : from, POLLIN, 0}, {m_wake[0], POLLIN, 0}};
        if (::poll(p, 2, timeout) < 0) continue;
        if (p[1].revents) return;
        if (p[0].revents) {
            ssize_t n = ::recv(from, buffer.data(), buffer.size(), 0);
            ended = n <= 0;
            held.push_back({Clock::now() + std::chrono::milliseconds(m_delayMs),
                            ended ? std::string() : buffer.substr(0, static_cast<size_t>(n))});
        }
        while (!held.empty() && held.front().due <= Clock::now()) {
            if (held.front().bytes.empty()) {
                ::shutdown(to, SHUT_WR);
                return;
            }
            if (!SendAll(to, held.front().bytes)) return;
            held.pop_front();
        }
    }
}

}  // namespace tavik::test
