// Import and export with each file-system change failing in turn: afterwards the store holds the old
// tree or the new one, an exported file is the old one or the new one, and no stray file is left.
#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/platform/registry/RegistryFixture.h"
#include "tests/support/WriteFaults.h"

namespace tavik::test {
namespace {

class RegistryFaults : public RegistryTest {
protected:
    // Every key and value below HKCU\Software, one line each, in enumeration order.
    std::string Dump() {
        HKEY key = nullptr;
        if (RegOpenKeyEx(HKEY_CURRENT_USER, "Software", 0, KEY_READ, &key) != ERROR_SUCCESS) return "<none>";
        std::string out;
        DumpKey(key, "Software", out);
        RegCloseKey(key);
        return out;
    }
    static void DumpKey(HKEY key, const std::string& path, std::string& out) {
        out += "[" + path + "]\n";
        for (DWORD i = 0;; ++i) {
            char name[256];
            BYTE data[256];
            DWORD chars = sizeof name, size = sizeof data, type = 0;
            if (RegEnumValue(key, i, name, &chars, nullptr, &type, data, &size) != ERROR_SUCCESS) break;
            out += std::string(name, chars) + "=" + std::to_string(type) + ":" +
                   std::string(reinterpret_cast<char*>(data), size) + "\n";
        }
        for (const std::string& name : SubKeys(key)) {
            HKEY child = nullptr;
            ASSERT_EQ(RegOpenKeyEx(key, name.c_str(), 0, KEY_READ, &child), ERROR_SUCCESS);
            DumpKey(child, path + "\\" + name, out);
            RegCloseKey(child);
        }
    }
    std::vector<std::string> Listing() const {
        std::vector<std::string> names;
        for (auto& e : std::filesystem::directory_iterator(m_dir.path()))
            names.push_back(e.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }
    // A store with the old tree, closed, and a copy of it to start each run from.
    void MakeOldStore() {
        HKEY app = Create("Software\\App");
        SetString(app, "kept", "old");
        SetString(app, "changed", "old");
        SetDword(app, "number", 7);
        RegCloseKey(app);
        for (const char* path : {"Software\\App\\Gone\\Below", "Software\\App\\Stays"}) {
            HKEY key = Create(path);
            SetString(key, "v", std::string(300, 'x').substr(0, 200));
            RegCloseKey(key);
        }
        ASSERT_EQ(RegCloseStore(), ERROR_SUCCESS);
        m_old = Dump();
        ASSERT_EQ(RegCloseStore(), ERROR_SUCCESS);
        std::filesystem::copy_file(StoreFile(), m_dir.file("old.db"));
    }
    void RestoreOldStore() {
        for (const char* extra : {"-wal", "-shm"}) std::filesystem::remove(StoreFile() + extra);
        std::filesystem::copy_file(m_dir.file("old.db"), StoreFile(),
                                   std::filesystem::copy_options::overwrite_existing);
    }

    std::string m_old;
};

TEST_F(RegistryFaults, AnImportThatFailsAnywhereLeavesTheOldTree) {
    MakeOldStore();
    std::string file = m_dir.file("new.reg");
    std::string text =
        "Windows Registry Editor Version 5.00\r\n"
        "[-HKEY_CURRENT_USER\\Software\\App\\Gone]\r\n"
        "[HKEY_CURRENT_USER\\Software\\App]\r\n"
        "\"changed\"=\"new\"\r\n"
        "\"number\"=-\r\n";
    // Enough new keys that the change spans many pages of the store.
    for (int i = 0; i < 200; ++i)
        text += "[HKEY_CURRENT_USER\\Software\\App\\Added\\K" + std::to_string(i) + "]\r\n\"v\"=\"" +
                std::string(100, static_cast<char>('a' + i % 26)) + "\"\r\n";
    WriteFile(file, text);
    ASSERT_EQ(RegImportFile(file.c_str()), ERROR_SUCCESS) << RegGetLastMessage();
    ASSERT_EQ(RegCloseStore(), ERROR_SUCCESS);
    const std::string fresh = Dump();
    ASSERT_EQ(RegCloseStore(), ERROR_SUCCESS);
    ASSERT_NE(fresh, m_old);
    const auto files = Listing();

    int failures = SweepWriteFaults([&](int n) {
        SCOPED_TRACE(n);
        RestoreOldStore();
        LONG rc;
        bool hit;
        {
            WriteFault fault(n);
            rc = RegImportFile(file.c_str());
            hit = fault.Hit();
        }
        if (rc != ERROR_SUCCESS) EXPECT_NE(RegGetLastMessage(), "");
        // The same process sees what was committed, then so does the next one.
        const std::string& expected = rc == ERROR_SUCCESS ? fresh : m_old;
        EXPECT_EQ(Dump(), expected);
        EXPECT_EQ(RegCloseStore(), ERROR_SUCCESS) << RegGetLastMessage();
        EXPECT_EQ(Dump(), expected);
        EXPECT_EQ(RegCloseStore(), ERROR_SUCCESS) << RegGetLastMessage();
        EXPECT_EQ(Listing(), files);
        return hit;
    });
    EXPECT_GE(failures, 5);
}

TEST_F(RegistryFaults, AnExportThatFailsAnywhereLeavesTheOldFile) {
    MakeOldStore();
    std::string file = m_dir.file("out.reg");
    WriteFile(file, "the old export");
    ASSERT_EQ(RegExportKey("HKEY_CURRENT_USER\\Software\\App", file.c_str()), ERROR_SUCCESS);
    const std::string fresh = ReadFile(file);
    ASSERT_EQ(RegCloseStore(), ERROR_SUCCESS);
    const auto files = Listing();

    int failures = SweepWriteFaults([&](int n) {
        SCOPED_TRACE(n);
        RestoreOldStore();
        WriteFile(file, "the old export");
        LONG rc;
        bool hit;
        {
            WriteFault fault(n, ENOSPC);
            rc = RegExportKey("HKEY_CURRENT_USER\\Software\\App", file.c_str());
            hit = fault.Hit();
        }
        if (rc == ERROR_SUCCESS) {
            EXPECT_EQ(ReadFile(file), fresh);
        } else {
            EXPECT_NE(RegGetLastMessage(), "");
            EXPECT_EQ(ReadFile(file), "the old export");
        }
        EXPECT_EQ(Dump(), m_old);
        EXPECT_EQ(RegCloseStore(), ERROR_SUCCESS) << RegGetLastMessage();
        EXPECT_EQ(Listing(), files);
        return hit;
    });
    // The temporary file's creation, its write, its flush and the rename at least.
    EXPECT_GE(failures, 4);
}

}  // namespace
}  // namespace tavik::test
