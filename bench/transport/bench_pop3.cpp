// The POP3 client against a private Dovecot on loopback, next to two references measured in the same
// run on the same server:
// - the header scan of a 10,000-message mailbox (LIST n, TOP n 0, UIDL n for every message over one
//   connection) with CPopMail, with Python's poplib issuing the same commands, and with a minimal loop
//   over a plain socket that only looks for the end marks (the limit the server sets);
// - RETR of one 50 MB message with CPopMail and with a plain socket read of the same bytes, once
//   discarding them and once keeping them in memory as a client must.
// Every figure is the median of several rounds; the machines are noisy and server and client share them.
//
// Ratios are speeds: the reference's time divided by ours, so above 1 means we are faster.
// Targets: scan >= 1.5 against poplib and >= 0.83 (within 1.2x) against the plain loop; RETR >= 0.5 against
// the plain read.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "PlainPop3Session.h"
#include "messages/CMessageList.h"
#include "tests/support/DovecotServer.h"
#include "transport/CPopMail.h"

using tavik::test::DovecotServer;

namespace {

int kMessages = 10000;  // an argument may lower it for a quick look
constexpr int kRounds = 5;
constexpr size_t kLargeBody = 50u * 1000 * 1000;

double Now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

double Median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

std::unique_ptr<CPopMail> Session(const DovecotServer& server) {
    auto pop = std::make_unique<CPopMail>(nullptr, nullptr, 60);
    if (!pop->Connect("127.0.0.1", server.Port()) ||
        !pop->Login(server.User().c_str(), server.Password().c_str()))
        throw std::runtime_error("CPopMail could not log in");
    return pop;
}

double ScanWithCPopMail(const DovecotServer& server) {
    auto pop = Session(server);
    double start = Now();
    for (int n = 1; n <= kMessages; ++n) {
        CMessageList record;
        if (!pop->GetHeader(n, record)) throw std::runtime_error("GetHeader failed");
    }
    double t = Now() - start;
    pop->Quit();
    return t;
}

double ScanPlain(const DovecotServer& server) {
    PlainPop3Session s(server.Port(), server.User(), server.Password());
    double start = Now();
    for (int n = 1; n <= kMessages; ++n) {
        std::string num = std::to_string(n);
        s.Command("LIST " + num + "\r\n", "\r\n");
        s.Command("TOP " + num + " 0\r\n", "\r\n.\r\n");
        s.Command("UIDL " + num + "\r\n", "\r\n");
    }
    return Now() - start;
}

const char* kPoplibScan = R"(import poplib, sys, time
port, user, password, count = int(sys.argv[1]), sys.argv[2], sys.argv[3], int(sys.argv[4])
p = poplib.POP3('127.0.0.1', port)
p.user(user)
p.pass_(password)
start = time.perf_counter()
for n in range(1, count + 1):
    p.list(n)
    p.top(n, 0)
    p.uidl(n)
print('%.6f' % (time.perf_counter() - start))
p.quit()
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

double RetrieveWithCPopMail(const DovecotServer& server, size_t expected) {
    auto pop = Session(server);
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
double RetrievePlain(const DovecotServer& server, bool keep) {
    PlainPop3Session s(server.Port(), server.User(), server.Password());
    std::string kept;
    double start = Now();
    s.Command("RETR " + std::to_string(kMessages + 1) + "\r\n", "\r\n.\r\n", keep ? &kept : nullptr);
    return Now() - start;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1) kMessages = std::max(1, std::atoi(argv[1]));
    try {
        WSAStartup(0x0101, nullptr);
        DovecotServer server;
        double fillStart = Now();
        for (int i = 1; i <= kMessages; ++i)
            server.AddMessage(tavik::test::MakeTestMessage(i, 100 + (i * 37) % 1500).text);
        size_t largeSize = server.AddLargeMessage(kLargeBody);
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
        std::string script = server.Dir() + "/poplib_scan.py";
        std::ofstream(script) << kPoplibScan;

        std::vector<double> ours, poplib, plain, retrOurs, retrPlain, retrKept;
        for (int round = 0; round < kRounds; ++round) {
            ours.push_back(ScanWithCPopMail(server));
            poplib.push_back(ScanWithPoplib(server, script));
            plain.push_back(ScanPlain(server));
            retrOurs.push_back(RetrieveWithCPopMail(server, largeSize));
            retrPlain.push_back(RetrievePlain(server, false));
            retrKept.push_back(RetrievePlain(server, true));
        }
        double o = Median(ours), py = Median(poplib), pl = Median(plain);
        double ro = Median(retrOurs), rp = Median(retrPlain), rk = Median(retrKept);
        std::printf("bench pop3_scan_%d_cpopmail %.3f s\n", kMessages, o);
        std::printf("bench pop3_scan_%d_poplib %.3f s\n", kMessages, py);
        std::printf("bench pop3_scan_%d_plain_socket %.3f s\n", kMessages, pl);
        std::printf("bench pop3_scan_per_message_cpopmail %.1f us\n", o / kMessages * 1e6);
        std::printf("bench pop3_scan_vs_poplib ratio %.2f\n", py / o);
        std::printf("bench pop3_scan_vs_plain_socket ratio %.2f\n", pl / o);
        std::printf("bench pop3_retr_50mb_cpopmail %.1f MB/s\n", largeSize / ro / 1e6);
        std::printf("bench pop3_retr_50mb_plain_socket %.1f MB/s\n", largeSize / rp / 1e6);
        std::printf("bench pop3_retr_50mb_plain_socket_kept %.1f MB/s\n", largeSize / rk / 1e6);
        std::printf("bench pop3_retr_50mb_vs_plain_socket ratio %.2f\n", rp / ro);
        std::printf("bench pop3_retr_50mb_vs_plain_socket_kept ratio %.2f\n", rk / ro);
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
