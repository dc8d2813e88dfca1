// A large user: 20 accounts x 30 rules, each rule with a "Processed" list of 1,000 identifiers that a
// save deletes and writes again. Reported: the save and the read-back through CRegistryManager, and the
// same number of rows inserted straight into SQLite in one transaction (the reference).
// Ratios are ours divided by the reference: lower is better.
#include <sqlite3.h>

#include <unistd.h>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <list>
#include <string>

#include "accounts/CRegistryManager.h"
#include "platform/registry/RegistryStore.h"

namespace {

constexpr int kAccounts = 20;
constexpr int kRules = 30;
constexpr int kProcessed = 1000;

// Processor time of this process: on a shared machine it shows the work done, whatever the waiting.
double CpuSeconds() {
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

double Seconds(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

std::string RuleKey(int account, int rule) {
    char key[160];
    std::snprintf(key, sizeof key, "Software\\Brannick\\Tavik Mail\\Accounts\\Account %d\\Shields\\Rule %d",
                  account, rule);
    return key;
}

void SetText(HKEY key, const char* name, const char* text) {
    RegSetValueEx(key, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(text),
                  static_cast<DWORD>(std::strlen(text) + 1));
}

// What a save of the user writes: the account values, then per rule its values and its lists, each list
// key deleted and created again.
void SaveUser(int generation) {
    for (int a = 0; a < kAccounts; ++a) {
        CRegistryManager account;
        char key[128];
        std::snprintf(key, sizeof key, "Software\\Brannick\\Tavik Mail\\Accounts\\Account %d", a);
        account.OpenRegistryKey(HKEY_CURRENT_USER, key, nullptr);
        for (int v = 0; v < 20; ++v)
            SetText(account.GetKeyHandle(), ("Setting " + std::to_string(v)).c_str(), "value");
        account.Close();
        for (int r = 0; r < kRules; ++r) {
            std::string rule = RuleKey(a, r);
            CRegistryManager manager;
            manager.OpenRegistryKey(HKEY_CURRENT_USER, rule.c_str(), nullptr);
            for (int v = 0; v < 15; ++v)
                SetText(manager.GetKeyHandle(), ("Field " + std::to_string(v)).c_str(), "text");
            manager.Close();
            for (const char* listName : {"Processed", "Ignore"}) {
                std::string list = rule + "\\" + listName;
                manager.OpenRegistryKey(HKEY_CURRENT_USER, list.c_str(), nullptr);
                manager.DeleteKey("");
                manager.Close();
                manager.OpenRegistryKey(HKEY_CURRENT_USER, list.c_str(), nullptr);
                if (listName[0] == 'P') {
                    std::list<DWORD> ids;
                    for (int i = 0; i < kProcessed; ++i)
                        ids.push_back(static_cast<DWORD>(generation * 7919 + i));
                    manager.SetAnonDwordValues(ids);
                } else {
                    std::list<CString> ignore{"a@example.com", "b@example.com"};
                    manager.SetAnonStringValues(ignore);
                }
                manager.Close();
            }
        }
    }
}

size_t ReadUser() {
    size_t total = 0;
    for (int a = 0; a < kAccounts; ++a)
        for (int r = 0; r < kRules; ++r) {
            CRegistryManager manager;
            manager.OpenRegistryKey(HKEY_CURRENT_USER, (RuleKey(a, r) + "\\Processed").c_str(), nullptr);
            std::list<DWORD> ids;
            manager.GetAnonDwordValues(ids);
            total += ids.size();
            manager.Close();
        }
    return total;
}

double PlainSqlite(const std::string& path, size_t rows) {
    sqlite3* db = nullptr;
    sqlite3_open(path.c_str(), &db);
    sqlite3_exec(db,
                 "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;"
                 "CREATE TABLE vals(key INTEGER, name BLOB, type INTEGER, data BLOB);",
                 nullptr, nullptr, nullptr);
    auto start = std::chrono::steady_clock::now();
    sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr);
    sqlite3_stmt* insert = nullptr;
    sqlite3_prepare_v2(db, "INSERT INTO vals VALUES(?1, ?2, 4, ?3)", -1, &insert, nullptr);
    for (size_t i = 0; i < rows; ++i) {
        std::string name = "Value" + std::to_string(i % kProcessed);
        DWORD value = static_cast<DWORD>(i);
        sqlite3_bind_int64(insert, 1, static_cast<sqlite3_int64>(i / kProcessed));
        sqlite3_bind_blob(insert, 2, name.data(), static_cast<int>(name.size()), SQLITE_STATIC);
        sqlite3_bind_blob(insert, 3, &value, 4, SQLITE_STATIC);
        sqlite3_step(insert);
        sqlite3_reset(insert);
    }
    sqlite3_finalize(insert);
    sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
    double seconds = Seconds(start);
    sqlite3_close(db);
    return seconds;
}

}  // namespace

int main() {
    std::string dir =
        (std::filesystem::temp_directory_path() / ("tavik-bench-registry-" + std::to_string(::getpid())))
            .string();
    std::filesystem::create_directories(dir);
    RegSetStorePath((dir + "/registry.db").c_str());
    const size_t rows = static_cast<size_t>(kAccounts) * kRules * kProcessed;

    auto start = std::chrono::steady_clock::now();
    SaveUser(1);
    double firstSave = Seconds(start);
    start = std::chrono::steady_clock::now();
    double cpu = CpuSeconds();
    SaveUser(2);
    double save = Seconds(start);
    double saveCpu = CpuSeconds() - cpu;
    start = std::chrono::steady_clock::now();
    size_t read = ReadUser();
    double readBack = Seconds(start);
    RegCloseStore();

    // The same save with every commit waiting for the disk, for comparison.
    RegSetStorePath((dir + "/registry-full.db").c_str());
    tavik::platform::RegistryStore::Instance().SetSyncEveryCommit(true);
    start = std::chrono::steady_clock::now();
    SaveUser(1);
    double firstSaveFullSync = Seconds(start);
    RegCloseStore();
    tavik::platform::RegistryStore::Instance().SetSyncEveryCommit(false);

    cpu = CpuSeconds();
    double plain = PlainSqlite(dir + "/plain.db", rows);
    double plainCpu = CpuSeconds() - cpu;
    std::filesystem::remove_all(dir);

    if (read != rows) {
        std::fprintf(stderr, "bench_registry: read back %zu identifiers, expected %zu\n", read, rows);
        return 1;
    }
    std::printf("bench registry_first_save_big_user %.3f s\n", firstSave);
    std::printf("bench registry_save_big_user %.3f s\n", save);
    std::printf("bench registry_read_big_user %.3f s\n", readBack);
    std::printf("bench registry_first_save_big_user_sync_every_commit %.3f s\n", firstSaveFullSync);
    std::printf("bench sqlite_plain_insert_600k %.3f s\n", plain);
    std::printf("bench registry_save_big_user_cpu %.3f s\n", saveCpu);
    std::printf("bench sqlite_plain_insert_600k_cpu %.3f s\n", plainCpu);
    std::printf("bench registry_save_vs_plain_sqlite ratio %.2f\n", save / plain);
    std::printf("bench registry_save_vs_plain_sqlite_cpu ratio %.2f\n", saveCpu / plainCpu);
    return 0;
}
