#include "host/DemoSmtpServer.h"

#include <cctype>

namespace tavik::host {

namespace {

constexpr size_t kMaxCommand = 4096;  // RFC 5321 allows 512 octets; be generous, never unbounded
constexpr size_t kMaxDataLine = 1u << 20;

bool StartsWithWord(const std::string& line, const char* word) {
    size_t i = 0;
    for (; word[i]; ++i)
        if (i >= line.size() || std::toupper(static_cast<unsigned char>(line[i])) != word[i]) return false;
    return true;
}

// The address inside the innermost <...> after the command's colon (a client may wrap a whole
// "Name <address>" in brackets); what follows the colon when there are no brackets.
std::string Address(const std::string& line) {
    size_t colon = line.find(':');
    if (colon == std::string::npos) return {};
    size_t close = line.find('>', colon);
    size_t open = close == std::string::npos ? std::string::npos : line.rfind('<', close);
    if (open != std::string::npos && open > colon) return line.substr(open + 1, close - open - 1);
    size_t start = line.find_first_not_of(' ', colon + 1);
    if (start == std::string::npos) return {};
    return line.substr(start, line.find(' ', start) - start);
}

}  // namespace

DemoSmtpServer::~DemoSmtpServer() { Stop(); }

std::vector<DemoSmtpServer::Delivery> DemoSmtpServer::Deliveries() const {
    std::lock_guard<std::mutex> hold(m_lock);
    return m_deliveries;
}

void DemoSmtpServer::Session(std::uintptr_t connection) {
    std::string in, line;
    Delivery pending;
    bool haveSender = false;
    if (!SendAll(connection, "220 demo.tavik.invalid tavik demo SMTP server ready\r\n")) return;
    while (ReadLine(connection, in, line, kMaxCommand)) {
        std::string reply;
        if (StartsWithWord(line, "EHLO")) {
            pending = {};
            haveSender = false;
            reply = "250-demo.tavik.invalid\r\n250-PIPELINING\r\n250-8BITMIME\r\n250 SIZE " +
                    std::to_string(m_maxMessage) + "\r\n";
        } else if (StartsWithWord(line, "HELO")) {
            pending = {};
            haveSender = false;
            reply = "250 demo.tavik.invalid\r\n";
        } else if (StartsWithWord(line, "MAIL")) {
            pending = {};
            pending.from = Address(line);
            haveSender = true;
            reply = "250 OK\r\n";
        } else if (StartsWithWord(line, "RCPT")) {
            if (!haveSender) {
                reply = "503 sender not yet given\r\n";
            } else {
                pending.recipients.push_back(Address(line));
                reply = "250 Accepted\r\n";
            }
        } else if (StartsWithWord(line, "DATA")) {
            if (!haveSender || pending.recipients.empty()) {
                reply = "503 no valid recipients\r\n";
            } else {
                if (!SendAll(connection, "354 Enter message, ending with \".\" on a line by itself\r\n"))
                    return;
                std::string text;
                bool tooBig = false;
                for (;;) {
                    if (!ReadLine(connection, in, line, kMaxDataLine)) return;
                    if (line == ".") break;
                    if (tooBig) continue;
                    text += line.compare(0, 1, ".") == 0 ? line.substr(1) : line;
                    text += "\r\n";
                    tooBig = text.size() > m_maxMessage;
                }
                if (tooBig) {
                    reply = "552 Message size exceeds maximum permitted\r\n";
                } else {
                    pending.text = std::move(text);
                    std::lock_guard<std::mutex> hold(m_lock);
                    m_deliveries.push_back(std::move(pending));
                    reply = "250 OK queued\r\n";
                }
                pending = {};
                haveSender = false;
            }
        } else if (StartsWithWord(line, "RSET")) {
            pending = {};
            haveSender = false;
            reply = "250 OK\r\n";
        } else if (StartsWithWord(line, "NOOP")) {
            reply = "250 OK\r\n";
        } else if (StartsWithWord(line, "VRFY")) {
            reply = "252 Cannot verify, but will accept\r\n";
        } else if (StartsWithWord(line, "QUIT")) {
            SendAll(connection, "221 demo.tavik.invalid closing connection\r\n");
            return;
        } else {
            reply = "500 unrecognized command\r\n";
        }
        if (!SendAll(connection, reply)) return;
    }
}

}  // namespace tavik::host
