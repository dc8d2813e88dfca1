#include "host/DemoPop3Server.h"

#include <cstdio>
#include <cstdlib>

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

}  // namespace

DemoPop3Server::DemoPop3Server(std::vector<std::string> messages, std::string user, std::string password)
    : m_user(std::move(user)), m_password(std::move(password)) {
    for (std::string& text : messages) Deliver(std::move(text));
}

void DemoPop3Server::Deliver(std::string text) {
    std::lock_guard<std::mutex> hold(m_lock);
    char uid[64];
    std::snprintf(uid, sizeof uid, "demo-%04zu-%08zx", ++m_delivered, text.size() * 2654435761u);
    m_messages.push_back({uid, std::move(text)});
}

size_t DemoPop3Server::Commands(const std::string& verb) const {
    std::lock_guard<std::mutex> hold(m_lock);
    auto at = m_commands.find(verb);
    return at == m_commands.end() ? 0 : at->second;
}

DemoPop3Server::~DemoPop3Server() { Stop(); }

std::vector<DemoPop3Server::Message> DemoPop3Server::Mailbox() const {
    std::lock_guard<std::mutex> hold(m_lock);
    return m_messages;
}

void DemoPop3Server::Session(std::uintptr_t connection) {
    std::vector<bool> deleted;
    {
        std::lock_guard<std::mutex> hold(m_lock);
        deleted.assign(m_messages.size(), false);
    }
    bool userOk = false, authorised = false, quit = false;
    std::string in, line;
    if (!SendAll(connection, "+OK tavik demo POP3 server ready\r\n")) return;
    while (!quit && ReadLine(connection, in, line, kMaxCommand)) {
        std::string reply;
        {
            std::lock_guard<std::mutex> hold(m_lock);
            reply = Answer(line, deleted, userOk, authorised, quit);
        }
        if (!SendAll(connection, reply)) return;
    }
}

std::string DemoPop3Server::Answer(const std::string& line, std::vector<bool>& deleted, bool& userOk,
                                   bool& authorised, bool& quit) {
    size_t sp = line.find(' ');
    std::string cmd = Upper(line.substr(0, sp));
    static const char* const kKnown[] = {"USER", "PASS", "STAT", "LIST", "UIDL", "TOP",
                                         "RETR", "DELE", "RSET", "NOOP", "CAPA", "QUIT"};
    for (const char* known : kKnown)
        if (cmd == known) ++m_commands[cmd];
    std::string arg = sp == std::string::npos ? "" : line.substr(sp + 1);
    size_t index = 0;
    auto number = [&](const std::string& text) {
        char* end = nullptr;
        long n = std::strtol(text.c_str(), &end, 10);
        if (text.empty() || *end != '\0' || n < 1 || static_cast<size_t>(n) > m_messages.size()) return false;
        index = static_cast<size_t>(n - 1);
        return !deleted[index];
    };
    if (cmd == "QUIT") {
        quit = true;
        if (authorised)
            for (size_t i = m_messages.size(); i-- > 0;)
                if (deleted[i]) m_messages.erase(m_messages.begin() + static_cast<long>(i));
        return "+OK tavik demo POP3 server signing off\r\n";
    }
    if (cmd == "CAPA") return "+OK Capability list follows\r\nTOP\r\nUSER\r\nUIDL\r\nPIPELINING\r\n.\r\n";
    if (cmd == "NOOP") return "+OK\r\n";
    if (!authorised && cmd == "USER") {
        userOk = arg == m_user;
        return "+OK\r\n";
    }
    if (!authorised && cmd == "PASS") {
        authorised = userOk && arg == m_password;
        return authorised ? "+OK mailbox ready\r\n" : "-ERR [AUTH] invalid user name or password\r\n";
    }
    if (!authorised) return "-ERR log in first\r\n";
    if (cmd == "STAT") {
        size_t count = 0, size = 0;
        for (size_t i = 0; i < m_messages.size(); ++i)
            if (!deleted[i]) ++count, size += m_messages[i].text.size();
        return "+OK " + std::to_string(count) + " " + std::to_string(size) + "\r\n";
    }
    if ((cmd == "LIST" || cmd == "UIDL") && arg.empty()) {
        std::string reply = "+OK\r\n";
        for (size_t i = 0; i < m_messages.size(); ++i)
            if (!deleted[i])
                reply += std::to_string(i + 1) + " " +
                         (cmd == "LIST" ? std::to_string(m_messages[i].text.size()) : m_messages[i].uid) +
                         "\r\n";
        return reply + ".\r\n";
    }
    if (cmd == "LIST" || cmd == "UIDL" || cmd == "RETR" || cmd == "DELE" || cmd == "TOP") {
        std::string first = arg.substr(0, arg.find(' '));
        if (!number(first)) return "-ERR no such message\r\n";
        const std::string& text = m_messages[index].text;
        if (cmd == "LIST") return "+OK " + first + " " + std::to_string(text.size()) + "\r\n";
        if (cmd == "UIDL") return "+OK " + first + " " + m_messages[index].uid + "\r\n";
        if (cmd == "RETR") return "+OK " + std::to_string(text.size()) + " octets\r\n" + Stuffed(text);
        if (cmd == "DELE") {
            deleted[index] = true;
            return "+OK message " + first + " deleted\r\n";
        }
        size_t sp2 = arg.find(' ');
        char* end = nullptr;
        long lines = sp2 == std::string::npos ? -1 : std::strtol(arg.c_str() + sp2 + 1, &end, 10);
        return lines < 0 ? "-ERR usage: TOP msg lines\r\n" : "+OK\r\n" + Stuffed(Top(text, lines));
    }
    if (cmd == "RSET") {
        deleted.assign(deleted.size(), false);
        return "+OK\r\n";
    }
    return "-ERR unknown command\r\n";
}

}  // namespace tavik::host
