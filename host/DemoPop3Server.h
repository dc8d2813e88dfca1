// A small POP3 server for `tavik demo`: serves a fixed mailbox on 127.0.0.1 at a port of its own, one
// connection at a time, on a thread of its own. Knows USER, PASS, STAT, LIST, UIDL, TOP, RETR, DELE,
// RSET, NOOP, CAPA and QUIT; deletions take effect at QUIT, as in any POP3 server.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace tavik::host {

class DemoPop3Server {
public:
    // messages: whole texts with CRLF line ends.
    DemoPop3Server(std::vector<std::string> messages, std::string user, std::string password);
    ~DemoPop3Server();  // stops
    DemoPop3Server(const DemoPop3Server&) = delete;
    DemoPop3Server& operator=(const DemoPop3Server&) = delete;

    // Listens on 127.0.0.1 (port 0: any free port) and starts serving. False when it cannot listen.
    bool Start(unsigned short port = 0);
    void Stop();
    unsigned short Port() const { return m_port; }

private:
    void Serve();
    void Session(std::uintptr_t connection);

    std::vector<std::string> m_messages;
    std::vector<std::string> m_uids;
    std::string m_user, m_password;
    std::uintptr_t m_listen = 0;
    unsigned short m_port = 0;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
    bool m_started = false;
};

}  // namespace tavik::host
