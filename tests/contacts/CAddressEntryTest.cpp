// A contact's fields in memory: the name and address formats, the dirty mark, the comparison quirks and
// the text record with its lengths, including records that claim more than they hold.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "tests/contacts/ContactsTestSupport.h"

using tavik::test::Describe;
using tavik::test::Fill;

namespace {

TEST(ContactFormats, NamesAndMailingAddresses) {
    struct {
        CNameData name;
        const char* text;
    } names[] = {
        {CNameData("Dr", "Ann", "Beth", "Lee", "Jr"), "Dr Ann Beth Lee Jr"},
        {CNameData("", "Ann", "", "", ""), "Ann"},
        {CNameData("Dr", "Ann", "", "Lee", "Jr"), "Dr Ann  Lee Jr"},  // the empty part's blanks stay
        {CNameData("", "", "", "Lee", ""), "Lee"},
        {CNameData(" ", "", "", "", "\t"), ""},
        {CNameData(), ""},
    };
    for (auto& [name, text] : names) EXPECT_EQ(name.GetNameString(), text);

    CAddressData address("1 Main St", "Springfield", "IL", "62701", "USA");
    EXPECT_EQ(address.GetMailingAddress(), "1 Main St\r\nSpringfield,IL\r\n62701\r\nUSA");
    EXPECT_EQ(CAddressData().GetMailingAddress(), "\r\n,\r\n\r\n");

    CAddressEntry entry;
    entry.SetNameData(CNameData("", " Ann", "", "", ""));
    EXPECT_EQ(entry.GetAddressName(), "Ann");
    EXPECT_EQ(entry.GetDisplayName(), "Ann");
    entry.SetFileAs("Lee, Ann");
    EXPECT_EQ(entry.GetDisplayName(), "Lee, Ann");
    EXPECT_EQ(entry.GetMailingAddress(ADDRESS_HOME), "\r\n,\r\n\r\n");
    entry.SetMailingAddress(ADDRESS_HOME, address);
    EXPECT_EQ(entry.GetMailingAddress(ADDRESS_HOME), address.GetMailingAddress());
    EXPECT_EQ(entry.GetAddressData(ADDRESS_HOME).GetCity(), "Springfield");
    EXPECT_EQ(entry.GetAddressData(ADDRESS_BUSINESS).GetCity(), "");
}

TEST(ContactFields, SettersMarkDirtyExceptFileAsAndTypesAreKeptApart) {
    tavik::test::TestEntry entry;
    EXPECT_FALSE(entry.IsDirty());
    entry.SetFileAs("Lee");
    EXPECT_FALSE(entry.IsDirty());

    entry.SetPhoneNumber(PHONETYPE(7), "555-0107");
    EXPECT_TRUE(entry.IsDirty());
    entry.SetPhoneNumber(PHONETYPE(7), "555-0177");
    EXPECT_EQ(entry.GetPhoneNumber(PHONETYPE(7)), "555-0177");
    for (int k = 0; k < PHONETYPE_COUNT; ++k)
        if (k != 7) EXPECT_EQ(entry.GetPhoneNumber(PHONETYPE(k)), "") << k;
    // Types outside the ranges are not kept (they could never be stored).
    entry.SetPhoneNumber(PHONETYPE(9), "lost");
    entry.SetPhoneNumber(PHONETYPE(-1), "lost");
    entry.SetEmailAddress(EMAILTYPE(3), "lost");
    entry.SetMailingAddress(ADDRESSTYPE(2), CAddressData("lost", "", "", "", ""));
    EXPECT_EQ(entry.GetPhoneNumber(PHONETYPE(9)), "");
    EXPECT_EQ(entry.BuildMailBoxStringData(), "Lee555-0177");

    // ResetValues empties everything but the name and draws a new id; a copy carries everything.
    entry.SetNameData(CNameData("", "Ann", "", "", ""));
    entry.SetEmailAddress(EMAIL_SECONDARY, "ann@example.org");
    tavik::test::TestEntry copy(entry);
    EXPECT_EQ(Describe(copy), Describe(entry));
    EXPECT_EQ(copy.GetProfileID(), entry.GetProfileID());
    entry.ResetValues();
    EXPECT_FALSE(entry.IsDirty());
    EXPECT_EQ(entry.GetFileAs(), "");
    EXPECT_EQ(entry.GetEmailAddress(EMAIL_SECONDARY), "");
    EXPECT_EQ(entry.GetAddressName(), "Ann");
    EXPECT_EQ(copy.GetEmailAddress(EMAIL_SECONDARY), "ann@example.org");
}

TEST(ContactFields, ComparisonsFindByIdOrNameOnly) {
    CAddressEntry a, b;
    a.SetNameData(CNameData("", "Ann", "", "Lee", ""));
    b.SetNameData(CNameData("", "Bob", "", "Ray", ""));
    EXPECT_TRUE(a == CString("ann  LEE"));  // the empty middle name leaves its blank
    EXPECT_FALSE(a == CString("Ann Lee"));
    EXPECT_TRUE(a == static_cast<DWORD>(a.GetProfileID()));
    // Two entries say nothing about each other.
    EXPECT_TRUE(a == b);
    EXPECT_FALSE(a != b);
    EXPECT_FALSE(a < b);
    EXPECT_FALSE(b < a);
    EXPECT_FALSE(a > b);
}

// The lengths record of an entry, as stored: 101 little-endian numbers.
std::string LengthBytes(const CAddressEntry& entry) {
    CAddressEntry::_tagSTR_ADDRESSENTRY lengths;
    entry.BuildStringDataLengths(lengths);
    return std::string(reinterpret_cast<const char*>(&lengths), sizeof lengths);
}

DWORD At(const std::string& bytes, size_t offset) {
    DWORD v;
    std::memcpy(&v, bytes.data() + offset, 4);
    return v;
}

TEST(ContactRecord, TextsInStoredOrderWithTheirLengthsAtTheirOffsets) {
    CAddressEntry entry;
    entry.SetCompany("Co");
    entry.SetComments("Note");
    entry.SetPhoneNumber(PHONETYPE(8), "88");
    entry.SetPhoneNumber(PHONETYPE(1), "1");
    entry.SetEmailAddress(EMAILTYPE(2), "e2");
    entry.SetMailingAddress(ADDRESSTYPE(1), CAddressData("S", "Ci", "", "Zip", "Ctry"));
    entry.SetNameData(CNameData("T", "First", "", "Last", "Sx"));
    EXPECT_EQ(entry.BuildMailBoxStringData(), "CoNote188e2SCiZipCtryTFirstLastSx");

    std::string bytes = LengthBytes(entry);
    ASSERT_EQ(bytes.size(), 404u);
    const std::pair<size_t, DWORD> expected[] = {
        {0, 2},   {16, 4},  {20 + 4 * 1, 1}, {20 + 4 * 8, 2}, {56 + 4 * 2, 2}, {344, 1}, {348, 2},
        {356, 3}, {360, 4}, {384, 1},        {388, 5},        {396, 4},        {400, 2},
    };
    std::string want(404, '\0');
    for (auto [offset, value] : expected) std::memcpy(want.data() + offset, &value, 4);
    EXPECT_EQ(bytes, want);  // everything else, reserved ranges included, is zero
}

TEST(ContactRecord, ParsingTakesFieldsWhileTheyFit) {
    tavik::test::TestEntry full;
    Fill(full, 7);
    CAddressEntry::_tagSTR_ADDRESSENTRY lengths;
    full.BuildStringDataLengths(lengths);
    CString text = full.BuildMailBoxStringData();

    tavik::test::TestEntry parsed;
    parsed.ParseAddressEntryData(text.GetBuffer(0), &lengths);
    parsed.SetFileAs(full.GetFileAs());
    EXPECT_EQ(Describe(parsed), Describe(full));
    parsed.ParseAddressEntryData(nullptr, &lengths);
    parsed.ParseAddressEntryData(text.GetBuffer(0), nullptr);

    // Cut the text inside the second e-mail address: the first one loads, the rest keep their values.
    tavik::test::TestEntry cut;
    cut.SetEmailAddress(EMAILTYPE(1), "kept@example.org");
    cut.SetNameData(CNameData("", "Kept", "", "", ""));
    size_t before = lengths.dwCompany + lengths.dwJobTitle + lengths.dwFileAs + lengths.dwUrl +
                    lengths.dwComments + lengths.dwEmail[0];
    for (DWORD l : lengths.dwPhone) before += l;
    std::string shortText(text.GetString(), before + 3);
    cut.ParseAddressEntryData(shortText.data(), &lengths);
    EXPECT_EQ(cut.GetPhoneNumber(PHONETYPE(8)), full.GetPhoneNumber(PHONETYPE(8)));
    EXPECT_EQ(cut.GetEmailAddress(EMAILTYPE(0)), full.GetEmailAddress(EMAILTYPE(0)));
    EXPECT_EQ(cut.GetEmailAddress(EMAILTYPE(1)), "kept@example.org");
    EXPECT_EQ(cut.GetAddressName(), "Kept");

    // Lengths that overflow when added, or that point far past the text, end the parse there.
    CAddressEntry::_tagSTR_ADDRESSENTRY hostile = lengths;
    hostile.dwJobTitle = 0xFFFFFFFFu;
    tavik::test::TestEntry overflow;
    overflow.ParseAddressEntryData(text.GetBuffer(0), &hostile);
    EXPECT_EQ(overflow.GetCompany(), full.GetCompany());
    EXPECT_EQ(overflow.GetJobTitle(), "");
    EXPECT_EQ(overflow.GetPhoneNumber(PHONETYPE(0)), "");

    // A zero byte ends the data wherever the lengths say it goes on.
    std::string withZero = std::string(text.GetString());
    withZero[lengths.dwCompany + 1] = '\0';
    tavik::test::TestEntry zero;
    zero.ParseAddressEntryData(withZero.data(), &lengths);
    EXPECT_EQ(zero.GetCompany(), full.GetCompany());
    EXPECT_EQ(zero.GetJobTitle(), "");
}

}  // namespace
