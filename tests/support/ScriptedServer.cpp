#include "tests/support/ScriptedServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <stdexcept>

namespace tavik::test {

std::string Visible(const std::string& bytes) {
    std::string out;
    for (unsigned char c : bytes) {
        if (c == '\r')
            out += "\\r";
        else if (c == '\n')
            out += "\\n";
        else if (c < 32 || c >= 127) {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\x%02x", c);
            out += hex;
        } else
            out += static_cast<char>(c);
    }
    return out;
}

ScriptedServer::ScriptedServer() {
    if (::pipe2(m_wake, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    m_listen = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_listen < 0) throw std::runtime_error("socket failed");
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (::bind(m_listen, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || ::listen(m_listen, 4) != 0 ||
        ::getsockname(m_listen, reinterpret_cast<sockaddr*>(&a), &len) != 0)
        throw std::runtime_error("cannot listen on 127.0.0.1");
    m_port = ntohs(a.sin_port);
}

ScriptedServer::~ScriptedServer() {
    Stop();
    if (m_listen >= 0) ::close(m_listen);
    ::close(m_wake[0]);
    ::close(m_wake[1]);
}

ScriptedServer& ScriptedServer::Expect(std::string line) {
    m_steps.push_back({Step::kExpect, std::move(line)});
    return *this;
}
ScriptedServer& ScriptedServer::ExpectData(std::string text) {
    m_steps.push_back({Step::kExpectData, std::move(text)});
    return *this;
}
ScriptedServer& ScriptedServer::Send(std::string bytes, size_t chunk, int pauseMs) {
    m_steps.push_back({Step::kSend, std::move(bytes), chunk, pauseMs});
    return *this;
}
ScriptedServer& ScriptedServer::Quiet(int ms) {
    m_steps.push_back({Step::kQuiet, {}, 0, ms});
    return *this;
}
ScriptedServer& ScriptedServer::Delay(int ms) {
    m_steps.push_back({Step::kDelay, {}, 0, ms});
    return *this;
}
ScriptedServer& ScriptedServer::Close() {
    m_steps.push_back({Step::kClose, {}});
    return *this;
}
ScriptedServer& ScriptedServer::Hold() {
    m_steps.push_back({Step::kHold, {}});
    return *this;
}
ScriptedServer& ScriptedServer::Mark(std::string name) {
    m_steps.push_back({Step::kMark, std::move(name)});
    return *this;
}
ScriptedServer& ScriptedServer::Gate(std::string name) {
    m_steps.push_back({Step::kGate, std::move(name)});
    return *this;
}

void ScriptedServer::Start() {
    if (m_thread.joinable()) return;
    m_thread = std::thread([this] { Run(); });
}

bool ScriptedServer::WaitMark(const std::string& name, int timeoutMs) {
    std::unique_lock lock(m_mutex);
    return m_cv.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return m_marks.count(name) > 0; });
}

void ScriptedServer::Open(const std::string& name) {
    std::lock_guard lock(m_mutex);
    m_open.insert(name);
    m_cv.notify_all();
}

std::string ScriptedServer::Finish(int timeoutMs) {
    {
        std::unique_lock lock(m_mutex);
        if (m_thread.joinable() &&
            !m_cv.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return m_done; }) &&
            m_step < m_steps.size()) {
            const Step& s = m_steps[m_step];
            m_errors.push_back("script unfinished at step " + std::to_string(m_step + 1) +
                               (s.kind == Step::kExpect || s.kind == Step::kExpectData
                                    ? " (expecting " + Visible(s.text.substr(0, 200)) + ")"
                                    : ""));
        }
    }
    Stop();
    std::lock_guard lock(m_mutex);
    std::string all;
    for (const auto& e : m_errors) all += e + "\n";
    return all;
}

void ScriptedServer::Stop() {
    {
        std::lock_guard lock(m_mutex);
        if (m_stopping && !m_thread.joinable()) return;
        m_stopping = true;
        m_cv.notify_all();
    }
    char b = 1;
    (void)!::write(m_wake[1], &b, 1);
    if (m_thread.joinable()) m_thread.join();
    CloseConnection();
}

std::string ScriptedServer::Received() const {
    std::lock_guard lock(m_mutex);
    return m_received;
}

void ScriptedServer::Error(const std::string& text) {
    std::lock_guard lock(m_mutex);
    m_errors.push_back(text);
}

bool ScriptedServer::Pause(int ms) {
    pollfd p{m_wake[0], POLLIN, 0};
    return ::poll(&p, 1, ms) == 0;
}

bool ScriptedServer::AcceptOne() {
    pollfd p[2] = {{m_listen, POLLIN, 0}, {m_wake[0], POLLIN, 0}};
    while (true) {
        if (::poll(p, 2, -1) < 0) continue;
        if (p[1].revents) return false;
        if (p[0].revents & POLLIN) break;
    }
    m_conn = ::accept4(m_listen, nullptr, nullptr, SOCK_CLOEXEC);
    if (m_conn < 0) return false;
    int one = 1;
    ::setsockopt(m_conn, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    m_inbuf.clear();
    return true;
}

void ScriptedServer::CloseConnection() {
    if (m_conn >= 0) ::close(m_conn);
    m_conn = -1;
}

// Reads more input; false at end of stream, on error, or when stopping.
static bool ReadMore(int conn, int wake, std::string& inbuf, std::mutex& mutex, std::string& received) {
    if (conn < 0) return false;
    pollfd p[2] = {{conn, POLLIN, 0}, {wake, POLLIN, 0}};
    while (true) {
        if (::poll(p, 2, -1) < 0) continue;
        if (p[1].revents) return false;
        if (p[0].revents) break;
    }
    char buf[4096];
    ssize_t n = ::recv(conn, buf, sizeof buf, 0);
    if (n <= 0) return false;
    inbuf.append(buf, static_cast<size_t>(n));
    std::lock_guard lock(mutex);
    received.append(buf, static_cast<size_t>(n));
    return true;
}

bool ScriptedServer::ReadThrough(const std::string& mark, std::string& text) {
    size_t at, from = 0;
    while ((at = m_inbuf.find(mark, from)) == std::string::npos) {
        from = m_inbuf.size() >= mark.size() ? m_inbuf.size() - mark.size() + 1 : 0;
        if (!ReadMore(m_conn, m_wake[0], m_inbuf, m_mutex, m_received)) return false;
    }
    text = m_inbuf.substr(0, at + mark.size());
    m_inbuf.erase(0, at + mark.size());
    return true;
}

bool ScriptedServer::WriteAll(const char* data, size_t size) {
    while (size > 0) {
        pollfd p[2] = {{m_conn, POLLOUT, 0}, {m_wake[0], POLLIN, 0}};
        if (::poll(p, 2, -1) < 0) continue;
        if (p[1].revents) return false;
        ssize_t n = ::send(m_conn, data, size, MSG_NOSIGNAL);
        if (n < 0) return false;
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

void ScriptedServer::MarkDone() {
    std::lock_guard lock(m_mutex);
    m_done = true;
    m_cv.notify_all();
}

void ScriptedServer::Run() {
    RunSteps();
    MarkDone();
}

void ScriptedServer::RunSteps() {
    if (!AcceptOne()) {
        Error("no client connected");
        return;
    }
    for (size_t i = 0; i < m_steps.size(); ++i) {
        {
            std::lock_guard lock(m_mutex);
            m_step = i;
        }
        const Step& s = m_steps[i];
        std::string where = "step " + std::to_string(i + 1) + ": ";
        switch (s.kind) {
            case Step::kExpect:
            case Step::kExpectData: {
                std::string line;
                if (!ReadThrough(s.kind == Step::kExpect ? "\n" : "\r\n.\r\n", line)) {
                    Error(where + "connection ended while expecting " + Visible(s.text));
                    return;
                }
                if (line != s.text) {
                    Error(where + "expected " + Visible(s.text) + ", got " + Visible(line));
                    CloseConnection();
                    return;
                }
                break;
            }
            case Step::kSend: {
                size_t chunk = s.chunk ? s.chunk : s.text.size();
                bool ok = true;
                for (size_t at = 0; ok && at < s.text.size(); at += chunk) {
                    if (at > 0 && s.ms > 0 && !Pause(s.ms)) return;
                    ok = WriteAll(s.text.data() + at, std::min(chunk, s.text.size() - at));
                }
                if (!ok) {
                    Error(where + "could not send " + Visible(s.text.substr(0, 60)));
                    return;
                }
                break;
            }
            case Step::kDelay:
                if (!Pause(s.ms)) return;
                break;
            case Step::kClose:
                CloseConnection();
                break;
            case Step::kQuiet: {
                pollfd p[2] = {{m_conn, POLLIN, 0}, {m_wake[0], POLLIN, 0}};
                if (m_inbuf.empty() && ::poll(p, 2, s.ms) > 0 && p[1].revents) return;
                if (!m_inbuf.empty() || (p[0].revents & POLLIN)) {
                    if (m_inbuf.empty()) ReadMore(m_conn, m_wake[0], m_inbuf, m_mutex, m_received);
                    Error(where + "the client sent " + Visible(m_inbuf.substr(0, 60)) + " before its reply");
                }
                break;
            }
            case Step::kHold:
                MarkDone();
                while (ReadMore(m_conn, m_wake[0], m_inbuf, m_mutex, m_received)) {
                }
                return;
            case Step::kMark: {
                std::lock_guard lock(m_mutex);
                m_marks.insert(s.text);
                m_cv.notify_all();
                break;
            }
            case Step::kGate: {
                std::unique_lock lock(m_mutex);
                m_cv.wait(lock, [&] { return m_stopping || m_open.count(s.text) > 0; });
                if (m_stopping) return;
                break;
            }
        }
    }
    {
        std::lock_guard lock(m_mutex);
        m_step = m_steps.size();
    }
    MarkDone();
    // Past the script: anything further from the client is a fault of the client.
    while (ReadMore(m_conn, m_wake[0], m_inbuf, m_mutex, m_received)) {
    }
    if (!m_inbuf.empty()) Error("unexpected data after the script: " + Visible(m_inbuf));
}

}  // namespace tavik::test
