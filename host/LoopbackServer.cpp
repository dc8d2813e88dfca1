#include "host/LoopbackServer.h"

#include <algorithm>

#include "platform/Winsock.h"

namespace tavik::host {

namespace {
constexpr long kWaitMicroseconds = 100000;
}

LoopbackServer::~LoopbackServer() { Stop(); }

bool LoopbackServer::Start(unsigned short port) {
    if (m_started) return true;
    if (WSAStartup(0x0101, nullptr) != 0) return false;
    SOCKET s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int len = sizeof a;
    if (s == INVALID_SOCKET || bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || listen(s, 5) != 0 ||
        getsockname(s, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
        if (s != INVALID_SOCKET) closesocket(s);
        WSACleanup();
        return false;
    }
    m_listen = s;
    m_port = ntohs(a.sin_port);
    m_stop = false;
    m_started = true;
    m_thread = std::thread([this] { Serve(); });
    return true;
}

void LoopbackServer::Stop() {
    if (!m_started) return;
    m_stop = true;
    m_thread.join();
    closesocket(m_listen);
    WSACleanup();
    m_started = false;
}

void LoopbackServer::Serve() {
    while (!m_stop) {
        if (WaitForSocket(m_listen, SOCKET_WAIT_READ, 0, kWaitMicroseconds) != 1) continue;
        SOCKET c = accept(m_listen, nullptr, nullptr);
        if (c == INVALID_SOCKET) continue;
        Session(c);
        closesocket(c);
    }
}

bool LoopbackServer::SendAll(std::uintptr_t connection, const std::string& data) const {
    size_t at = 0;
    while (at < data.size()) {
        if (m_stop) return false;
        int ready = WaitForSocket(connection, SOCKET_WAIT_WRITE, 0, kWaitMicroseconds);
        if (ready == 0) continue;
        if (ready != 1) return false;
        int n = send(connection, data.data() + at,
                     static_cast<int>(std::min<size_t>(data.size() - at, 1 << 20)), 0);
        if (n <= 0) return false;
        at += static_cast<size_t>(n);
    }
    return true;
}

bool LoopbackServer::ReadLine(std::uintptr_t connection, std::string& in, std::string& line,
                              size_t limit) const {
    size_t searched = 0;
    for (;;) {
        size_t eol = in.find("\r\n", searched);
        if (eol != std::string::npos) {
            line.assign(in, 0, eol);
            in.erase(0, eol + 2);
            return true;
        }
        if (in.size() > limit) return false;
        searched = in.empty() ? 0 : in.size() - 1;
        if (m_stop) return false;
        int ready = WaitForSocket(connection, SOCKET_WAIT_READ, 0, kWaitMicroseconds);
        if (ready == 0) continue;
        char buf[16384];
        int n = ready == 1 ? recv(connection, buf, sizeof buf, 0) : -1;
        if (n <= 0) return false;
        in.append(buf, static_cast<size_t>(n));
    }
}

}  // namespace tavik::host
