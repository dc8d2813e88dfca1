// CRegistryManager over a private store: the open-creates rule, table-driven records, anonymous lists
// and the 1000-byte buffers.
#include <gtest/gtest.h>

#include <functional>
#include <list>
#include <string>
#include <vector>

#include "accounts/CRegistryManager.h"
#include "platform/StringResources.h"
#include "tests/support/TempDir.h"

namespace {

// Value names of a test record, registered as string resources of their own.
enum : DWORD {
    kName = 900001,
    kServer = 900002,
    kPort = 900003,
    kFlags = 900004,
    kMissing = 900005,
    kPath = 900006
};
const AFX_STRING_RESOURCE kNames[] = {
    {kName, "Account Name"}, {kServer, "Server"},         {kPort, "Port"},
    {kFlags, "Flags"},       {kMissing, "Never Written"}, {kPath, "Software\\Brannick\\Test\\From Resource"},
};

class RegistryManager : public ::testing::Test {
protected:
    void SetUp() override {
        RegSetStorePath(m_dir.file("registry.db").c_str());
        AfxRegisterStringTable(kNames, sizeof kNames / sizeof kNames[0]);
    }
    void TearDown() override {
        AfxUnregisterStringTable(kNames);
        RegCloseStore();
        RegSetStorePath(nullptr);
    }
    bool Exists(const char* path) {
        HKEY key = nullptr;
        if (RegOpenKeyEx(HKEY_CURRENT_USER, path, 0, KEY_READ, &key) != ERROR_SUCCESS) return false;
        RegCloseKey(key);
        return true;
    }
    tavik::test::TempDir m_dir;
};

TEST_F(RegistryManager, OpenCreatesTheWholePathAndTellsNewFromExisting) {
    CRegistryManager reg;
    DWORD disposition = 0;
    ASSERT_EQ(reg.OpenRegistryKey(HKEY_CURRENT_USER, "Software\\Brannick\\Test\\A\\B", &disposition),
              ERROR_SUCCESS);
    EXPECT_EQ(disposition, static_cast<DWORD>(REG_CREATED_NEW_KEY));
    reg.Close();
    ASSERT_EQ(reg.OpenRegistryKey(HKEY_CURRENT_USER, "software\\brannick\\test\\a\\b", &disposition),
              ERROR_SUCCESS);
    EXPECT_EQ(disposition, static_cast<DWORD>(REG_OPENED_EXISTING_KEY));
    reg.Close();
    ASSERT_EQ(reg.OpenRegistryKey(HKEY_CURRENT_USER, static_cast<UINT>(kPath), &disposition), ERROR_SUCCESS);
    reg.Close();
    EXPECT_TRUE(Exists("Software\\Brannick\\Test\\From Resource"));

    // Only keys without sub-keys can be deleted, by name or through their own handle.
    ASSERT_EQ(reg.OpenRegistryKey(HKEY_CURRENT_USER, "Software\\Brannick\\Test\\A", nullptr), ERROR_SUCCESS);
    reg.DeleteKey("");
    EXPECT_TRUE(Exists("Software\\Brannick\\Test\\A"));
    reg.DeleteKey("b");
    reg.DeleteKey("");
    reg.Close();
    EXPECT_FALSE(Exists("Software\\Brannick\\Test\\A"));
}

TEST_F(RegistryManager, RecordsGoOutAndComeBackThroughTheirTables) {
    CRegistryManager reg;
    ASSERT_EQ(reg.OpenRegistryKey(HKEY_CURRENT_USER, "Software\\Brannick\\Test\\Record", nullptr),
              ERROR_SUCCESS);
    CString name = "home", server = "pop.example.com";
    DWORD port = 110, flags = 0x80000001u;
    std::map<DWORD, CString*> texts{{kName, &name}, {kServer, &server}};
    std::map<DWORD, DWORD*> numbers{{kPort, &port}, {kFlags, &flags}};
    reg.SetStringValues(texts);
    reg.SetDwordValues(numbers);
    // Texts are stored with their terminator, numbers as REG_DWORD, as other readers of the store expect.
    DWORD type = 0, size = 0;
    ASSERT_EQ(RegQueryValueEx(reg.GetKeyHandle(), "Server", nullptr, &type, nullptr, &size), ERROR_SUCCESS);
    EXPECT_EQ(std::make_pair(type, size), std::make_pair(DWORD{REG_SZ}, DWORD{16}));
    ASSERT_EQ(RegQueryValueEx(reg.GetKeyHandle(), "Port", nullptr, &type, nullptr, &size), ERROR_SUCCESS);
    EXPECT_EQ(std::make_pair(type, size), std::make_pair(DWORD{REG_DWORD}, DWORD{4}));

    // Missing values leave their fields alone.
    CString name2 = "keep", server2 = "keep", missing = "untouched";
    DWORD port2 = 7, flags2 = 7, missingNumber = 12345;
    std::map<DWORD, CString*> readTexts{{kName, &name2}, {kServer, &server2}, {kMissing, &missing}};
    std::map<DWORD, DWORD*> readNumbers{{kPort, &port2}, {kFlags, &flags2}, {kMissing, &missingNumber}};
    reg.GetStringValues(readTexts);
    reg.GetDwordValues(readNumbers);
    EXPECT_EQ(name2 + "|" + server2 + "|" + missing, "home|pop.example.com|untouched");
    EXPECT_EQ(port2, 110u);
    EXPECT_EQ(flags2, 0x80000001u);
    EXPECT_EQ(missingNumber, 12345u);

    // A number read from a text takes its first four bytes; a text too long for the buffer is not read.
    DWORD fromText = 0;
    std::map<DWORD, DWORD*> wrongType{{kServer, &fromText}};
    reg.GetDwordValues(wrongType);
    EXPECT_EQ(fromText, 0x2e706f70u);  // "pop."
    CString longText(static_cast<char>('x'), 1000);
    std::map<DWORD, CString*> writeLong{{kName, &longText}};
    reg.SetStringValues(writeLong);  // 1001 bytes with the terminator
    CString before = "before";
    std::map<DWORD, CString*> readLong{{kName, &before}};
    reg.GetStringValues(readLong);
    EXPECT_EQ(before, "before");
    std::map<CString, CString> pairs{{"stale", "entry"}};
    reg.GetStringValues(pairs);  // the over-long value ends the walk at once: it is the first value
    EXPECT_TRUE(pairs.empty());
    reg.Close();

    ASSERT_EQ(reg.OpenRegistryKey(HKEY_CURRENT_USER, "Software\\Brannick\\Test\\Pairs", nullptr),
              ERROR_SUCCESS);
    std::map<CString, CString> written{{"b", "2"}, {"a", "1"}}, read{{"old", "x"}};
    reg.SetStringValues(written);
    reg.GetStringValues(read);
    EXPECT_EQ(read, written);
    reg.Close();
}

TEST_F(RegistryManager, AnonymousListsReplaceTheContainerAndStopAtTheFirstUnreadableValue) {
    CRegistryManager reg;
    ASSERT_EQ(reg.OpenRegistryKey(HKEY_CURRENT_USER, "Software\\Brannick\\Test\\Friends", nullptr),
              ERROR_SUCCESS);
    CStringArray friends;
    for (int i = 0; i < 12; ++i) friends.Add(CString("friend") + CString(std::to_string(i)));
    reg.SetAnonStringValues(friends);
    CStringArray read;
    read.Add("earlier");
    reg.GetAnonStringValues(read);
    ASSERT_EQ(read.GetSize(), 12);
    EXPECT_EQ(read[11], "friend11");  // "Value11" after "Value10", in creation order
    std::list<CString> asList{"earlier"};
    reg.GetAnonStringValues(asList);
    EXPECT_EQ(asList.size(), 12u);

    // A value too large for the 1000-byte buffer ends the walk.
    std::string big(1500, 'b');
    RegSetValueEx(reg.GetKeyHandle(), "Value12", 0, REG_SZ, reinterpret_cast<const BYTE*>(big.c_str()),
                  static_cast<DWORD>(big.size() + 1));
    RegSetValueEx(reg.GetKeyHandle(), "Value13", 0, REG_SZ, reinterpret_cast<const BYTE*>("after"), 6);
    reg.GetAnonStringValues(read);
    EXPECT_EQ(read.GetSize(), 12);
    reg.Close();

    // Numbers, written over a list key deleted and created again as a save does.
    const char* processed = "Software\\Brannick\\Test\\Processed";
    ASSERT_EQ(reg.OpenRegistryKey(HKEY_CURRENT_USER, processed, nullptr), ERROR_SUCCESS);
    std::list<DWORD> ids{1, 2, 3, 4, 5}, shorter{0xFFFFFFFFu, 42}, back{7};
    reg.SetAnonDwordValues(ids);
    reg.DeleteKey("");
    reg.Close();
    ASSERT_EQ(reg.OpenRegistryKey(HKEY_CURRENT_USER, processed, nullptr), ERROR_SUCCESS);
    reg.SetAnonDwordValues(shorter);
    reg.GetAnonDwordValues(back);
    EXPECT_EQ(back, shorter);
    // The block forms read and write the same values.
    std::vector<DWORD> block{9};
    reg.GetAnonDwordValues(block);
    EXPECT_EQ(block, std::vector<DWORD>(shorter.begin(), shorter.end()));
    reg.SetAnonDwordValues(std::vector<DWORD>{5, 6, 7});
    reg.GetAnonDwordValues(back);
    EXPECT_EQ(back, (std::list<DWORD>{5, 6, 7}));
    reg.Close();
}

// Every value of the key in enumeration order, as "name=type:number".
std::string Listing(HKEY key) {
    std::string out;
    char name[64];
    for (DWORD index = 0;; ++index) {
        DWORD nameSize = sizeof name, type = 0, value = 0, size = sizeof value;
        if (RegEnumValue(key, index, name, &nameSize, nullptr, &type, reinterpret_cast<BYTE*>(&value),
                         &size) != ERROR_SUCCESS)
            break;
        out += std::string(name) + "=" + std::to_string(type) + ":" + std::to_string(value) + " ";
    }
    return out;
}

// An update leaves the key as a delete and a full rewrite would, and refuses (writing nothing) a key
// holding anything its list could not have written.
TEST_F(RegistryManager, NumberListsAreUpdatedInPlaceOrRefused) {
    CRegistryManager reg;
    ASSERT_EQ(reg.OpenRegistryKey(HKEY_CURRENT_USER, "Software\\Brannick\\Test\\Processed", nullptr),
              ERROR_SUCCESS);
    for (const std::vector<DWORD>& ids :
         {std::vector<DWORD>{1, 2, 3}, {1, 9, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}, {1, 9}, {}, {0xFFFFFFFFu}}) {
        ASSERT_TRUE(reg.UpdateAnonDwordValues(ids));
        std::string expected;
        for (size_t i = 0; i < ids.size(); ++i)
            expected += "Value" + std::to_string(i) + "=4:" + std::to_string(ids[i]) + " ";
        EXPECT_EQ(Listing(reg.GetKeyHandle()), expected);
    }
    reg.Close();

    const DWORD number = 5;
    const std::function<void(HKEY)> foreign[] = {
        [&](HKEY key) {
            RegSetValueEx(key, "Other", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&number), 4);
        },
        [&](HKEY key) { RegSetValueEx(key, "Value1", 0, REG_SZ, reinterpret_cast<const BYTE*>("5"), 2); },
        [&](HKEY key) {
            RegSetValueEx(key, "Value1", 0, REG_DWORD, reinterpret_cast<const BYTE*>("12345678"), 8);
        },
        [&](HKEY key) {
            RegSetValueEx(key, "value1", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&number), 4);
        },
        [&](HKEY key) {
            RegSetValueEx(key, "Value2", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&number), 4);
        },
        [&](HKEY key) {
            HKEY sub = nullptr;
            RegCreateKeyEx(key, "Sub", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &sub, nullptr);
            RegCloseKey(sub);
        },
    };
    int which = 0;
    for (const auto& spoil : foreign) {
        const std::string path = "Software\\Brannick\\Test\\Spoiled" + std::to_string(which++);
        ASSERT_EQ(reg.OpenRegistryKey(HKEY_CURRENT_USER, path.c_str(), nullptr), ERROR_SUCCESS);
        RegSetValueEx(reg.GetKeyHandle(), "Value0", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&number), 4);
        spoil(reg.GetKeyHandle());
        const std::string before = Listing(reg.GetKeyHandle());
        EXPECT_FALSE(reg.UpdateAnonDwordValues({7, 8, 9})) << path;
        EXPECT_EQ(Listing(reg.GetKeyHandle()), before) << path;
        reg.Close();
    }
}

TEST_F(RegistryManager, AFailedOpenLeavesEveryFieldAlone) {
    CRegistryManager reg;
    EXPECT_NE(reg.OpenRegistryKey(HKEY_LOCAL_MACHINE, "Software", nullptr), ERROR_SUCCESS);
    EXPECT_EQ(reg.GetKeyHandle(), nullptr);
    CString text = "default", queried = "same";
    DWORD number = 5;
    std::map<DWORD, CString*> texts{{kName, &text}};
    std::map<DWORD, DWORD*> numbers{{kPort, &number}};
    reg.GetStringValues(texts);
    reg.GetDwordValues(numbers);
    reg.SetStringValues(texts);
    reg.QueryValue("Account Name", REG_SZ, queried, 1000);
    CStringArray list;
    list.Add("kept");
    reg.GetAnonStringValues(list);  // empties, then finds nothing
    reg.DeleteKey("");
    EXPECT_EQ(text + "|" + queried, "default|same");
    EXPECT_EQ(number, 5u);
    EXPECT_EQ(list.GetSize(), 0);
}

TEST_F(RegistryManager, QueryValueAndHiveFiles) {
    CRegistryManager reg;
    ASSERT_EQ(reg.OpenRegistryKey(HKEY_CLASSES_ROOT, "Tavik.Test", nullptr), ERROR_SUCCESS);
    RegSetValueEx(reg.GetKeyHandle(), "Extension", 0, REG_SZ, reinterpret_cast<const BYTE*>(".tvk"), 5);
    CString value = "unchanged";
    reg.QueryValue("Extension", REG_NONE, value, 4);  // 5 bytes do not fit
    EXPECT_EQ(value, "unchanged");
    std::string file = m_dir.file("key.reg");
    ASSERT_EQ(reg.SaveRegistryKey(file.c_str()), ERROR_SUCCESS);
    reg.Close();
    ASSERT_EQ(reg.OpenRegistryKey(HKEY_CURRENT_USER, "Software\\Brannick\\Test\\Copy", nullptr),
              ERROR_SUCCESS);
    ASSERT_EQ(reg.LoadRegistryKey(file.c_str()), ERROR_SUCCESS);
    reg.QueryValue("extension", REG_NONE, value, 1000);
    EXPECT_EQ(value, ".tvk");
    reg.Close();
}

}  // namespace
