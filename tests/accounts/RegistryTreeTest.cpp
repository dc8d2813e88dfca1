// The whole registry tree of two users, the default one (whose keys lie under the root) and another
// (under Users\<name>), written by the classes that own each key and exported by `tavik registry export`,
// compared with the golden text tests/accounts/golden/registry-tree.reg.
//
// Each class that writes keys of a user adds its part to BuildTree and to the golden text. To rewrite
// the golden file after a deliberate change: TAVIK_UPDATE_GOLDEN=1 ctest -R RegistryTree, then review
// the difference.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "accounts/CEnvironmentOptions.h"
#include "accounts/CMailBoxProfile.h"
#include "accounts/CRegistryOptions.h"
#include "contacts/CPhoneEntry.h"
#include "library/Resource.h"
#include "messages/CWebTemplates.h"
#include "platform/CString.h"
#include "platform/Clock.h"
#include "platform/FileSystem.h"
#include "platform/Registry.h"
#include "tests/support/TempDir.h"

namespace {

// A user's sub-keys, formed below the user's base key as the user profile forms them.
CString SubKey(const CString& base, const char* name) { return base + "\\" + name; }

void BuildUser(const CString& base, const char* account, const char* phone, bool changed) {
    CRegistryOptions config(SubKey(base, "Configuration"));
    CEnvironmentOptions environment(SubKey(base, "Environment"));
    if (changed) {
        config.ClearFirstRun();
        config.SetCheckInterval(5);
        config.SetSoundFilename("/opt/tavik/sounds/new mail.wav");
        config.SaveSettings(SubKey(base, "Configuration"));
        environment.SetPassProtect(1);
        environment.SetTavikPassword("kept as given");
        environment.SetLogFilename("/var/log/tavik \"quoted\".log");
        environment.SaveSettings(SubKey(base, "Environment"));
    }

    CWebTemplates shown;
    shown.SetAccountName(account);
    shown.SetIndexFile(CString("/opt/tavik/") + account + "/index.html");
    shown.SetActiveAccount(1);
    shown.SaveRegistryData(SubKey(base, "Templates"));

    CMailBoxProfile mailbox;
    mailbox.SetGeneralData(account, CString("Real ") + account, CString(account) + "@example.org", "", "");
    mailbox.SetServerData("pop.example.org", "smtp.example.org", "POP3", "SMTP", "user", "kept as given", "",
                          "");
    CStringArray friends, spammers;
    friends.Add("friend@example.org");
    spammers.Add("junk.example");
    mailbox.SetFriendList(friends);
    mailbox.SetSpamList(spammers);
    mailbox.GetSpamShields().emplace_back();
    CSpamBlockProfile& shield = mailbox.GetSpamShields().back();
    shield.ResetValues();
    shield.SetFilterData("Junk", "Subject", "contains", "offer", "Delete", "All Days", 0, 0, 0);
    shield.AddProcessedID(changed ? 7 : 8);
    mailbox.SaveRegistryData(SubKey(base, "Accounts"));

    CPhoneEntry number;
    number.SetPhoneNumber(phone);
    number.SetDescription(changed ? "Desk" : "Office");
    number.SaveRegistryData(SubKey(base, "Address"));
}

// Records that draw ids from the tick count are made at different times.
void BuildTree(ScopedClockPin& clock) {
    CString root, users;
    root.LoadString(IDS_REGISTRY_ROOT);
    users.LoadString(IDS_REGISTRY_USERS);
    BuildUser(root, "Home", "+1 555 0100", false);
    clock.AdvanceTicks(60000);
    BuildUser(users + "\\Alice", "Work", "555-0199", true);
}

std::string Utf16FileToUtf8(const std::string& bytes) {
    std::u16string wide;
    for (size_t i = 2; i + 1 < bytes.size(); i += 2)
        wide += static_cast<char16_t>(static_cast<unsigned char>(bytes[i]) |
                                      (static_cast<unsigned char>(bytes[i + 1]) << 8));
    std::string text = WideToAnsi(wide);
    std::string lf;
    for (char c : text)
        if (c != '\r') lf += c;
    return lf;
}

TEST(RegistryTree, TwoUsersExportAsTheGoldenText) {
    tavik::test::TempDir dir;
    const std::string store = dir.file("registry.db");
    RegSetStorePath(store.c_str());
    TavikSetApplicationDirectory("/opt/tavik");
    {
        ScopedClockPin clock(20000);
        BuildTree(clock);
    }
    TavikSetApplicationDirectory(nullptr);
    ASSERT_EQ(RegCloseStore(), ERROR_SUCCESS);
    RegSetStorePath(nullptr);

    const std::string exported = dir.file("tree.reg");
    std::string command = std::string("TAVIK_REGISTRY='") + store + "' TAVIK_DATA='" + dir.file("data") +
                          "' '" + TAVIK_EXE + "' registry export 'HKEY_CURRENT_USER\\Software\\Brannick' '" +
                          exported + "' 2>&1";
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
    std::string text = Utf16FileToUtf8(tavik::test::ReadFile(exported));
    ASSERT_EQ(text.substr(0, 36), "Windows Registry Editor Version 5.00");

    const std::string golden = std::string(GOLDEN_DIR) + "/registry-tree.reg";
    if (std::getenv("TAVIK_UPDATE_GOLDEN")) tavik::test::WriteFile(golden, text);
    EXPECT_EQ(text, tavik::test::ReadFile(golden));
}

}  // namespace
