// The storage handle against real compound files: opening and creating, value encodings, lists,
// enumerating readers and the failure texts.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "messages/CStorageManager.h"
#include "tests/messages/DamagedFile.h"
#include "tests/support/TempDir.h"

namespace fs = std::filesystem;
using tavik::test::ClaimHugeStreamSize;
using tavik::test::TempDir;

namespace {

constexpr DWORD kChildMode = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;

// Runs f, which must throw a CStorageManagerException; returns its code and text.
template <class F>
std::pair<HRESULT, std::string> thrown(F f) {
    try {
        f();
    } catch (CStorageManagerException* e) {
        std::pair<HRESULT, std::string> got{e->m_hResult, e->m_strMessage.GetString()};
        e->Delete();
        return got;
    }
    ADD_FAILURE() << "no CStorageManagerException";
    return {S_OK, ""};
}

std::string streamBytes(CStorageManager& storage, const char* name) {
    std::string bytes(storage.GetStreamSize(name), '\0');
    storage.ReadData(name, bytes.data(), static_cast<ULONG>(bytes.size()));
    return bytes;
}

}  // namespace

TEST(StorageManager, CreatesAMissingFileAndOpensAnExistingOneWithoutTruncating) {
    TempDir dir;
    std::string path = dir.file("settings.tvs");
    {
        CStorageManager storage(path.c_str(), true);
        ASSERT_TRUE(storage.IsOpen());
        EXPECT_TRUE(storage.WriteData("Kept", "12345", 5));
    }
    ASSERT_TRUE(fs::exists(path));
    EXPECT_EQ(fs::status(path).permissions() & fs::perms::all,
              fs::perms::owner_read | fs::perms::owner_write);
    {
        CStorageManager storage;
        storage.OpenStorageFile(path.c_str(), false);
        EXPECT_EQ(streamBytes(storage, "Kept"), "12345");
        // A second handle on the same file is refused while this one holds it.
        auto [code, text] = thrown([&] { CStorageManager again(path.c_str(), false); });
        EXPECT_TRUE(FAILED(code));
        EXPECT_FALSE(text.empty());
    }
    // Not a compound file: the open fails and the file is left alone.
    std::string other = dir.file("plain.txt");
    std::ofstream(other) << "not a docfile";
    thrown([&] { CStorageManager bad(other.c_str(), false); });
    EXPECT_EQ(fs::file_size(other), 13u);
}

TEST(StorageManager, SubStoragesAreOpenedOrCreatedOnRequest) {
    TempDir dir;
    CStorageManager root(dir.file("a.tvd").c_str(), true);
    CStorageManager child;
    EXPECT_FALSE(child.OpenSubStorage(nullptr, "Accounts", kChildMode, true, false));

    auto [code, text] =
        thrown([&] { child.OpenSubStorage(root.m_pStorage, "Accounts", kChildMode, false, true); });
    EXPECT_EQ(code, STG_E_FILENOTFOUND);
    EXPECT_EQ(text, "STG_E_FILENOTFOUND: File or Stream not found");
    EXPECT_FALSE(child.IsOpen());

    EXPECT_TRUE(child.OpenSubStorage(root.m_pStorage, "Accounts", kChildMode, true, true));
    child.WriteNumber("Count", 3);
    child.Close();
    EXPECT_TRUE(root.StorageExists("Accounts"));
    EXPECT_FALSE(root.StorageExists("Nothing"));
    // Only "not found" means absent: a name the storage refuses counts as present.
    EXPECT_TRUE(root.StreamExists("Accounts/Count"));

    // Reopened without create, the committed child is there with its stream.
    ASSERT_TRUE(child.OpenSubStorage(root.m_pStorage, "Accounts", kChildMode, false, false));
    DWORD count = 0;
    child.ReadNumber("Count", count);
    EXPECT_EQ(count, 3u);

    // An open element cannot be opened twice.
    CStorageManager twice;
    auto [busy, busyText] =
        thrown([&] { twice.OpenSubStorage(root.m_pStorage, "Accounts", kChildMode, false, false); });
    EXPECT_EQ(busy, STG_E_ACCESSDENIED);
    EXPECT_EQ(busyText.rfind("STG_E_ACCESSDENIED: ", 0), 0u);
}

TEST(StorageManager, NumbersAndTextsUseTheirStreamEncodingsAndAreDeletedAndCopied) {
    TempDir dir;
    CStorageManager storage(dir.file("v.tvd").c_str(), false);
    storage.WriteNumber("Big", 4294967295u);
    EXPECT_EQ(streamBytes(storage, "Big"), "4294967295");
    DWORD value = 0;
    storage.ReadNumber("Big", value);
    EXPECT_EQ(value, 4294967295u);

    storage.WriteString("Text", "hello\xE9");
    EXPECT_EQ(storage.GetStreamSize("Text"), 6u);  // the text's own bytes, no terminator
    CString text;
    storage.ReadString("Text", text);
    EXPECT_EQ(text, "hello\xE9");

    // Missing streams leave the values alone and give 0 sizes.
    DWORD sentinel = 0xdeadbeef;
    storage.ReadNumber("Missing", sentinel);
    EXPECT_EQ(sentinel, 0xdeadbeefu);
    CString untouched = "keep";
    storage.ReadString("Missing", untouched);
    EXPECT_EQ(untouched, "keep");
    EXPECT_EQ(storage.GetStreamSize("Missing"), 0u);

    // A number stream with trailing junk reads its leading digits; an overlong one is cut at 100.
    storage.WriteString("Junk", "123abc");
    storage.ReadNumber("Junk", value);
    EXPECT_EQ(value, 123u);
    storage.WriteString("Long", CString('9', 5000));
    storage.ReadNumber("Long", value);  // saturates, never reads past its buffer
    EXPECT_EQ(value, 4294967295u);

    // Replacing a stream replaces it whole.
    storage.WriteString("Text", "ab");
    EXPECT_EQ(storage.GetStreamSize("Text"), 2u);

    storage.DeleteElement("Junk");
    EXPECT_EQ(storage.m_hResult, S_OK);
    EXPECT_FALSE(storage.StreamExists("Junk"));
    storage.DeleteElement("Junk");  // a second time: kept in m_hResult, nothing thrown
    EXPECT_EQ(storage.m_hResult, STG_E_FILENOTFOUND);
    CStorageManager target(dir.file("t.tvd").c_str(), false);
    EXPECT_TRUE(storage.CopyTo(target.m_pStorage));
    target.ReadString("Text", text);
    EXPECT_EQ(text, "ab");

    // Without a storage nothing is written or read.
    CStorageManager empty;
    EXPECT_FALSE(empty.WriteData("x", "1", 1));
    EXPECT_FALSE(empty.CopyTo(storage.m_pStorage));
}

TEST(StorageManager, StringAndNumberListsRoundTrip) {
    TempDir dir;
    CStorageManager storage(dir.file("l.tvd").c_str(), false);
    CStringArray out;
    for (const char* s : {"a", "b"}) out.Add(s);
    storage.WriteStringList("Friends", out, "|");
    EXPECT_EQ(streamBytes(storage, "Friends"), "|a|b");

    CStringArray in;
    in.Add("A");
    storage.ReadStringList("Friends", in, "|");
    ASSERT_EQ(in.GetSize(), 2);  // "a" matches "A" ignoring case
    EXPECT_EQ(in[0], "A");
    EXPECT_EQ(in[1], "b");

    storage.WriteString("Mixed", ";x;;y,z;");
    CStringArray mixed;
    storage.ReadStringList("Mixed", mixed, ";,");
    ASSERT_EQ(mixed.GetSize(), 3);
    EXPECT_EQ(mixed[2], "z");

    std::list<DWORD> numbers{7, 0xFFFFFFFF, 42};
    storage.WriteNumberList("Ids", numbers);
    EXPECT_EQ(streamBytes(storage, "Ids"), std::string("\x07\0\0\0\xFF\xFF\xFF\xFF\x2A\0\0\0", 12));
    std::list<DWORD> back{42};
    storage.ReadNumberList("Ids", back);
    EXPECT_EQ(back, (std::list<DWORD>{42, 7, 0xFFFFFFFF}));

    // A trailing part of fewer than four bytes is not a value.
    storage.WriteData("Odd", "\x01\0\0\0\x02\0", 6);
    std::list<DWORD> odd;
    storage.ReadNumberList("Odd", odd);
    EXPECT_EQ(odd, (std::list<DWORD>{1}));
}

TEST(StorageManager, EnumeratingReadersTakeEveryStreamOnce) {
    TempDir dir;
    CStorageManager root(dir.file("e.tvd").c_str(), false);
    CStorageManager texts;
    ASSERT_TRUE(texts.OpenSubStorage(root.m_pStorage, "Texts", kChildMode, true, false));
    for (auto [name, value] : {std::pair{"0", "spam@x"}, {"1", "SPAM@X"}, {"2", "ham@y"}})
        texts.WriteString(name, value);
    CStorageManager nested;
    ASSERT_TRUE(nested.OpenSubStorage(texts.m_pStorage, "Nested", kChildMode, true, false));
    nested.Close();
    CStringArray entries;
    texts.ReadStreamsIntoArray(entries);
    ASSERT_EQ(entries.GetSize(), 2);  // the sub-storage is not a stream; the duplicate differs in case

    CStorageManager numbers;
    ASSERT_TRUE(numbers.OpenSubStorage(root.m_pStorage, "Numbers", kChildMode, true, false));
    for (auto [name, value] : {std::pair{"a", 10}, {"b", 20}, {"c", 10}}) numbers.WriteNumber(name, value);
    std::list<DWORD> values;
    numbers.ReadStreamsIntoNumberList(values);
    values.sort();
    EXPECT_EQ(values, (std::list<DWORD>{10, 20}));

    // An element that is open elsewhere cannot be read: the reader says so.
    IStream* held = nullptr;
    ASSERT_EQ(numbers.m_pStorage->OpenStream("a", nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, 0, &held), S_OK);
    auto [code, text] = thrown([&] { numbers.ReadStreamsIntoNumberList(values); });
    EXPECT_EQ(text.rfind("OpenStream Failed! Error #: ", 0), 0u);
    held->Release();
}

TEST(StorageManager, ADamagedStreamFailsTheEnumeratingReaderWithItsText) {
    TempDir dir;
    std::string path = dir.file("d.tvd");
    {
        CStorageManager root(path.c_str(), false);
        root.WriteString("Entry", "spam@x");
    }
    // The stream's directory entry claims almost 2 GB; its sectors hold six bytes.
    ClaimHugeStreamSize(path, "Entry");

    CStorageManager root(path.c_str(), false);
    CStringArray entries;
    auto [code, text] = thrown([&] { root.ReadStreamsIntoArray(entries); });
    EXPECT_EQ(text.rfind("ReadStream Failed: ", 0), 0u) << text;
    EXPECT_EQ(entries.GetSize(), 0);
    CString value = "kept";
    thrown([&] { root.ReadString("Entry", value); });
    EXPECT_EQ(value, "kept");
}

TEST(StorageManagerException, TextsComeFromTheCodeOrAreGiven) {
    CStorageManagerException known(STG_E_MEDIUMFULL);
    EXPECT_EQ(known.m_strMessage, "STG_E_MEDIUMFULL: No space left on device to commit");
    CStorageManagerException unknown(E_FAIL);
    EXPECT_EQ(unknown.m_strMessage, "Unknown Error: 2147500037l");
    CStorageManagerException shared(STG_E_SHAREVIOLATION);
    EXPECT_EQ(shared.m_strMessage.Left(15), "Unknown Error: ");
    CStorageManagerException given(CString("ReadStream Failed: broken"));
    EXPECT_EQ(given.m_strMessage, "ReadStream Failed: broken");
    char buffer[8];
    EXPECT_TRUE(given.GetErrorMessage(buffer, sizeof buffer));
    EXPECT_STREQ(buffer, "ReadStr");
}
