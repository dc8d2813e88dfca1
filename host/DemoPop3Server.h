// A small POP3 server for `tavik demo`: serves a mailbox on 127.0.0.1 at a port of its own, one
// connection at a time, on a thread of its own. Knows USER, PASS, STAT, LIST, UIDL, TOP, RETR, DELE,
// RSET, NOOP, CAPA and QUIT; deletions take effect at QUIT, as in any POP3 server, and the mailbox keeps
// what is left for the next session.
#pragma once

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "host/LoopbackServer.h"

namespace tavik::host {

class DemoPop3Server : public LoopbackServer {
public:
    struct Message {
        std::string uid;
        std::string text;
    };

    // messages: whole texts with CRLF line ends. Each gets a unique identifier of its own.
    DemoPop3Server(std::vector<std::string> messages, std::string user, std::string password);
    ~DemoPop3Server() override;

    // What the mailbox holds now; a message marked for deletion stays until its session's QUIT.
    std::vector<Message> Mailbox() const;
    // New mail: appended to the mailbox, seen from the next session on.
    void Deliver(std::string text);
    // How many commands of that verb (upper case) the server has been sent so far.
    size_t Commands(const std::string& verb) const;

private:
    void Session(std::uintptr_t connection) override;
    // The reply to one command; quit is set for QUIT.
    std::string Answer(const std::string& line, std::vector<bool>& deleted, bool& userOk, bool& authorised,
                       bool& quit);

    mutable std::mutex m_lock;  // the mailbox, read by Mailbox() while a session runs
    std::vector<Message> m_messages;
    size_t m_delivered = 0;
    std::map<std::string, size_t> m_commands;
    std::string m_user, m_password;
};

}  // namespace tavik::host
