// Telephone records in a private registry store: their keys and values, enumeration with and without
// merging, the searches, and numbers or values that do not fit the layout.
#include <gtest/gtest.h>

#include <list>
#include <memory>

#include "contacts/CPhoneEntry.h"
#include "platform/Clock.h"
#include "tests/platform/registry/RegistryFixture.h"

namespace {

constexpr const char* kAddress = "Software\\Brannick\\Tavik Mail\\Address";

class PhoneEntries : public tavik::test::RegistryTest {
protected:
    bool Exists(const CString& path) {
        HKEY key = nullptr;
        if (RegOpenKeyEx(HKEY_CURRENT_USER, path, 0, KEY_READ, &key) != ERROR_SUCCESS) return false;
        RegCloseKey(key);
        return true;
    }
    CPhoneEntry Saved(const char* number, const char* description) {
        m_clock.AdvanceTicks(1);
        CPhoneEntry entry;
        entry.SetPhoneNumber(number);
        entry.SetDescription(description);
        EXPECT_TRUE(entry.SaveRegistryData(kAddress));
        return entry;
    }
    ScopedClockPin m_clock{7000};
};

TEST_F(PhoneEntries, RecordsGoToKeysNamedByTheirNumbersAndComeBack) {
    CPhoneEntry office = Saved("+1 555 0100", "Office");
    CPhoneEntry home = Saved("+1 555 0199", "Home");
    HKEY key = Create(CString(kAddress) + "\\+1 555 0100");
    EXPECT_EQ(ValueNames(key), (std::vector<std::string>{"Phone Number", "Description", "Profile ID"}));
    EXPECT_EQ(GetString(key, "Description"), "Office");
    DWORD id = 0, type = 0, size = 4;
    ASSERT_EQ(RegQueryValueEx(key, "Profile ID", nullptr, &type, reinterpret_cast<BYTE*>(&id), &size),
              ERROR_SUCCESS);
    EXPECT_EQ(type, REG_DWORD);
    EXPECT_EQ(id, office.GetProfileID());
    RegCloseKey(key);

    CPhoneEntry walker;
    std::list<CPhoneEntry> values;
    walker.EnumRegistryKey(values, kAddress);
    ASSERT_EQ(values.size(), 2u);
    EXPECT_EQ(values.front().GetDescription(), "Office");
    EXPECT_EQ(values.back().GetProfileID(), home.GetProfileID());
    EXPECT_TRUE(values.front() == office);

    // Pointers: appended, or with merge given to the record already there with the same id.
    std::list<CPhoneEntry*> pointers;
    walker.EnumRegistryKey(pointers, kAddress, false);
    ASSERT_EQ(pointers.size(), 2u);
    pointers.front()->SetDescription("stale");
    CPhoneEntry* first = pointers.front();
    walker.EnumRegistryKey(pointers, kAddress, true);
    EXPECT_EQ(pointers.size(), 2u);
    EXPECT_EQ(first->GetDescription(), "Office");
    walker.EnumRegistryKey(pointers, kAddress, false);
    EXPECT_EQ(pointers.size(), 4u);

    // The search skips deleted records.
    EXPECT_EQ(CPhoneEntry::FindProfile(pointers, home.GetProfileID()), std::next(pointers.begin()));
    (*std::next(pointers.begin()))->DeleteEntry();
    EXPECT_EQ(*CPhoneEntry::FindProfile(pointers, home.GetProfileID()), *std::prev(pointers.end()));
    EXPECT_EQ(CPhoneEntry::FindProfile(pointers, 0xFFFFFFFFu), pointers.end());
    for (CPhoneEntry* p : pointers) delete p;
}

TEST_F(PhoneEntries, ComparisonsAndCopies) {
    CPhoneEntry a, b;
    a.SetPhoneNumber("555-ABC");
    b.SetPhoneNumber("555-abc");
    EXPECT_TRUE(a == b);  // ignoring case...
    EXPECT_FALSE(a != b);
    EXPECT_TRUE(a < b);  // ...but ordered by the exact characters
    EXPECT_TRUE(b > a);
    EXPECT_TRUE(a == CString("555-abc"));
    EXPECT_TRUE(a == a.GetProfileID());
    a.DeleteEntry();
    CPhoneEntry copy(a);
    EXPECT_TRUE(copy.IsDeleted());
    EXPECT_EQ(copy.GetProfileID(), a.GetProfileID());
    copy.ResetValues();
    EXPECT_FALSE(copy.IsDeleted());
    EXPECT_EQ(copy.GetPhoneNumber(), "");
}

TEST_F(PhoneEntries, DeletionAndNumbersThatCannotNameAKey) {
    CPhoneEntry gone = Saved("555-0101", "Gone");
    Saved("555-0102", "Kept");
    gone.DeleteEntry();
    EXPECT_TRUE(gone.SaveRegistryData(kAddress));
    EXPECT_FALSE(Exists(CString(kAddress) + "\\555-0101"));
    EXPECT_TRUE(Exists(CString(kAddress) + "\\555-0102"));

    // A backslash would make a deeper key; empty numbers or parents have no key at all.
    CPhoneEntry deeper;
    deeper.SetPhoneNumber("555-0102\\ext 5");
    EXPECT_FALSE(deeper.SaveRegistryData(kAddress));
    EXPECT_FALSE(Exists(CString(kAddress) + "\\555-0102\\ext 5"));
    deeper.DeleteEntry();
    EXPECT_FALSE(deeper.SaveRegistryData(kAddress));
    EXPECT_TRUE(Exists(CString(kAddress) + "\\555-0102"));
    CPhoneEntry blank;
    EXPECT_FALSE(blank.SaveRegistryData(kAddress));
    blank.SetPhoneNumber("1");
    EXPECT_FALSE(blank.SaveRegistryData(""));
    std::list<CPhoneEntry> values;
    blank.EnumRegistryKey(values, kAddress);
    EXPECT_EQ(values.size(), 1u);
}

TEST_F(PhoneEntries, ValuesOfTheWrongTypeGiveTheirFirstBytes) {
    HKEY key = Create(CString(kAddress) + "\\555-0103");
    SetString(key, "Profile ID", "12");        // "12\0" read as a number: 0x00003231
    SetDword(key, "Description", 0x00006948);  // a number read as text: "Hi"
    RegCloseKey(key);
    CPhoneEntry entry;
    entry.SetPhoneNumber("kept when missing");
    entry.LoadRegistryData(CString(kAddress) + "\\555-0103");
    EXPECT_EQ(entry.GetProfileID(), 0x3231u);
    EXPECT_EQ(entry.GetDescription(), "Hi");
    EXPECT_EQ(entry.GetPhoneNumber(), "kept when missing");
}

}  // namespace
