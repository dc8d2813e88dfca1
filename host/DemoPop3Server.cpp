#include "host/DemoPop3Server.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/Winsock.h"

namespace tavik::host {

namespace {

constexpr size_t kMaxCommand = 1024;  // RFC 1939 allows 255 octets per argument; anything longer is junk

std::string Upper(std::string s) {
    for (char& c : s)
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    return s;
}

// Lines starting with a dot get another, and the listing ends with a lone dot.
std::string Stuffed(const std::string& text) {
    std::string out;
    out.reserve(text.size() + 16);
    bool lineStart = true;
    for (char c : text) {
        if (lineStart && c == '.') out += '.';
        out += c;
        lineStart = c == '\n';
    }
    if (!out.empty() && !lineStart) out += "\r\n";
    return out + ".\r\n";
}

// The header, the empty line and the first `lines` body lines.
std::string Top(const std::string& text, long lines) {
    size_t end = text.find("\r\n\r\n");
    if (end == std::string::npos) return text;
    size_t at = end + 4;
    for (long i = 0; i < lines && at < text.size(); ++i) {
        size_t eol = text.find("\r\n", at);
        at = eol == std::string::npos ? text.size() : eol + 2;
    }
    return text.substr(0, at);
}

bool SendAll(SOCKET s, const std::string& data) {
    size_t at = 0;
    while (at < data.size()) {
        if (WaitForSocket(s, SOCKET_WAIT_WRITE, 30) != 1) return false;
        int n = send(s, data.data() + at, static_cast<int>(std::min<size_t>(data.size() - at, 1 << 20)), 0);
        if (n <= 0) return false;
        at += static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

DemoPop3Server::DemoPop3Server(std::vector<std::string> messages, std::string user, std::string password)
    : m_messages(std::move(messages)), m_user(std::move(user)), m_password(std::move(password)) {
    for (size_t i = 0; i < m_messages.size(); ++i) {
        char uid[64];
        std::snprintf(uid, sizeof uid, "demo-%04zu-%08zx", i + 1, m_messages[i].size() * 2654435761u);
        m_uids.push_back(uid);
    }
}

DemoPop3Server::~DemoPop3Server() { Stop(); }

bool DemoPop3Server::Start(unsigned short port) {
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

void DemoPop3Server::Stop() {
    if (!m_started) return;
    m_stop = true;
    m_thread.join();
    closesocket(m_listen);
    WSACleanup();
    m_started = false;
}

void DemoPop3Server::Serve() {
    while (!m_stop) {
        // Short waits, so that Stop never waits long for the thread.
        if (WaitForSocket(m_listen, SOCKET_WAIT_READ, 0, 100000) != 1) continue;
        SOCKET c = accept(m_listen, nullptr, nullptr);
        if (c == INVALID_SOCKET) continue;
        Session(c);
        closesocket(c);
    }
}

void DemoPop3Server::Session(std::uintptr_t connection) {
    SOCKET c = connection;
    std::vector<bool> deleted(m_messages.size(), false);
    bool userOk = false, authorised = false;
    std::string in;
    if (!SendAll(c, "+OK tavik demo POP3 server ready\r\n")) return;
    auto number = [&](const std::string& arg, size_t& index) {
        char* end = nullptr;
        long n = std::strtol(arg.c_str(), &end, 10);
        if (arg.empty() || *end != '\0' || n < 1 || static_cast<size_t>(n) > m_messages.size()) return false;
        index = static_cast<size_t>(n - 1);
        return !deleted[index];
    };
    while (!m_stop) {
        size_t eol = in.find("\r\n");
        if (eol == std::string::npos) {
            if (in.size() > kMaxCommand) return;
            int ready = WaitForSocket(c, SOCKET_WAIT_READ, 0, 100000);
            if (ready == 0) continue;
            char buf[4096];
            int n = ready == 1 ? recv(c, buf, sizeof buf, 0) : -1;
            if (n <= 0) return;
            in.append(buf, static_cast<size_t>(n));
            continue;
        }
        std::string line = in.substr(0, eol);
        in.erase(0, eol + 2);
        size_t sp = line.find(' ');
        std::string cmd = Upper(line.substr(0, sp));
        std::string arg = sp == std::string::npos ? "" : line.substr(sp + 1);
        std::string reply;
        size_t index = 0;
        if (cmd == "QUIT") {
            if (authorised)
                for (size_t i = m_messages.size(); i-- > 0;)
                    if (deleted[i]) {
                        m_messages.erase(m_messages.begin() + static_cast<long>(i));
                        m_uids.erase(m_uids.begin() + static_cast<long>(i));
                    }
            SendAll(c, "+OK tavik demo POP3 server signing off\r\n");
            return;
        } else if (cmd == "CAPA") {
            reply = "+OK Capability list follows\r\nTOP\r\nUSER\r\nUIDL\r\nPIPELINING\r\n.\r\n";
        } else if (cmd == "NOOP") {
            reply = "+OK\r\n";
        } else if (!authorised && cmd == "USER") {
            userOk = arg == m_user;
            reply = "+OK\r\n";
        } else if (!authorised && cmd == "PASS") {
            authorised = userOk && arg == m_password;
            reply = authorised ? "+OK mailbox ready\r\n" : "-ERR [AUTH] invalid user name or password\r\n";
        } else if (!authorised) {
            reply = "-ERR log in first\r\n";
        } else if (cmd == "STAT") {
            size_t count = 0, size = 0;
            for (size_t i = 0; i < m_messages.size(); ++i)
                if (!deleted[i]) ++count, size += m_messages[i].size();
            reply = "+OK " + std::to_string(count) + " " + std::to_string(size) + "\r\n";
        } else if ((cmd == "LIST" || cmd == "UIDL") && arg.empty()) {
            reply = "+OK\r\n";
            for (size_t i = 0; i < m_messages.size(); ++i)
                if (!deleted[i])
                    reply += std::to_string(i + 1) + " " +
                             (cmd == "LIST" ? std::to_string(m_messages[i].size()) : m_uids[i]) + "\r\n";
            reply += ".\r\n";
        } else if (cmd == "LIST" || cmd == "UIDL" || cmd == "RETR" || cmd == "DELE" || cmd == "TOP") {
            std::string first = arg.substr(0, arg.find(' '));
            if (!number(first, index)) {
                reply = "-ERR no such message\r\n";
            } else if (cmd == "LIST") {
                reply = "+OK " + first + " " + std::to_string(m_messages[index].size()) + "\r\n";
            } else if (cmd == "UIDL") {
                reply = "+OK " + first + " " + m_uids[index] + "\r\n";
            } else if (cmd == "RETR") {
                reply = "+OK " + std::to_string(m_messages[index].size()) + " octets\r\n" +
                        Stuffed(m_messages[index]);
            } else if (cmd == "DELE") {
                deleted[index] = true;
                reply = "+OK message " + first + " deleted\r\n";
            } else {
                size_t sp2 = arg.find(' ');
                char* end = nullptr;
                long lines = sp2 == std::string::npos ? -1 : std::strtol(arg.c_str() + sp2 + 1, &end, 10);
                reply = lines < 0 ? "-ERR usage: TOP msg lines\r\n"
                                  : "+OK\r\n" + Stuffed(Top(m_messages[index], lines));
            }
        } else if (cmd == "RSET") {
            deleted.assign(deleted.size(), false);
            reply = "+OK\r\n";
        } else {
            reply = "-ERR unknown command\r\n";
        }
        if (!SendAll(c, reply)) return;
    }
}

}  // namespace tavik::host
