#include "host/MailCheck.h"

#include <atomic>
#include <csignal>
#include <memory>
#include <thread>
#include <vector>

#include "messages/CMessageList.h"
#include "platform/Kernel.h"
#include "platform/WindowMessages.h"
#include "platform/Winsock.h"
#include "transport/CPopMail.h"

namespace tavik::host {

namespace {

constexpr UINT kCheckDone = WM_APP + 1;
constexpr UINT_PTR kInterruptTimer = 1;

std::atomic<bool> g_interrupted{false};

extern "C" void OnInterrupt(int) {
    g_interrupted = true;
    std::signal(SIGINT, SIG_DFL);  // a second Ctrl-C ends the process at once
}

struct WindowState {
    FILE* out;
    HANDLE terminate;
};

LRESULT StatusProc(HWND hwnd, UINT message, WPARAM wParam, LPARAM lParam) {
    auto* state = reinterpret_cast<WindowState*>(GetWindowLongPtr(hwnd, GWLP_USERDATA));
    if (state && message == CPopMail::WM_POP_STATUS) {
        // Lines come with CRLF ends (the banner starts with one); the terminal wants LF.
        for (const char* p = reinterpret_cast<const char*>(lParam); *p; ++p)
            if (*p != '\r') std::fputc(*p, state->out);
        std::fflush(state->out);
        return 0;
    }
    if (state && message == WM_TIMER && wParam == kInterruptTimer && g_interrupted) {
        SetEvent(state->terminate);
        return 0;
    }
    return DefWindowProc(hwnd, message, wParam, lParam);
}

struct Outcome {
    std::vector<std::unique_ptr<CMessageList>> records;
    std::string error;
    bool refused = false;
};

void RunSession(const CheckOptions& o, HANDLE terminate, HWND window, Outcome& result) {
    try {
        CPopMail pop(terminate, window, o.timeLimit);
        if (!pop.Connect(o.server.c_str(), o.port)) {
            result.error = "the server refused the connection";
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
        for (int n = 1; n <= count; ++n) {
            auto record = std::make_unique<CMessageList>();
            if (!pop.GetHeader(n, *record)) {
                result.error = "the server closed the connection";
                return;
            }
            result.records.push_back(std::move(record));
        }
        pop.Quit();
    } catch (CPopMailException* e) {
        result.error = e->GetErrorMessage().GetString();
        while (!result.error.empty() && (result.error.back() == '\n' || result.error.back() == '\r'))
            result.error.pop_back();
        e->Delete();
    } catch (CException* e) {
        char text[512] = "unexpected failure";
        e->GetErrorMessage(text, sizeof text);
        result.error = text;
        e->Delete();
    }
}

std::string Fit(const CString& text, size_t width) {
    std::string s;
    for (const char* p = text.GetString(); *p; ++p) s += (*p == '\t' || *p == '\r' || *p == '\n') ? ' ' : *p;
    if (s.size() > width) s = s.substr(0, width - 3) + "...";
    return s;
}

void PrintTable(const std::vector<std::unique_ptr<CMessageList>>& records, FILE* out) {
    std::fprintf(out, "\n%4s  %-8s  %8s  %-30s  %-34s  %s\n", "#", "id", "size", "sender", "subject", "date");
    int n = 0;
    for (const auto& r : records) {
        std::fprintf(out, "%4d  %08X  %8u  %-30s  %-34s  %s\n", ++n, static_cast<unsigned>(r->GetID()),
                     static_cast<unsigned>(r->GetMsgSize()), Fit(r->GetSenderName(), 30).c_str(),
                     Fit(r->GetSubject(), 34).c_str(), Fit(r->GetMessageDate(), 31).c_str());
    }
    std::fprintf(out, "%zu message%s\n", records.size(), records.size() == 1 ? "" : "s");
}

}  // namespace

int RunMailCheck(const CheckOptions& options, FILE* out) {
    // The host starts Windows Sockets; the library never does it for its clients.
    if (WSAStartup(0x0101, nullptr) != 0) {
        std::fprintf(stderr, "tavik: cannot start Windows Sockets\n");
        return 1;
    }
    HANDLE terminate = CreateEvent(nullptr, TRUE, FALSE, nullptr);
    WindowState state{out, terminate};
    HWND window = CreateMessageWindow(&StatusProc, &state);
    SetTimer(window, kInterruptTimer, 50, nullptr);
    g_interrupted = false;
    auto previous = std::signal(SIGINT, OnInterrupt);

    Outcome result;
    DWORD self = GetCurrentThreadId();
    std::thread worker([&] {
        RunSession(options, terminate, window, result);
        PostThreadMessage(self, kCheckDone, 0, 0);
    });
    // The status window lives on this thread: sent status lines are handled while it waits here.
    MSG msg;
    while (GetMessage(&msg, nullptr, 0, 0) > 0) {
        if (msg.hwnd == nullptr && msg.message == kCheckDone) break;
        DispatchMessage(&msg);
    }
    worker.join();
    std::signal(SIGINT, previous == SIG_ERR ? SIG_DFL : previous);
    KillTimer(window, kInterruptTimer);
    DestroyWindow(window);
    CloseHandle(terminate);
    WSACleanup();

    bool stopped = g_interrupted.load();
    if (!result.records.empty() || result.error.empty()) PrintTable(result.records, out);
    if (!result.error.empty()) {
        std::fprintf(stderr, "tavik: check %s: %s\n", stopped ? "stopped" : "failed", result.error.c_str());
        return stopped ? 130 : 1;
    }
    return 0;
}

}  // namespace tavik::host
