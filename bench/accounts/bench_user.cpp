// A large user signing in and saving: 20 accounts, each with 10,000 cached messages and 30 rules of each
// kind holding 1,000 processed identifiers.
//   activate  ActivateProfile with messages, the progress notices going to a window on its own thread
//   save      the full save (SaveRegistryData with storage and messages), then DeactivateProfile
// against a plain read and a plain write (flushed to disk) of the same bytes in the same run: the
// settings file and the message files, each whole, and every registry value name and datum of the user
// as one more. Peak memory is
// the resident set's growth over activation and save, against the size of those files.
// Ratios are ours / reference, lower is better (targets: 3). TAVIK_BENCH_ACCOUNTS and
// TAVIK_BENCH_MESSAGES shrink the user for a quick run.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <list>
#include <string>
#include <thread>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

#include "accounts/CUserProfile.h"
#include "library/LibraryMain.h"
#include "messages/CMessageList.h"
#include "messages/CStorageManager.h"
#include "platform/CFile.h"
#include "platform/Clock.h"
#include "platform/FileSystem.h"
#include "platform/Registry.h"
#include "platform/WindowMessages.h"

namespace fs = std::filesystem;

namespace {

constexpr int kRulesPerKind = 30;
constexpr int kProcessed = 1000;
constexpr UINT kStatusMessage = WM_USER + 1;
constexpr UINT kRecordMessage = WM_USER + 2;
constexpr UINT kStartMessage = WM_USER + 3;
constexpr UINT kEndMessage = WM_USER + 5;
const char* const kUserKey = "Software\\Brannick\\Tavik Mail\\Users\\bench";

int fromEnvironment(const char* name, int fallback) {
    const char* text = std::getenv(name);
    return text && std::atoi(text) > 0 ? std::atoi(text) : fallback;
}

struct Timing {
    double wallMs = 0;
    double cpuMs = 0;
    template <class F>
    void Take(F f) {
        const std::clock_t c0 = std::clock();
        const auto t0 = std::chrono::steady_clock::now();
        f();
        wallMs = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
        cpuMs = 1000.0 * static_cast<double>(std::clock() - c0) / CLOCKS_PER_SEC;
    }
};

void report(const char* name, const Timing& ours, const Timing& plain, const char* plainName) {
    std::printf("bench %s %.1f ms\n", name, ours.wallMs);
    std::printf("bench %s %.1f ms\n", plainName, plain.wallMs);
    std::printf("bench %s ratio %.2f\n", name, ours.wallMs / plain.wallMs);
    std::printf("bench %s_cpu ratio %.2f\n", name, ours.cpuMs / std::max(plain.cpuMs, 0.1));
}

// Resident set now and at its peak, in bytes; the peak can be reset (clear_refs) so that a phase is
// measured on its own.
long statusKb(const char* field) {
    std::ifstream status("/proc/self/status");
    std::string line;
    const std::string prefix = std::string(field) + ":";
    while (std::getline(status, line))
        if (line.rfind(prefix, 0) == 0) return std::atol(line.c_str() + prefix.size());
    return 0;
}

bool resetPeak() {
    std::ofstream clear("/proc/self/clear_refs");
    clear << "5";
    return static_cast<bool>(clear);
}

std::string header(int account, int i) {
    char text[320];
    std::snprintf(
        text, sizeof text,
        "From: Sender %d <sender%d@example%d.org>\r\nTo: me@example.org\r\nSubject: Message %d of "
        "account %d\r\nMessage-ID: <%d.%d@bench.example.org>\r\nDate: Mon, 2 Mar 2026 10:00:00 +0000\r\n",
        i, i, i % 50, i, account, account, i);
    return text;
}

template <class Kind>
void addRules(std::list<Kind>& rules, const char* kind) {
    for (int r = 0; r < kRulesPerKind; ++r) {
        rules.emplace_back();
        Kind& rule = rules.back();
        CString name;
        name.Format("%s %d", kind, r);
        rule.SetFilterData(name, "Subject", "contains", "offer", "Delete", "All Days", 0, 0, 0);
        for (int k = 0; k < kProcessed; ++k) rule.AddProcessedID(static_cast<DWORD>(r * 100000 + k + 1));
    }
}

// The host's window: counts notices on its own thread, as a user interface would.
struct ProgressWindow {
    std::atomic<HWND> hwnd{nullptr};
    std::atomic<long> records{0};
    std::atomic<long> ends{0};
    std::atomic<long> statuses{0};
    std::thread thread;

    static LRESULT Proc(HWND h, UINT message, WPARAM, LPARAM) {
        auto* self = reinterpret_cast<ProgressWindow*>(GetWindowLongPtr(h, GWLP_USERDATA));
        if (message == kRecordMessage) ++self->records;
        if (message == kEndMessage) ++self->ends;
        if (message == kStatusMessage) ++self->statuses;
        if (message == WM_CLOSE) PostQuitMessage(0);
        return 0;
    }
    void Start() {
        thread = std::thread([this] {
            HWND h = CreateMessageWindow(&ProgressWindow::Proc, this);
            hwnd = h;
            MSG msg;
            while (GetMessage(&msg, nullptr, 0, 0) > 0) DispatchMessage(&msg);
            DestroyWindow(h);
        });
        while (!hwnd.load()) std::this_thread::yield();
    }
    void Stop() {
        PostMessage(hwnd, WM_CLOSE, 0, 0);
        thread.join();
    }
    CMessageList::_tagLoadProgressData Progress() {
        return {hwnd, kStatusMessage, kRecordMessage, kStartMessage, WM_USER + 4, kEndMessage, 0};
    }
};

// Every value under key (name and datum), each one chunk.
void collectValues(const std::string& key, std::vector<std::string>& chunks) {
    HKEY handle = nullptr;
    if (RegOpenKeyEx(HKEY_CURRENT_USER, key.c_str(), 0, KEY_READ, &handle) != ERROR_SUCCESS) return;
    char name[1000];
    BYTE data[1000];
    for (DWORD i = 0;; ++i) {
        DWORD nameSize = sizeof name, dataSize = sizeof data;
        if (RegEnumValue(handle, i, name, &nameSize, nullptr, nullptr, data, &dataSize) != ERROR_SUCCESS)
            break;
        chunks.push_back(std::string(name, nameSize) + std::string(reinterpret_cast<char*>(data), dataSize));
    }
    std::vector<std::string> children;
    for (DWORD i = 0;; ++i) {
        DWORD size = sizeof name;
        if (RegEnumKeyEx(handle, i, name, &size, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS) break;
        children.emplace_back(name, size);
    }
    RegCloseKey(handle);
    for (const std::string& child : children) collectValues(key + "\\" + child, chunks);
}

std::string wholeFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace

int main() {
    TavikLibraryAttach();
    const int accounts = fromEnvironment("TAVIK_BENCH_ACCOUNTS", 20);
    const int messages = fromEnvironment("TAVIK_BENCH_MESSAGES", 10000);
    const fs::path dir = fs::temp_directory_path() / ("tavik-bench-user-" + std::to_string(::getpid()));
    fs::create_directories(dir);
    RegSetStorePath((dir / "registry.db").string().c_str());
    TavikSetApplicationDirectory(dir.string().c_str());
    int status = 0;

    // The user as a host would have made it over time, made by a child process so that the memory it
    // took is not counted below.
    const auto setupStart = std::chrono::steady_clock::now();
    const pid_t maker = fork();
    if (maker == 0) {
        ScopedClockPin clock(1000);
        CUserProfile user;
        user.CreateUser("bench");
        user.ActivateProfile(nullptr, false);
        IStorage* storage = user.GetAccountsStoragePtr()->GetStorage();
        for (int a = 0; a < accounts; ++a) {
            clock.AdvanceTicks(17);  // a Signature and a storage name of its own
            auto* profile = new CMailBoxProfile;
            CString name;
            name.Format("Account %02d", a);
            profile->SetGeneralData(name, "Bench Mark", "bench@example.org", "", "");
            profile->SetServerData("pop.example.org", "smtp.example.org", "POP3", "SMTP", "user", "secret",
                                   "", "");
            addRules(profile->GetAutoResponders(), "Responder");
            addRules(profile->GetRedirectors(), "Redirector");
            addRules(profile->GetSpamShields(), "Shield");
            user.AddMailBox(profile);
            profile->InitializeStorages(storage, name);
            // Joined to the list and written by the save below, as a check would leave them.
            for (int i = 0; i < messages; ++i) {
                clock.AdvanceTicks(1);  // storage names come from the tick count
                auto* record = new CMessageList;
                record->SetData(header(a, i).c_str(), static_cast<DWORD>(i + 1), 4096, MsgReceived);
                profile->GetMessageList().push_back(record);
            }
        }
        user.SaveRegistryData(CUserProfile::GetUserKeyResID(), false, nullptr, true, true);
        user.DeactivateProfile();
        RegCloseStore();
        std::_Exit(0);
    }
    int made = -1;
    if (maker < 0 || waitpid(maker, &made, 0) != maker || !WIFEXITED(made) || WEXITSTATUS(made) != 0) {
        std::fprintf(stderr, "bench_user: the user could not be made\n");
        return 1;
    }
    const double setupSeconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - setupStart).count();

    std::vector<std::string> files;
    for (const fs::directory_entry& entry : fs::directory_iterator(dir))
        if (entry.path().extension() == ".tvs" || entry.path().extension() == ".tvd")
            files.push_back(entry.path().string());
    std::sort(files.begin(), files.end());
    std::uintmax_t cachedBytes = 0;
    for (const std::string& file : files) cachedBytes += fs::file_size(file);

    // Activation, then the full save and sign-out.
    const long baseKb = statusKb("VmRSS");
    const bool peakReset = resetPeak();
    Timing activate, save;
    ProgressWindow window;
    window.Start();
    auto progress = window.Progress();
    // The registry's share of activation, measured apart: the same walk over the accounts' keys.
    Timing activateRegistry;
    activateRegistry.Take([&] {
        std::list<CMailBoxProfile*> list;
        CMailBoxProfile walker;
        const CString accountsKey = CString(kUserKey) + "\\Accounts";
        walker.OpenRegistryKey(HKEY_CURRENT_USER, accountsKey, nullptr);
        walker.EnumRegistryKey(list, accountsKey, "bench", true);
        walker.Close();
        for (CMailBoxProfile* profile : list) delete profile;
    });
    CUserProfile user;
    activate.Take([&] {
        user.LoadRegistryData(kUserKey);
        user.ActivateProfile(&progress, true);
    });
    size_t loaded = 0;
    for (CMailBoxProfile* profile : user.GetProfileList()) loaded += profile->GetMessageList().size();
    const size_t rules = user.GetProfileList().empty() ? 0 : user.GetProfileList().front()->GetShieldCount();
    // The full save in its two halves, the same calls SaveRegistryData(..., saveStorage true) makes.
    Timing saveRegistry, saveStorage;
    save.Take([&] {
        saveRegistry.Take([&] {
            user.SaveRegistryData(CUserProfile::GetUserKeyResID(), false, &progress, false, true);
            RegCloseStore();
        });
        saveStorage.Take([&] {
            user.SaveStorageData(user.GetSettingsFile(), false, &progress, true);
            user.DeactivateProfile();
        });
    });
    const long peakKb = statusKb("VmHWM");
    window.Stop();
    const size_t expected = static_cast<size_t>(accounts) * messages;
    if (user.GetProfileList().size() != 0 || loaded != expected || rules != kRulesPerKind ||
        window.records < static_cast<long>(expected) || window.ends != accounts) {
        std::fprintf(stderr,
                     "bench_user: loaded %zu of %zu messages, %zu shields, %ld record and %ld end notices\n",
                     loaded, expected, rules, window.records.load(), window.ends.load());
        status = 1;
    }

    // The same bytes, plainly: the files whole, and the user's registry values.
    std::vector<std::string> chunks, values;
    for (const std::string& file : files) chunks.push_back(wholeFile(file));
    collectValues(kUserKey, values);
    RegCloseStore();
    chunks.emplace_back();
    for (const std::string& value : values) chunks.back() += value;
    Timing plainWrite, plainRead;
    const std::string plainPath = (dir / "plain.bin").string();
    plainWrite.Take([&] {
        CFile plain(plainPath.c_str(), CFile::modeCreate | CFile::modeWrite);
        for (const std::string& chunk : chunks) plain.Write(chunk.data(), static_cast<UINT>(chunk.size()));
        plain.Flush();
        plain.Close();
    });
    size_t readBytes = 0;
    plainRead.Take([&] {
        CFile plain(plainPath.c_str(), CFile::modeRead);
        std::vector<char> buffer;
        for (const std::string& chunk : chunks) {
            buffer.resize(chunk.size());
            readBytes += plain.Read(buffer.data(), static_cast<UINT>(chunk.size()));
        }
    });
    size_t plainBytes = 0;
    for (const std::string& chunk : chunks) plainBytes += chunk.size();
    TavikSetApplicationDirectory(nullptr);
    RegSetStorePath(nullptr);
    fs::remove_all(dir);

    std::printf("bench user_setup %.1f s\n", setupSeconds);
    std::printf("bench user_cached_data %.1f MB\n", static_cast<double>(cachedBytes) / 1e6);
    std::printf("bench user_plain_bytes %.1f MB\n", static_cast<double>(plainBytes) / 1e6);
    report("user_activate", activate, plainRead, "user_activate_plain_read");
    report("user_save", save, plainWrite, "user_save_plain_write");
    std::printf("bench user_activate_registry_part %.1f ms\n", activateRegistry.wallMs);
    std::printf("bench user_save_registry_part %.1f ms\n", saveRegistry.wallMs);
    std::printf("bench user_save_storage_part %.1f ms\n", saveStorage.wallMs);
    if (peakReset) {
        const double grownMb = static_cast<double>(peakKb - baseKb) / 1e3;
        std::printf("bench user_peak_memory_growth %.1f MB\n", grownMb);
        std::printf("bench user_peak_memory_vs_cached_data ratio %.2f\n",
                    grownMb * 1e6 / static_cast<double>(cachedBytes));
    }
    if (readBytes != plainBytes) status = 1;
    return status;
}
