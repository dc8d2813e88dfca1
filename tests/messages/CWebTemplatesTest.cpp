// Display-template records over a private registry store: the load that creates its key, the save under
// the parent, the signature, the comparisons and the removal mark.
#include <gtest/gtest.h>

#include "messages/CWebTemplates.h"
#include "tests/platform/registry/RegistryFixture.h"

namespace {

constexpr const char* kTemplates = "Software\\Brannick\\Tavik Mail\\Templates";

class WebTemplates : public tavik::test::RegistryTest {
protected:
    bool Exists(const CString& path) {
        HKEY key = nullptr;
        if (RegOpenKeyEx(HKEY_CURRENT_USER, path, 0, KEY_READ, &key) != ERROR_SUCCESS) return false;
        RegCloseKey(key);
        return true;
    }
    CString Key(const char* name) { return CString(kTemplates) + "\\" + name; }
};

TEST_F(WebTemplates, AnEmptyKeyTouchesNothingAndAMissingKeyIsCreatedEmpty) {
    CWebTemplates blank;
    EXPECT_EQ(blank.GetAccountName(), "");
    EXPECT_EQ(blank.GetIndexFile(), "");
    EXPECT_EQ(blank.GetActiveAccount(), 0u);
    EXPECT_EQ(blank.GetSignature(), 0u);
    EXPECT_FALSE(Exists("Software"));

    CWebTemplates created(Key("Home"));
    EXPECT_EQ(created.GetAccountName(), "");
    EXPECT_EQ(created.GetSignature(), 0u);  // a new key gives no signature
    HKEY key = Create(Key("Home"));
    EXPECT_EQ(ValueNames(key), (std::vector<std::string>{"Account Name", "Index File", "Active"}));
    EXPECT_EQ(GetString(key, "Account Name"), "");
    DWORD active = 0xdeadbeef, type = 0, size = 4;
    ASSERT_EQ(RegQueryValueEx(key, "Active", nullptr, &type, reinterpret_cast<BYTE*>(&active), &size),
              ERROR_SUCCESS);
    EXPECT_EQ(type, REG_DWORD);
    EXPECT_EQ(active, 0u);
    RegCloseKey(key);
}

TEST_F(WebTemplates, SavedUnderTheParentAndLoadedFromTheOwnKeyWithItsSignature) {
    CWebTemplates home;
    home.SetAccountName("Home");
    home.SetIndexFile("/srv/tavik/home/index.html");
    home.SetActiveAccount(1);
    home.SaveRegistryData(kTemplates);

    CWebTemplates loaded(Key("Home"));
    EXPECT_EQ(loaded.GetAccountName(), "Home");
    EXPECT_EQ(loaded.GetIndexFile(), "/srv/tavik/home/index.html");
    EXPECT_EQ(loaded.GetActiveAccount(), 1u);
    EXPECT_EQ(loaded.GetSignature(), 0x9561c451u);  // CRC-32 of "Home" and its zero byte
    EXPECT_EQ(CWebTemplates::SignatureOf(""), 0xd202ef8du);

    // Same name, same signature: equal whatever else differs. Against text, the index file, exactly.
    CWebTemplates other;
    other.SetSignature(CWebTemplates::SignatureOf("Home"));
    EXPECT_TRUE(loaded == other);
    EXPECT_FALSE(loaded != other);
    EXPECT_TRUE(loaded == 0x9561c451u);
    EXPECT_TRUE(loaded == CString("/srv/tavik/home/index.html"));
    EXPECT_FALSE(loaded == CString("/SRV/tavik/home/index.html"));
    other.SetSignature(0xfe280dc1u);  // "Work": above "Home" as unsigned numbers
    EXPECT_TRUE(loaded < other);
    EXPECT_TRUE(other > loaded);

    // A load keeps members whose values are missing.
    HKEY key = Create(Key("Home"));
    RegDeleteValue(key, "Index File");
    RegCloseKey(key);
    loaded.SetIndexFile("kept");
    loaded.LoadRegistryData(Key("Home"));
    EXPECT_EQ(loaded.GetIndexFile(), "kept");

    // Renaming writes a new key and leaves the old one.
    loaded.SetAccountName("Work");
    loaded.SaveRegistryData(kTemplates);
    EXPECT_TRUE(Exists(Key("Home")));
    EXPECT_EQ(CWebTemplates(Key("Work")).GetSignature(), 0xfe280dc1u);

    // Copies carry everything, the removal mark included; ResetValues keeps the signature.
    CWebTemplates copy(loaded);
    copy = copy;
    EXPECT_EQ(copy.GetIndexFile(), "kept");
    EXPECT_EQ(copy.GetSignature(), loaded.GetSignature());
    loaded.DeleteEntry();
    CWebTemplates marked;
    marked = loaded;
    EXPECT_TRUE(marked.IsDeleted());
    marked.ResetValues();
    EXPECT_FALSE(marked.IsDeleted());
    EXPECT_EQ(marked.GetSignature(), 0x9561c451u);
}

TEST_F(WebTemplates, TheRemovalMarkDeletesOnlyTheRecordsOwnKey) {
    for (const char* name : {"Home", "Work"}) {
        CWebTemplates record;
        record.SetAccountName(name);
        record.SaveRegistryData(kTemplates);
    }
    CWebTemplates home(Key("Home"));
    home.DeleteEntry();
    home.SaveRegistryData(kTemplates);
    EXPECT_FALSE(Exists(Key("Home")));
    EXPECT_TRUE(Exists(Key("Work")));

    // A name with a backslash would reach a deeper key, and a nameless record is the parent itself:
    // neither is written nor deleted by accident.
    CWebTemplates deeper;
    deeper.SetAccountName("Work\\Inbox");
    deeper.SaveRegistryData(kTemplates);
    EXPECT_FALSE(Exists(Key("Work\\Inbox")));
    deeper.SetAccountName("");
    deeper.DeleteEntry();
    deeper.SaveRegistryData(kTemplates);
    EXPECT_TRUE(Exists(kTemplates));
}

}  // namespace
