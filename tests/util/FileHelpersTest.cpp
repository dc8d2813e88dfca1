// Path parts, presence tests, temporary names and the temporary-file list, against real files.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <string>

#include "platform/FileSystem.h"
#include "platform/Shell.h"
#include "tests/support/TempDir.h"
#include "util/CFileManager.h"
#include "util/CFileName.h"

namespace fs = std::filesystem;
using tavik::test::TempDir;

namespace {

void touch(const std::string& path, const char* text = "x") { std::ofstream(path) << text; }

}  // namespace

TEST(FileName, PartsOfFullBareAndDottedPaths) {
    CFileName full("/home/ann/mail/inbox.backup.tvd");
    EXPECT_EQ(full.GetRoot(), "/home/ann/mail/");
    EXPECT_EQ(full.GetFileName(), "inbox.backup.tvd");
    EXPECT_EQ(full.GetFileTitle(), "inbox.backup");

    CFileName bare("notes.txt");
    EXPECT_EQ(bare.GetRoot(), "");
    EXPECT_EQ(bare.GetFileTitle(), "notes");

    // A dot in a directory name is not an extension.
    CFileName dottedDir("/tmp/v1.2/README");
    EXPECT_EQ(dottedDir.GetFileTitle(), "README");

    // Copies carry the path; SetFileName replaces it and the parts follow.
    CFileName copy = full;
    copy.SetFileName("/x/y.z");
    EXPECT_EQ(copy.GetRoot(), "/x/");
    EXPECT_EQ(full.GetFileTitle(), "inbox.backup");
}

TEST(FileName, ExistForFilesDirectoriesAndMissingPaths) {
    TempDir dir;
    std::string file = dir.file("a.txt");
    touch(file);
    EXPECT_TRUE(CFileName(file.c_str()).Exist());
    EXPECT_TRUE(CFileName(dir.path().string().c_str()).Exist());
    // A directory named with its trailing separator still exists.
    EXPECT_TRUE(CFileName((dir.path().string() + "/").c_str()).Exist());
    EXPECT_FALSE(CFileName(dir.file("missing").c_str()).Exist());
    EXPECT_FALSE(CFileName("").Exist());
}

TEST(FileName, DescriptionComesFromTheMimeDatabase) {
    TempDir dir;
    std::string text = dir.file("letter.txt");
    touch(text);
    EXPECT_EQ(CFileName(text.c_str()).GetDescription(), "plain text document");
    std::string html = dir.file("page.HTML");  // extensions match in any case
    touch(html);
    EXPECT_EQ(CFileName(html.c_str()).GetDescription(), "HTML document");
    std::string odd = dir.file("data.zqxw");
    touch(odd);
    EXPECT_EQ(CFileName(odd.c_str()).GetDescription(), "ZQXW File");
    EXPECT_EQ(CFileName(dir.path().string().c_str()).GetDescription(), "folder");
    EXPECT_EQ(CFileName(dir.file("gone.txt").c_str()).GetDescription(), "");

    // The attribute form needs no file.
    SHFILEINFO info;
    ASSERT_NE(
        SHGetFileInfo("nowhere.tar.gz", 0, &info, sizeof info, SHGFI_TYPENAME | SHGFI_USEFILEATTRIBUTES), 0u);
    EXPECT_STRNE(info.szTypeName, "");
    EXPECT_STRNE(info.szTypeName, "GZ File");
}

TEST(FileManager, KeepsOneEntryInCapitalsAndDeletesTheFiles) {
    TempDir dir;
    std::string a = dir.file("Attach1.tmp");
    std::string b = dir.file("attach2.tmp");
    touch(a);
    touch(b);
    {
        CFileManager manager;
        manager.AddTempFile(a.c_str());
        CString lowered(a.c_str());
        lowered.MakeLower();
        manager.AddTempFile(lowered);
        manager.AddTempFile(b.c_str());
        ASSERT_EQ(manager.GetTempFiles().size(), 2u);
        CString upper(a.c_str());
        upper.MakeUpper();
        EXPECT_EQ(manager.GetTempFiles().front(), upper);

        // A copy has its own list: emptying it leaves ours.
        CFileManager copy(manager);
        fs::remove(b);  // already gone: no error, the entry is dropped with the rest
        copy.RemoveTempFiles();
        EXPECT_TRUE(copy.GetTempFiles().empty());
        EXPECT_FALSE(fs::exists(a));
        EXPECT_EQ(manager.GetTempFiles().size(), 2u);

        touch(a);
    }
    // The destructor deleted the recreated file.
    EXPECT_FALSE(fs::exists(a));
}

TEST(FileManager, AFileThatCannotBeDeletedIsSkipped) {
    TempDir dir;
    fs::create_directory(dir.path() / "sub");
    std::string notAFile = (dir.path() / "sub").string();
    std::string file = dir.file("z.tmp");
    touch(file);
    CFileManager manager;
    manager.AddTempFile(notAFile.c_str());  // exists, but removing it fails
    manager.AddTempFile(file.c_str());
    manager.RemoveTempFiles();
    EXPECT_TRUE(manager.GetTempFiles().empty());
    EXPECT_TRUE(fs::exists(notAFile));
    EXPECT_FALSE(fs::exists(file));
}

TEST(PathCalls, SplitAndMakeAreInverse) {
    char drive[_MAX_DRIVE], dir[_MAX_DIR], name[_MAX_FNAME], ext[_MAX_EXT], path[_MAX_PATH];
    std::memset(drive, 0xbd, sizeof drive);
    _splitpath("/var/lib/tavik/store.tvd", drive, dir, name, ext);
    EXPECT_STREQ(drive, "");
    EXPECT_STREQ(dir, "/var/lib/tavik/");
    EXPECT_STREQ(name, "store");
    EXPECT_STREQ(ext, ".tvd");
    _makepath(path, drive, dir, name, ext);
    EXPECT_STREQ(path, "/var/lib/tavik/store.tvd");
    _makepath(path, nullptr, "/a", "b", "c");
    EXPECT_STREQ(path, "/a/b.c");
    // An over-long name is cut, never overrun.
    std::string longName(400, 'n');
    _splitpath(("/d/" + longName + ".e").c_str(), nullptr, nullptr, name, nullptr);
    EXPECT_EQ(std::strlen(name), size_t(_MAX_FNAME - 1));
}

TEST(PathCalls, TempFileNamesAreCreatedUniqueWithWindowsShape) {
    TempDir dir;
    char first[MAX_PATH], second[MAX_PATH];
    UINT n1 = GetTempFileName(dir.path().string().c_str(), "tavik", 0, first);
    UINT n2 = GetTempFileName(dir.path().string().c_str(), "tavik", 0, second);
    ASSERT_NE(n1, 0u);
    EXPECT_NE(n1, n2);
    EXPECT_EQ(fs::file_size(first), 0u);
    EXPECT_EQ(fs::status(first).permissions() & fs::perms::all,
              fs::perms::owner_read | fs::perms::owner_write);
    char expected[32];
    std::snprintf(expected, sizeof expected, "tav%X.tmp", n1);
    EXPECT_EQ(fs::path(first).filename().string(), expected);

    // A given number is used as is and nothing is created.
    char given[MAX_PATH];
    EXPECT_EQ(GetTempFileName(dir.path().string().c_str(), "ab", 0x1A2B, given), 0x1A2Bu);
    EXPECT_EQ(fs::path(given).filename().string(), "ab1A2B.tmp");
    EXPECT_FALSE(fs::exists(given));

    SetLastError(0);
    EXPECT_EQ(GetTempFileName(dir.file("no-such-dir").c_str(), "x", 0, given), 0u);
    EXPECT_NE(GetLastError(), 0u);

    char temp[MAX_PATH];
    DWORD n = GetTempPath(MAX_PATH, temp);
    ASSERT_GT(n, 0u);
    EXPECT_EQ(temp[n - 1], '/');
    EXPECT_GT(GetTempPath(1, temp), 1u);  // too small: the size needed
}

// Sets or unsets environment variables for its lifetime.
class ScopedEnvironment {
public:
    ~ScopedEnvironment() {
        for (auto& [name, value] : m_saved)
            value ? (void)setenv(name.c_str(), value->c_str(), 1) : (void)unsetenv(name.c_str());
    }
    void Set(const std::string& name, const char* value) {
        if (!m_saved.count(name)) {
            const char* old = std::getenv(name.c_str());
            m_saved[name] = old ? std::optional<std::string>(old) : std::nullopt;
        }
        value ? (void)setenv(name.c_str(), value, 1) : (void)unsetenv(name.c_str());
    }

private:
    std::map<std::string, std::optional<std::string>> m_saved;
};

TEST(PathCalls, TheDataDirectoryComesFromTavikDataThenXdgThenHome) {
    ScopedEnvironment env;
    env.Set("TAVIK_DATA", "/srv/mail-data");
    env.Set("XDG_DATA_HOME", "/xdg");
    env.Set("HOME", "/home/ann");
    EXPECT_EQ(TavikDataDirectory(), "/srv/mail-data");
    env.Set("TAVIK_DATA", "");
    EXPECT_EQ(TavikDataDirectory(), "/xdg/tavikmail");
    env.Set("XDG_DATA_HOME", "relative/data");  // not absolute: to be ignored
    EXPECT_EQ(TavikDataDirectory(), "/home/ann/.local/share/tavikmail");
    env.Set("XDG_DATA_HOME", nullptr);
    EXPECT_EQ(TavikDataDirectory(), "/home/ann/.local/share/tavikmail");
}

TEST(PathCalls, UsingTheDataDirectoryCreatesItOwnerOnlyAndMovesTheModulePath) {
    TempDir dir;
    char path[MAX_PATH];
    GetModuleFileName(nullptr, path, MAX_PATH);
    const std::string name = fs::path(path).filename().string();
    const mode_t old = umask(022);
    const std::string data = (dir.path() / "share" / "tavikmail").string();
    ASSERT_TRUE(TavikUseDataDirectory((data + "/").c_str()));
    umask(old);
    for (const fs::path& made : {dir.path() / "share", dir.path() / "share" / "tavikmail"})
        EXPECT_EQ(fs::status(made).permissions(), fs::perms::owner_all) << made;
    GetModuleFileName(nullptr, path, MAX_PATH);
    EXPECT_EQ(std::string(path), data + "/" + name);

    // A file in the way: refused, and the application directory stays where it was.
    touch(dir.file("plain"));
    SetLastError(0);
    EXPECT_FALSE(TavikUseDataDirectory(dir.file("plain").c_str()));
    EXPECT_EQ(GetLastError(), DWORD(ERROR_DIRECTORY));
    EXPECT_FALSE(TavikUseDataDirectory((dir.file("plain") + "/below").c_str()));
    EXPECT_FALSE(TavikUseDataDirectory(""));
    GetModuleFileName(nullptr, path, MAX_PATH);
    EXPECT_EQ(std::string(path), data + "/" + name);

    // A relative name is taken from the current directory and kept absolute.
    const fs::path before = fs::current_path();
    fs::current_path(dir.path());
    const bool used = TavikUseDataDirectory("rel");
    fs::current_path(before);
    ASSERT_TRUE(used);
    GetModuleFileName(nullptr, path, MAX_PATH);
    EXPECT_EQ(std::string(path), dir.file("rel") + "/" + name);
    TavikSetApplicationDirectory(nullptr);
}

TEST(PathCalls, ModuleFileNameFollowsTheApplicationDirectory) {
    char path[MAX_PATH];
    DWORD n = GetModuleFileName(nullptr, path, MAX_PATH);
    ASSERT_GT(n, 0u);
    std::string exe(path, n);
    EXPECT_EQ(exe, fs::read_symlink("/proc/self/exe").string());
    std::string name = fs::path(exe).filename().string();

    TavikSetApplicationDirectory("/srv/tavik");
    GetModuleFileName(nullptr, path, MAX_PATH);
    EXPECT_EQ(std::string(path), "/srv/tavik/" + name);
    TavikSetApplicationDirectory(nullptr);
    GetModuleFileName(nullptr, path, MAX_PATH);
    EXPECT_EQ(std::string(path), exe);

    char tiny[4];
    SetLastError(0);
    EXPECT_EQ(GetModuleFileName(nullptr, tiny, sizeof tiny), 4u);
    EXPECT_EQ(GetLastError(), DWORD(ERROR_INSUFFICIENT_BUFFER));
    EXPECT_EQ(std::strlen(tiny), 3u);
}

TEST(PathCalls, FindFilesAndDelete) {
    TempDir dir;
    touch(dir.file("one.tvd"));
    touch(dir.file("two.TVD"));
    touch(dir.file("three.txt"));
    WIN32_FIND_DATA data;
    HANDLE find = FindFirstFile((dir.path().string() + "/*.tvd").c_str(), &data);
    ASSERT_NE(find, INVALID_HANDLE_VALUE);
    int found = 1;
    while (FindNextFile(find, &data)) ++found;
    EXPECT_EQ(GetLastError(), DWORD(ERROR_NO_MORE_FILES));
    FindClose(find);
    EXPECT_EQ(found, 2);

    EXPECT_EQ(FindFirstFile(dir.file("none.*").c_str(), &data), INVALID_HANDLE_VALUE);
    EXPECT_TRUE(DeleteFile(dir.file("three.txt").c_str()));
    EXPECT_FALSE(DeleteFile(dir.file("three.txt").c_str()));
    EXPECT_EQ(GetLastError(), DWORD(ERROR_FILE_NOT_FOUND));
    EXPECT_FALSE(DeleteFile(dir.path().string().c_str()));  // a directory is not a file
}
