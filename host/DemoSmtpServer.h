// A small SMTP server for `tavik demo`: takes every message a client sends on 127.0.0.1 at a port of its
// own and keeps it, so that the demo can show what its check sent. Refuses no sender and no recipient;
// knows HELO, EHLO (no extensions beyond PIPELINING, 8BITMIME and SIZE), MAIL, RCPT, DATA, RSET, NOOP,
// VRFY and QUIT.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "host/LoopbackServer.h"

namespace tavik::host {

class DemoSmtpServer : public LoopbackServer {
public:
    struct Delivery {
        std::string from;                     // the envelope sender, without the angle brackets
        std::vector<std::string> recipients;  // the envelope recipients
        std::string text;                     // the message as sent, CRLF line ends, dots unstuffed
    };

    // Messages of more than maxMessage bytes are refused (552) and the session goes on.
    explicit DemoSmtpServer(size_t maxMessage = 10u << 20) : m_maxMessage(maxMessage) {}
    ~DemoSmtpServer() override;

    // What was accepted so far, in order.
    std::vector<Delivery> Deliveries() const;

private:
    void Session(std::uintptr_t connection) override;

    size_t m_maxMessage;
    mutable std::mutex m_lock;
    std::vector<Delivery> m_deliveries;
};

}  // namespace tavik::host
