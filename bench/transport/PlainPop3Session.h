// A POP3 session over a plain socket, for the benchmark's reference loops: it sends a command and reads
// until the end mark, keeping nothing and parsing nothing. Given an authority to trust it speaks TLS from
// the first byte through OpenSSL on the blocking socket, the least a TLS client can do. (System socket
// and OpenSSL calls live in its source only.)
#pragma once

#include <cstddef>
#include <string>

struct ssl_st;

class PlainPop3Session {
public:
    // Connects to 127.0.0.1:port, reads the greeting and logs in; with trustFile, over TLS with the
    // server's certificate checked against it. Throws std::runtime_error.
    PlainPop3Session(unsigned short port, const std::string& user, const std::string& password,
                     const std::string& trustFile = std::string());
    ~PlainPop3Session();  // QUIT and close
    PlainPop3Session(const PlainPop3Session&) = delete;
    PlainPop3Session& operator=(const PlainPop3Session&) = delete;

    // Returns the bytes read up to and including the mark. With keep, every byte read is appended to it.
    size_t Command(const std::string& command, const char* mark, std::string* keep = nullptr);

private:
    size_t ReadTo(const char* mark, std::string* keep = nullptr);
    long Read(char* buffer, size_t size);

    int m_fd = -1;
    ssl_st* m_ssl = nullptr;
    char m_buffer[65536];
};
