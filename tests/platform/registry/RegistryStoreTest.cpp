// The store file: where it lives, who may read it, what survives, and what happens when it is not ours,
// is damaged, or is shared with other processes.
#include <signal.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <optional>
#include <thread>

#include "tests/platform/registry/RegistryFixture.h"

namespace tavik::test {
namespace {

using RegistryStore = RegistryTest;

// Another process running the helper; its standard output can be read line by line.
class Child {
public:
    explicit Child(std::vector<std::string> args) {
        int fds[2];
        if (::pipe(fds) != 0) return;
        m_pid = ::fork();
        if (m_pid == 0) {
            ::dup2(fds[1], 1);
            ::close(fds[0]);
            ::close(fds[1]);
            std::vector<char*> argv;
            argv.push_back(const_cast<char*>(REGISTRY_CHILD));
            for (auto& a : args) argv.push_back(a.data());
            argv.push_back(nullptr);
            ::execv(REGISTRY_CHILD, argv.data());
            ::_exit(127);
        }
        ::close(fds[1]);
        m_out = fds[0];
    }
    ~Child() {
        if (m_pid > 0) Kill();
        ::close(m_out);
    }
    std::string ReadLine() {
        std::string line;
        char c;
        while (::read(m_out, &c, 1) == 1 && c != '\n') line.push_back(c);
        return line;
    }
    int Wait() {
        int status = 0;
        ::waitpid(m_pid, &status, 0);
        m_pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    void Kill() {
        ::kill(m_pid, SIGKILL);
        Wait();
    }

private:
    pid_t m_pid = -1;
    int m_out = -1;
};

TEST_F(RegistryStore, NewStoreIsOwnerOnlyAndKeepsItsContentAcrossReopening) {
    std::string path = m_dir.file("deeper/tavikmail/registry.db");
    RegSetStorePath(path.c_str());
    HKEY key = Create("Software\\Kept");
    SetString(key, "Password", "secret");
    RegCloseKey(key);
    ASSERT_EQ(RegCloseStore(), ERROR_SUCCESS);

    struct stat file {
    }, dir{};
    ASSERT_EQ(::stat(path.c_str(), &file) | ::stat(m_dir.file("deeper/tavikmail").c_str(), &dir), 0);
    EXPECT_EQ(file.st_mode & 0777, 0600u);
    EXPECT_EQ(dir.st_mode & 0777, 0700u);

    ASSERT_EQ(RegOpenKeyEx(HKEY_CURRENT_USER, "SOFTWARE\\kept", 0, KEY_READ, &key), ERROR_SUCCESS);
    EXPECT_EQ(GetString(key, "Password"), "secret");
    RegCloseKey(key);
}

TEST_F(RegistryStore, DefaultPathFollowsTheEnvironment) {
    struct Saved {
        const char* name;
        std::optional<std::string> value;
        ~Saved() { value ? ::setenv(name, value->c_str(), 1) : ::unsetenv(name); }
    } saved[] = {{"TAVIK_REGISTRY", {}}, {"XDG_CONFIG_HOME", {}}, {"HOME", {}}};
    for (auto& s : saved)
        if (const char* v = std::getenv(s.name)) s.value = v;

    RegSetStorePath(nullptr);
    ::setenv("TAVIK_REGISTRY", "/somewhere/reg.db", 1);
    EXPECT_EQ(RegGetStorePath(), "/somewhere/reg.db");
    ::unsetenv("TAVIK_REGISTRY");
    ::setenv("XDG_CONFIG_HOME", "/xdg", 1);
    EXPECT_EQ(RegGetStorePath(), "/xdg/tavikmail/registry.db");
    ::setenv("XDG_CONFIG_HOME", "relative", 1);  // not absolute: ignored, as the XDG rules say
    ::setenv("HOME", "/home/user", 1);
    EXPECT_EQ(RegGetStorePath(), "/home/user/.config/tavikmail/registry.db");
    RegSetStorePath("/explicit.db");
    EXPECT_EQ(RegGetStorePath(), "/explicit.db");
}

TEST_F(RegistryStore, ForeignAndDamagedFilesAreReportedAndLeftAlone) {
    HKEY key = nullptr;
    // Not a database at all.
    std::string text = m_dir.file("notes.txt");
    WriteFile(text, "these are my notes, not a registry\n");
    RegSetStorePath(text.c_str());
    EXPECT_EQ(RegOpenKeyEx(HKEY_CURRENT_USER, "Software", 0, KEY_READ, &key), ERROR_BADDB);
    EXPECT_NE(RegGetLastMessage().find(text), std::string::npos) << RegGetLastMessage();
    EXPECT_EQ(
        RegCreateKeyEx(HKEY_CURRENT_USER, "Software", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr),
        ERROR_BADDB);
    EXPECT_EQ(ReadFile(text), "these are my notes, not a registry\n");

    // Another program's SQLite database.
    std::string other = m_dir.file("other.db");
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(other.c_str(), &db), SQLITE_OK);
    sqlite3_exec(db, "CREATE TABLE songs(title TEXT); INSERT INTO songs VALUES('one');", nullptr, nullptr,
                 nullptr);
    sqlite3_close(db);
    std::string before = ReadFile(other);
    RegSetStorePath(other.c_str());
    EXPECT_EQ(
        RegCreateKeyEx(HKEY_CURRENT_USER, "Software", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr),
        ERROR_BADDB);
    EXPECT_NE(RegGetLastMessage().find("another program"), std::string::npos) << RegGetLastMessage();
    RegCloseStore();
    EXPECT_EQ(ReadFile(other), before);

    // One of ours, damaged after its first page.
    RegSetStorePath(StoreFile().c_str());
    key = Create("Software\\Damaged");
    for (int i = 0; i < 500; ++i) SetDword(key, ("Value" + std::to_string(i)).c_str(), static_cast<DWORD>(i));
    RegCloseKey(key);
    ASSERT_EQ(RegCloseStore(), ERROR_SUCCESS);
    std::string bytes = ReadFile(StoreFile());
    ASSERT_GT(bytes.size(), 8192u);
    for (size_t i = 4096; i < bytes.size(); ++i) bytes[i] = static_cast<char>(0x55 ^ (i * 31));
    WriteFile(StoreFile(), bytes);
    LONG code = RegOpenKeyEx(HKEY_CURRENT_USER, "Software\\Damaged", 0, KEY_READ, &key);
    EXPECT_EQ(code, ERROR_REGISTRY_CORRUPT);
    EXPECT_NE(RegGetLastMessage().find("damaged"), std::string::npos) << RegGetLastMessage();
    RegCloseStore();
    EXPECT_EQ(ReadFile(StoreFile()), bytes);

    // A good store is usable again once the path points at one.
    RegSetStorePath(m_dir.file("fresh.db").c_str());
    RegCloseKey(Create("Software\\Fresh"));
}

// Damage that SQLite's own reads pass over (a branch of the value tree pointed elsewhere, so its values
// vanish from every listing) is found before an export or a save claims to hold the whole tree.
TEST_F(RegistryStore, AnExportOfADamagedStoreFailsInsteadOfLeavingValuesOut) {
    for (int k = 0; k < 10; ++k) {
        HKEY key = Create(("Software\\Damaged\\Key" + std::to_string(k)).c_str());
        for (int v = 0; v < 30; ++v)
            SetString(key, ("Value" + std::to_string(v)).c_str(), std::string(60, 'x'));
        RegCloseKey(key);
    }
    ASSERT_EQ(RegCloseStore(), ERROR_SUCCESS);

    // The values' tree spans several pages under an interior root: its last child pointer is made to
    // name the first child again.
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(StoreFile().c_str(), &db), SQLITE_OK);
    sqlite3_stmt* s = nullptr;
    sqlite3_prepare_v2(db, "SELECT rootpage FROM sqlite_master WHERE name='vals'", -1, &s, nullptr);
    ASSERT_EQ(sqlite3_step(s), SQLITE_ROW);
    const size_t root = static_cast<size_t>(sqlite3_column_int64(s, 0));
    sqlite3_finalize(s);
    sqlite3_close(db);
    std::string bytes = ReadFile(StoreFile());
    const size_t page = (root - 1) * 4096;
    ASSERT_EQ(bytes[page], 0x02) << "the root is an interior page";
    const size_t firstCell =
        (static_cast<unsigned char>(bytes[page + 12]) << 8) | static_cast<unsigned char>(bytes[page + 13]);
    bytes.replace(page + 8, 4, bytes.substr(page + firstCell, 4));
    WriteFile(StoreFile(), bytes);

    std::string out = m_dir.file("out.reg");
    EXPECT_EQ(RegExportKey("HKEY_CURRENT_USER\\Software\\Damaged", out.c_str()), ERROR_REGISTRY_CORRUPT);
    EXPECT_NE(RegGetLastMessage().find("damaged"), std::string::npos) << RegGetLastMessage();
    EXPECT_TRUE(ReadFile(out).empty());
    HKEY key = nullptr;
    ASSERT_EQ(RegOpenKeyEx(HKEY_CURRENT_USER, "Software\\Damaged", 0, KEY_READ, &key), ERROR_SUCCESS);
    EXPECT_EQ(RegSaveKey(key, out.c_str(), nullptr), ERROR_REGISTRY_CORRUPT);
    EXPECT_TRUE(ReadFile(out).empty());
    RegCloseKey(key);
    RegCloseStore();
}

// Processes that find no store and all create it at once, again and again: each import lands, none
// takes another's half-made file for a foreign one or gives up on its lock.
TEST_F(RegistryStore, ProcessesCreatingTheStoreAtOnceAllSucceed) {
    const std::vector<std::string> names = {"a", "b", "c"};
    for (const std::string& who : names)
        WriteFile(m_dir.file(who + ".reg"),
                  "Windows Registry Editor Version 5.00\r\n[HKEY_CURRENT_USER\\Software\\" + who +
                      "]\r\n\"v\"=\"" + who + "\"\r\n");
    for (int round = 0; round < 10; ++round) {
        SCOPED_TRACE(round);
        std::string store = m_dir.file("race" + std::to_string(round) + ".db");
        std::vector<std::unique_ptr<Child>> children;
        for (const std::string& who : names)
            children.push_back(
                std::make_unique<Child>(std::vector<std::string>{"import", store, m_dir.file(who + ".reg")}));
        for (auto& child : children) EXPECT_EQ(child->Wait(), 0);
        RegSetStorePath(store.c_str());
        for (const std::string& who : names) {
            HKEY key = nullptr;
            ASSERT_EQ(RegOpenKeyEx(HKEY_CURRENT_USER, ("Software\\" + who).c_str(), 0, KEY_READ, &key),
                      ERROR_SUCCESS);
            EXPECT_EQ(GetString(key, "v"), who);
            RegCloseKey(key);
        }
        RegCloseStore();
    }
}

TEST_F(RegistryStore, TwoProcessesAndThisOneWritingAtOnceLoseNothing) {
    Child a({"write", StoreFile(), "Software\\Shared", "a", "400", "10"});
    Child b({"write", StoreFile(), "Software\\Shared", "b", "400", "25"});
    for (int i = 0; i < 400;) {
        HKEY key = Create("Software\\Shared");
        for (int end = i + 20; i < end; ++i)
            SetDword(key, ("c" + std::to_string(i)).c_str(), static_cast<DWORD>(i));
        RegCloseKey(key);
    }
    EXPECT_EQ(a.Wait(), 0);
    EXPECT_EQ(b.Wait(), 0);

    HKEY key = Create("Software\\Shared");
    EXPECT_EQ(ValueNames(key).size(), 1200u);
    for (const char* prefix : {"a", "b", "c"})
        for (int i = 0; i < 400; ++i) {
            DWORD value = 0xdeadbeef, size = 4;
            std::string name = prefix + std::to_string(i);
            RegQueryValueEx(key, name.c_str(), nullptr, nullptr, reinterpret_cast<BYTE*>(&value), &size);
            ASSERT_EQ(value, static_cast<DWORD>(i)) << name;
        }
    RegCloseKey(key);
}

// Another process committing small transactions back to back, for longer than any wait for the lock
// may last, leaves this one moments to write in.
TEST_F(RegistryStore, AProcessWritingWithoutPauseDoesNotShutOutAnother) {
    HKEY key = Create("Software\\Busy");
    RegCloseKey(key);
    Child busy({"write", StoreFile(), "Software\\Busy", "b", "100000000", "500"});
    bool started = false;
    for (int tries = 0; tries < 1000 && !started; ++tries) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        ASSERT_EQ(RegOpenKeyEx(HKEY_CURRENT_USER, "Software\\Busy", 0, KEY_READ, &key), ERROR_SUCCESS);
        started = !ValueNames(key).empty();
        RegCloseKey(key);
    }
    ASSERT_TRUE(started) << "the other process never wrote";
    for (int i = 0; i < 60;) {
        key = nullptr;
        ASSERT_EQ(RegCreateKeyEx(HKEY_CURRENT_USER, "Software\\Mine", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                                 &key, nullptr),
                  ERROR_SUCCESS)
            << RegGetLastMessage();
        for (int end = i + 2; i < end; ++i) SetDword(key, ("m" + std::to_string(i)).c_str(), i);
        ASSERT_EQ(RegCloseKey(key), ERROR_SUCCESS) << RegGetLastMessage();
    }
    busy.Kill();
    key = Create("Software\\Mine");
    EXPECT_EQ(ValueNames(key).size(), 60u);
    RegCloseKey(key);
}

TEST_F(RegistryStore, ThreadsOfOneProcessShareTheStore) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([this, t] {
            std::string path = "Software\\Threads\\T" + std::to_string(t);
            for (int i = 0; i < 200; ++i) {
                HKEY key = Create(path.c_str());
                SetDword(key, ("v" + std::to_string(i)).c_str(), static_cast<DWORD>(i));
                RegCloseKey(key);
            }
        });
    // A reader walking the keys while they grow sees whole values, never a failure.
    threads.emplace_back([] {
        for (int round = 0; round < 50; ++round) {
            HKEY key = nullptr;
            if (RegOpenKeyEx(HKEY_CURRENT_USER, "Software\\Threads", 0, KEY_READ, &key) != ERROR_SUCCESS)
                continue;
            for (DWORD i = 0;; ++i) {
                char name[32];
                DWORD chars = sizeof name;
                LONG code = RegEnumKeyEx(key, i, name, &chars, nullptr, nullptr, nullptr, nullptr);
                if (code == ERROR_NO_MORE_ITEMS) break;
                ASSERT_EQ(code, ERROR_SUCCESS);
            }
            RegCloseKey(key);
        }
    });
    for (auto& t : threads) t.join();
    for (int t = 0; t < 4; ++t) {
        HKEY key = Create(("Software\\Threads\\T" + std::to_string(t)).c_str());
        EXPECT_EQ(ValueNames(key).size(), 200u);
        RegCloseKey(key);
    }
}

TEST_F(RegistryStore, KillRightAfterCloseLosesNothing) {
    for (int round = 0; round < 3; ++round) {
        std::string path = "Software\\Crash" + std::to_string(round);
        Child child({"write", StoreFile(), path, "Value", "1500", "1500", "hang"});
        ASSERT_EQ(child.ReadLine(), "closed");
        child.Kill();

        RegCloseStore();  // read the file afresh, as a new process would
        HKEY key = nullptr;
        ASSERT_EQ(RegOpenKeyEx(HKEY_CURRENT_USER, path.c_str(), 0, KEY_READ, &key), ERROR_SUCCESS)
            << RegGetLastMessage();
        ASSERT_EQ(ValueNames(key).size(), 1500u);
        DWORD value = 0, size = 4;
        ASSERT_EQ(RegQueryValueEx(key, "Value1499", nullptr, nullptr, reinterpret_cast<BYTE*>(&value), &size),
                  ERROR_SUCCESS);
        EXPECT_EQ(value, 1499u);
        RegCloseKey(key);
    }
}

TEST_F(RegistryStore, OtherProcessesSeeCommitsAndDeletionsAndAnOpenWriterDoesNotBlockThem) {
    HKEY doomed = Create("Software\\Doomed");
    SetString(doomed, "v", "here");
    RegCloseKey(Create("Software\\Doomed"));  // commit

    Child deleter({"delete", StoreFile(), "Software\\Doomed"});
    ASSERT_EQ(deleter.Wait(), 0);
    DWORD size = 0;
    EXPECT_EQ(RegQueryValueEx(doomed, "v", nullptr, nullptr, nullptr, &size), ERROR_KEY_DELETED);
    RegCloseKey(doomed);

    // A writer that never closes its key: its write reaches us shortly, and it does not keep us out.
    Child holder({"hold", StoreFile(), "Software\\Held"});
    ASSERT_EQ(holder.ReadLine(), "written");
    HKEY mine = Create("Software\\Mine");
    SetString(mine, "x", "y");
    EXPECT_EQ(RegCloseKey(mine), ERROR_SUCCESS);
    std::string seen;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (seen != "yes" && std::chrono::steady_clock::now() < deadline) {
        HKEY held = nullptr;
        if (RegOpenKeyEx(HKEY_CURRENT_USER, "Software\\Held", 0, KEY_READ, &held) == ERROR_SUCCESS) {
            seen = GetString(held, "Held");
            RegCloseKey(held);
        }
        if (seen != "yes") std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_EQ(seen, "yes");
}

}  // namespace
}  // namespace tavik::test
