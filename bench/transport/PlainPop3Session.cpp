#include "PlainPop3Session.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace {

SSL_CTX* Context(const std::string& trustFile) {
    static SSL_CTX* ctx = nullptr;
    static std::string loaded;
    if (ctx && loaded == trustFile) return ctx;
    if (ctx) SSL_CTX_free(ctx);
    ctx = SSL_CTX_new(TLS_client_method());
    if (!ctx || SSL_CTX_load_verify_locations(ctx, trustFile.c_str(), nullptr) != 1)
        throw std::runtime_error("cannot read " + trustFile);
    SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER, nullptr);
    loaded = trustFile;
    return ctx;
}

}  // namespace

PlainPop3Session::PlainPop3Session(unsigned short port, const std::string& user, const std::string& password,
                                   const std::string& trustFile) {
    m_fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (m_fd < 0 || ::connect(m_fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0)
        throw std::runtime_error("plain connect failed");
    if (!trustFile.empty()) {
        m_ssl = SSL_new(Context(trustFile));
        SSL_set_fd(m_ssl, m_fd);
        X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(m_ssl), "127.0.0.1");
        if (SSL_connect(m_ssl) != 1) {
            SSL_free(m_ssl);
            ::close(m_fd);
            throw std::runtime_error("TLS handshake failed");
        }
    }
    ReadTo("\r\n");
    Command("USER " + user + "\r\n", "\r\n");
    Command("PASS " + password + "\r\n", "\r\n");
}

PlainPop3Session::~PlainPop3Session() {
    try {
        Command("QUIT\r\n", "\r\n");
    } catch (...) {
    }
    if (m_ssl) {
        SSL_shutdown(m_ssl);
        SSL_free(m_ssl);
    }
    ::close(m_fd);
}

size_t PlainPop3Session::Command(const std::string& command, const char* mark, std::string* keep) {
    const bool sent = m_ssl ? SSL_write(m_ssl, command.data(), static_cast<int>(command.size())) ==
                                  static_cast<int>(command.size())
                            : ::send(m_fd, command.data(), command.size(), MSG_NOSIGNAL) ==
                                  static_cast<ssize_t>(command.size());
    if (!sent) throw std::runtime_error("plain send failed");
    return ReadTo(mark, keep);
}

size_t PlainPop3Session::ReadTo(const char* mark, std::string* keep) {
    const size_t m = std::strlen(mark);
    std::string carry;  // the last m-1 bytes, where a mark cut by a receive starts
    size_t total = 0;
    for (;;) {
        const long got = Read(m_buffer, sizeof m_buffer);
        if (got <= 0) throw std::runtime_error("plain recv ended");
        size_t n = static_cast<size_t>(got);
        total += n;
        if (keep) keep->append(m_buffer, n);
        std::string edge = carry;
        edge.append(m_buffer, std::min(n, m - 1));
        if (edge.find(mark) != std::string::npos || ::memmem(m_buffer, n, mark, m) != nullptr) return total;
        if (n >= m - 1)
            carry.assign(m_buffer + n - (m - 1), m - 1);
        else {
            carry.append(m_buffer, n);
            if (carry.size() > m - 1) carry.erase(0, carry.size() - (m - 1));
        }
    }
}

long PlainPop3Session::Read(char* buffer, size_t size) {
    if (m_ssl) return SSL_read(m_ssl, buffer, static_cast<int>(size));
    return ::recv(m_fd, buffer, size, 0);
}
