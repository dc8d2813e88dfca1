// A TCP relay on 127.0.0.1 that holds every chunk it carries for a fixed time in each direction, so that
// a server on this machine looks as far away as a real one (25 ms each way is a distant mail host). It
// adds latency only: chunks keep their order and flow without a limit on bandwidth.
//
// Each accepted connection is relayed to the target port by two threads of its own, one a direction. A
// close on either side reaches the other after the delay.
#pragma once

#include <atomic>
#include <thread>
#include <vector>

namespace tavik::test {

class DelayRelay {
public:
    DelayRelay(unsigned short targetPort, int delayMs);  // listens at once; throws std::runtime_error
    ~DelayRelay();                                       // stops every relayed connection
    DelayRelay(const DelayRelay&) = delete;
    DelayRelay& operator=(const DelayRelay&) = delete;

    unsigned short Port() const { return m_port; }

private:
    void Accept();
    void Pump(int from, int to);

    unsigned short m_target;
    int m_delayMs;
    int m_listen = -1;
    int m_wake[2] = {-1, -1};
    unsigned short m_port = 0;
    std::thread m_acceptor;
    std::vector<std::thread> m_pumps;  // touched by the acceptor only, until it has ended
    std::vector<int> m_sockets;
};

}  // namespace tavik::test
