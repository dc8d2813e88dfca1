// An account's rules: 30 of each kind, each with 5,000 processed identifiers, an ignore list of 50
// entries and 50 recipients or duplicates. Saved to a compound file and committed, enumerated back;
// against a plain write and read of the same stream bytes through CFile in the same run. Then saved to
// and enumerated from the registry. Then the host's hot loop: 10,000 messages x 90 rules of
// GetActiveEntry + SearchProcessedID + AddProcessedID, once with rules holding 10 identifiers and once
// with rules holding 50,000. Times are the best of three runs, in milliseconds; ratios are ours / plain
// (targets: 3 for storage, 1.5 between the hot loops), lower is better.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <functional>
#include <list>
#include <string>
#include <vector>

#include "library/LibraryMain.h"
#include "platform/CFile.h"
#include "platform/Kernel.h"
#include "platform/Registry.h"
#include "rules/CAutoResponderProfile.h"
#include "rules/CForwardMailProfile.h"
#include "rules/CSpamBlockProfile.h"

namespace fs = std::filesystem;

namespace {

constexpr int kRulesPerKind = 30;
constexpr int kIds = 5000;
constexpr int kEntries = 50;
constexpr int kRuns = 3;
constexpr DWORD kRuleMode = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;
const char kAccountKey[] = "Software\\Brannick\\Tavik Mail\\Bench Account";

struct Timing {
    double wallMs = 1e300;
    double cpuMs = 1e300;
    double firstWallMs = -1, firstCpuMs = -1;
    template <class F>
    void Take(F f) {
        std::clock_t c0 = std::clock();
        auto t0 = std::chrono::steady_clock::now();
        f();
        const double wall =
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
        const double cpu = 1000.0 * static_cast<double>(std::clock() - c0) / CLOCKS_PER_SEC;
        if (firstWallMs < 0) firstWallMs = wall, firstCpuMs = cpu;
        wallMs = std::min(wallMs, wall);
        cpuMs = std::min(cpuMs, cpu);
    }
};

void report(const char* name, const Timing& ours, const Timing& plain) {
    std::printf("bench %s %.1f ms\n", name, ours.wallMs);
    std::printf("bench %s_plain_reference %.1f ms\n", name, plain.wallMs);
    std::printf("bench %s ratio %.2f\n", name, ours.wallMs / plain.wallMs);
    std::printf("bench %s_cpu %.1f ms\n", name, ours.cpuMs);
    std::printf("bench %s_cpu_plain_reference %.1f ms\n", name, plain.cpuMs);
    std::printf("bench %s_cpu ratio %.2f\n", name, ours.cpuMs / plain.cpuMs);
}

struct RuleSet {
    std::list<CSpamBlockProfile> shields;
    std::list<CForwardMailProfile> redirectors;
    std::list<CAutoResponderProfile> responders;
};

template <class T>
void fillBase(T& rule, const char* kind, int index, int ids, DWORD& next) {
    char name[64];
    std::snprintf(name, sizeof name, "%s rule %d", kind, index);
    rule.SetFilterData(name, "Subject", "contains", "offer", "Move", "All Days", 0, 0, 0);
    DWORD on = 1;
    rule.SetActiveEntry(on);
    // Identifiers are CRC-32 values of UIDL strings: spread over 32 bits, distinct.
    for (int i = 0; i < ids; ++i) rule.AddProcessedID(2 * next++ * 2654435761u);
    CStringArray ignore;
    for (int i = 0; i < kEntries; ++i)
        ignore.Add(CString(("ignored" + std::to_string(i) + "@example.com").c_str()));
    rule.SetIgnoreList(ignore);
}

RuleSet makeRules(int ids) {
    DWORD next = 1;
    RuleSet set;
    for (int r = 0; r < kRulesPerKind; ++r) {
        CSpamBlockProfile shield;
        fillBase(shield, "Shield", r, ids, next);
        set.shields.push_back(shield);
        CForwardMailProfile redirector;
        fillBase(redirector, "Redirector", r, ids, next);
        CStringArray recipients;
        for (int i = 0; i < kEntries; ++i)
            recipients.Add(CString(("recipient" + std::to_string(i) + "@example.com").c_str()));
        redirector.SetRecipients(recipients);
        set.redirectors.push_back(redirector);
        CAutoResponderProfile responder;
        fillBase(responder, "Responder", r, ids, next);
        for (int i = 0; i < kEntries; ++i)
            responder.AddDuplicate(CString(("sender" + std::to_string(i) + "@example.com").c_str()));
        set.responders.push_back(responder);
    }
    return set;
}

int saveStorage(const std::string& path, RuleSet& set) {
    fs::remove(path);
    CStorageManager file(path.c_str(), true);
    for (auto& rule : set.shields) rule.SaveStorageData(file.GetStorage(), "Shields");
    for (auto& rule : set.redirectors) rule.SaveStorageData(file.GetStorage(), "Redirector");
    for (auto& rule : set.responders) rule.SaveStorageData(file.GetStorage(), "AutoResponder");
    file.Close();
    return FAILED(file.m_hResult) ? 1 : 0;
}

template <class T>
size_t enumContainer(CStorageManager& file, const char* container, size_t* ids) {
    CStorageManager box;
    box.OpenSubStorage(file.GetStorage(), container, kRuleMode, true, true);
    std::list<T> list;
    T::EnumStorage(box.GetStorage(), list, false);
    for (const T& rule : list) *ids += rule.GetProcessedIDCount();
    box.m_pStorage->Revert();
    return list.size();
}

int loadStorage(const std::string& path, int ids) {
    CStorageManager file(path.c_str(), true);
    size_t total = 0;
    size_t rules = enumContainer<CSpamBlockProfile>(file, "Shields", &total) +
                   enumContainer<CForwardMailProfile>(file, "Redirector", &total) +
                   enumContainer<CAutoResponderProfile>(file, "AutoResponder", &total);
    file.m_pStorage->Revert();
    if (rules != 3 * kRulesPerKind || total != size_t(3 * kRulesPerKind * ids)) {
        std::fprintf(stderr, "storage load: %zu rules, %zu identifiers\n", rules, total);
        return 1;
    }
    return 0;
}

// Every stream of the saved file, as the plain reference writes and reads it.
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

std::string kindKey(const char* kind) { return std::string(kAccountKey) + "\\" + kind; }

void saveRegistry(RuleSet& set) {
    for (auto& rule : set.shields) rule.SaveRegistryData(kindKey("Shields").c_str());
    for (auto& rule : set.redirectors) rule.SaveRegistryData(kindKey("Redirector").c_str());
    for (auto& rule : set.responders) rule.SaveRegistryData(kindKey("AutoResponder").c_str());
}

template <class T>
size_t enumKey(const char* kind, size_t* ids) {
    T walker;
    std::list<T> list;
    const std::string key = kindKey(kind);
    walker.OpenRegistryKey(HKEY_CURRENT_USER, key.c_str(), nullptr);
    walker.EnumRegistryKey(list, key.c_str());
    walker.Close();
    for (const T& rule : list) *ids += rule.GetProcessedIDCount();
    return list.size();
}

int loadRegistry() {
    size_t ids = 0;
    size_t rules = enumKey<CSpamBlockProfile>("Shields", &ids) +
                   enumKey<CForwardMailProfile>("Redirector", &ids) +
                   enumKey<CAutoResponderProfile>("AutoResponder", &ids);
    if (rules != 3 * kRulesPerKind || ids != size_t(3 * kRulesPerKind * kIds)) {
        std::fprintf(stderr, "registry load: %zu rules, %zu identifiers\n", rules, ids);
        return 1;
    }
    return 0;
}

// What a host does per message and rule during a check; new messages, so every search misses and adds.
size_t hotLoop(RuleSet& set, int messages) {
    std::vector<CBaseFilter*> rules;
    std::vector<std::function<DWORD()>> active;
    for (auto& r : set.shields) {
        rules.push_back(&r);
        active.push_back([&r] { return r.GetActiveEntry(); });
    }
    for (auto& r : set.redirectors) {
        rules.push_back(&r);
        active.push_back([&r] { return r.GetActiveEntry(); });
    }
    for (auto& r : set.responders) {
        rules.push_back(&r);
        active.push_back([&r] { return r.GetActiveEntry(); });
    }
    size_t handled = 0;
    for (int m = 0; m < messages; ++m) {
        const DWORD id = (2 * static_cast<DWORD>(m) + 1) * 2654435761u;  // odd: never a stored one
        for (size_t i = 0; i < rules.size(); ++i) {
            if (!active[i]()) continue;
            if (rules[i]->SearchProcessedID(id)) continue;
            rules[i]->AddProcessedID(id);
            ++handled;
        }
    }
    return handled;
}

}  // namespace

int main() {
    int status = 0;
    TavikLibraryAttach();
    const fs::path dir =
        fs::temp_directory_path() / ("tavik-bench-rules-" + std::to_string(GetCurrentProcessId()));
    fs::create_directories(dir);
    RegSetStorePath((dir / "registry.db").string().c_str());
    const std::string storePath = (dir / "user.tvs").string(), plainPath = (dir / "plain.bin").string();

    RuleSet set = makeRules(kIds);
    Timing save, load, plainWrite, plainRead, regSave, regLoad;
    std::vector<std::string> chunks;
    for (int run = 0; run < kRuns && status == 0; ++run) {
        save.Take([&] { status |= saveStorage(storePath, set); });
        load.Take([&] { status |= loadStorage(storePath, kIds); });
        if (chunks.empty()) {
            CStorageManager file(storePath.c_str(), true);
            collectStreams(file.GetStorage(), chunks);
            file.m_pStorage->Revert();
        }
        plainWrite.Take([&] { writePlain(plainPath, chunks); });
        plainRead.Take([&] {
            size_t expected = 0;
            for (const std::string& c : chunks) expected += c.size();
            if (readPlain(plainPath, chunks) != expected) status = 1;
        });
        regSave.Take([&] {
            saveRegistry(set);
            RegCloseStore();
        });
        regLoad.Take([&] { status |= loadRegistry(); });
    }
    size_t bytes = 0;
    for (const std::string& c : chunks) bytes += c.size();
    std::printf("bench rules_stream_bytes %.2f MB\n", static_cast<double>(bytes) / (1024.0 * 1024.0));
    std::printf("bench rules_file_size %.2f MB\n",
                static_cast<double>(fs::file_size(storePath)) / (1024.0 * 1024.0));
    report("rules_storage_save_90x5000", save, plainWrite);
    report("rules_storage_load_90x5000", load, plainRead);
    std::printf("bench rules_registry_save_90x5000 %.1f ms\n", regSave.wallMs);
    std::printf("bench rules_registry_load_90x5000 %.1f ms\n", regLoad.wallMs);
    std::printf("bench rules_registry_save_and_load %.1f ms\n", regSave.wallMs + regLoad.wallMs);
    // Processor time too: on a shared machine the wall time also counts the waits for a processor.
    std::printf("bench rules_registry_save_and_load_cpu %.1f ms\n", regSave.cpuMs + regLoad.cpuMs);
    // The first save writes every value into an empty store; later ones find the lists they wrote.
    std::printf("bench rules_registry_first_save_90x5000 %.1f ms\n", regSave.firstWallMs);
    std::printf("bench rules_registry_first_save_90x5000_cpu %.1f ms\n", regSave.firstCpuMs);
    std::printf("bench rules_registry_save_90x5000_cpu %.1f ms\n", regSave.cpuMs);
    std::printf("bench rules_registry_load_90x5000_cpu %.1f ms\n", regLoad.cpuMs);

    constexpr int kMessages = 10000;
    Timing small, large;
    for (int run = 0; run < kRuns && status == 0; ++run) {
        RuleSet few = makeRules(10), many = makeRules(50000);
        size_t a = 0, b = 0;
        small.Take([&] { a = hotLoop(few, kMessages); });
        large.Take([&] { b = hotLoop(many, kMessages); });
        if (a != size_t(kMessages) * 90 || b != a) {
            std::fprintf(stderr, "hot loop handled %zu and %zu\n", a, b);
            status = 1;
        }
    }
    const double steps = double(kMessages) * 90;
    std::printf("bench rules_hot_loop_10_ids %.1f ns/search\n", small.wallMs * 1e6 / steps);
    std::printf("bench rules_hot_loop_50000_ids %.1f ns/search\n", large.wallMs * 1e6 / steps);
    std::printf("bench rules_hot_loop_50000_vs_10 ratio %.2f\n", large.wallMs / small.wallMs);
    std::printf("bench rules_hot_loop_cpu_10_ids %.1f ns/search\n", small.cpuMs * 1e6 / steps);
    std::printf("bench rules_hot_loop_cpu_50000_ids %.1f ns/search\n", large.cpuMs * 1e6 / steps);
    std::printf("bench rules_hot_loop_cpu_50000_vs_10 ratio %.2f\n", large.cpuMs / small.cpuMs);

    RegCloseStore();
    RegSetStorePath(nullptr);
    fs::remove_all(dir);
    TavikLibraryDetach();
    return status;
}
