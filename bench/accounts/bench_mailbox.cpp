// One large account: 10,000 cached messages (headers only), 30 rules of each kind with 1,000 processed
// identifiers each, 2,000 friends, 2,000 spammers and 500 contacts.
//   add       AddMessage of all 10,000, against saving the same 10,000 records once into a message file
//   save      a full SaveStorageData (messages too) and SaveRegistryData, with the settings file's commit
//   load      a fresh EnumStorage of the accounts storage, messages and progress included (a window on
//             its own thread receives the notifications), and once more without progress
//   classify  IsMsgFriendly and IsMsgSpammer for every message (target: under 50 ms)
// against a plain write (and read) of the same bytes through CFile in the same run: every stream the save
// leaves in the settings file and the message file, and every registry value name and datum it writes.
// Times are the best of three runs in milliseconds; ratios are ours / reference, lower is better (target 3).
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "accounts/CMailBoxProfile.h"
#include "contacts/CAddressEntry.h"
#include "library/LibraryMain.h"
#include "messages/CMessageList.h"
#include "messages/CStorageManager.h"
#include "platform/CFile.h"
#include "platform/Clock.h"
#include "platform/FileSystem.h"
#include "platform/Kernel.h"
#include "platform/Registry.h"
#include "platform/WindowMessages.h"

namespace fs = std::filesystem;

namespace {

constexpr int kMessages = 10000;
constexpr int kRulesPerKind = 30;
constexpr int kProcessed = 1000;
constexpr int kListSize = 2000;
constexpr int kContacts = 500;
constexpr int kRuns = 3;
constexpr DWORD kMode = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;
constexpr UINT kRecordMessage = WM_USER + 2;
constexpr UINT kEndMessage = WM_USER + 5;
const char* const kParentKey = "Software\\Brannick\\Tavik Mail\\Accounts";

double msSince(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
}

struct Timing {
    double wallMs = 1e300;
    double cpuMs = 1e300;
    template <class F>
    void Take(F f) {
        std::clock_t c0 = std::clock();
        auto t0 = std::chrono::steady_clock::now();
        f();
        wallMs = std::min(wallMs, msSince(t0));
        cpuMs = std::min(cpuMs, 1000.0 * static_cast<double>(std::clock() - c0) / CLOCKS_PER_SEC);
    }
};

void report(const char* name, const Timing& ours, const Timing& reference, const char* referenceName) {
    std::printf("bench %s %.1f ms\n", name, ours.wallMs);
    std::printf("bench %s_%s %.1f ms\n", name, referenceName, reference.wallMs);
    std::printf("bench %s ratio %.2f\n", name, ours.wallMs / reference.wallMs);
    std::printf("bench %s_cpu %.1f ms\n", name, ours.cpuMs);
    std::printf("bench %s_cpu ratio %.2f\n", name, ours.cpuMs / reference.cpuMs);
}

// The headers of the message record benchmark; one sender in five is a friend, one in seven a spammer.
std::string headerFor(int i) {
    char text[320];
    const char* domain = i % 5 == 0 ? "friends.example" : i % 7 == 0 ? "offers.example" : "example.org";
    std::snprintf(text, sizeof text,
                  "From: Sender %d <sender%d@%s>\r\nTo: me@example.org\r\nSubject: Message number %d\r\n"
                  "Message-ID: <%d@bench.example.org>\r\nDate: Mon, 2 Mar 2026 10:00:00 +0000\r\n",
                  i, i, domain, i, i);
    return text;
}

CStringArray entries(const char* prefix, const char* last) {
    CStringArray list;
    for (int i = 0; i < kListSize - 1; ++i) {
        CString entry;
        entry.Format("%s%d@somewhere%d.example", prefix, i, i % 97);
        list.Add(entry);
    }
    list.Add(last);
    return list;
}

template <class Kind>
void addRules(std::list<Kind>& rules, const char* kind) {
    for (int r = 0; r < kRulesPerKind; ++r) {
        rules.emplace_back();
        Kind& rule = rules.back();
        rule.ResetValues();
        CString name;
        name.Format("%s rule %d", kind, r);
        rule.SetFilterData(name, "Subject", "contains", "offer", "Delete", "All Days", 0, 0, 0);
        for (int k = 0; k < kProcessed; ++k) rule.AddProcessedID(static_cast<DWORD>(r * 100000 + k + 1));
    }
}

void fillAccount(CMailBoxProfile& profile) {
    profile.SetGeneralData("Bench", "Bench Mark", "bench@example.org", "reply@example.org", "Bench Org");
    profile.SetServerData("pop.example.org", "smtp.example.org", "POP3", "SMTP", "user", "secret", "", "");
    profile.SetProfileUserName("bench");
    profile.SetFriendList(entries("friend", "friends.example"));
    profile.SetSpamList(entries("spammer", "offers.example"));
    addRules(profile.GetAutoResponders(), "Responder");
    addRules(profile.GetRedirectors(), "Redirector");
    addRules(profile.GetSpamShields(), "Shield");
}

void addContacts(CMailBoxProfile& profile, ScopedClockPin& clock) {
    for (int c = 0; c < kContacts; ++c) {
        clock.AdvanceTicks(1);  // contact ids come from the tick count
        auto* contact = new CAddressEntry;
        CString text;
        text.Format("Company %d", c);
        contact->SetCompany(text);
        text.Format("contact%d@example.org", c);
        contact->SetEmailAddress(EMAIL_PRIMARY, text);
        text.Format("+1 555 %04d", c);
        contact->SetPhoneNumber(PHONE_BUSINESS, text);
        profile.GetAddressList().push_back(contact);
    }
}

std::vector<CMessageList*> makeRecords(const std::vector<std::string>& headers) {
    std::vector<CMessageList*> records;
    records.reserve(headers.size());
    for (int i = 0; i < kMessages; ++i) {
        auto* record = new CMessageList;
        record->SetData(headers[i].c_str(), static_cast<DWORD>(i + 1), 4096, MsgReceived);
        records.push_back(record);
    }
    return records;
}

// The host's window: counts the notifications on its own thread, as a user interface would.
struct ProgressWindow {
    std::atomic<HWND> hwnd{nullptr};
    std::atomic<long> records{0};
    std::atomic<long> ends{0};
    std::thread thread;

    static LRESULT proc(HWND h, UINT message, WPARAM, LPARAM) {
        auto self = reinterpret_cast<ProgressWindow*>(GetWindowLongPtr(h, GWLP_USERDATA));
        if (message == kRecordMessage) self->records++;
        if (message == kEndMessage) self->ends++;
        if (message == WM_CLOSE) PostQuitMessage(0);
        return 0;
    }
    void start() {
        thread = std::thread([this] {
            HWND h = CreateMessageWindow(&ProgressWindow::proc, this);
            hwnd = h;
            MSG msg;
            while (GetMessage(&msg, nullptr, 0, 0) > 0) DispatchMessage(&msg);
            DestroyWindow(h);
        });
        while (!hwnd.load()) std::this_thread::yield();
    }
    void stop() {
        PostMessage(hwnd, WM_CLOSE, 0, 0);
        thread.join();
    }
};

// Every stream under storage, each one chunk.
void collectStreams(IStorage* storage, std::vector<std::string>& chunks) {
    IEnumSTATSTG* elements = nullptr;
    storage->EnumElements(0, nullptr, 0, &elements);
    std::vector<std::pair<CString, DWORD>> names;
    STATSTG stat;
    ULONG fetched = 0;
    while (elements->Next(1, &stat, &fetched) == S_OK && fetched == 1) {
        names.emplace_back(CString(stat.pwcsName), stat.type);
        CoTaskMemFree(stat.pwcsName);
    }
    elements->Release();
    CStorageManager here(storage);
    for (const auto& [name, type] : names) {
        if (type == STGTY_STREAM) {
            std::string bytes;
            here.ReadBytes(name, bytes);
            chunks.push_back(bytes);
        } else {
            CStorageManager sub;
            sub.OpenSubStorage(storage, name, STGM_READ | STGM_SHARE_EXCLUSIVE, false, false);
            collectStreams(sub.GetStorage(), chunks);
        }
    }
    here.m_pStorage->Revert();
}

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

void writePlain(const std::string& path, const std::vector<std::string>& chunks) {
    CFile plain(path.c_str(), CFile::modeCreate | CFile::modeWrite);
    for (const std::string& chunk : chunks) plain.Write(chunk.data(), static_cast<UINT>(chunk.size()));
    plain.Flush();
    plain.Close();
}

size_t readPlain(const std::string& path, const std::vector<std::string>& chunks) {
    CFile plain(path.c_str(), CFile::modeRead);
    std::vector<char> buffer;
    size_t total = 0;
    for (const std::string& chunk : chunks) {
        buffer.resize(chunk.size());
        total += plain.Read(buffer.data(), static_cast<UINT>(chunk.size()));
    }
    return total;
}

struct Settings {
    std::unique_ptr<CStorageManager> file;
    std::unique_ptr<CStorageManager> accounts;
    void Open(const std::string& path) {
        file = std::make_unique<CStorageManager>(path.c_str(), true);
        accounts = std::make_unique<CStorageManager>();
        accounts->OpenSubStorage(file->GetStorage(), "Accounts", kMode, true, true);
    }
    // Commits both, as the user profile does when it closes the file.
    HRESULT Close() {
        accounts->Close();
        file->Close();
        HRESULT hr = FAILED(accounts->m_hResult) ? accounts->m_hResult : file->m_hResult;
        accounts.reset();
        file.reset();
        return hr;
    }
};

void release(CMailBoxProfile* profile) {
    profile->UnloadMessages();
    delete profile;
}

// A fresh enumeration of the accounts storage; true when the whole account came back.
bool loadAccount(Settings& settings, const std::string& path, std::list<CMailBoxProfile*>& list,
                 CMessageList::_tagLoadProgressData* progress, Timing& timing) {
    timing.Take([&] {
        settings.Open(path);
        CMailBoxProfile::EnumStorage(settings.accounts->GetStorage(), list, "bench", progress, true,
                                     CMailBoxProfile::READ_FULL);
    });
    if (list.size() == 1 && list.front()->GetMessageList().size() == static_cast<size_t>(kMessages) &&
        list.front()->GetContactCount() == kContacts && list.front()->GetShieldCount() == kRulesPerKind)
        return true;
    std::fprintf(stderr, "loaded %zu accounts\n", list.size());
    return false;
}

}  // namespace

int main() {
    TavikLibraryAttach();
    const fs::path dir =
        fs::temp_directory_path() / ("tavik-bench-mailbox-" + std::to_string(GetCurrentProcessId()));
    fs::create_directories(dir);
    std::vector<std::string> headers;
    for (int i = 0; i < kMessages; ++i) headers.push_back(headerFor(i));

    Timing add, recordSave, save, saveStorage, saveRegistry, load, quietLoad, classify, plainWrite, plainRead,
        registryLoad;
    std::vector<std::string> storageChunks, registryChunks;
    int status = 0;
    DWORD ticks = 1000;
    for (int run = 0; run < kRuns && status == 0; ++run) {
        const fs::path runDir = dir / std::to_string(run);
        fs::create_directories(runDir);
        RegSetStorePath((runDir / "registry.db").string().c_str());
        TavikSetApplicationDirectory(runDir.string().c_str());
        const std::string settingsPath = (runDir / "bench.tvs").string();
        ScopedClockPin clock(ticks);

        // One save of the records alone: each saved into a message file of their own.
        {
            std::vector<CMessageList*> records = makeRecords(headers);
            CStorageManager file((runDir / "records.tvd").string().c_str(), true);
            recordSave.Take([&] {
                for (CMessageList* record : records) {
                    clock.AdvanceTicks(1);  // storage names come from the tick count
                    record->SaveMessage(file.GetStorage());
                }
            });
            for (CMessageList* record : records) delete record;
            file.m_pStorage->Revert();
        }

        auto* profile = new CMailBoxProfile;
        fillAccount(*profile);
        addContacts(*profile, clock);
        Settings settings;
        settings.Open(settingsPath);
        profile->InitializeStorages(settings.accounts->GetStorage(), "Bench");
        std::vector<CMessageList*> records = makeRecords(headers);
        add.Take([&] {
            for (CMessageList* record : records) {
                clock.AdvanceTicks(1);
                profile->AddMessage(record, true);
            }
        });
        if (profile->GetMessageList().size() != static_cast<size_t>(kMessages)) {
            std::fprintf(stderr, "added %zu messages\n", profile->GetMessageList().size());
            status = 1;
        }
        const std::string dataFile = profile->GetDataFile().str();

        HRESULT committed = S_OK;
        save.Take([&] {
            saveRegistry.Take([&] {
                profile->SaveRegistryData(kParentKey);
                // Closing the store commits what is left and waits for the disk.
                RegCloseStore();
            });
            saveStorage.Take([&] {
                profile->SaveStorageData(settings.accounts->GetStorage(), nullptr, true);
                release(profile);
                committed = settings.Close();
            });
        });
        if (FAILED(committed)) {
            std::fprintf(stderr, "commit failed: 0x%08x\n", static_cast<unsigned>(committed));
            status = 1;
        }

        // Without progress first: that load is released again, and the one with progress is kept.
        std::list<CMailBoxProfile*> list;
        if (!loadAccount(settings, settingsPath, list, nullptr, quietLoad)) {
            status = 1;
            break;
        }
        for (CMailBoxProfile* p : list) release(p);
        list.clear();
        settings.Close();
        ProgressWindow window;
        window.start();
        CMessageList::_tagLoadProgressData progress{
            window.hwnd, WM_USER + 1, kRecordMessage, WM_USER + 3, WM_USER + 4, kEndMessage, 0};
        const bool whole = loadAccount(settings, settingsPath, list, &progress, load);
        window.stop();
        if (!whole || window.records != kMessages || window.ends != 1) {
            std::fprintf(stderr, "%ld record notices, %ld end notices\n", window.records.load(),
                         window.ends.load());
            status = 1;
            break;
        }
        CMailBoxProfile& loaded = *list.front();

        int friends = 0, spammers = 0;
        classify.Take([&] {
            friends = spammers = 0;
            // A changed list is matched afresh: the first test after it pays for the matcher.
            CStringArray list;
            loaded.GetFriendList(list);
            loaded.SetFriendList(list);
            loaded.GetSpamList(list);
            loaded.SetSpamList(list);
            std::list<CMessageList*>& messages = loaded.GetMessageList();
            for (auto it = messages.begin(); it != messages.end(); ++it) {
                if (loaded.IsMsgFriendly(it)) ++friends;
                if (loaded.IsMsgSpammer(it)) ++spammers;
            }
        });
        if (friends != kMessages / 5 || spammers != kMessages / 7 - kMessages / 35) {
            std::fprintf(stderr, "classified %d friends, %d spammers\n", friends, spammers);
            status = 1;
        }

        registryLoad.Take([&] {
            CMailBoxProfile walker;
            std::list<CMailBoxProfile*> fromRegistry;
            walker.OpenRegistryKey(HKEY_CURRENT_USER, kParentKey, nullptr);
            walker.EnumRegistryKey(fromRegistry, kParentKey, "bench", true);
            walker.Close();
            if (fromRegistry.size() != 1 || fromRegistry.front()->GetShieldCount() != kRulesPerKind)
                status = 1;
            for (CMailBoxProfile* p : fromRegistry) release(p);
        });

        for (CMailBoxProfile* p : list) release(p);
        list.clear();
        settings.Close();
        if (storageChunks.empty()) {
            for (const std::string& path : {settingsPath, dataFile}) {
                CStorageManager file(path.c_str(), true);
                collectStreams(file.GetStorage(), storageChunks);
                file.m_pStorage->Revert();
            }
            collectValues(std::string(kParentKey) + "\\Bench", registryChunks);
        }

        const std::string plainPath = (runDir / "plain.bin").string();
        std::vector<std::string> everything = storageChunks;
        everything.insert(everything.end(), registryChunks.begin(), registryChunks.end());
        plainWrite.Take([&] { writePlain(plainPath, everything); });
        plainRead.Take([&] {
            size_t expected = 0;
            for (const std::string& chunk : storageChunks) expected += chunk.size();
            if (readPlain(plainPath, storageChunks) != expected) status = 1;
        });

        RegCloseStore();
        RegSetStorePath(nullptr);
        TavikSetApplicationDirectory(nullptr);
        ticks += 100000;
    }
    fs::remove_all(dir);
    if (status != 0) return status;

    size_t storageBytes = 0, registryBytes = 0;
    for (const std::string& chunk : storageChunks) storageBytes += chunk.size();
    for (const std::string& chunk : registryChunks) registryBytes += chunk.size();
    std::printf("bench mailbox_stored_streams %zu count\n", storageChunks.size());
    std::printf("bench mailbox_stored_bytes %zu bytes\n", storageBytes);
    std::printf("bench mailbox_registry_values %zu count\n", registryChunks.size());
    std::printf("bench mailbox_registry_bytes %zu bytes\n", registryBytes);
    report("mailbox_add_10000", add, recordSave, "record_save");
    report("mailbox_save", save, plainWrite, "plain_write");
    std::printf("bench mailbox_save_storage %.1f ms\n", saveStorage.wallMs);
    std::printf("bench mailbox_save_registry %.1f ms\n", saveRegistry.wallMs);
    report("mailbox_load", load, plainRead, "plain_read");
    report("mailbox_load_without_progress", quietLoad, plainRead, "plain_read");
    std::printf("bench mailbox_registry_load %.1f ms\n", registryLoad.wallMs);
    std::printf("bench mailbox_classify_10000 %.1f ms\n", classify.wallMs);
    std::printf("bench mailbox_classify_10000_cpu %.1f ms\n", classify.cpuMs);
    return 0;
}
