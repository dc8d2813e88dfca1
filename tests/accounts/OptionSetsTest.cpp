// The two option sets over a private registry store: every field through its own value, values that
// are missing or of another type, and the database fallback. The defaults a new key receives are
// checked whole by the registry tree test.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "accounts/CEnvironmentOptions.h"
#include "accounts/CRegistryOptions.h"
#include "library/Resource.h"
#include "platform/FileSystem.h"
#include "tests/platform/registry/RegistryFixture.h"

namespace {

constexpr const char* kConfig = "Software\\Brannick\\Tavik Mail\\Configuration";
constexpr const char* kEnvironment = "Software\\Brannick\\Tavik Mail\\Environment";

class OptionSets : public tavik::test::RegistryTest {
protected:
    void SetUp() override {
        RegistryTest::SetUp();
        TavikSetApplicationDirectory(m_dir.path().c_str());
    }
    void TearDown() override {
        TavikSetApplicationDirectory(nullptr);
        RegistryTest::TearDown();
    }
    bool Exists(const char* path) {
        HKEY key = nullptr;
        if (RegOpenKeyEx(HKEY_CURRENT_USER, path, 0, KEY_READ, &key) != ERROR_SUCCESS) return false;
        RegCloseKey(key);
        return true;
    }
    DWORD Dword(HKEY key, const char* name) {
        DWORD value = 0xdeadbeef, type = 0, size = sizeof value;
        EXPECT_EQ(RegQueryValueEx(key, name, nullptr, &type, reinterpret_cast<BYTE*>(&value), &size),
                  ERROR_SUCCESS)
            << name;
        EXPECT_EQ(type, REG_DWORD) << name;
        return value;
    }
    std::string DataFile() const { return m_dir.file("mailread.tvk"); }
};

template <class C>
using NumberField = std::pair<void (C::*)(DWORD), DWORD (C::*)() const>;

TEST_F(OptionSets, AnEmptyKeyKeepsTheDefaultsAndWritesNothing) {
    CRegistryOptions config;
    CEnvironmentOptions environment;
    config.SaveSettings("");
    environment.SaveSettings("");
    config.LoadSettings("");
    EXPECT_EQ(config.GetDataFile(), "");
    EXPECT_EQ(config.GetHomePage(), "https://tavikmail.example/");
    EXPECT_EQ(environment.GetThreshold(), 0xF000u);
    EXPECT_FALSE(Exists("Software"));

    // A key that does not exist is created with the defaults (their names and values are in the golden
    // registry tree); the path may come from the string table.
    CRegistryOptions fromId(IDS_REGISTRY_ENVIRONMENT);
    EXPECT_EQ(fromId.GetDataFile(), DataFile().c_str());
    HKEY key = Create(kEnvironment);
    EXPECT_EQ(ValueNames(key).size(), 19u);
    EXPECT_EQ(GetString(key, "Database"), DataFile());
    RegCloseKey(key);
}

TEST_F(OptionSets, EveryRegistryOptionComesBackFromItsOwnValue) {
    std::vector<NumberField<CRegistryOptions>> numbers = {
        {&CRegistryOptions::SetDialupEnabled, &CRegistryOptions::GetDialupEnabled},
        {&CRegistryOptions::SetAutoScan, &CRegistryOptions::GetAutoScan},
        {&CRegistryOptions::SetScanStartup, &CRegistryOptions::GetScanStartup},
        {&CRegistryOptions::SetCheckInterval, &CRegistryOptions::GetCheckInterval},
        {&CRegistryOptions::SetNoDisconnect, &CRegistryOptions::GetNoDisconnect},
        {&CRegistryOptions::SetScanStrict, &CRegistryOptions::GetScanStrict},
        {&CRegistryOptions::SetEnableSound, &CRegistryOptions::GetEnableSound},
        {&CRegistryOptions::SetEnablePopupMsg, &CRegistryOptions::GetEnablePopupMsg},
        {&CRegistryOptions::SetEnableExternal, &CRegistryOptions::GetEnableExternal},
    };
    using TextSetter = void (CRegistryOptions::*)(CString);
    using TextGetter = const CString& (CRegistryOptions::*)() const;
    std::vector<std::pair<TextSetter, TextGetter>> texts = {
        {&CRegistryOptions::SetActiveRAS, &CRegistryOptions::GetActiveRAS},
        {&CRegistryOptions::SetSoundFilename, &CRegistryOptions::GetSoundFilename},
        {&CRegistryOptions::SetExternalClient, &CRegistryOptions::GetExternalClient},
        {&CRegistryOptions::SetAbuseFilename, &CRegistryOptions::GetAbuseFilename},
        {&CRegistryOptions::SetAdminFilename, &CRegistryOptions::GetAdminFilename},
        {&CRegistryOptions::SetPostmasterFilename, &CRegistryOptions::GetPostmasterFilename},
    };
    CRegistryOptions written(kConfig);
    for (size_t i = 0; i < numbers.size(); ++i) (written.*numbers[i].first)(static_cast<DWORD>(100 + i));
    for (size_t i = 0; i < texts.size(); ++i) (written.*texts[i].first)(CString("text ") + char('a' + i));
    written.ClearFirstRun();
    written.SaveSettings(kConfig);

    CRegistryOptions read(kConfig);
    for (size_t i = 0; i < numbers.size(); ++i) EXPECT_EQ((read.*numbers[i].second)(), 100 + i) << i;
    for (size_t i = 0; i < texts.size(); ++i)
        EXPECT_EQ((read.*texts[i].second)(), CString("text ") + char('a' + i));
    EXPECT_EQ(read.GetFirstRun(), 0u);
    HKEY key = Create(kConfig);
    EXPECT_EQ(Dword(key, "First Run"), 0u);
    EXPECT_EQ(ValueNames(key).size(), 19u);
    RegCloseKey(key);

    // A copy is a value of its own.
    CRegistryOptions copy = read;
    copy.SetCheckInterval(1);
    EXPECT_EQ(read.GetCheckInterval(), 103u);
}

TEST_F(OptionSets, EveryEnvironmentOptionComesBackFromItsOwnValue) {
    using E = CEnvironmentOptions;
    std::vector<NumberField<E>> numbers = {
        {&E::SetAutoRemove, &E::GetAutoRemove},
        {&E::SetLogDebug, &E::GetLogDebug},
        {&E::SetLogEnabled, &E::GetLogEnabled},
        {&E::SetPassProtect, &E::GetPassProtect},
        {&E::SetSaveHeaders, &E::GetSaveHeaders},
        {&E::SetLogStandard, &E::GetLogStandard},
        {&E::SetStartMinimized, &E::GetStartMinimized},
        {&E::SetViewType, &E::GetViewType},
        {&E::SetAutoMaintain, &E::GetAutoMaintain},
        {&E::SetHideMinimized, &E::GetHideMinimized},
        {&E::SetTimeoutValue, &E::GetTimeoutValue},
        {&E::SetThreshold, &E::GetThreshold},
        {&E::SetRetrieveBody, &E::GetRetrieveBody},
        {&E::SetHideOnCmd, &E::GetHideOnCmd},
        {&E::SetShowFolderSize, &E::GetShowFolderSize},
        {&E::SetShowInfoView, &E::GetShowInfoView},
        {&E::SetShowFolderView, &E::GetShowFolderView},
        {&E::SetAlwaysOnTop, &E::GetAlwaysOnTop},
        {&E::SetNoInstancePrompt, &E::GetNoInstancePrompt},
    };
    E written(kEnvironment);
    for (size_t i = 0; i < numbers.size(); ++i) (written.*numbers[i].first)(static_cast<DWORD>(200 + i));
    written.SetLogFilename("/var/log/tavik.log");
    written.SetTavikPassword("plain as given");
    written.SaveSettings(kEnvironment);

    E read(kEnvironment);
    for (size_t i = 0; i < numbers.size(); ++i) EXPECT_EQ((read.*numbers[i].second)(), 200 + i) << i;
    EXPECT_EQ(read.GetLogFilename(), "/var/log/tavik.log");
    EXPECT_EQ(read.GetTavikPassword(), "plain as given");

    read.ResetValues();
    EXPECT_EQ(read.GetThreshold(), 0xF000u);
    EXPECT_EQ(read.GetTavikPassword(), "");
}

TEST_F(OptionSets, MissingOrMistypedValuesAndTheDatabaseFallback) {
    // An existing key holding a few values: the rest keep what the object had, nothing is added, and a
    // database that exists stays as named.
    tavik::test::WriteFile(m_dir.file("mine.tvk"), "x");
    HKEY key = Create(kConfig);
    SetString(key, "Database", m_dir.file("mine.tvk"));
    SetString(key, "CheckMail Interval", "5");    // a text where a number belongs: its first 4 bytes
    SetDword(key, "Sound Filename", 0x00414243);  // a number where a text belongs: its bytes up to a zero
    RegCloseKey(key);
    CRegistryOptions config(kConfig);
    EXPECT_EQ(config.GetDataFile(), m_dir.file("mine.tvk").c_str());
    EXPECT_EQ(config.GetCheckInterval(), 0x35u);
    EXPECT_EQ(config.GetSoundFilename(), "CBA");
    EXPECT_EQ(config.GetAutoScan(), 1u);
    EXPECT_EQ(config.GetHomePage(), "https://tavikmail.example/");
    key = Create(kConfig);
    EXPECT_EQ(ValueNames(key).size(), 3u);
    RegCloseKey(key);

    // A database that is gone falls back to the host's directory, and that is written back at once.
    std::remove(m_dir.file("mine.tvk").c_str());
    CRegistryOptions again(kConfig);
    EXPECT_EQ(again.GetDataFile(), DataFile().c_str());
    key = Create(kConfig);
    EXPECT_EQ(GetString(key, "Database"), DataFile());
    EXPECT_EQ(ValueNames(key).size(), 19u);
    RegCloseKey(key);

    // The environment set reads what is there and leaves the rest.
    key = Create(kEnvironment);
    SetDword(key, "Auto Maintaince", 1);
    SetDword(key, "Auto Maintenance", 7);  // the usual spelling is another value
    RegCloseKey(key);
    CEnvironmentOptions environment(kEnvironment);
    EXPECT_EQ(environment.GetAutoMaintain(), 1u);
    EXPECT_EQ(environment.GetTimeoutValue(), 60u);
}

}  // namespace
