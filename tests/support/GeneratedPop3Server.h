// A POP3 server on 127.0.0.1 whose mailbox is made up as it is read: message n has a short From and
// Subject and filler header lines up to a given header size. It holds no message in memory, so it can
// serve thousands of messages with half-megabyte headers to test what a client keeps of them.
//
// It knows USER, PASS (any), CAPA (with PIPELINING), STAT, LIST n, TOP n 0, UIDL n, NOOP and QUIT, and
// takes pipelined commands. One connection at a time, on a thread of its own.
#pragma once

#include <cstddef>
#include <string>
#include <thread>

namespace tavik::test {

class GeneratedPop3Server {
public:
    GeneratedPop3Server(int messages, std::size_t headerBytes);  // listens and serves at once
    ~GeneratedPop3Server();
    GeneratedPop3Server(const GeneratedPop3Server&) = delete;
    GeneratedPop3Server& operator=(const GeneratedPop3Server&) = delete;

    unsigned short Port() const { return m_port; }
    // Message n's header block as TOP n 0 sends it (CRLF lines, without the empty line).
    std::string Header(int n) const;

private:
    void Run();
    void Serve(int conn);

    int m_messages;
    std::size_t m_headerBytes;
    std::string m_filler;  // the lines that pad every header
    int m_listen = -1;
    int m_wake[2] = {-1, -1};
    unsigned short m_port = 0;
    std::thread m_thread;
};

}  // namespace tavik::test
