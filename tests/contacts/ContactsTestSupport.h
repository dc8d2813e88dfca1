// Entries filled for the contact tests, and the contact storage they are saved into.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "contacts/CAddressEntry.h"
#include "messages/CStorageManager.h"
#include "platform/Clock.h"
#include "tests/support/TempDir.h"

namespace tavik::test {

// CAddressEntry's copying is protected; a test may copy.
class TestEntry : public CAddressEntry {
public:
    TestEntry() = default;
    TestEntry(const TestEntry& other) : CAddressEntry(other) {}
    using CAddressEntry::operator=;
};

// Every field set, each text naming the entry (n) and the field, so a field read into the wrong place
// shows.
inline void Fill(CAddressEntry& entry, int n) {
    auto t = [n](const char* field) {
        CString text;
        text.Format("%s-%d", field, n);
        return text;
    };
    entry.SetCompany(t("company"));
    entry.SetJobTitle(t("job"));
    entry.SetFileAs(t("fileas"));
    entry.SetUrl(t("https://example.org/"));
    entry.SetComments(t("comments"));
    for (int k = 0; k < PHONETYPE_COUNT; ++k)
        entry.SetPhoneNumber(PHONETYPE(k), t("+1 555 010") + char('0' + k));
    for (int k = 0; k < EMAILTYPE_COUNT; ++k)
        entry.SetEmailAddress(EMAILTYPE(k), t("mail") + char('0' + k) + "@example.org");
    for (int a = 0; a < ADDRESSTYPE_COUNT; ++a) {
        CString s(char('0' + a));
        entry.SetMailingAddress(ADDRESSTYPE(a), CAddressData(t("street") + s, t("city") + s, t("state") + s,
                                                             t("zip") + s, t("country") + s));
    }
    entry.SetNameData(CNameData(t("Dr"), t("Ann"), t("Beth"), t("Lee"), t("Jr")));
}

// Every field of a and b, for EXPECT_EQ.
inline std::string Describe(CAddressEntry& e) {
    std::string s = std::string(e.GetCompany()) + "|" + e.GetJobTitle().GetString() + "|" +
                    e.GetFileAs().GetString() + "|" + e.GetUrl().GetString() + "|" +
                    e.GetComments().GetString();
    for (int k = 0; k < PHONETYPE_COUNT; ++k) s += "|" + std::string(e.GetPhoneNumber(PHONETYPE(k)));
    for (int k = 0; k < EMAILTYPE_COUNT; ++k) s += "|" + std::string(e.GetEmailAddress(EMAILTYPE(k)));
    for (int a = 0; a < ADDRESSTYPE_COUNT; ++a) s += "|" + std::string(e.GetMailingAddress(ADDRESSTYPE(a)));
    const CNameData& n = *e.GetNameDataPtr();
    s += "|" + std::string(n.GetTitle()) + "," + n.GetFirstName().GetString() + "," +
         n.GetMiddleName().GetString() + "," + n.GetLastName().GetString() + "," + n.GetSuffix().GetString();
    return s;
}

// A contact storage: a compound file's root, held open (transacted) as an account holds its "Contacts".
class ContactStore : public ::testing::Test {
protected:
    void SetUp() override { Reopen(); }
    IStorage* Store() { return m_file->m_pStorage; }
    std::string Path() const { return m_dir.file("contacts.tvs"); }
    void Reopen() {
        m_file.reset();
        m_file = std::make_unique<CStorageManager>(Path().c_str(), true);
    }
    void Close() { m_file.reset(); }

    TempDir m_dir;
    ScopedClockPin m_clock{5000};
    std::unique_ptr<CStorageManager> m_file;
};

}  // namespace tavik::test
