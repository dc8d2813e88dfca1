#include "host/MailCheck.h"

#include <atomic>
#include <csignal>
#include <cstring>
#include <memory>
#include <thread>

#include "messages/CMessageList.h"
#include "platform/Kernel.h"
#include "platform/WindowMessages.h"
#include "platform/Winsock.h"
#include "transport/CPopMail.h"

namespace tavik::host {

namespace {

std::atomic<bool> g_interrupted{false};

extern "C" void OnInterrupt(int) {
    g_interrupted = true;
    std::signal(SIGINT, SIG_DFL);  // a second Ctrl-C ends the process at once
}

// Lines are written without a flush each: a scan of thousands of messages would pay a system call per
// line. The watching thread flushes whenever something is waiting, so output stays live.
struct StatusState {
    FILE* out;
    std::atomic<bool>* unflushed;
};

LRESULT StatusProc(HWND hwnd, UINT message, WPARAM wParam, LPARAM lParam) {
    auto* state = reinterpret_cast<StatusState*>(GetWindowLongPtr(hwnd, GWLP_USERDATA));
    if (state && message == CPopMail::WM_POP_STATUS) {
        // Lines come with CRLF ends (the banner starts with one); the terminal wants LF.
        for (const char* p = reinterpret_cast<const char*>(lParam); *p;) {
            size_t run = std::strcspn(p, "\r");
            std::fwrite(p, 1, run, state->out);
            p += run;
            if (*p == '\r') ++p;
        }
        state->unflushed->store(true, std::memory_order_relaxed);
        return 0;
    }
    return DefWindowProc(hwnd, message, wParam, lParam);
}

// The text as its column shows it: line breaks and tabs as spaces, cut with "..." past width. Looks at
// no more than it keeps, however long the header field.
std::string Fit(const CString& text, size_t width) {
    std::string s;
    for (const char* p = text.GetString(); *p && s.size() <= width; ++p)
        s += (*p == '\t' || *p == '\r' || *p == '\n') ? ' ' : *p;
    if (s.size() > width) s = s.substr(0, width - 3) + "...";
    return s;
}

CheckedMessage Row(const CMessageList& r) {
    return {static_cast<unsigned>(r.GetID()), static_cast<unsigned>(r.GetMsgSize()),
            Fit(r.GetSenderName(), 30), Fit(r.GetSubject(), 34), Fit(r.GetMessageDate(), 31)};
}

void NotifyPlainText(HWND window, const std::string& server) {
    const std::string line =
        "Warning: the password goes to " + server + " without encryption (--tls none)\r\n";
    SendMessage(window, CPopMail::WM_POP_STATUS, 0, reinterpret_cast<LPARAM>(line.c_str()));
}

std::string WithoutLineEnd(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    return text;
}

void Session(const CheckOptions& o, HANDLE terminate, HWND window, CheckOutcome& result) {
    try {
        CPopMail pop(terminate, window, o.timeLimit);
        const CBlockingSocket::SECURITY security =
            ChooseSecurity(o.security, MailProtocol::kPop3, o.server, o.port);
        pop.SetSecurity(security, !o.security.insecure, o.security.trustFile.c_str());
        const int port = o.port != 0 ? o.port : DefaultPort(MailProtocol::kPop3, security);
        if (security == CBlockingSocket::SECURITY_NONE && !IsLoopback(o.server))
            NotifyPlainText(window, o.server);
        if (!pop.Connect(o.server.c_str(), port)) {
            result.error =
                "the server's greeting was not positive: " + WithoutLineEnd(pop.GetGreeting().GetString());
            return;
        }
        if (pop.GetGreeting().IsEmpty()) {
            result.error = "the server closed the connection without a greeting";
            return;
        }
        if (!pop.Login(o.user.c_str(), o.password.c_str())) {
            result.error = "the server refused the user name or password";
            return;
        }
        int count = 0, size = 0;
        if (!pop.MailBoxStats(&count, &size)) {
            result.error = "the server closed the connection";
            return;
        }
        result.count = count;
        const int last = o.scanLimit > 0 && count > o.scanLimit ? o.scanLimit : count;
        result.messages.reserve(static_cast<size_t>(last));
        bool whole = true;
        if (o.pipeline) {
            whole = pop.GetHeaders(1, last, [&](int, std::unique_ptr<CMessageList> record) {
                result.messages.push_back(Row(*record));
                return true;
            });
        } else {
            for (int n = 1; n <= last && whole; ++n) {
                CMessageList record;
                whole = pop.GetHeader(n, record);
                if (whole) result.messages.push_back(Row(record));
            }
        }
        if (!whole) {
            result.error = "the server closed the connection";
            return;
        }
        pop.Quit();
    } catch (CPopMailException* e) {
        result.error = WithoutLineEnd(e->GetErrorMessage().GetString());
        e->Delete();
    } catch (CException* e) {
        char text[512] = "unexpected failure";
        e->GetErrorMessage(text, sizeof text);
        result.error = text;
        e->Delete();
    }
}

void PrintTable(const CheckOutcome& result, FILE* out) {
    std::fprintf(out, "\n%4s  %-8s  %8s  %-30s  %-34s  %s\n", "#", "id", "size", "sender", "subject", "date");
    int n = 0;
    for (const CheckedMessage& m : result.messages)
        std::fprintf(out, "%4d  %08X  %8u  %-30s  %-34s  %s\n", ++n, m.id, m.size, m.sender.c_str(),
                     m.subject.c_str(), m.date.c_str());
    const size_t listed = result.messages.size();
    if (result.error.empty() && listed < static_cast<size_t>(result.count))
        std::fprintf(out, "%zu of %d messages (the scan limit; --all lists every one)\n", listed,
                     result.count);
    else
        std::fprintf(out, "%zu message%s\n", listed, listed == 1 ? "" : "s");
}

}  // namespace

CheckOutcome CheckMailbox(const CheckOptions& options, FILE* out) {
    CheckOutcome result;
    // The host starts Windows Sockets; the library never does it for its clients.
    if (WSAStartup(0x0101, nullptr) != 0) {
        result.error = "cannot start Windows Sockets";
        return result;
    }
    HANDLE terminate = CreateEvent(nullptr, TRUE, FALSE, nullptr);
    HANDLE done = CreateEvent(nullptr, TRUE, FALSE, nullptr);
    g_interrupted = false;
    auto previous = std::signal(SIGINT, OnInterrupt);
    std::atomic<bool> unflushed{false};

    std::thread worker([&] {
        // The status window belongs to the session's thread: each line is a direct call, not a round
        // trip to another thread and back.
        StatusState state{out, &unflushed};
        HWND window = CreateMessageWindow(&StatusProc, &state);
        Session(options, terminate, window, result);
        DestroyWindow(window);
        SetEvent(done);
    });
    while (WaitForSingleObject(done, 50) == WAIT_TIMEOUT) {
        if (g_interrupted) SetEvent(terminate);
        if (unflushed.exchange(false, std::memory_order_relaxed)) std::fflush(out);
    }
    worker.join();
    std::fflush(out);
    std::signal(SIGINT, previous == SIG_ERR ? SIG_DFL : previous);
    CloseHandle(done);
    CloseHandle(terminate);
    WSACleanup();
    result.stopped = g_interrupted.load();
    return result;
}

int RunMailCheck(const CheckOptions& options, FILE* out, FILE* err) {
    const CheckOutcome result = CheckMailbox(options, out);
    if (!result.messages.empty() || result.error.empty()) PrintTable(result, out);
    if (!result.error.empty()) {
        std::fprintf(err, "tavik: check %s: %s\n", result.stopped ? "stopped" : "failed",
                     result.error.c_str());
        if (const std::string advice = CertificateAdvice(result.error); !advice.empty())
            std::fprintf(err, "tavik: %s\n", advice.c_str());
        return result.stopped ? 130 : 1;
    }
    return 0;
}

}  // namespace tavik::host
