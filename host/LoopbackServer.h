// What the demo's servers share: a listening socket on 127.0.0.1 at a port of its own, and a thread that
// takes one connection at a time and hands it to the protocol's Session. Every wait is short, so that
// Stop ends the thread within a tenth of a second whatever a client is doing.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

namespace tavik::host {

class LoopbackServer {
public:
    LoopbackServer() = default;
    virtual ~LoopbackServer();  // a derived class calls Stop in its own destructor, before it goes
    LoopbackServer(const LoopbackServer&) = delete;
    LoopbackServer& operator=(const LoopbackServer&) = delete;

    // Listens on 127.0.0.1 (port 0: any free port) and starts serving. False when it cannot listen.
    bool Start(unsigned short port = 0);
    void Stop();
    unsigned short Port() const { return m_port; }

protected:
    // One client, from its connection until it leaves; the connection is closed afterwards.
    virtual void Session(std::uintptr_t connection) = 0;
    bool Stopping() const { return m_stop; }

    // Waits for the whole text to go out; false when the client went or the server stops.
    bool SendAll(std::uintptr_t connection, const std::string& data) const;
    // The next line without its CRLF, from what was read before (in) and then from the client. False
    // when the client closed, the server stops, or a line grows past limit characters.
    bool ReadLine(std::uintptr_t connection, std::string& in, std::string& line, size_t limit) const;

private:
    void Serve();

    std::uintptr_t m_listen = 0;
    unsigned short m_port = 0;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
    bool m_started = false;
};

}  // namespace tavik::host
