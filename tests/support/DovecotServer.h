// A private Dovecot POP3 server for integration tests and benchmarks: its own configuration, passwd-file
// user, Maildir and log in a fresh directory under /tmp, listening on 127.0.0.1 at an unprivileged port
// of its own. Never touches the system's /etc/dovecot or its services.
//
// Started as root, Dovecot's login processes run as dovenull and mail access as nobody (it refuses uid 0
// for mail), so the directory lives under /tmp where those users can enter it. Started as another user,
// everything runs as that user.
#pragma once

#include <sys/types.h>
#include <string>
#include <vector>

namespace tavik::test {

// One generated message: the text as stored (LF line ends) and its header block as POP3 shows it.
struct GeneratedMessage {
    std::string text;        // whole message, LF line ends
    std::string headerCrlf;  // header lines with CRLF ends, without the empty separator line
    std::string bodyCrlf;    // body with CRLF ends, not dot-stuffed
    std::string from;
    std::string subject;
};

// Deterministic sample messages: varied senders, subjects, folded headers, body lines that start with
// dots. bodyBytes is the approximate body size.
GeneratedMessage MakeTestMessage(int index, size_t bodyBytes = 300);

class DovecotServer {
public:
    DovecotServer();
    ~DovecotServer();  // stops the server and removes its directory
    DovecotServer(const DovecotServer&) = delete;
    DovecotServer& operator=(const DovecotServer&) = delete;

    // Messages go into the Maildir in this order (message number = order of adding, from 1). Add before
    // Start, or between Stop and Start.
    void AddMessage(const std::string& textLf);
    // A large message written straight to disk: headers, then body lines of lineLength characters until
    // about bodyBytes. Returns its POP3 (CRLF) size.
    size_t AddLargeMessage(size_t bodyBytes, size_t lineLength = 76);

    // TLS, set before Start: ssl = yes with this certificate and key, STLS offered on Port() and POP3S
    // on a port of its own (TlsPort()). Without it the server offers no TLS at all (no STLS in CAPA).
    void EnableTls(const std::string& certificateFile, const std::string& keyFile) {
        m_tlsCertificate = certificateFile;
        m_tlsKey = keyFile;
    }

    // Starts Dovecot and waits until it greets. Throws std::runtime_error with Dovecot's log on failure
    // (not installed, did not come up within 15 s).
    void Start();
    // Orderly stop, then a kill of the whole process group if it lingers. Idempotent.
    void Stop();

    bool Running() const { return m_pid > 0; }
    unsigned short Port() const { return m_port; }
    unsigned short TlsPort() const { return m_tlsPort; }
    const std::string& User() const { return m_user; }
    const std::string& Password() const { return m_password; }
    const std::string& Dir() const { return m_dir; }
    std::string Log() const;

    static bool Installed();

private:
    std::string WriteConfig(unsigned short port, unsigned short tlsPort);
    void ChownMail();

    std::string m_dir;
    std::string m_user = "alice";
    std::string m_password = "s3cret-Pa55";
    unsigned short m_port = 0;
    unsigned short m_tlsPort = 0;
    std::string m_tlsCertificate;
    std::string m_tlsKey;
    pid_t m_pid = -1;
    int m_next = 0;
};

}  // namespace tavik::test
