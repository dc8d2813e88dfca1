// A port on 127.0.0.1 where a connect stays unanswered: a listener whose queue is already full, so the
// system drops every further connection request, as a server swamped by clients does.
#pragma once

#include <vector>

namespace tavik::test {

class FullListener {
public:
    FullListener();  // throws std::runtime_error when the queue cannot be filled
    ~FullListener();
    FullListener(const FullListener&) = delete;
    FullListener& operator=(const FullListener&) = delete;

    unsigned short Port() const { return m_port; }

private:
    int m_listen = -1;
    unsigned short m_port = 0;
    std::vector<int> m_queued;
};

}  // namespace tavik::test
