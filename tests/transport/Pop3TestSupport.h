// Shared pieces of the POP3 client tests: a status window that records what it is sent, and a helper
// that turns a thrown CPopMailException into its text.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/WindowMessages.h"
#include "platform/Winsock.h"
#include "transport/CPopMail.h"
#include "transport/CRC32i.h"

namespace tavik::test {

// A message window of the creating thread; SendMessage from that thread calls it directly.
class StatusWindow {
public:
    StatusWindow() { m_hwnd = CreateMessageWindow(&Proc, this); }
    ~StatusWindow() { DestroyWindow(m_hwnd); }
    StatusWindow(const StatusWindow&) = delete;
    StatusWindow& operator=(const StatusWindow&) = delete;

    HWND hwnd() const { return m_hwnd; }
    std::string All() const {
        std::string all;
        for (const auto& l : lines) all += l;
        return all;
    }

    std::vector<std::string> lines;
    int finished = 0;

private:
    static LRESULT Proc(HWND hwnd, UINT message, WPARAM wParam, LPARAM lParam) {
        auto* self = reinterpret_cast<StatusWindow*>(GetWindowLongPtr(hwnd, GWLP_USERDATA));
        if (self && message == CPopMail::WM_POP_STATUS)
            self->lines.emplace_back(reinterpret_cast<const char*>(lParam));
        if (self && message == CPopMail::WM_POP_FINISHED && wParam == 0 && lParam == 0) ++self->finished;
        return DefWindowProc(hwnd, message, wParam, lParam);
    }
    HWND m_hwnd;
};

// The text of the CPopMailException that f throws, or "<no exception>".
template <class F>
std::string PopError(F&& f) {
    try {
        f();
    } catch (CPopMailException* e) {
        std::string text = e->GetErrorMessage().GetString();
        e->Delete();
        return text;
    }
    return "<no exception>";
}

// The id a message record takes from its UIDL reply or header: the CRC-32 of the text.
inline unsigned long Crc(std::string_view text) {
    CRC32i crc;
    crc.Update(reinterpret_cast<unsigned char*>(const_cast<char*>(text.data())),
               static_cast<ULONG>(text.size()));
    return crc.Final();
}

// Windows Sockets started for the lifetime of the object, as the host does before using the clients.
struct WinsockSession {
    WinsockSession() { WSAStartup(0x0101, nullptr); }
    ~WinsockSession() { WSACleanup(); }
};

}  // namespace tavik::test
