#include "tests/support/FullListener.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

namespace tavik::test {

FullListener::FullListener() {
    m_listen = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (m_listen < 0 || ::bind(m_listen, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
        ::listen(m_listen, 0) != 0 || ::getsockname(m_listen, reinterpret_cast<sockaddr*>(&a), &len) != 0)
        throw std::runtime_error("cannot listen on 127.0.0.1");
    m_port = ntohs(a.sin_port);
    // Connect until one is left waiting: from then on the queue is full.
    for (int i = 0; i < 16; ++i) {
        int c = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        m_queued.push_back(c);
        if (::connect(c, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0) continue;
        pollfd p{c, POLLOUT, 0};
        if (::poll(&p, 1, 200) == 0) return;
    }
    throw std::runtime_error("the listen queue never filled");
}

FullListener::~FullListener() {
    for (int c : m_queued) ::close(c);
    ::close(m_listen);
}

}  // namespace tavik::test
