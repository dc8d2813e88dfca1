#include "tests/support/EximServer.h"

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
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace fs = std::filesystem;

namespace tavik::test {

namespace {

constexpr const char* kExim = "/usr/sbin/exim4";

unsigned short FreeLoopbackPort() {
    int s = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
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

// True once something on the port greets with "220", the connection then closed with QUIT.
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
        char buf[512];
        if (::poll(&p, 1, 2000) == 1) {
            ssize_t n = ::recv(s, buf, sizeof buf, 0);
            ok = n >= 3 && std::memcmp(buf, "220", 3) == 0;
            if (ok) (void)!::send(s, "QUIT\r\n", 6, MSG_NOSIGNAL);
        }
    }
    ::close(s);
    return ok;
}

std::string ReadAll(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

void WriteText(const std::string& path, const std::string& text) {
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    f << text;
    f.close();
    if (!f) throw std::runtime_error("cannot write " + path);
    ::chmod(path.c_str(), 0644);
}

}  // namespace

EximServer::EximServer(std::string maildir, std::string domain)
    : m_maildir(std::move(maildir)), m_domain(std::move(domain)) {
    std::string pattern = "/tmp/tavik-exim-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    m_dir = pattern;
    ::chmod(m_dir.c_str(), 0755);  // the delivery user must be able to enter it
    for (const char* sub : {"spool", "log"}) fs::create_directories(m_dir + "/" + sub);
}

// The Maildir's owner is known only now: a DovecotServer hands its Maildir to nobody when it starts.
void EximServer::TakeMaildirOwner() {
    struct stat st {};
    if (::stat(m_maildir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
        throw std::runtime_error("no Maildir at " + m_maildir);
    if (st.st_uid == 0)
        throw std::runtime_error("Exim never delivers as root, and " + m_maildir + " is root's");
    passwd* pw = ::getpwuid(st.st_uid);
    group* gr = ::getgrgid(st.st_gid);
    if (!pw || !gr) throw std::runtime_error("the owner of " + m_maildir + " has no name");
    m_user = pw->pw_name;
    m_group = gr->gr_name;
    if (::geteuid() != 0) return;
    for (const char* sub : {"/spool", "/log"})
        for (const auto& e : fs::recursive_directory_iterator(m_dir + sub))
            (void)!::chown(e.path().c_str(), st.st_uid, st.st_gid);
    for (const char* sub : {"/spool", "/log"}) (void)!::chown((m_dir + sub).c_str(), st.st_uid, st.st_gid);
}

EximServer::~EximServer() {
    try {
        Stop();
    } catch (...) {
    }
    std::error_code ec;
    fs::remove_all(m_dir, ec);
}

bool EximServer::Installed() { return ::access(kExim, X_OK) == 0; }

void EximServer::EnableTls(const std::string& certificateFile, const std::string& keyFile) {
    WriteText(m_dir + "/tls.pem", ReadAll(certificateFile));
    WriteText(m_dir + "/tls.key", ReadAll(keyFile));
    m_tls = true;
}

std::string EximServer::WriteConfig(unsigned short port, unsigned short tlsPort) {
    std::ostringstream c;
    c << "primary_hostname = mta." << m_domain << "\n"
      << "exim_user = " << m_user << "\n"
      << "exim_group = " << m_group << "\n"
      << "spool_directory = " << m_dir << "/spool\n"
      << "log_file_path = " << m_dir << "/log/%slog\n"
      << "pid_file_path = " << m_dir << "/exim.pid\n"
      << "daemon_smtp_ports = " << port;
    if (m_tls) c << " : " << tlsPort;
    c << "\n"
      << "local_interfaces = 127.0.0.1\n"
      // A lost race for the port fails at once instead of retrying for minutes.
      << "daemon_startup_retries = 0\n"
      << "host_lookup =\n"
      << "rfc1413_hosts =\n"
      << "keep_environment =\n"
      // Every message of a connection is delivered at once, none left for a queue runner.
      << "smtp_accept_queue_per_connection = 0\n"
      << "message_size_limit = 200M\n"
      << "domainlist local_domains = " << m_domain << "\n"
      << "acl_smtp_rcpt = acl_check_rcpt\n";
    if (m_tls)
        c << "tls_certificate = " << m_dir << "/tls.pem\n"
          << "tls_privatekey = " << m_dir << "/tls.key\n"
          << "tls_on_connect_ports = " << tlsPort << "\n"
          << "tls_advertise_hosts = *\n";
    else if (m_mainOptions.find("tls_advertise_hosts") == std::string::npos)
        c << "tls_advertise_hosts =\n";
    c << m_mainOptions << "\n"
      << "begin acl\n\n"
         "acl_check_rcpt:\n"
         "  accept domains = +local_domains\n"
         "  deny message = relay not permitted\n\n"
         "begin routers\n\n"
         "local_maildir:\n"
         "  driver = accept\n"
         "  domains = +local_domains\n"
         "  transport = maildir_delivery\n\n"
         "begin transports\n\n"
         "maildir_delivery:\n"
         "  driver = appendfile\n"
         "  directory = "
      << m_maildir
      << "\n"
         "  maildir_format\n"
         "  delivery_date_add\n"
         "  envelope_to_add\n"
         "  return_path_add\n"
         "  mode = 0600\n\n"
         "begin retry\n\n"
         "* * F,1h,10m\n";
    if (!m_authenticators.empty()) c << "\nbegin authenticators\n\n" << m_authenticators << "\n";
    std::string path = m_dir + "/exim.conf";
    WriteText(path, c.str());
    return path;
}

void EximServer::Start() {
    if (Running()) return;
    if (!Installed()) throw std::runtime_error("Exim is not installed (package exim4-daemon-light)");
    TakeMaildirOwner();
    std::string lastLog;
    for (int attempt = 0; attempt < 5; ++attempt) {
        m_port = FreeLoopbackPort();
        m_tlsPort = 0;
        if (m_tls) do
                m_tlsPort = FreeLoopbackPort();
            while (m_tlsPort == m_port);
        std::string conf = WriteConfig(m_port, m_tlsPort);
        std::string out = m_dir + "/stderr.log";
        pid_t parent = ::getpid();
        pid_t pid = ::fork();
        if (pid < 0) throw std::runtime_error("fork failed");
        if (pid == 0) {
            // Own process group, so that Stop reaches every Exim process; dies with its parent.
            ::setpgid(0, 0);
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (::getppid() != parent) ::_exit(127);
            int fd = ::open(out.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
            if (fd >= 0) {
                ::fchmod(fd, 0666);  // the daemon writes here after giving up root
                ::dup2(fd, 1);
                ::dup2(fd, 2);
            }
            int null = ::open("/dev/null", O_RDONLY);
            if (null >= 0) ::dup2(null, 0);
            ::execl(kExim, "exim4", "-C", conf.c_str(), "-bdf", static_cast<char*>(nullptr));
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
    throw std::runtime_error("Exim did not start:\n" + lastLog);
}

void EximServer::Stop() {
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
    ::kill(-m_pid, SIGKILL);  // delivery processes still running, or the daemon itself when it hung
    if (!reaped) ::waitpid(m_pid, nullptr, 0);
    m_pid = -1;
}

std::string EximServer::Log() const {
    std::string all;
    for (const char* name : {"/log/mainlog", "/log/rejectlog", "/log/paniclog", "/stderr.log"}) {
        std::string text = ReadAll(m_dir + name);
        if (!text.empty()) all += std::string("== ") + (name + 1) + "\n" + text;
    }
    return all;
}

size_t EximServer::MaildirCount() const {
    size_t n = 0;
    std::error_code ec;
    for (const char* sub : {"/new", "/cur"})
        for (const auto& e : fs::directory_iterator(m_maildir + sub, ec))
            if (e.is_regular_file(ec)) ++n;
    return n;
}

bool EximServer::WaitForMessages(size_t count, int timeoutMs) const {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (MaildirCount() < count) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

}  // namespace tavik::test
