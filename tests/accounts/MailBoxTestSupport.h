// What the account tests share: a private registry and data directory per test, a user's accounts
// storage in a real compound file, message records made from header text, and a window that records
// the notifications a load or save sends.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "accounts/CMailBoxProfile.h"
#include "messages/CMessageList.h"
#include "messages/CStorageManager.h"
#include "platform/Clock.h"
#include "platform/FileSystem.h"
#include "platform/Registry.h"
#include "platform/WindowMessages.h"
#include "tests/support/TempDir.h"

namespace tavik::test {

// Gives the protected parts of an account to the tests.
class ProfileProbe : public CMailBoxProfile {
public:
    using CMailBoxProfile::BuildMessageIndex;
    using CMailBoxProfile::GetMessageCount;
    using CMailBoxProfile::RandomString;
};

// A received message from the sender, with a header the record scans.
inline CMessageList* MakeMessage(DWORD id, const char* sender, const char* subject = "Hello") {
    auto* message = new CMessageList();
    CString header;
    header.Format("From: %s\r\nTo: me@example.org\r\nSubject: %s\r\nMessage-ID: <%u@test>\r\n", sender,
                  subject, static_cast<unsigned>(id));
    message->SetData(header, id, 100 + id, MsgReceived);
    return message;
}

// Records what a load or save sends, on the test's own thread.
class ProgressRecorder {
public:
    enum : UINT { kStatus = WM_USER + 11, kRecord, kStart, kPercent, kEnd };

    ProgressRecorder() { m_hWnd = CreateMessageWindow(&ProgressRecorder::Proc, this); }
    ~ProgressRecorder() { DestroyWindow(m_hWnd); }
    ProgressRecorder(const ProgressRecorder&) = delete;
    ProgressRecorder& operator=(const ProgressRecorder&) = delete;

    CMessageList::_tagLoadProgressData Progress(DWORD expected = 0) const {
        return {m_hWnd, kStatus, kRecord, kStart, kPercent, kEnd, expected};
    }
    // "status <text>", "start 0 100", "record <n>", "end 0 100" in the order they came; the posted
    // percentages are left out.
    const std::vector<std::string>& Events() const { return m_events; }
    void Clear() { m_events.clear(); }

private:
    static LRESULT Proc(HWND hwnd, UINT message, WPARAM wParam, LPARAM lParam) {
        auto* self = reinterpret_cast<ProgressRecorder*>(GetWindowLongPtr(hwnd, GWLP_USERDATA));
        if (!self) return 0;
        auto numbers = [&] { return std::to_string(wParam) + " " + std::to_string(lParam); };
        switch (message) {
            case kStatus:
                self->m_events.push_back("status " + std::to_string(wParam) + " " +
                                         reinterpret_cast<const char*>(lParam));
                break;
            case kStart:
                self->m_events.push_back("start " + numbers());
                break;
            case kEnd:
                self->m_events.push_back("end " + numbers());
                break;
            case kRecord:
                self->m_events.push_back("record " + std::to_string(lParam));
                break;
            default:
                break;
        }
        return 0;
    }

    HWND m_hWnd = nullptr;
    std::vector<std::string> m_events;
};

// A private registry and data directory, and a user's settings file with its "Accounts" storage held
// open as the user profile holds it.
class AccountFixture : public ::testing::Test {
protected:
    void SetUp() override {
        RegSetStorePath(m_dir.file("registry.db").c_str());
        TavikSetApplicationDirectory(m_dir.path().c_str());
        OpenAccounts();
    }
    void TearDown() override {
        CloseAccounts();
        TavikSetApplicationDirectory(nullptr);
        RegCloseStore();
        RegSetStorePath(nullptr);
    }

    std::string SettingsPath() const { return m_dir.file("user.tvs"); }
    // The program directory as CreateDataFile forms it.
    std::string DataDirectory() const { return m_dir.path().string() + "/"; }
    IStorage* Accounts() { return m_accounts->GetStorage(); }

    void OpenAccounts() {
        m_settings = std::make_unique<CStorageManager>(SettingsPath().c_str(), true);
        m_accounts = std::make_unique<CStorageManager>();
        m_accounts->OpenSubStorage(m_settings->GetStorage(), "Accounts",
                                   STGM_READWRITE | STGM_SHARE_EXCLUSIVE, true, true);
    }
    // Commits the accounts storage and the file, as the user profile does when it closes.
    void CloseAccounts() {
        m_accounts.reset();
        m_settings.reset();
    }

    TempDir m_dir;
    ScopedClockPin m_clock{7000};
    std::unique_ptr<CStorageManager> m_settings;
    std::unique_ptr<CStorageManager> m_accounts;
};

// An account with its general and server settings filled.
inline void Name(CMailBoxProfile& profile, const char* name) {
    profile.SetGeneralData(name, CString("Real ") + name, CString(name) + "@example.org", "reply@example.org",
                           "Org");
    profile.SetServerData("pop.example.org", "smtp.example.org", "POP3", "SMTP", "user", "secret", "out-user",
                          "out-secret");
}

inline CStringArray Strings(std::initializer_list<const char*> items) {
    CStringArray list;
    for (const char* item : items) list.Add(item);
    return list;
}

inline std::string Joined(const CStringArray& list) {
    std::string out;
    for (int i = 0; i < list.GetSize(); ++i) out += (i ? "," : "") + list[i].str();
    return out;
}

}  // namespace tavik::test
