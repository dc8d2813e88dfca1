// The mail check against a private Dovecot on loopback, next to references measured in the same run on
// the same server:
// - the header scan of a 10,000-message mailbox (LIST n, TOP n 0, UIDL n for every message over one
//   connection) by `tavik check`'s own path (status window, table rows), once one command at a time and
//   once pipelined; by Python's poplib issuing the same commands; by a minimal loop over a plain socket
//   that only looks for the end marks; and by CPopMail::GetHeader alone. Each is a whole session
//   (connect, log in, scan, quit), as a user waits for it;
// - the same check of 1,000 messages through a relay that holds every chunk 25 ms each way, as a distant
//   server would: pipelined, and one command at a time (measured on 100 messages and scaled, since the
//   whole thousand would take two and a half minutes of waiting);
// - the peak memory of a check of 2,000 messages with 500 KB headers;
// - RETR of one 50 MB message with CPopMail and with a plain socket read of the same bytes, once
//   discarding them and once keeping them in memory as a client must;
// - the pipelined check, the GetHeader scan and the 50 MB RETR again over TLS (POP3S, the certificate
//   checked against an authority made here) on the same server, against the same runs in plain text;
//   the plain socket loops over TLS too (OpenSSL on a blocking socket, the least a TLS client can do),
//   which tell what the server's TLS costs from what ours does; and the time to connect and log in,
//   both ways.
// Every figure is the median of several rounds; the machines are noisy and server and client share them.
//
// Ratios named "_time_vs_" are our time divided by the reference's (below 1: we are faster). Targets:
// one-message check within 1.1 of the plain loop, pipelined check at most 0.6 of it, pipelined through
// the relay under 5 s, memory under 200 MB. The older "_vs_" ratios are speeds (the reference's time
// divided by ours): scan >= 1.5 against poplib, RETR >= 0.5 against the plain read. Over TLS: the check
// within 1.3 of its plain time, RETR at least 0.5 of the plain speed. A scan of one command at a time
// waits on every reply, and Dovecot carries TLS through its login process after the login, a hop
// between processes each way per command: the OpenSSL loop's "_time_vs_plain" shows what that costs
// any client, "cpopmail_tls_time_vs_plain_socket_tls" what ours adds to it.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "PlainPop3Session.h"
#include "host/MailCheck.h"
#include "messages/CMessageList.h"
#include "tests/support/DelayRelay.h"
#include "tests/support/DovecotServer.h"
#include "tests/support/GeneratedPop3Server.h"
#include "tests/support/TestCertificates.h"
#include "transport/CPopMail.h"

using tavik::test::DovecotServer;

namespace {

int kMessages = 10000;  // an argument may lower it for a quick look
constexpr int kRounds = 5;
constexpr size_t kLargeBody = 50u * 1000 * 1000;
constexpr int kRelayDelayMs = 25;
constexpr int kRelayMessages = 1000;
constexpr int kRelayOneMessageSample = 100;

double Now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

double Median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

double Timed(const std::function<void()>& f) {
    double start = Now();
    f();
    return Now() - start;
}

// The authority that signed the server's certificate, for the runs over TLS; empty: plain text.
std::string g_trust;

std::unique_ptr<CPopMail> Session(const DovecotServer& server, bool tls = false) {
    auto pop = std::make_unique<CPopMail>(nullptr, nullptr, 60);
    if (tls) pop->SetSecurity(CBlockingSocket::SECURITY_TLS, true, g_trust.c_str());
    if (!pop->Connect("127.0.0.1", tls ? server.TlsPort() : server.Port()) ||
        !pop->Login(server.User().c_str(), server.Password().c_str()))
        throw std::runtime_error("CPopMail could not log in");
    return pop;
}

// `tavik check` of the first `messages` messages, its output thrown away.
void Check(const DovecotServer& server, unsigned short port, int messages, bool pipeline, bool tls = false) {
    tavik::host::CheckOptions o;
    o.server = "127.0.0.1";
    o.port = tls ? server.TlsPort() : port;
    if (tls) o.security = {.tls = "implicit", .insecure = false, .trustFile = g_trust};
    o.user = server.User();
    o.password = server.Password();
    o.timeLimit = 60;
    o.scanLimit = messages;
    o.pipeline = pipeline;
    FILE* out = std::fopen("/dev/null", "w");
    tavik::host::CheckOutcome r = tavik::host::CheckMailbox(o, out);
    std::fclose(out);
    if (!r.error.empty() || static_cast<int>(r.messages.size()) != messages)
        throw std::runtime_error("check failed: " + r.error);
}

void ScanWithCPopMail(const DovecotServer& server, bool tls = false) {
    auto pop = Session(server, tls);
    for (int n = 1; n <= kMessages; ++n) {
        CMessageList record;
        if (!pop->GetHeader(n, record)) throw std::runtime_error("GetHeader failed");
    }
    pop->Quit();
}

void ScanPlain(const DovecotServer& server, bool tls = false) {
    PlainPop3Session s(tls ? server.TlsPort() : server.Port(), server.User(), server.Password(),
                       tls ? g_trust : std::string());
    for (int n = 1; n <= kMessages; ++n) {
        std::string num = std::to_string(n);
        s.Command("LIST " + num + "\r\n", "\r\n");
        s.Command("TOP " + num + " 0\r\n", "\r\n.\r\n");
        s.Command("UIDL " + num + "\r\n", "\r\n");
    }
}

const char* kPoplibScan = R"(import poplib, sys, time
port, user, password, count = int(sys.argv[1]), sys.argv[2], sys.argv[3], int(sys.argv[4])
start = time.perf_counter()
p = poplib.POP3('127.0.0.1', port)
p.user(user)
p.pass_(password)
for n in range(1, count + 1):
    p.list(n)
    p.top(n, 0)
    p.uidl(n)
p.quit()
print('%.6f' % (time.perf_counter() - start))
)";

double ScanWithPoplib(const DovecotServer& server, const std::string& script) {
    std::string command = "/usr/bin/python3 " + script + " " + std::to_string(server.Port()) + " " +
                          server.User() + " " + server.Password() + " " + std::to_string(kMessages);
    FILE* p = ::popen(command.c_str(), "r");
    if (!p) throw std::runtime_error("cannot run python3");
    double t = -1;
    if (std::fscanf(p, "%lf", &t) != 1) t = -1;
    ::pclose(p);
    if (t < 0) throw std::runtime_error("poplib scan failed");
    return t;
}

double RetrieveWithCPopMail(const DovecotServer& server, size_t expected, bool tls = false) {
    auto pop = Session(server, tls);
    CString message;
    double start = Now();
    if (!pop->Retrieve(kMessages + 1, message)) throw std::runtime_error("Retrieve failed");
    double t = Now() - start;
    // The client keeps the message without its status line and last line end.
    if (static_cast<size_t>(message.GetLength()) + 2 != expected)
        throw std::runtime_error("Retrieve returned " + std::to_string(message.GetLength()) + " bytes");
    pop->Quit();
    return t;
}

// keep: the bytes go into one growing string, as any client that hands the message on must do. On
// machines where first touching fresh memory is dear (virtual machines without huge pages) this costs
// more than the reading itself.
double RetrievePlain(const DovecotServer& server, bool keep, bool tls = false) {
    PlainPop3Session s(tls ? server.TlsPort() : server.Port(), server.User(), server.Password(),
                       tls ? g_trust : std::string());
    std::string kept;
    double start = Now();
    s.Command("RETR " + std::to_string(kMessages + 1) + "\r\n", "\r\n.\r\n", keep ? &kept : nullptr);
    return Now() - start;
}

long PeakKb() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmHWM:", 0) == 0) return std::stol(line.substr(6));
    return -1;
}

// Peak memory of a check of 2,000 messages with 500 KB headers, in MB above where it started.
double CheckOfHugeHeadersMb() {
    tavik::test::GeneratedPop3Server server(2000, 500 * 1024);
    std::ofstream("/proc/self/clear_refs") << "5";  // the peak starts again from here
    const long before = PeakKb();
    tavik::host::CheckOptions o;
    o.server = "127.0.0.1";
    o.port = server.Port();
    o.user = "u";
    o.password = "p";
    o.scanLimit = 0;
    FILE* out = std::fopen("/dev/null", "w");
    tavik::host::CheckOutcome r = tavik::host::CheckMailbox(o, out);
    std::fclose(out);
    if (!r.error.empty() || r.messages.size() != 2000) throw std::runtime_error("huge-header check failed");
    return (PeakKb() - before) / 1024.0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1) kMessages = std::max(1, std::atoi(argv[1]));
    try {
        std::printf("bench pop3_check_2000_headers_500kb_peak_memory %.1f MB\n", CheckOfHugeHeadersMb());
        std::fflush(stdout);

        WSAStartup(0x0101, nullptr);
        DovecotServer server;
        double fillStart = Now();
        for (int i = 1; i <= kMessages; ++i)
            server.AddMessage(tavik::test::MakeTestMessage(i, 100 + (i * 37) % 1500).text);
        size_t largeSize = server.AddLargeMessage(kLargeBody);
        tavik::test::TestAuthority authority(server.Dir(), "bench", "Tavik Bench Authority");
        const auto certificate = authority.Issue("pop3", {"127.0.0.1"});
        g_trust = authority.CertificateFile();
        server.EnableTls(certificate.certificateFile, certificate.keyFile);
        server.Start();
        {
            // Dovecot indexes the new mailbox on the first access; keep that out of every figure.
            auto warm = Session(server);
            int count = 0, size = 0;
            warm->MailBoxStats(&count, &size);
            if (count != kMessages + 1) throw std::runtime_error("mailbox has " + std::to_string(count));
            warm->Quit();
        }
        std::printf("bench pop3_setup_%d_and_50mb %.2f s\n", kMessages, Now() - fillStart);
        std::fflush(stdout);
        std::string script = server.Dir() + "/poplib_scan.py";
        std::ofstream(script) << kPoplibScan;

        const unsigned short port = server.Port();
        std::vector<double> single, piped, library, poplib, plain, retrOurs, retrPlain, retrKept;
        std::vector<double> pipedTls, libraryTls, plainTls, retrTls, retrPlainTls;
        for (int round = 0; round < kRounds; ++round) {
            pipedTls.push_back(Timed([&] { Check(server, port, kMessages, true, true); }));
            libraryTls.push_back(Timed([&] { ScanWithCPopMail(server, true); }));
            plainTls.push_back(Timed([&] { ScanPlain(server, true); }));
            retrTls.push_back(RetrieveWithCPopMail(server, largeSize, true));
            retrPlainTls.push_back(RetrievePlain(server, false, true));
            single.push_back(Timed([&] { Check(server, port, kMessages, false); }));
            piped.push_back(Timed([&] { Check(server, port, kMessages, true); }));
            library.push_back(Timed([&] { ScanWithCPopMail(server); }));
            poplib.push_back(ScanWithPoplib(server, script));
            plain.push_back(Timed([&] { ScanPlain(server); }));
            retrOurs.push_back(RetrieveWithCPopMail(server, largeSize));
            retrPlain.push_back(RetrievePlain(server, false));
            retrKept.push_back(RetrievePlain(server, true));
        }
        const double s = Median(single), p = Median(piped), l = Median(library), py = Median(poplib),
                     pl = Median(plain);
        std::printf("bench pop3_check_%d_one_message %.3f s\n", kMessages, s);
        std::printf("bench pop3_check_%d_pipelined %.3f s\n", kMessages, p);
        std::printf("bench pop3_scan_%d_cpopmail %.3f s\n", kMessages, l);
        std::printf("bench pop3_scan_%d_poplib %.3f s\n", kMessages, py);
        std::printf("bench pop3_scan_%d_plain_socket %.3f s\n", kMessages, pl);
        std::printf("bench pop3_check_per_message_one_message %.1f us\n", s / kMessages * 1e6);
        std::printf("bench pop3_check_per_message_pipelined %.1f us\n", p / kMessages * 1e6);
        std::printf("bench pop3_check_one_message_time_vs_plain_socket ratio %.2f\n", s / pl);
        std::printf("bench pop3_check_pipelined_time_vs_plain_socket ratio %.2f\n", p / pl);
        std::printf("bench pop3_check_one_message_time_vs_poplib ratio %.2f\n", s / py);
        std::printf("bench pop3_check_pipelined_time_vs_poplib ratio %.2f\n", p / py);
        std::printf("bench pop3_scan_vs_poplib ratio %.2f\n", py / l);
        std::printf("bench pop3_scan_vs_plain_socket ratio %.2f\n", pl / l);
        const double ro = Median(retrOurs), rp = Median(retrPlain), rk = Median(retrKept);
        std::printf("bench pop3_retr_50mb_cpopmail %.1f MB/s\n", largeSize / ro / 1e6);
        std::printf("bench pop3_retr_50mb_plain_socket %.1f MB/s\n", largeSize / rp / 1e6);
        std::printf("bench pop3_retr_50mb_plain_socket_kept %.1f MB/s\n", largeSize / rk / 1e6);
        std::printf("bench pop3_retr_50mb_vs_plain_socket ratio %.2f\n", rp / ro);
        std::printf("bench pop3_retr_50mb_vs_plain_socket_kept ratio %.2f\n", rk / ro);
        const double pt = Median(pipedTls), lt = Median(libraryTls), plt = Median(plainTls),
                     rt = Median(retrTls), rpt = Median(retrPlainTls);
        std::printf("bench pop3_check_%d_pipelined_tls %.3f s\n", kMessages, pt);
        std::printf("bench pop3_scan_%d_cpopmail_tls %.3f s\n", kMessages, lt);
        std::printf("bench pop3_scan_%d_plain_socket_tls %.3f s\n", kMessages, plt);
        std::printf("bench pop3_retr_50mb_cpopmail_tls %.1f MB/s\n", largeSize / rt / 1e6);
        std::printf("bench pop3_retr_50mb_plain_socket_tls %.1f MB/s\n", largeSize / rpt / 1e6);
        std::printf("bench pop3_check_pipelined_tls_time_vs_plain ratio %.2f\n", pt / p);
        std::printf("bench pop3_scan_cpopmail_tls_time_vs_plain ratio %.2f\n", lt / l);
        std::printf("bench pop3_scan_plain_socket_tls_time_vs_plain ratio %.2f\n", plt / pl);
        std::printf("bench pop3_scan_cpopmail_tls_time_vs_plain_socket_tls ratio %.2f\n", lt / plt);
        std::printf("bench pop3_retr_50mb_tls_vs_plain ratio %.2f\n", ro / rt);
        std::printf("bench pop3_retr_50mb_plain_socket_tls_vs_plain ratio %.2f\n", rp / rpt);
        std::vector<double> loginPlain, loginTls;
        for (int i = 0; i < 15; ++i) {
            loginPlain.push_back(Timed([&] { Session(server)->Quit(); }));
            loginTls.push_back(Timed([&] { Session(server, true)->Quit(); }));
        }
        std::printf("bench pop3_login_plain %.1f ms\n", Median(loginPlain) * 1e3);
        std::printf("bench pop3_login_tls %.1f ms\n", Median(loginTls) * 1e3);
        std::fflush(stdout);

        // A mailbox of its own, so that what the server does to open a session matches the mailbox.
        DovecotServer distant;
        for (int i = 1; i <= kRelayMessages; ++i)
            distant.AddMessage(tavik::test::MakeTestMessage(i, 100 + (i * 37) % 1500).text);
        distant.Start();
        Check(distant, distant.Port(), 1, true);  // indexing, as above
        tavik::test::DelayRelay relay(distant.Port(), kRelayDelayMs);
        std::vector<double> far;
        for (int round = 0; round < 3; ++round)
            far.push_back(Timed([&] { Check(distant, relay.Port(), kRelayMessages, true); }));
        const double farSingle = Timed([&] { Check(distant, relay.Port(), kRelayOneMessageSample, false); }) *
                                 kRelayMessages / kRelayOneMessageSample;
        std::printf("bench pop3_check_%d_relay_%dms_pipelined %.2f s\n", kRelayMessages, kRelayDelayMs,
                    Median(far));
        std::printf("bench pop3_check_%d_relay_%dms_one_message_scaled_from_%d %.1f s\n", kRelayMessages,
                    kRelayDelayMs, kRelayOneMessageSample, farSingle);
        std::printf("bench pop3_check_relay_pipelined_time_vs_one_message ratio %.3f\n",
                    Median(far) / farSingle);
        WSACleanup();
        return 0;
    } catch (CPopMailException* e) {
        std::fprintf(stderr, "bench_pop3: %s\n", e->GetErrorMessage().GetString());
        e->Delete();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "bench_pop3: %s\n", e.what());
    }
    return 1;
}
