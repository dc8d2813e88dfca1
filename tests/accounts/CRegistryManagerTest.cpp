// CRegistryManager over a private store: the open-creates rule, table-driven records, anonymous lists
// and the 1000-byte buffers.
#include <gtest/gtest.h>

#include <string>

#include "accounts/CRegistryManager.h"
#include "platform/StringResources.h"
#include "tests/support/TempDir.h"

namespace {

// Value names of a test record, registered as string resources of their own.
enum : DWORD { kName = 900001, kServer = 900002, kPort = 900003, kFlags = 900004, kMissing = 900005, kPath = 900006 };
const AFX_STRING_RESOURCE kNames[] = {
    {kName, "Account Name"}, {kServer, "Server"}, {kPort, "Port"},
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
    tavik::test::TempDir m_dir;
};

TEST_F(RegistryManager, OpenCreatesTheWholePathAndTellsNewFromExisting) {
    CRegistryManager reg;
    DWORD disposition = 0;
    ASSERT_EQ(reg.OpenRegistryKey(HKEY_CURRENT_USER, "Software\\Brannick\\Test\\A\\B", &disposition), ERROR_SUCCESS);
    EXPECT_EQ(disposition, static_cast<DWORD>(REG_CREATED_NEW_KEY));
    reg.Close();
    EXPECT_EQ(reg.GetKeyHandle(), nullptr);
    ASSERT_EQ(reg.OpenRegistryKey(HKEY_CURRENT_USER, "software\\brannick\\test\\a\\b", &disposition), ERROR_SUCCESS);
    EXPECT_EQ(disposition, static_cast<DWORD>(REG_OPENED_EXISTING_KEY));
    reg.Close();
    ASSERT_EQ(reg.OpenRegistryKey(HKEY_CURRENT_USER, static_cast<UINT>(kPath), &disposition), ERROR_SUCCESS);
    EXPECT_EQ(disposition, static_cast<DWORD>(REG_CREATED_NEW_KEY));
    reg.Close();
    HKEY check = nullptr;
    EXPECT_EQ(RegOpenKeyEx(HKEY_CURRENT_USER, "Software\\Brannick\\Test\\From Resource", 0, KEY_READ, &check),
              ERROR_SUCCESS);
    RegCloseKey(check);
}

TEST_F(RegistryManager, RecordsGoOutAndComeBackThroughTheirTables) {
    CRegistryManager reg;
    ASSERT_EQ(reg.OpenRegistryKey(HKEY_CURRENT_USER, "Software\\Brannick\\Test\\Record", nullptr), ERROR_SUCCESS);
    CString name = "home", server = "pop.example.com";
    DWORD port = 110, flags = 0x80000001u;
    std::map<DWORD, CString*> texts{{kName, &name}, {kServer, &server}};
    std::map<DWORD, DWORD*> numbers{{kPort, &port}, {kFlags, &flags}};
    reg.SetStringValues(texts);
    reg.SetDwordValues(numbers);

    // Texts are stored with their terminator, numbers as four bytes.
    DWORD type = 0, size = 0;
    ASSERT_EQ(RegQueryValueEx(reg.GetKeyHandle(), "Server", nullptr, &type, nullptr, &size), ERROR_SUCCESS);
    EXPECT_EQ(type, REG_SZ);
    EXPECT_EQ(size, 16u);
    ASSERT_EQ(RegQueryValueEx(reg.GetKeyHandle(), "Port", nullptr, &type, nullptr, &size), ERROR_SUCCESS);
    EXPECT_EQ(type, REG_DWORD);
    EXPECT_EQ(size, 4u);

    CString name2 = "keep", server2 = "keep", missing = "untouched";
    DWORD port2 = 7, flags2 = 7, missingNumber = 12345;
    std::map<DWORD, CString*> readTexts{{kName, &name2}, {kServer, &server2}, {kMissing, &missing}};
    std::map<DWORD, DWORD*> readNumbers{{kPort, &port2}, {kFlags, &flags2}, {kMissing, &missingNumber}};
    reg.GetStringValues(readTexts);
    reg.GetDwordValues(readNumbers);
    EXPECT_EQ(name2, "home");
    EXPECT_EQ(server2, "pop.example.com");
    EXPECT_EQ(missing, "untouched");
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
}

TEST_F(RegistryManager, FreePairsReadEveryValueInOrder) {
    CRegistryManager reg;
    ASSERT_EQ(reg.OpenRegistryKey(HKEY_CURRENT_USER, "Software\\Brannick\\Test\\Pairs", nullptr), ERROR_SUCCESS);
    std::map<CString, CString> pairs{{"b", "2"}, {"a", "1"}};
    reg.SetStringValues(pairs);
    std::map<CString, CString> read{{"old", "x"}};
    reg.GetStringValues(read);
    EXPECT_EQ(read, pairs);
    reg.Close();
}

TEST_F(RegistryManager, AnonymousListsReplaceTheContainerAndStopAtTheFirstUnreadableValue) {
    CRegistryManager reg;
    ASSERT_EQ(reg.OpenRegistryKey(HKEY_CURRENT_USER, "Software\\Brannick\\Test\\Friends", nullptr), ERROR_SUCCESS);
    CStringArray none;
    reg.SetAnonStringValues(none);
    DWORD values = 99;
    ASSERT_EQ(RegQueryInfoKey(reg.GetKeyHandle(), nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &values, nullptr,
                              nullptr, nullptr, nullptr),
              ERROR_SUCCESS);
    EXPECT_EQ(values, 0u);

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
    EXPECT_EQ(asList.front(), "friend0");

    // A value too large for the 1000-byte buffer ends the walk.
    std::string big(1500, 'b');
    RegSetValueEx(reg.GetKeyHandle(), "Value12", 0, REG_SZ, reinterpret_cast<const BYTE*>(big.c_str()),
                  static_cast<DWORD>(big.size() + 1));
    RegSetValueEx(reg.GetKeyHandle(), "Value13", 0, REG_SZ, reinterpret_cast<const BYTE*>("after"), 6);
    reg.GetAnonStringValues(read);
    EXPECT_EQ(read.GetSize(), 12);
    reg.Close();

    // Numbers, written over a list key deleted and created again as a save does.
    ASSERT_EQ(reg.OpenRegistryKey(HKEY_CURRENT_USER, "Software\\Brannick\\Test\\Processed", nullptr), ERROR_SUCCESS);
    std::list<DWORD> ids{1, 2, 3, 4, 5};
    reg.SetAnonDwordValues(ids);
    reg.DeleteKey("");
    reg.Close();
    ASSERT_EQ(reg.OpenRegistryKey(HKEY_CURRENT_USER, "Software\\Brannick\\Test\\Processed", nullptr), ERROR_SUCCESS);
    std::list<DWORD> shorter{0xFFFFFFFFu, 42};
    reg.SetAnonDwordValues(shorter);
    std::list<DWORD> back{7};
    reg.GetAnonDwordValues(back);
    EXPECT_EQ(back, shorter);
    reg.Close();
}

TEST_F(RegistryManager, DeleteKeyRemovesOnlyKeysWithoutSubKeys) {
    CRegistryManager parent, child;
    ASSERT_EQ(parent.OpenRegistryKey(HKEY_CURRENT_USER, "Software\\Brannick\\Test\\Rule", nullptr), ERROR_SUCCESS);
    ASSERT_EQ(child.OpenRegistryKey(HKEY_CURRENT_USER, "Software\\Brannick\\Test\\Rule\\Ignore", nullptr), ERROR_SUCCESS);
    parent.DeleteKey("");  // has a sub-key: stays
    HKEY check = nullptr;
    ASSERT_EQ(RegOpenKeyEx(HKEY_CURRENT_USER, "Software\\Brannick\\Test\\Rule", 0, KEY_READ, &check), ERROR_SUCCESS);
    RegCloseKey(check);
    parent.DeleteKey("IGNORE");
    child.Close();
    parent.DeleteKey("");
    parent.Close();
    EXPECT_EQ(RegOpenKeyEx(HKEY_CURRENT_USER, "Software\\Brannick\\Test\\Rule", 0, KEY_READ, &check),
              ERROR_FILE_NOT_FOUND);
}

TEST_F(RegistryManager, AFailedOpenLeavesEveryFieldAlone) {
    CRegistryManager reg;
    EXPECT_NE(reg.OpenRegistryKey(HKEY_LOCAL_MACHINE, "Software", nullptr), ERROR_SUCCESS);
    EXPECT_EQ(reg.GetKeyHandle(), nullptr);
    CString text = "default";
    DWORD number = 5;
    std::map<DWORD, CString*> texts{{kName, &text}};
    std::map<DWORD, DWORD*> numbers{{kPort, &number}};
    reg.GetStringValues(texts);
    reg.GetDwordValues(numbers);
    reg.SetStringValues(texts);
    CStringArray list;
    list.Add("kept");
    reg.GetAnonStringValues(list);  // empties, then finds nothing
    EXPECT_EQ(text, "default");
    EXPECT_EQ(number, 5u);
    EXPECT_EQ(list.GetSize(), 0);
    CString queried = "same";
    reg.QueryValue("Account Name", REG_SZ, queried, 1000);
    EXPECT_EQ(queried, "same");
    reg.DeleteKey("");
    reg.Close();
}

TEST_F(RegistryManager, QueryValueAndHiveFiles) {
    CRegistryManager reg;
    ASSERT_EQ(reg.OpenRegistryKey(HKEY_CLASSES_ROOT, "Tavik.Test", nullptr), ERROR_SUCCESS);
    RegSetValueEx(reg.GetKeyHandle(), "Extension", 0, REG_SZ, reinterpret_cast<const BYTE*>(".tvk"), 5);
    CString value = "unchanged";
    reg.QueryValue("Extension", REG_NONE, value, 4);  // 5 bytes do not fit
    EXPECT_EQ(value, "unchanged");
    reg.QueryValue("Extension", REG_NONE, value, 1024);
    EXPECT_EQ(value, ".tvk");

    std::string file = m_dir.file("key.reg");
    ASSERT_EQ(reg.SaveRegistryKey(file.c_str()), ERROR_SUCCESS);
    reg.Close();
    ASSERT_EQ(reg.OpenRegistryKey(HKEY_CURRENT_USER, "Software\\Brannick\\Test\\Copy", nullptr), ERROR_SUCCESS);
    ASSERT_EQ(reg.LoadRegistryKey(file.c_str()), ERROR_SUCCESS);
    value.Empty();
    reg.QueryValue("extension", REG_NONE, value, 1000);
    EXPECT_EQ(value, ".tvk");
    reg.Close();
}

}  // namespace
