// Users on a private registry store and data directory: their keys and files, passwords, activation
// with keys or files missing, enumeration with merge, deletion, and a whole sign-in round trip.
#include <gtest/gtest.h>

#include <filesystem>
#include <list>
#include <memory>
#include <string>

#include "accounts/CUserProfile.h"
#include "contacts/CAddressEntry.h"
#include "messages/CStorageManager.h"
#include "platform/Registry.h"
#include "tests/accounts/MailBoxTestSupport.h"

namespace tavik::test {
namespace {

const char* const kUsers = "Software\\Brannick\\Tavik Mail\\Users";
const char* const kRoot = "Software\\Brannick\\Tavik Mail";

bool KeyExists(const std::string& key) {
    HKEY handle = nullptr;
    if (RegOpenKeyEx(HKEY_CURRENT_USER, key.c_str(), 0, KEY_READ, &handle) != ERROR_SUCCESS) return false;
    RegCloseKey(handle);
    return true;
}

// The value's bytes (a text without its terminator) and its type.
std::string Value(const std::string& key, const char* name, DWORD* type = nullptr) {
    HKEY handle = nullptr;
    if (RegOpenKeyEx(HKEY_CURRENT_USER, key.c_str(), 0, KEY_READ, &handle) != ERROR_SUCCESS)
        return "<no key>";
    BYTE data[256] = {};
    DWORD size = sizeof data;
    DWORD kind = 0;
    const LONG rc = RegQueryValueEx(handle, name, nullptr, &kind, data, &size);
    RegCloseKey(handle);
    if (rc != ERROR_SUCCESS) return "<no value>";
    if (type) *type = kind;
    if (kind == REG_SZ && size > 0) --size;
    return std::string(reinterpret_cast<char*>(data), size);
}

class UserProfileTest : public AccountFixture {
protected:
    void SetUp() override {
        AccountFixture::SetUp();
        CloseAccounts();  // the users open their own files
    }
    std::string Dir() const { return DataDirectory(); }
    DWORD m_ticks = 7000;

    // A user saved with two accounts, "Home" (friends, a shield with processed ids, 3 messages, a contact)
    // and "Work".
    void MakeUserWithAccounts(const char* name, ProgressRecorder* recorder = nullptr) {
        CUserProfile user;
        user.CreateUser(name);
        user.SetPassword("secret");
        user.ActivateProfile(nullptr, true);
        IStorage* accounts = user.GetAccountsStoragePtr()->GetStorage();
        for (const char* account : {"Home", "Work"}) {
            m_clock.SetTickCount(m_ticks += 1000);  // a Signature of its own
            auto* p = new CMailBoxProfile();
            Name(*p, account);
            user.AddMailBox(p);
            p->InitializeStorages(accounts, account);
        }
        CMailBoxProfile& home = **user.FindMailBox(CString("home"));
        home.SetFriendList(Strings({"friend@example.org"}));
        home.GetSpamShields().emplace_back();
        home.GetSpamShields().back().SetFilterData("Junk", "", "", "", "", "", 0, 0, 0);
        for (DWORD id = 1; id <= 50; ++id) home.GetSpamShields().back().AddProcessedID(id);
        for (DWORD id = 1; id <= 3; ++id) home.AddMessage(MakeMessage(id, "a@example.org"), true);
        auto* contact = new CAddressEntry;
        contact->SetCompany("Contact Co");
        home.GetAddressList().push_back(contact);
        CMessageList::_tagLoadProgressData progress{};
        if (recorder) progress = recorder->Progress();
        user.SaveRegistryData(CUserProfile::GetUserKeyResID(), false, recorder ? &progress : nullptr, true,
                              true);
        user.DeactivateProfile();
    }

    // The users of the registry, as a host lists them.
    std::list<CUserProfile*> ListUsers(std::list<CUserProfile*> list = {}, bool merge = false) {
        CUserProfile walker;
        walker.OpenRegistryKey(HKEY_CURRENT_USER, CUserProfile::GetUserKeyResID(), nullptr);
        walker.EnumRegistryKey(list, CUserProfile::GetUserKeyResID(), merge);
        walker.Close();
        return list;
    }
    static void Free(std::list<CUserProfile*>& list) {
        for (CUserProfile* user : list) delete user;
        list.clear();
    }
};

TEST_F(UserProfileTest, UsersGetTheirFilesKeysAndValues) {
    CUserProfile bob;
    bob.CreateUser("Bob");
    EXPECT_EQ(bob.GetSettingsFile().str(), Dir() + "Bob.tvs");
    EXPECT_EQ(bob.GetDataFile().str(), Dir() + "Bob.tvd");
    const std::string base = std::string(kUsers) + "\\Bob";
    const char* const suffixes[] = {
        "", "\\Accounts", "\\Configuration", "\\Environment", "\\GlobalShield", "\\Templates", "\\Address"};
    for (int k = 0; k < 7; ++k) EXPECT_EQ(bob.GetRegistryKey(k).str(), base + suffixes[k]) << k;
    EXPECT_TRUE(bob.GetRegistryKey(7).IsEmpty());
    EXPECT_TRUE(bob.GetRegistryKey(-1).IsEmpty());
    EXPECT_FALSE(bob.IsDefault());
    EXPECT_EQ(bob.GetUseRegistry().str(), std::string(1, '\1'));

    DWORD type = 0;
    EXPECT_EQ(Value(base, "UserName", &type), "Bob");
    EXPECT_EQ(type, static_cast<DWORD>(REG_SZ));
    EXPECT_EQ(Value(base, "Settings File"), Dir() + "Bob.tvs");
    EXPECT_EQ(Value(base, "Data File"), Dir() + "Bob.tvd");
    EXPECT_EQ(Value(base, "Registry Location"), base);
    EXPECT_EQ(Value(base, "Password"), "");
    EXPECT_EQ(Value(base, "Default User", &type), std::string("\0\0\0\0", 4));
    EXPECT_EQ(type, static_cast<DWORD>(REG_DWORD));
    EXPECT_EQ(Value(base, "Use Registry"), std::string("\1\0\0\0", 4));
    EXPECT_EQ(Value(base, "Profile ID").size(), 4u);
    // Only the user's own key: nothing is written to a file yet.
    EXPECT_FALSE(std::filesystem::exists(Dir() + "Bob.tvs"));

    CUserProfile def;
    def.CreateSpecialDefaultUser();
    EXPECT_TRUE(def.IsDefault());
    EXPECT_EQ(def.GetUserName().str(), "Default");
    EXPECT_EQ(def.GetSettingsFile().str(), Dir() + "Default.tvs");
    EXPECT_EQ(def.GetRegistryKey(CUserProfile::SUBKEY_LOCATION).str(), kRoot);
    EXPECT_EQ(def.GetRegistryKey(CUserProfile::SUBKEY_ACCOUNTS).str(), std::string(kRoot) + "\\Accounts");
    EXPECT_EQ(Value(std::string(kUsers) + "\\Default", "Default User"), std::string("\1\0\0\0", 4));

    // Read back from the registry as another object would.
    CUserProfile loaded;
    loaded.LoadRegistryData(CString(base.c_str()));
    EXPECT_EQ(loaded.GetUserName().str(), "Bob");
    EXPECT_EQ(loaded.GetProfileID(), bob.GetProfileID());
    EXPECT_EQ(loaded.GetRegistryKey(1), bob.GetRegistryKey(1));
    EXPECT_TRUE(loaded == CString("BOB"));
    EXPECT_TRUE(loaded == bob);
    EXPECT_TRUE(bob < def);
    EXPECT_TRUE(def > bob);
    EXPECT_FALSE(CUserProfile(bob) != bob);
}

TEST_F(UserProfileTest, PasswordDigestEndsAtItsFirstZeroByte) {
    CUserProfile user;
    user.CreateUser("Pat");
    EXPECT_TRUE(user.VerifyPassword(""));
    EXPECT_FALSE(user.VerifyPassword("abc"));

    const std::string key = std::string(kUsers) + "\\Pat";
    auto stored = [&] {
        user.SaveRegistryData(kUsers, false, nullptr, false, false);
        return Value(key, "Password");
    };
    user.SetPassword("abc");  // 900150983cd24fb0d6963f7d28e17f72: no zero byte
    EXPECT_EQ(stored(), std::string("\x90\x01\x50\x98\x3c\xd2\x4f\xb0\xd6\x96\x3f\x7d\x28\xe1\x7f\x72", 16));
    EXPECT_TRUE(user.VerifyPassword("abc"));
    EXPECT_FALSE(user.VerifyPassword("abd"));
    EXPECT_FALSE(user.VerifyPassword(""));

    user.SetPassword("pw427");  // 53ccf2d0eb 00 03fe...: the text ends after five bytes
    EXPECT_EQ(stored(), std::string("\x53\xcc\xf2\xd0\xeb", 5));
    CUserProfile back;
    back.LoadRegistryData(CString(key.c_str()));
    EXPECT_TRUE(back.VerifyPassword("pw427"));
    EXPECT_FALSE(back.VerifyPassword("abc"));

    user.SetPassword("pw443");  // the digest starts with a zero byte: stored as no password
    EXPECT_EQ(stored(), "");
    EXPECT_TRUE(user.VerifyPassword(""));
    EXPECT_TRUE(user.VerifyPassword("pw443"));

    user.SetPassword("abc");
    user.SetPassword("");
    EXPECT_EQ(stored(), "");
    EXPECT_TRUE(user.VerifyPassword(""));
}

TEST_F(UserProfileTest, SignInRoundTripFindsEverything) {
    ProgressRecorder saved;
    MakeUserWithAccounts("Ann", &saved);
    EXPECT_NE(std::find(saved.Events().begin(), saved.Events().end(),
                        "status 0 Account: Home - Updating Cached Messages"),
              saved.Events().end());
    EXPECT_TRUE(KeyExists(std::string(kUsers) + "\\Ann\\Accounts\\Home"));
    const auto mode = std::filesystem::status(Dir() + "Ann.tvs").permissions();
    EXPECT_EQ(mode & std::filesystem::perms::all,
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);

    std::list<CUserProfile*> users = ListUsers();
    ASSERT_EQ(users.size(), 1u);
    auto found = CUserProfile::FindProfile(users, CString("ANN"));
    ASSERT_NE(found, users.end());
    CUserProfile& ann = **found;
    EXPECT_TRUE(ann.VerifyPassword("secret"));
    EXPECT_EQ(CUserProfile::FindProfile(users, ann.GetProfileID()), found);

    ProgressRecorder recorder;
    auto progress = recorder.Progress();
    ann.ActivateProfile(&progress, true);
    ASSERT_EQ(ann.GetProfileList().size(), 2u);
    CMailBoxProfile* current = ann.GetCurrentProfile();
    ASSERT_NE(current, nullptr);
    EXPECT_EQ(current, ann.GetProfileList().front());
    CMailBoxProfile& home = **ann.FindMailBox(CString("Home"));
    EXPECT_EQ(home.GetMessageList().size(), 3u);
    EXPECT_EQ(home.GetContactCount(), 1);
    EXPECT_EQ(home.GetEmailAddress().str(), "Home@example.org");
    CStringArray friends;
    home.GetFriendList(friends);
    EXPECT_EQ(Joined(friends), "friend@example.org");
    ASSERT_EQ(home.GetShieldCount(), 1);
    EXPECT_EQ(home.GetSpamShields().front().GetFilterName().str(), "Junk");
    EXPECT_TRUE(home.GetSpamShields().front().SearchProcessedID(50));
    EXPECT_NE(std::find(recorder.Events().begin(), recorder.Events().end(), "start 0 100"),
              recorder.Events().end());
    EXPECT_EQ(std::count(recorder.Events().begin(), recorder.Events().end(), "record 3"), 1);

    // Account searches: a miss leaves the current account alone.
    EXPECT_FALSE(ann.FindMailBox(CString("Nowhere"), true));
    EXPECT_EQ(ann.GetCurrentProfile(), current);
    EXPECT_EQ(ann.FindMailBox(CString("Nowhere")), ann.PROFILE_NOT_FOUND());
    EXPECT_TRUE(ann.FindMailBox(CString("work"), true));
    EXPECT_EQ(ann.GetCurrentProfile()->GetAccountName().str(), "Work");
    EXPECT_EQ(*ann.FindMailBox(ann.GetCurrentProfile()->GetSignature()), ann.GetCurrentProfile());

    // A copy gets its own current account; the list is shared.
    {
        CUserProfile copy(ann);
        ASSERT_NE(copy.GetCurrentProfile(), nullptr);
        EXPECT_NE(copy.GetCurrentProfile(), ann.GetCurrentProfile());
        EXPECT_EQ(copy.GetCurrentProfile()->GetAccountName().str(), "Work");
        EXPECT_EQ(copy.GetProfileList(), ann.GetProfileList());
    }

    // Activated again, the current account is still "Work".
    ann.ActivateProfile(nullptr, false);
    ASSERT_NE(ann.GetCurrentProfile(), nullptr);
    EXPECT_EQ(ann.GetCurrentProfile()->GetAccountName().str(), "Work");
    ann.DeactivateProfile();
    EXPECT_EQ(ann.GetCurrentProfile(), nullptr);
    EXPECT_TRUE(ann.GetProfileList().empty());
    Free(users);
}

TEST_F(UserProfileTest, ActivationWithKeysOrFilesMissing) {
    // No accounts key, no settings file: nothing, and no current account.
    CUserProfile empty;
    empty.CreateUser("Empty");
    empty.ActivateProfile(nullptr, true);
    EXPECT_TRUE(empty.GetProfileList().empty());
    EXPECT_EQ(empty.GetCurrentProfile(), nullptr);
    empty.DeactivateProfile();

    MakeUserWithAccounts("Cat");
    const std::string accountsKey = std::string(kUsers) + "\\Cat\\Accounts";

    // The settings file gone: the accounts come from the registry, without their stored data.
    std::filesystem::rename(Dir() + "Cat.tvs", Dir() + "Cat.tvs.kept");
    {
        CUserProfile cat;
        cat.LoadRegistryData(CString((std::string(kUsers) + "\\Cat").c_str()));
        cat.ActivateProfile(nullptr, true);
        ASSERT_EQ(cat.GetProfileList().size(), 2u);
        EXPECT_TRUE((*cat.FindMailBox(CString("Home")))->GetMessageList().empty());
        EXPECT_EQ((*cat.FindMailBox(CString("Home")))->GetShieldCount(), 1);  // rules are in the registry
        cat.DeactivateProfile();
    }
    std::filesystem::remove(Dir() + "Cat.tvs");
    std::filesystem::rename(Dir() + "Cat.tvs.kept", Dir() + "Cat.tvs");

    // The accounts key gone: the settings file still holds both accounts, and one becomes current.
    {
        CUserProfile cat;
        cat.LoadRegistryData(CString((std::string(kUsers) + "\\Cat").c_str()));
        for (const char* name : {"Home", "Work"}) {
            CMailBoxProfile gone;
            Name(gone, name);
            gone.DeleteEntry();
            gone.SaveRegistryData(CString(accountsKey.c_str()));
        }
        RegDeleteKey(HKEY_CURRENT_USER, accountsKey.c_str());
        ASSERT_FALSE(KeyExists(accountsKey));
        cat.ActivateProfile(nullptr, true);
        ASSERT_EQ(cat.GetProfileList().size(), 2u);
        ASSERT_NE(cat.GetCurrentProfile(), nullptr);
        EXPECT_EQ((*cat.FindMailBox(CString("Home")))->GetMessageList().size(), 3u);
        cat.DeactivateProfile();
    }

    // A message file gone: reported by the database check, not by activation.
    CUserProfile cat;
    cat.LoadRegistryData(CString((std::string(kUsers) + "\\Cat").c_str()));
    cat.ActivateProfile(nullptr, false);
    const std::string lost = (*cat.FindMailBox(CString("Home")))->GetDataFile().str();
    cat.DeactivateProfile();
    ASSERT_TRUE(std::filesystem::remove(lost));
    std::list<CMailBoxProfile*> invalid;
    cat.BeginInvalidDatabaseCheck(invalid);
    ASSERT_EQ(invalid.size(), 1u);
    EXPECT_EQ(invalid.front()->GetAccountName().str(), "Home");
    cat.EndInvalidDatabaseCheck();
    EXPECT_TRUE(cat.GetProfileList().empty());
}

TEST_F(UserProfileTest, EnumerationMergesByProfileId) {
    CUserProfile amy;
    amy.CreateUser("Amy");
    m_clock.SetTickCount(9001);  // another Profile ID
    CUserProfile ben;
    ben.CreateUser("Ben");
    ASSERT_NE(amy.GetProfileID(), ben.GetProfileID());

    std::list<CUserProfile> values;
    CUserProfile walker;
    walker.OpenRegistryKey(HKEY_CURRENT_USER, CUserProfile::GetUserKeyResID(), nullptr);
    walker.EnumRegistryKey(values, CUserProfile::GetUserKeyResID());
    walker.Close();
    EXPECT_EQ(values.size(), 2u);

    // Looking up a user that is not there leaves a nameless key, which no list shows.
    CUserProfile nobody;
    nobody.LoadRegistryData(CString((std::string(kUsers) + "\\Nobody").c_str()));
    EXPECT_TRUE(nobody.GetUserName().IsEmpty());
    std::list<CUserProfile*> users = ListUsers();
    ASSERT_EQ(users.size(), 2u);
    CUserProfile* amyListed = *CUserProfile::FindProfile(users, CString("amy"));
    amyListed->ActivateProfile(nullptr, false);
    auto* account = new CMailBoxProfile();
    Name(*account, "Kept");
    amyListed->AddMailBox(account);
    amyListed->AddMailBox(account);  // once only
    EXPECT_EQ(amyListed->GetProfileList().size(), 1u);

    amy.SetPassword("changed");
    amy.SaveRegistryData(kUsers, false, nullptr, false, false);
    users = ListUsers(users, true);
    ASSERT_EQ(users.size(), 2u);
    EXPECT_EQ(*CUserProfile::FindProfile(users, amy.GetProfileID()), amyListed);
    EXPECT_TRUE(amyListed->VerifyPassword("changed"));
    EXPECT_EQ(amyListed->GetProfileList().size(), 1u);  // an active user keeps its accounts

    users = ListUsers(users, false);
    EXPECT_EQ(users.size(), 4u);
    amyListed->DeactivateProfile();
    Free(users);
}

// Two accounts made in one millisecond, each with messages in a file of its own; one removed alone.
TEST_F(UserProfileTest, AccountsMadeTogetherStayApartAndOneGoesAlone) {
    CUserProfile user;
    user.CreateUser("Pat");
    user.ActivateProfile(nullptr, true);
    IStorage* accounts = user.GetAccountsStoragePtr()->GetStorage();
    for (const char* account : {"Home", "Work"}) {  // the tick count stays pinned
        auto* p = new CMailBoxProfile();
        Name(*p, account);
        user.AddMailBox(p);
        p->InitializeStorages(accounts, account);
        for (DWORD id = 1; id <= 2; ++id) p->AddMessage(MakeMessage(id, "a@example.org"), true);
    }
    CMailBoxProfile& home = **user.FindMailBox(CString("Home"));
    CMailBoxProfile& work = **user.FindMailBox(CString("Work"));
    EXPECT_NE(home.GetSignature(), work.GetSignature());
    EXPECT_EQ(*user.FindMailBox(work.GetSignature()), &work);
    user.SaveRegistryData(CUserProfile::GetUserKeyResID(), false, nullptr, true, true);
    const std::string homeFile = home.GetDataFile().str(), workFile = work.GetDataFile().str();
    ASSERT_NE(homeFile, workFile);
    ASSERT_TRUE(std::filesystem::exists(homeFile));
    ASSERT_TRUE(std::filesystem::exists(workFile));
    user.DeactivateProfile();

    user.ActivateProfile(nullptr, false);
    (*user.FindMailBox(CString("work")))->DeleteEntry();
    user.SaveRegistryData(CUserProfile::GetUserKeyResID(), false, nullptr, true, false);
    user.DeactivateProfile();
    EXPECT_FALSE(std::filesystem::exists(workFile));
    EXPECT_FALSE(KeyExists(std::string(kUsers) + "\\Pat\\Accounts\\Work"));

    user.ActivateProfile(nullptr, true);
    ASSERT_EQ(user.GetProfileList().size(), 1u) << "nothing of Work is read back from the settings file";
    EXPECT_EQ(user.GetProfileList().front()->GetAccountName().str(), "Home");
    EXPECT_EQ(user.GetProfileList().front()->GetMessageList().size(), 2u);
    EXPECT_EQ(user.GetProfileList().front()->GetDataFile().str(), homeFile);
    user.DeactivateProfile();
}

TEST_F(UserProfileTest, DeletionRemovesKeysAndFilesOfThatUserOnly) {
    MakeUserWithAccounts("Gone");
    MakeUserWithAccounts("Stays");
    CUserProfile def;
    def.CreateSpecialDefaultUser();
    {
        CRegistryManager config;
        config.OpenRegistryKey(HKEY_CURRENT_USER, (std::string(kUsers) + "\\Gone\\Configuration").c_str(),
                               nullptr);
        config.Close();
    }
    CUserProfile stays;
    stays.LoadRegistryData(CString((std::string(kUsers) + "\\Stays").c_str()));
    stays.ActivateProfile(nullptr, false);
    std::list<std::string> staysFiles{Dir() + "Stays.tvs"};
    for (CMailBoxProfile* p : stays.GetProfileList()) staysFiles.push_back(p->GetDataFile().str());
    stays.DeactivateProfile();

    CUserProfile gone;
    gone.LoadRegistryData(CString((std::string(kUsers) + "\\Gone").c_str()));
    gone.ActivateProfile(nullptr, false);
    std::list<std::string> goneFiles{Dir() + "Gone.tvs"};
    for (CMailBoxProfile* p : gone.GetProfileList()) goneFiles.push_back(p->GetDataFile().str());
    gone.DeactivateProfile();
    ASSERT_EQ(goneFiles.size(), 3u);
    for (const std::string& file : goneFiles) ASSERT_TRUE(std::filesystem::exists(file)) << file;

    // Not active: its accounts are read from the registry to be removed.
    gone.DeleteEntry();
    gone.SaveRegistryData(CUserProfile::GetUserKeyResID(), false, nullptr, true, true);
    EXPECT_FALSE(KeyExists(std::string(kUsers) + "\\Gone"));
    for (const std::string& file : goneFiles) EXPECT_FALSE(std::filesystem::exists(file)) << file;
    EXPECT_TRUE(KeyExists(std::string(kUsers) + "\\Stays\\Accounts\\Home"));
    for (const std::string& file : staysFiles) EXPECT_TRUE(std::filesystem::exists(file)) << file;

    std::list<CUserProfile*> users = ListUsers();
    EXPECT_EQ(users.size(), 2u);
    EXPECT_EQ(CUserProfile::FindProfile(users, CString("Gone")), users.end());
    Free(users);

    // Removed while signed in, with an earlier activation's accounts still aside: nothing comes back
    // when the profile goes.
    {
        CUserProfile active;
        active.LoadRegistryData(CString((std::string(kUsers) + "\\Stays").c_str()));
        active.ActivateProfile(nullptr, true);
        active.ActivateProfile(nullptr, true);
        active.DeleteEntry();
        active.SaveRegistryData(kUsers, false, nullptr, true, true);
        EXPECT_TRUE(active.GetProfileList().empty());
    }
    EXPECT_FALSE(KeyExists(std::string(kUsers) + "\\Stays"));
    for (const std::string& file : staysFiles) EXPECT_FALSE(std::filesystem::exists(file)) << file;

    // The default user's location is the root: removing it keeps the other users.
    def.DeleteEntry();
    def.SaveRegistryData(kUsers, false, nullptr, true, true);
    EXPECT_FALSE(KeyExists(std::string(kUsers) + "\\Default"));
    EXPECT_TRUE(KeyExists(kUsers));
}

}  // namespace
}  // namespace tavik::test
