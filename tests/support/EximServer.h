// A private Exim mail server for integration tests and benchmarks: its own configuration, spool and log
// in a fresh directory under /tmp, listening on 127.0.0.1 at an unprivileged port of its own, accepting
// mail for any local part of one test domain and delivering it into one Maildir (normally the one a
// DovecotServer serves, so that what was sent can be fetched back over POP3). Never touches the system's
// /etc/exim4, its spool or its services.
//
// Exim gives up its root privilege for a private configuration, so the whole daemon runs as the owner
// of the Maildir (nobody when the tests run as root, else the caller), and its spool and log belong to
// that user. Recipients outside the domain get "550 relay not permitted".
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>

namespace tavik::test {

class EximServer {
public:
    // maildir must exist with cur/, new/ and tmp/ when Start is called; its owner then becomes the
    // delivery user.
    explicit EximServer(std::string maildir, std::string domain = "tavik.test");
    ~EximServer();  // stops the server and removes its directory
    EximServer(const EximServer&) = delete;
    EximServer& operator=(const EximServer&) = delete;

    // Configuration added before Start: lines for the main section (certificates, advertising of STARTTLS
    // or AUTH, limits) and a whole "begin authenticators" section's body.
    void AddMainOptions(const std::string& lines) { m_mainOptions += lines; }
    void SetAuthenticators(const std::string& section) { m_authenticators = section; }

    // TLS, set before Start: STARTTLS offered on Port() with this certificate and key (copied into the
    // server's own directory, where the unprivileged daemon can read them), and TLS from the first byte
    // on a port of its own (TlsPort()).
    void EnableTls(const std::string& certificateFile, const std::string& keyFile);

    // Starts Exim and waits until it greets. Throws std::runtime_error with the configuration check's
    // output or Exim's logs on failure (not installed, bad configuration, no greeting within 15 s).
    void Start();
    // Orderly stop, then a kill of the whole process group if it lingers. Idempotent.
    void Stop();

    bool Running() const { return m_pid > 0; }
    unsigned short Port() const { return m_port; }
    unsigned short TlsPort() const { return m_tlsPort; }
    const std::string& Domain() const { return m_domain; }
    const std::string& Dir() const { return m_dir; }
    // The main and reject logs and the daemon's own output (deliveries and their errors go there).
    std::string Log() const;

    // Messages in the Maildir (new/ and cur/). Exim answers DATA before the file exists, so a test
    // waits: true once there are at least count, false after timeoutMs.
    size_t MaildirCount() const;
    bool WaitForMessages(size_t count, int timeoutMs = 10000) const;

    static bool Installed();

private:
    std::string WriteConfig(unsigned short port, unsigned short tlsPort);
    void TakeMaildirOwner();

    std::string m_dir;
    std::string m_maildir;
    std::string m_domain;
    std::string m_mainOptions;
    std::string m_authenticators;
    std::string m_user, m_group;
    unsigned short m_port = 0;
    unsigned short m_tlsPort = 0;
    bool m_tls = false;
    pid_t m_pid = -1;
};

}  // namespace tavik::test
