// Accounts in the registry: the values and sub-keys written, a missing key at load time, the signature
// replaced on every load, lists that shrink, deletion of everything under an account, both
// enumerations with merge, the global shields, and a key holding very many accounts.
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "accounts/CGlobalProfile.h"
#include "accounts/CMailBoxProfile.h"
#include "tests/accounts/MailBoxTestSupport.h"

using namespace tavik::test;

namespace {

const CString kAccounts = "Software\\Brannick\\Tavik Mail\\Accounts";

bool KeyExists(const CString& key) {
    HKEY h = nullptr;
    if (RegOpenKeyEx(HKEY_CURRENT_USER, key, 0, KEY_READ, &h) != ERROR_SUCCESS) return false;
    RegCloseKey(h);
    return true;
}

std::vector<std::string> SubKeys(const CString& key) {
    std::vector<std::string> names;
    HKEY h = nullptr;
    if (RegOpenKeyEx(HKEY_CURRENT_USER, key, 0, KEY_READ, &h) != ERROR_SUCCESS) return names;
    char name[1000];
    for (DWORD i = 0;; ++i) {
        DWORD size = sizeof name;
        if (RegEnumKeyEx(h, i, name, &size, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS) break;
        names.emplace_back(name);
    }
    RegCloseKey(h);
    return names;
}

// Every value of the key as "name=data" (numbers in decimal), in the key's order.
std::vector<std::string> Values(const CString& key) {
    std::vector<std::string> values;
    HKEY h = nullptr;
    if (RegOpenKeyEx(HKEY_CURRENT_USER, key, 0, KEY_READ, &h) != ERROR_SUCCESS) return values;
    char name[1000];
    BYTE data[1000];
    for (DWORD i = 0;; ++i) {
        DWORD nameSize = sizeof name, dataSize = sizeof data, type = 0;
        if (RegEnumValue(h, i, name, &nameSize, nullptr, &type, data, &dataSize) != ERROR_SUCCESS) break;
        if (type == REG_DWORD)
            values.push_back(std::string(name) + "=" + std::to_string(*reinterpret_cast<DWORD*>(data)));
        else
            values.push_back(std::string(name) + "=" + reinterpret_cast<char*>(data));
    }
    RegCloseKey(h);
    return values;
}

class Registry : public AccountFixture {
protected:
    void TearDown() override {
        for (CMailBoxProfile* p : m_list) {
            p->UnloadMessages();
            delete p;
        }
        AccountFixture::TearDown();
    }
    void Enumerate(bool merge) {
        CMailBoxProfile walker;
        ASSERT_EQ(walker.OpenRegistryKey(HKEY_CURRENT_USER, kAccounts, nullptr), ERROR_SUCCESS);
        walker.EnumRegistryKey(m_list, kAccounts, "bob", merge);
        walker.Close();
    }
    std::list<CMailBoxProfile*> m_list;
};

TEST_F(Registry, TheAccountKeyHoldsItsValuesRulesAndLists) {
    CMailBoxProfile p;
    Name(p, "Home");
    p.SetAdvancedData(1, 0, 1, 0, 1, 77, 1, 30);
    p.SetExtraData(5, 600, 0);
    p.SetSignature(1234);
    p.SetFriendList(Strings({"pal@example.org", "example.com"}));
    p.SetSpamList(Strings({"junk.example"}));
    p.GetSpamShields().push_back(CSpamBlockProfile());
    p.GetSpamShields().back().ResetValues();
    p.GetSpamShields().back().SetFilterData("Junk", "Header", "contains", "z", "Do Nothing", "All Days", 0, 0,
                                            0);
    p.SaveRegistryData(kAccounts);

    const CString key = kAccounts + "\\Home";
    EXPECT_EQ(Values(key), (std::vector<std::string>{"Account Name=Home",
                                                     "Real Name=Real Home",
                                                     "Email Address=Home@example.org",
                                                     "Reply To=reply@example.org",
                                                     "Organization=Org",
                                                     "Server Name=pop.example.org",
                                                     "Outgoing Mail Server=smtp.example.org",
                                                     "Incoming Protocol=POP3",
                                                     "Outgoing Protocol=SMTP",
                                                     "User Name=user",
                                                     "User Password=secret",
                                                     "Outgoing Server Username=out-user",
                                                     "Outgoing Server Password=out-secret",
                                                     "Spam Only=0",
                                                     "Secure Login=0",
                                                     "Disabled=1",
                                                     "Auto Download=0",
                                                     "Spam Filter=0",
                                                     "Filter Type=0",
                                                     "Tree State=0",
                                                     "Leave Copy=1",
                                                     "Save Copy=0",
                                                     "Retrieve Body=1",
                                                     "Maximum Body Size=77",
                                                     "Always Rescan Mailbox=1",
                                                     "Timeout=30",
                                                     "Process Limit=5",
                                                     "Maximum Scan Limit=600",
                                                     "Leave Complete Messages During Rescan=0",
                                                     "Profile ID=1234",
                                                     "Compress Database=0"}));
    EXPECT_EQ(SubKeys(key), (std::vector<std::string>{"Folders", "Friends", "Shields", "Spam"}));
    EXPECT_EQ(SubKeys(key + "\\Shields"), (std::vector<std::string>{"Junk"}));
    EXPECT_EQ(Values(key + "\\Friends"),
              (std::vector<std::string>{"Value0=pal@example.org", "Value1=example.com"}));
    EXPECT_EQ(Values(key + "\\Folders"),
              (std::vector<std::string>{"Value0=Inbox", "Value1=Sent", "Value2=Trash"}));

    // Read back: everything, with the signature made from the name.
    CMailBoxProfile back;
    back.LoadRegistryData(key);
    EXPECT_EQ(back.BuildMailBoxStringData(), p.BuildMailBoxStringData());
    EXPECT_EQ(back.GetMaxBodySize(), 77u);
    EXPECT_EQ(back.GetSessionMax(), 600u);
    EXPECT_EQ(back.GetSignature(), 3521422318u);  // CRC-32 of "Home", whatever "Profile ID" said
    CStringArray list;
    back.GetFriendList(list);
    EXPECT_EQ(Joined(list), "pal@example.org,example.com");
    back.GetSpamList(list);
    EXPECT_EQ(Joined(list), "junk.example");
    ASSERT_EQ(back.GetShieldCount(), 1);
    EXPECT_EQ(back.GetSpamShields().front().GetFilterName(), "Junk");

    // A list that shrinks leaves no value of its longer past.
    p.SetFriendList(Strings({"only@example.org"}));
    p.SaveRegistryData(kAccounts);
    EXPECT_EQ(Values(key + "\\Friends"), (std::vector<std::string>{"Value0=only@example.org"}));
    // No name, no key: the parent is never written as if it were the account.
    CMailBoxProfile nameless;
    nameless.SaveRegistryData(kAccounts);
    EXPECT_TRUE(Values(kAccounts).empty());
}

TEST_F(Registry, AMissingKeyIsMadeWithTheDefaults) {
    CMailBoxProfile p;
    Name(p, "Stale");
    p.SetSignature(5);
    const CString key = kAccounts + "\\Missing";
    p.LoadRegistryData(key);
    EXPECT_EQ(p.GetAccountName(), "");  // reset
    EXPECT_EQ(p.GetSessionMax(), 999u);
    EXPECT_EQ(p.GetSignature(), 0u);  // the CRC-32 of no bytes
    EXPECT_TRUE(KeyExists(key));
    const std::vector<std::string> values = Values(key);
    ASSERT_EQ(values.size(), 31u);
    EXPECT_EQ(values.front(), "Account Name=");
    EXPECT_EQ(Values(key + "\\Folders"),
              (std::vector<std::string>{"Value0=Inbox", "Value1=Sent", "Value2=Trash"}));
    p.LoadRegistryData("");  // nothing
}

// The connection security lives in two values of its own, written only when set: an account that keeps
// the automatic choice has exactly the key it always had, and a key without them reads as automatic
// whatever the record held before. Loading the account's storage after its key keeps what the key said.
TEST_F(Registry, TheConnectionSecurityIsKeptOnlyWhenSet) {
    CMailBoxProfile p;
    Name(p, "Secure");
    p.SetConnectionSecurity(CMailBoxData::SECURITY_TLS, CMailBoxData::SECURITY_UPGRADE);
    p.SaveRegistryData(kAccounts);
    const CString key = kAccounts + "\\Secure";
    std::vector<std::string> values = Values(key);
    ASSERT_EQ(values.size(), 33u);
    EXPECT_EQ(std::vector<std::string>(values.end() - 2, values.end()),
              (std::vector<std::string>{"Incoming Security=3", "Outgoing Security=2"}));

    CMailBoxProfile back;
    back.LoadRegistryData(key);
    EXPECT_EQ(back.GetIncomingSecurity(), static_cast<DWORD>(CMailBoxData::SECURITY_TLS));
    EXPECT_EQ(back.GetOutgoingSecurity(), static_cast<DWORD>(CMailBoxData::SECURITY_UPGRADE));
    CMailBoxProfile copy;
    copy = back;
    EXPECT_EQ(copy.GetIncomingSecurity(), static_cast<DWORD>(CMailBoxData::SECURITY_TLS));

    // The storage holds no security: reading it into the loaded account leaves the key's.
    back.InitializeStorages(Accounts(), back.GetStorageName());
    back.SaveStorageData(Accounts(), nullptr, false);
    std::list<CMailBoxProfile*> listed{&back};
    CMailBoxProfile::EnumStorage(Accounts(), listed, "bob", nullptr, false, CMailBoxProfile::READ_FULL);
    ASSERT_EQ(listed.size(), 1u);
    EXPECT_EQ(back.GetOutgoingSecurity(), static_cast<DWORD>(CMailBoxData::SECURITY_UPGRADE));

    // Back to automatic: the values go, and a record that had them reads the key as automatic.
    p.SetConnectionSecurity(CMailBoxData::SECURITY_AUTOMATIC, CMailBoxData::SECURITY_AUTOMATIC);
    p.SaveRegistryData(kAccounts);
    EXPECT_EQ(Values(key).size(), 31u);
    back.LoadRegistryData(key);
    EXPECT_EQ(back.GetIncomingSecurity(), static_cast<DWORD>(CMailBoxData::SECURITY_AUTOMATIC));
    EXPECT_EQ(back.GetOutgoingSecurity(), static_cast<DWORD>(CMailBoxData::SECURITY_AUTOMATIC));
    back.UnloadMessages();
}

TEST_F(Registry, ADeletedAccountTakesEverythingUnderItsKey) {
    CMailBoxProfile p;
    Name(p, "Doomed");
    for (const char* rule : {"One", "Two"}) {
        p.GetAutoResponders().emplace_back();
        p.GetAutoResponders().back().ResetValues();
        p.GetAutoResponders().back().SetFilterData(rule, "Header", "contains", "x", "Do Nothing", "All Days",
                                                   0, 0, 0);
        p.GetAutoResponders().back().AddProcessedID(7);
    }
    p.GetRedirectors().emplace_back();
    p.GetRedirectors().back().ResetValues();
    p.GetRedirectors().back().SetFilterData("Fwd", "Header", "contains", "x", "Do Nothing", "All Days", 0, 0,
                                            0);
    p.SaveRegistryData(kAccounts);
    // A rule the list no longer knows of still lies under the key.
    p.GetAutoResponders().pop_back();
    const CString key = kAccounts + "\\Doomed";
    ASSERT_TRUE(KeyExists(key + "\\AutoResponder\\Two\\Processed"));
    p.DeleteEntry();
    p.SaveRegistryData(kAccounts);
    EXPECT_FALSE(KeyExists(key));
    EXPECT_TRUE(KeyExists(kAccounts));
    EXPECT_TRUE(p.GetAutoResponders().front().GetDeleted());
}

TEST_F(Registry, EnumerationsWithAndWithoutMerge) {
    for (const char* name : {"Work", "Home"}) {
        CMailBoxProfile p;
        Name(p, name);
        p.SaveRegistryData(kAccounts);
    }
    // A key whose account has no name is left out.
    CMailBoxProfile().LoadRegistryData(kAccounts + "\\Nameless");

    std::list<CMailBoxProfile> copies;
    CMailBoxProfile walker;
    ASSERT_EQ(walker.OpenRegistryKey(HKEY_CURRENT_USER, kAccounts, nullptr), ERROR_SUCCESS);
    walker.EnumRegistryKey(copies, kAccounts);
    walker.Close();
    ASSERT_EQ(copies.size(), 3u);  // the values variant appends every key

    Enumerate(false);
    ASSERT_EQ(m_list.size(), 2u);
    EXPECT_EQ(m_list.back()->GetAccountName(), "Work");
    EXPECT_EQ(m_list.back()->GetProfileUserName(), "");  // no user name without merge

    // With merge, an account already listed is refreshed in place and keeps what it has open.
    for (CMailBoxProfile* p : m_list) delete p;
    m_list.clear();
    auto* known = new CMailBoxProfile;
    known->SetGeneralData("WORK", "old", "", "", "");
    known->SetValid(false);
    known->InitializeStorages(Accounts(), "WORK");
    CMessageList* message = MakeMessage(1, "a@b");
    known->AddMessage(message, true);
    m_list.push_back(known);
    Enumerate(true);
    ASSERT_EQ(m_list.size(), 2u);
    EXPECT_EQ(m_list.front(), known);
    EXPECT_EQ(m_list.back()->GetAccountName(), "Home");
    EXPECT_EQ(known->GetAccountName(), "Work");
    EXPECT_EQ(known->GetRealName(), "Real Work");
    EXPECT_EQ(known->GetProfileUserName(), "bob");
    EXPECT_TRUE(known->IsValid());
    EXPECT_TRUE(known->GetMessageStoragePtr()->IsOpen());
    EXPECT_EQ(known->GetMessageList().front(), message);
    EXPECT_EQ(m_list.back()->GetProfileUserName(), "bob");
}

TEST_F(Registry, TheGlobalShields) {
    const CString key = "Software\\Brannick\\Tavik Mail\\GlobalShield";
    CGlobalProfile global;
    for (const char* name : {"First", "Second"}) {
        global.GetSpamShields().emplace_back();
        global.GetSpamShields().back().ResetValues();
        global.GetSpamShields().back().SetFilterData(name, "Header", "contains", "x", "Do Nothing",
                                                     "All Days", 0, 0, 0);
    }
    global.SaveRegistryData(key);
    EXPECT_EQ(SubKeys(key + "\\Shields"), (std::vector<std::string>{"First", "Second"}));
    CGlobalProfile back;
    back.LoadRegistryData(key);
    ASSERT_EQ(back.GetShieldCount(), 2);
    EXPECT_EQ(back.GetSpamShields().back().GetFilterName(), "Second");
    std::list<CSpamBlockProfile> copies;
    back.GetSpamShields(copies);
    EXPECT_EQ(copies.size(), 2u);
}

// Ten thousand accounts under one key are all listed, in the key's order; merging them into a list that
// already holds some refreshes those and adds none twice.
TEST_F(Registry, TenThousandAccountsUnderOneKey) {
    constexpr int kCount = 10000;
    // Written as one import: the keys as the registry holds them, without the rule and list keys.
    std::string text = "Windows Registry Editor Version 5.00\r\n";
    for (int i = 0; i < kCount; ++i) {
        char entry[160];
        std::snprintf(entry, sizeof entry,
                      "\r\n[HKEY_CURRENT_USER\\%s\\Account %05d]\r\n\"Account Name\"=\"Account %05d\"\r\n",
                      kAccounts.GetString(), i, i);
        text += entry;
    }
    const std::string file = m_dir.file("accounts.reg");
    WriteFile(file, text);
    ASSERT_EQ(RegImportFile(file.c_str()), ERROR_SUCCESS) << RegGetLastMessage();

    for (int i = 0; i < kCount; i += 1000) {
        auto* known = new CMailBoxProfile;
        CString name;
        name.Format("ACCOUNT %05d", i);
        known->SetGeneralData(name, "", "", "", "");
        m_list.push_back(known);
    }
    CMailBoxProfile* first = m_list.front();
    Enumerate(true);
    ASSERT_EQ(m_list.size(), static_cast<size_t>(kCount));
    EXPECT_EQ(first->GetAccountName(), "Account 00000");
    EXPECT_EQ(first->GetProfileUserName(), "bob");
    EXPECT_EQ(m_list.back()->GetAccountName(), "Account 09999");
}

}  // namespace
