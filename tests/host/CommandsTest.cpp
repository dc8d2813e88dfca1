// `tavik` command lines run whole through the dispatch, on a private registry store (TAVIK_REGISTRY) and
// files in a temporary directory.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "accounts/CRegistryOptions.h"
#include "host/Commands.h"
#include "host/Dispatch.h"
#include "messages/CStorageManager.h"
#include "platform/FileSystem.h"
#include "platform/Registry.h"
#include "rules/CBaseFilter.h"
#include "tests/support/TempDir.h"

using tavik::test::ReadFile;
using tavik::test::WriteFile;

namespace {

struct Outcome {
    int rc;
    std::string out, err;
};

std::string Drain(FILE* f) {
    std::string text;
    std::rewind(f);
    char buf[4096];
    for (size_t n; (n = std::fread(buf, 1, sizeof buf, f)) > 0;) text.append(buf, n);
    std::fclose(f);
    return text;
}

Outcome Tavik(const std::vector<std::string>& args) {
    FILE* out = std::tmpfile();
    FILE* err = std::tmpfile();
    int rc = tavik::host::RunTavik(args, out, err);
    return {rc, Drain(out), Drain(err)};
}

bool KeyExists(const char* path) {
    HKEY key = nullptr;
    if (RegOpenKeyEx(HKEY_CURRENT_USER, path, 0, KEY_READ, &key) != ERROR_SUCCESS) return false;
    RegCloseKey(key);
    return true;
}

class Commands : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("TAVIK_REGISTRY", m_dir.file("registry.db").c_str(), 1);
        setenv("TAVIK_DATA", m_data.path().c_str(), 1);
        RegSetStorePath(nullptr);
    }
    void TearDown() override {
        RegCloseStore();
        unsetenv("TAVIK_REGISTRY");
        unsetenv("TAVIK_DATA");
        RegSetStorePath(nullptr);
        TavikSetApplicationDirectory(nullptr);
    }
    std::vector<std::string> Files() {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(m_dir.path()))
            names.push_back(entry.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }
    tavik::test::TempDir m_dir;
    tavik::test::TempDir m_data;  // the user's data directory
};

const char kWindowsFile[] =
    "Windows Registry Editor Version 5.00\r\n\r\n"
    "[HKEY_CURRENT_USER\\Software\\Brannick\\Tavik Mail\\Users\\ann]\r\n"
    "\"Data File\"=\"ann.tvs\"\r\n"
    "\"Accounts\"=dword:00000002\r\n\r\n"
    "[HKEY_CURRENT_USER\\Software\\Brannick\\Tavik Mail\\Old]\r\n"
    "\"Left\"=\"over\"\r\n";

// Exports are UTF-16 with a byte-order mark, as the registry editor writes them.
std::string Utf16(const std::string& ascii) {
    std::string bytes = "\xff\xfe";
    for (char c : ascii) bytes += std::string{c, '\0'};
    return bytes;
}

const std::string kExported = Utf16(
    "Windows Registry Editor Version 5.00\r\n\r\n"
    "[HKEY_CURRENT_USER\\Software\\Brannick\\Tavik Mail]\r\n\r\n"
    "[HKEY_CURRENT_USER\\Software\\Brannick\\Tavik Mail\\Users\\ann]\r\n"
    "\"Data File\"=\"ann.tvs\"\r\n"
    "\"Accounts\"=dword:00000002\r\n\r\n");

}  // namespace

TEST_F(Commands, RegistryImportMergesAndExportWritesThroughTheRegistryManager) {
    WriteFile(m_dir.file("in.reg"), kWindowsFile);
    WriteFile(m_dir.file("drop.reg"),
              "Windows Registry Editor Version 5.00\r\n\r\n[-HKEY_CURRENT_USER\\Software\\Brannick\\Tavik "
              "Mail\\Old]\r\n");
    EXPECT_EQ(Tavik({"registry", "import", m_dir.file("in.reg")}).rc, 0);
    EXPECT_EQ(Tavik({"registry", "import", m_dir.file("drop.reg")}).rc, 0);
    EXPECT_TRUE(std::filesystem::exists(m_dir.file("registry.db"))) << "the store TAVIK_REGISTRY names";

    const std::string out = m_dir.file("out.reg");
    WriteFile(out, "an older export");
    Outcome done = Tavik({"registry", "export", "HKCU\\Software\\Brannick\\Tavik Mail\\", out});
    EXPECT_EQ(done.rc, 0) << done.err;
    EXPECT_EQ(ReadFile(out), kExported) << "replaced, the deleted key gone";

    // A refused import changes nothing; a missing key is reported, not created.
    WriteFile(m_dir.file("bad.reg"),
              "Windows Registry Editor Version 5.00\r\n\r\n[HKEY_CURRENT_USER\\X]\r\nnonsense\r\n");
    Outcome bad = Tavik({"registry", "import", m_dir.file("bad.reg")});
    EXPECT_EQ(bad.rc, 1);
    EXPECT_NE(bad.err.find("tavik registry import: cannot import"), std::string::npos) << bad.err;
    EXPECT_NE(bad.err.find("line 4"), std::string::npos) << bad.err;
    Outcome missing = Tavik({"registry", "export", "HKEY_CURRENT_USER\\Software\\Nobody", out});
    EXPECT_EQ(missing.rc, 1);
    EXPECT_EQ(missing.err, "tavik registry export: no key HKEY_CURRENT_USER\\Software\\Nobody\n");
    EXPECT_FALSE(KeyExists("Software\\Nobody"));
    Outcome unwritable = Tavik({"registry", "export", "HKCU\\Software", m_dir.file("none/out.reg")});
    EXPECT_EQ(unwritable.rc, 1);
    EXPECT_NE(unwritable.err.find("No such file or directory"), std::string::npos) << unwritable.err;
    EXPECT_FALSE(KeyExists("X"));
    EXPECT_EQ(Tavik({"registry", "export", "hkey_current_user\\Software\\Brannick\\Tavik Mail", out}).rc, 0);
    EXPECT_EQ(ReadFile(out), kExported);

    Outcome root = Tavik({"registry", "export", "HKLM\\Software", out});
    EXPECT_EQ(root.rc, 2);
    EXPECT_NE(root.err.find("not 'HKLM'"), std::string::npos) << root.err;
    for (const std::string& name : Files())
        EXPECT_EQ(name.find(".new"), std::string::npos) << "left beside the export";
}

TEST_F(Commands, StoreShowsATreeAndAStreamWithoutChangingTheFile) {
    const std::string file = m_dir.file("ann.tvs");
    {
        CStorageManager store(file.c_str(), false);
        store.WriteString("Version", "3");
        store.WriteString("\x05Info", "control name");
        CStorageManager accounts;
        accounts.OpenSubStorage(store.GetStorage(), "Accounts", STGM_READWRITE | STGM_SHARE_EXCLUSIVE, true,
                                false);
        accounts.WriteString("Na\xefve", std::string("ann\0", 4).c_str());
        accounts.WriteData("Bytes", "a\0b", 3);
        store.WriteString("Body", std::string(5000, 'x').c_str());  // past the small-stream limit
    }
    const std::string before = ReadFile(file);

    Outcome tree = Tavik({"store", "tree", file});
    EXPECT_EQ(tree.rc, 0) << tree.err;
    EXPECT_EQ(tree.out,
              "storage            0  /\n"
              "stream          5000  /Body\n"
              "stream            12  /\\x05Info\n"
              "stream             1  /Version\n"
              "storage            0  /Accounts\n"
              "stream             3  /Accounts/Bytes\n"
              "stream             3  /Accounts/Na\xc3\xafve\n");
    EXPECT_EQ(Tavik({"store", "cat", file, "/Accounts/Bytes"}).out, std::string("a\0b", 3));
    EXPECT_EQ(Tavik({"store", "cat", file, "Accounts/Na\xc3\xafve"}).out, "ann");
    EXPECT_EQ(Tavik({"store", "cat", file, "\\x05Info"}).out, "control name");
    EXPECT_EQ(Tavik({"store", "cat", file, "Body"}).out, std::string(5000, 'x'));

    Outcome noStream = Tavik({"store", "cat", file, "Accounts/Gone"});
    EXPECT_EQ(noStream.rc, 1);
    EXPECT_EQ(noStream.err, "tavik store cat: Accounts/Gone: no such stream\n");
    Outcome noStorage = Tavik({"store", "cat", file, "Gone/Version"});
    EXPECT_EQ(noStorage.rc, 1);
    EXPECT_NE(noStorage.err.find("tavik store cat: cannot read Gone/Version in"), std::string::npos)
        << noStorage.err;
    Outcome foreign = Tavik({"store", "cat", file, "\xe2\x82\xac\xe4\xb8\x80"});
    EXPECT_EQ(foreign.rc, 1);
    EXPECT_NE(foreign.err.find("outside Windows-1252"), std::string::npos) << foreign.err;
    EXPECT_EQ(Tavik({"store", "cat", file, "/"}).rc, 2);
    EXPECT_EQ(ReadFile(file), before);

    Outcome absent = Tavik({"store", "tree", m_dir.file("none.tvs")});
    EXPECT_EQ(absent.rc, 1);
    EXPECT_FALSE(std::filesystem::exists(m_dir.file("none.tvs"))) << "looking never creates";
    EXPECT_EQ(absent.err, "tavik store tree: " + m_dir.file("none.tvs") +
                              ": STG_E_FILENOTFOUND: the file or element does not exist (0x80030002)\n");
    // A file the library holds open for writing is not looked into behind its back.
    {
        CStorageManager held(file.c_str(), true);
        Outcome busy = Tavik({"store", "tree", file});
        EXPECT_EQ(busy.rc, 1);
        EXPECT_NE(busy.err.find(": STG_E_SHAREVIOLATION: the file is open elsewhere"), std::string::npos)
            << busy.err;
    }
}

TEST_F(Commands, ScanMakesARecordOfTheHeaderAlone) {
    const std::string mail = m_dir.file("one.eml");
    WriteFile(mail,
              "From: Ann Porter <ann@example.org>\r\n"
              "To: bob@example.org\r\n"
              "Subject: Lunch\r\n"
              "Date: Fri, 7 Mar 2025 12:30:00 +0100\r\n"
              "Message-ID: <1@example.org>\r\n"
              "\r\n"
              "Organization: a body line, never a field\r\n");
    Outcome scan = Tavik({"scan", mail, m_dir.file("none.eml")});
    EXPECT_EQ(scan.rc, 1) << "one file was missing";
    EXPECT_EQ(scan.err, "tavik scan: cannot open " + m_dir.file("none.eml") + "\n");
    EXPECT_EQ(scan.out, mail +
                            "\n"
                            "  sender                 Ann Porter <ann@example.org>\n"
                            "  sender address         ann@example.org\n"
                            "  reply-to               ann@example.org\n"
                            "  recipient              bob@example.org\n"
                            "  subject                Lunch\n"
                            "  date as sent           Fri, 7 Mar 2025 12:30:00 +0100\n"
                            "  date as parsed         2025-03-07 12:30:00 local\n"
                            "  message id             <1@example.org>\n"
                            "  return path            -\n"
                            "  received from          -\n"
                            "  MIME version           -\n"
                            "  content type           -\n"
                            "  transfer encoding      -\n"
                            "  organization           -\n"
                            "  status                 -\n"
                            "  UIDL                   -\n"
                            "  id                     16135BB3 (CRC-32 of the header)\n"
                            "  size                   184 octets, header 140\n"
                            "  marked deleted         no\n");
}

TEST_F(Commands, FilesKeptBesideTheProgramLandOwnerOnlyInTheUsersDataDirectory) {
    const std::string data = (m_data.path() / "share" / "tavikmail").string();
    setenv("TAVIK_DATA", data.c_str(), 1);
    ASSERT_EQ(Tavik({"version"}).rc, 0);
    EXPECT_EQ(std::filesystem::status(data).permissions(), std::filesystem::perms::owner_all);

    // The database an option set falls back to, created where the library puts it.
    CRegistryOptions options("Software\\Brannick\\Tavik Mail\\Configuration");
    EXPECT_EQ(std::string(options.GetDataFile().GetString()), data + "/mailread.tvk");
    { CStorageManager database(options.GetDataFile(), false); }
    // A rule's list of handled messages, written through a file of its own.
    CBaseFilter rule;
    rule.SetFilterData("Junk", "", "", "", "", "", 0, 0, 0);
    rule.AddProcessedID(7);
    rule.SaveProcessedIDs();
    EXPECT_EQ(std::string(rule.GetProcessedIDsFile().GetString()), data + "/Junk.tpd");
    for (const char* name : {"/mailread.tvk", "/Junk.tpd"}) {
        struct stat st {};
        ASSERT_EQ(stat((data + name).c_str(), &st), 0) << name;
        EXPECT_EQ(st.st_mode & 0777, 0600u) << name;
    }

    // Without TAVIK_DATA: XDG_DATA_HOME, else the home directory.
    unsetenv("TAVIK_DATA");
    const char* home = std::getenv("HOME");
    const std::string savedHome = home ? home : "";
    setenv("XDG_DATA_HOME", m_data.file("xdg").c_str(), 1);
    ASSERT_EQ(Tavik({"version"}).rc, 0);
    EXPECT_TRUE(std::filesystem::is_directory(m_data.file("xdg") + "/tavikmail"));
    unsetenv("XDG_DATA_HOME");
    setenv("HOME", m_data.file("home").c_str(), 1);
    const int rc = Tavik({"version"}).rc;
    setenv("HOME", savedHome.c_str(), 1);
    ASSERT_EQ(rc, 0);
    EXPECT_TRUE(std::filesystem::is_directory(m_data.file("home") + "/.local/share/tavikmail"));

    // A data directory that cannot be made stops the command before it runs.
    WriteFile(m_data.file("plain"), "x");
    setenv("TAVIK_DATA", m_data.file("plain").c_str(), 1);
    Outcome blocked = Tavik({"version"});
    EXPECT_EQ(blocked.rc, 1);
    EXPECT_EQ(blocked.out, "");
    EXPECT_EQ(blocked.err,
              "tavik: cannot use the data directory: " + m_data.file("plain") + " is not a directory\n");
}

TEST_F(Commands, DispatchHelpAndUsageErrors) {
    Outcome version = Tavik({"version"});
    EXPECT_EQ(version.out, "tavik 0.1.0\n");
    EXPECT_EQ(version.rc, 0);

    // Every command, and each of its sub-commands, answers --help and `tavik help` alike.
    for (const tavik::host::Command* command : tavik::host::AllCommands()) {
        std::vector<std::vector<std::string>> paths = {{command->name}};
        for (const auto& sub : command->subcommands) paths.push_back({command->name, sub.name});
        for (auto path : paths) {
            std::vector<std::string> help = path;
            help.push_back("--help");
            Outcome byOption = Tavik(help);
            EXPECT_EQ(byOption.rc, 0) << help[0];
            EXPECT_EQ(byOption.out.rfind("usage: tavik " + path[0], 0), 0u) << byOption.out;
            path.insert(path.begin(), "help");
            EXPECT_EQ(Tavik(path).out, byOption.out);
        }
    }

    const struct {
        std::vector<std::string> args;
        int rc;
        std::string errStart;
    } rows[] = {
        {{}, 2, "usage: tavik COMMAND"},
        {{"bogus"}, 2, "tavik: unknown command 'bogus'\nusage: tavik COMMAND"},
        {{"help", "bogus"}, 2, "tavik: unknown command 'bogus'\n"},
        {{"store"}, 2, "usage: tavik store tree FILE\n       tavik store cat FILE PATH\n"},
        {{"store", "bogus"}, 2, "tavik store: unknown command 'bogus'\ntry 'tavik store --help'\n"},
        {{"version", "extra"}, 2, "tavik version: unexpected argument 'extra'\nusage: tavik version\n"},
        {{"check", "--server", "h", "--user", "u", "--port", "99999"},
         2,
         "tavik check: --port takes a whole number from 1 to 65535, not '99999'\nusage: tavik check [--user "
         "NAME]"},
        {{"check", "--port", "110"}, 2, "tavik check: --port goes with --server\n"},
        {{"check", "--server", "h", "--password-file", "f"}, 2, "tavik check: --server needs --user USER"},
        {{"check", "--server", "h", "--user", "u", "--dry-run"}, 2, "tavik check: --account and --dry-run"},
        {{"check", "--server", "h", "--password", "secret"}, 2, "tavik check: --password is not accepted"},
        {{"scan"}, 2, "tavik scan: missing FILE...\nusage: tavik scan FILE...\ntry 'tavik scan --help'\n"},
    };
    for (const auto& row : rows) {
        Outcome got = Tavik(row.args);
        EXPECT_EQ(got.rc, row.rc) << ::testing::PrintToString(row.args);
        EXPECT_EQ(got.err.rfind(row.errStart, 0), 0u) << got.err;
        EXPECT_EQ(got.err.find("secret"), std::string::npos);
    }
    EXPECT_EQ(Tavik({"help"}).out.rfind("usage: tavik COMMAND", 0), 0u);
}
