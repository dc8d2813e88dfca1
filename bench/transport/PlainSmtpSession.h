// An SMTP session over a plain socket, for the benchmark's reference loop: commands and one-line replies
// checked only by their code, the message written with as few sends as the socket allows. (System socket
// calls live in its source only.)
#pragma once

#include <string>

class PlainSmtpSession {
public:
    // Connects to 127.0.0.1:port, reads the greeting and says HELO. Throws std::runtime_error.
    explicit PlainSmtpSession(unsigned short port);
    ~PlainSmtpSession();  // QUIT and close
    PlainSmtpSession(const PlainSmtpSession&) = delete;
    PlainSmtpSession& operator=(const PlainSmtpSession&) = delete;

    // MAIL, RCPT, DATA, the bytes as they are (already CRLF, nothing to stuff) and the end mark.
    void SendMessage(const std::string& from, const std::string& to, const std::string& bytes);

private:
    void Command(const std::string& command, const char* code);
    void Write(const char* data, size_t size);

    int m_fd = -1;
};
