#include "tests/support/DovecotServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <grp.h>
#include <netinet/in.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace fs = std::filesystem;

namespace tavik::test {

namespace {

constexpr const char* kDovecot = "/usr/sbin/dovecot";

std::string Crlf(const std::string& lf) {
    std::string out;
    out.reserve(lf.size() + lf.size() / 30);
    for (char c : lf) {
        if (c == '\n') out += '\r';
        out += c;
    }
    return out;
}

unsigned short FreeLoopbackPort() {
    int s = ::socket(AF_INET, SOCK_STREAM, 0);
    if (s < 0) throw std::runtime_error("socket failed");
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (::bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
        ::getsockname(s, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
        ::close(s);
        throw std::runtime_error("cannot find a free port");
    }
    ::close(s);
    return ntohs(a.sin_port);
}

// True once something on the port sends a line starting with +OK.
bool Greets(unsigned short port) {
    int s = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (s < 0) return false;
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bool ok = false;
    if (::connect(s, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0) {
        pollfd p{s, POLLIN, 0};
        char buf[256];
        if (::poll(&p, 1, 2000) == 1) {
            ssize_t n = ::recv(s, buf, sizeof buf, 0);
            ok = n >= 3 && std::memcmp(buf, "+OK", 3) == 0;
        }
    }
    ::close(s);
    return ok;
}

void WriteFile(const std::string& path, const std::string& text, mode_t mode = 0644) {
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    f << text;
    f.close();
    if (!f) throw std::runtime_error("cannot write " + path);
    ::chmod(path.c_str(), mode);
}

}  // namespace

GeneratedMessage MakeTestMessage(int index, size_t bodyBytes) {
    static const char* kNames[] = {"Ada Quill", "Bert Moss", "Cora Lind", "Dov Fenn", "Eli Marsh"};
    static const char* kDomains[] = {"example.org", "mail.example.com", "lists.example.net"};
    static const char* kTopics[] = {"quarterly figures", "lunch on Friday", "re: your order",
                                    "cheap watches!!!", "meeting notes"};
    GeneratedMessage m;
    char line[256];
    std::string h;
    std::snprintf(line, sizeof line, "\"%s\" <user%d@%s>", kNames[index % 5], index, kDomains[index % 3]);
    m.from = line;
    h += "From: " + m.from + "\n";
    h += "To: alice@localhost\n";
    std::snprintf(line, sizeof line, "Message %d: %s", index, kTopics[index % 5]);
    m.subject = line;
    h += "Subject: " + m.subject + "\n";
    std::snprintf(line, sizeof line, "Date: Mon, %02d Nov 2026 %02d:%02d:%02d +0000\n", 1 + index % 28,
                  index / 3600 % 24, index / 60 % 60, index % 60);
    h += line;
    std::snprintf(line, sizeof line, "Message-ID: <%d.%d@test.example>\n", index, index * 7919);
    h += line;
    if (index % 3 == 0) h += "X-Folded: first part of a long header\n\tcontinued on a second line\n";
    h += "MIME-Version: 1.0\nContent-Type: text/plain; charset=us-ascii\n";

    std::string b;
    for (int i = 0; b.size() < bodyBytes; ++i) {
        if (i % 5 == 4)
            b += ".a line that starts with a dot\n";
        else if (i % 11 == 10)
            b += "..\n";
        else {
            std::snprintf(line, sizeof line, "Line %d of message %d, some ordinary words here.\n", i, index);
            b += line;
        }
    }
    m.text = h + "\n" + b;
    m.headerCrlf = Crlf(h);
    m.bodyCrlf = Crlf(b);
    return m;
}

DovecotServer::DovecotServer() {
    std::string pattern = "/tmp/tavik-dovecot-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    m_dir = pattern;
    ::chmod(m_dir.c_str(), 0755);  // dovenull and nobody must be able to enter it
    for (const char* sub : {"Maildir", "Maildir/cur", "Maildir/new", "Maildir/tmp", "run", "state", "home"})
        fs::create_directories(m_dir + "/" + sub);
}

DovecotServer::~DovecotServer() {
    try {
        Stop();
    } catch (...) {
    }
    std::error_code ec;
    fs::remove_all(m_dir, ec);
}

bool DovecotServer::Installed() { return ::access(kDovecot, X_OK) == 0; }

void DovecotServer::AddMessage(const std::string& textLf) {
    // The time part of the name orders the messages: Dovecot numbers new files in file-name order.
    char name[128];
    ++m_next;
    std::snprintf(name, sizeof name, "%s/Maildir/cur/%d.M%dP1.tavik:2,", m_dir.c_str(), 1000000000 + m_next,
                  m_next);
    WriteFile(name, textLf, 0600);
}

size_t DovecotServer::AddLargeMessage(size_t bodyBytes, size_t lineLength) {
    char name[128];
    ++m_next;
    std::snprintf(name, sizeof name, "%s/Maildir/cur/%d.M%dP1.tavik:2,", m_dir.c_str(), 1000000000 + m_next,
                  m_next);
    FILE* f = std::fopen(name, "wb");
    if (!f) throw std::runtime_error(std::string("cannot create ") + name);
    std::string head = "From: big@example.org\nTo: alice@localhost\nSubject: a large message\n\n";
    size_t crlfSize = head.size() + 4;
    std::fwrite(head.data(), 1, head.size(), f);
    std::string line(lineLength, 'x');
    for (size_t i = 0; i < lineLength; ++i) line[i] = static_cast<char>('a' + i % 26);
    line += '\n';
    for (size_t written = 0; written < bodyBytes; written += line.size()) {
        std::fwrite(line.data(), 1, line.size(), f);
        crlfSize += line.size() + 1;
    }
    std::fclose(f);
    ::chmod(name, 0600);
    return crlfSize;
}

std::string DovecotServer::WriteConfig(unsigned short port, unsigned short tlsPort) {
    const bool root = ::geteuid() == 0;
    std::string mailUser = "nobody", mailGroup = "nogroup", self;
    if (!root) {
        passwd* pw = ::getpwuid(::geteuid());
        self = pw ? pw->pw_name : std::to_string(::geteuid());
        mailUser = self;
        group* gr = ::getgrgid(::getegid());
        mailGroup = gr ? gr->gr_name : std::to_string(::getegid());
    }
    std::ostringstream c;
    c << "protocols = pop3\n"
         "listen = 127.0.0.1\n"
         "base_dir = "
      << m_dir
      << "/run\n"
         "state_dir = "
      << m_dir
      << "/state\n"
         "log_path = "
      << m_dir
      << "/dovecot.log\n"
         "instance_name = tavik-test\n";
    if (m_tlsCertificate.empty())
        c << "ssl = no\n";
    else
        c << "ssl = yes\nssl_cert = <" << m_tlsCertificate << "\nssl_key = <" << m_tlsKey << "\n";
    c << "disable_plaintext_auth = no\n"
         "auth_mechanisms = plain login\n"
         "auth_failure_delay = 0\n"
         "mail_fsync = never\n"
         "mail_location = maildir:"
      << m_dir
      << "/Maildir\n"
         "mail_max_userip_connections = 100\n"
         "passdb {\n  driver = passwd-file\n  args = "
      << m_dir
      << "/passwd\n}\n"
         "userdb {\n  driver = static\n  args = uid="
      << mailUser << " gid=" << mailGroup << " home=" << m_dir
      << "/home\n}\n"
         "service pop3-login {\n  inet_listener pop3 {\n    port = "
      << port << "\n  }\n  inet_listener pop3s {\n    port = " << tlsPort << "\n  }\n";
    if (!root) c << "  chroot =\n";
    c << "}\n"
         // Without the penalty socket repeated wrong passwords are not slowed down.
         "service anvil {\n  unix_listener anvil-auth-penalty {\n    mode = 0\n  }\n";
    if (!root) c << "  chroot =\n";
    c << "}\n";
    if (!root) {
        c << "default_login_user = " << self << "\ndefault_internal_user = " << self << "\n"
          << "default_internal_group = " << mailGroup << "\n"
          << "service imap-login {\n  chroot =\n}\n";
    }
    std::string path = m_dir + "/dovecot.conf";
    WriteFile(path, c.str());
    WriteFile(m_dir + "/passwd", m_user + ":{PLAIN}" + m_password + "\n", 0644);
    return path;
}

void DovecotServer::ChownMail() {
    if (::geteuid() != 0) return;
    passwd* pw = ::getpwnam("nobody");
    group* gr = ::getgrnam("nogroup");
    if (!pw) throw std::runtime_error("user nobody is missing");
    uid_t uid = pw->pw_uid;
    gid_t gid = gr ? gr->gr_gid : pw->pw_gid;
    for (const char* top : {"/Maildir", "/home"}) {
        std::string base = m_dir + top;
        ::chown(base.c_str(), uid, gid);
        for (const auto& e : fs::recursive_directory_iterator(base)) ::chown(e.path().c_str(), uid, gid);
    }
}

void DovecotServer::Start() {
    if (Running()) return;
    if (!Installed())
        throw std::runtime_error("Dovecot is not installed (packages dovecot-core and dovecot-pop3d)");
    ChownMail();
    std::string lastLog;
    for (int attempt = 0; attempt < 5; ++attempt) {
        m_port = FreeLoopbackPort();
        m_tlsPort = 0;
        if (!m_tlsCertificate.empty()) do
                m_tlsPort = FreeLoopbackPort();
            while (m_tlsPort == m_port);
        std::string conf = WriteConfig(m_port, m_tlsPort);
        std::string out = m_dir + "/stderr.log";
        pid_t parent = ::getpid();
        pid_t pid = ::fork();
        if (pid < 0) throw std::runtime_error("fork failed");
        if (pid == 0) {
            // Own process group, so that Stop can reach every Dovecot process; dies with its parent.
            ::setpgid(0, 0);
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (::getppid() != parent) ::_exit(127);
            int fd = ::open(out.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
            if (fd >= 0) {
                ::dup2(fd, 1);
                ::dup2(fd, 2);
            }
            ::execl(kDovecot, "dovecot", "-F", "-c", conf.c_str(), static_cast<char*>(nullptr));
            ::_exit(127);
        }
        ::setpgid(pid, pid);
        m_pid = pid;
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
        bool exited = false;
        while (std::chrono::steady_clock::now() < deadline) {
            int status = 0;
            if (::waitpid(m_pid, &status, WNOHANG) == m_pid) {
                exited = true;
                m_pid = -1;
                break;
            }
            if (Greets(m_port)) return;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        if (!exited) Stop();
        lastLog = Log();
        if (lastLog.find("in use") == std::string::npos) break;  // only a lost port race is worth a retry
    }
    throw std::runtime_error("Dovecot did not start:\n" + lastLog);
}

void DovecotServer::Stop() {
    if (m_pid <= 0) return;
    ::kill(-m_pid, SIGTERM);
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    bool reaped = false;
    while (std::chrono::steady_clock::now() < deadline) {
        if (::waitpid(m_pid, nullptr, WNOHANG) == m_pid) {
            reaped = true;
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ::kill(-m_pid, SIGKILL);  // stragglers of the group, or the master itself when it hung
    if (!reaped) ::waitpid(m_pid, nullptr, 0);
    m_pid = -1;
}

std::string DovecotServer::Log() const {
    std::string all;
    for (const char* name : {"/dovecot.log", "/stderr.log"}) {
        std::ifstream f(m_dir + name, std::ios::binary);
        std::stringstream ss;
        ss << f.rdbuf();
        all += ss.str();
    }
    return all;
}

}  // namespace tavik::test
