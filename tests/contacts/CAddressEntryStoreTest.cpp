// Contacts in a real compound file: the round trip, saving only what changed, deletion, ids that clash,
// stored data that is damaged, and the file as another reader sees it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "tests/contacts/ContactsTestSupport.h"
#include "tests/messages/DamagedFile.h"

using tavik::test::Describe;
using tavik::test::Fill;

namespace {

constexpr DWORD kMode = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;

class Contacts : public tavik::test::ContactStore {
protected:
    void TearDown() override {
        for (CAddressEntry* e : m_loaded) delete e;
    }
    // Every entry of the store, loaded afresh (the previous load's entries are released).
    std::list<CAddressEntry*>& Load(CMailBoxProfile* profile = nullptr) {
        for (CAddressEntry* e : m_loaded) delete e;
        m_loaded.clear();
        CAddressEntry::EnumStorage(Store(), m_loaded, profile);
        return m_loaded;
    }
    // The names of the store's sub-storages.
    std::set<std::string> Names() {
        std::set<std::string> names;
        IEnumSTATSTG* it = nullptr;
        EXPECT_EQ(Store()->EnumElements(0, nullptr, 0, &it), S_OK);
        STATSTG stat;
        ULONG got = 0;
        while (it->Next(1, &stat, &got) == S_OK && got == 1) {
            if (stat.type == STGTY_STORAGE) names.insert(std::string(CString(stat.pwcsName)));
            CoTaskMemFree(stat.pwcsName);
        }
        it->Release();
        return names;
    }
    // Writes a raw entry: lengths bytes, text bytes, and a profile id text (none when null).
    void WriteRaw(const char* name, const std::string& lengths, const std::string& text, const char* id) {
        CStorageManager sub;
        ASSERT_TRUE(sub.OpenSubStorage(Store(), name, kMode, true, true));
        sub.WriteData("String Data Length", lengths.data(), static_cast<ULONG>(lengths.size()));
        sub.WriteData("String Data", text.data(), static_cast<ULONG>(text.size()));
        if (id) sub.WriteData("Profile ID", id, static_cast<ULONG>(std::strlen(id)));
    }
    static std::string Lengths(std::initializer_list<std::pair<size_t, DWORD>> values) {
        std::string bytes(404, '\0');
        for (auto [offset, value] : values) std::memcpy(bytes.data() + offset, &value, 4);
        return bytes;
    }

    std::list<CAddressEntry*> m_loaded;
};

CMailBoxProfile* const kProfile = reinterpret_cast<CMailBoxProfile*>(0x1000);

void ReadProfile(CMailBoxProfile* profile, CString& account, CString& server, CString& outgoing,
                 CString& email) {
    ASSERT_EQ(profile, kProfile);
    account = "Home";
    server = "pop.example.org";
    outgoing = "smtp.example.org";
    email = "me@example.org";
}

TEST_F(Contacts, EntriesComeBackWholeWithTheirAccountsFields) {
    CAddressEntry full, sparse;
    Fill(full, 1);
    sparse.SetNameData(CNameData("Ms", "Cy", "", "Dee", ""));  // an empty middle name stays in place
    sparse.SetPhoneNumber(PHONETYPE(7), "555-0107");
    m_clock.AdvanceTicks(1);
    ASSERT_TRUE(full.SaveAddress(Store()));
    ASSERT_TRUE(sparse.SaveAddress(Store()));
    EXPECT_FALSE(full.IsDirty());
    Reopen();

    CAddressEntry::SetProfileFieldsReader(&ReadProfile);
    auto& loaded = Load(kProfile);
    CAddressEntry::SetProfileFieldsReader(nullptr);
    ASSERT_EQ(loaded.size(), 2u);
    for (CAddressEntry* e : loaded) {
        CAddressEntry& original = e->GetProfileID() == full.GetProfileID() ? full : sparse;
        ASSERT_EQ(e->GetProfileID(), original.GetProfileID());
        e->SetFileAs(original.GetFileAs());
        EXPECT_EQ(Describe(*e), Describe(original));
        EXPECT_FALSE(e->IsDirty());
        EXPECT_EQ(e->GetAccountName(), "Home");
        EXPECT_EQ(e->GetServerName(), "pop.example.org");
        EXPECT_EQ(e->GetOutgoingServer(), "smtp.example.org");
        EXPECT_EQ(e->GetAccountEmailAddress(), "me@example.org");
    }
    CAddressEntry* cy = *std::find_if(loaded.begin(), loaded.end(),
                                      [](CAddressEntry* e) { return *e == CString("ms cy  dee"); });
    EXPECT_EQ(cy->GetNameDataPtr()->GetMiddleName(), "");
    EXPECT_EQ(cy->GetNameDataPtr()->GetLastName(), "Dee");
}

TEST_F(Contacts, OnlyChangedEntriesAreWrittenAndDeletedOnesDisappear) {
    CAddressEntry onlyFileAs;
    onlyFileAs.SetFileAs("not worth a save");
    EXPECT_TRUE(onlyFileAs.SaveAddress(Store()));
    EXPECT_TRUE(Names().empty());

    CAddressEntry kept, gone;
    kept.SetCompany("Kept");
    m_clock.AdvanceTicks(1);
    gone.SetCompany("Gone");
    ASSERT_TRUE(kept.SaveAddress(Store()));
    ASSERT_TRUE(gone.SaveAddress(Store()));
    CString goneName;
    goneName.Format("%d", gone.GetProfileID());
    EXPECT_EQ(Names().count(std::string(goneName)), 1u);
    gone.DeleteEntry();
    ASSERT_TRUE(gone.SaveAddress(Store()));
    CString keptName;
    keptName.Format("%d", kept.GetProfileID());
    EXPECT_EQ(Names(), std::set<std::string>{std::string(keptName)});

    // A new entry deleted before it was ever saved owns no sub-storage, not even one its id names.
    m_clock.SetTickCount(5000);  // the tick that drew kept's id, so the same id
    CAddressEntry twin;
    ASSERT_EQ(twin.GetProfileID(), kept.GetProfileID());
    twin.DeleteEntry();
    twin.SaveAddress(Store());
    EXPECT_EQ(Names().size(), 1u);
}

TEST_F(Contacts, EntriesMadeInOneMillisecondAllKeepTheirOwnStorage) {
    // The tick count stays put: every entry draws the same id from the same seed.
    std::vector<std::unique_ptr<CAddressEntry>> made;
    for (int i = 0; i < 1000; ++i) {
        made.push_back(std::make_unique<CAddressEntry>());
        made.back()->SetCompany(CString("Company ") + std::to_string(i).c_str());
    }
    EXPECT_EQ(made[0]->GetProfileID(), made[999]->GetProfileID());
    for (auto& e : made) ASSERT_TRUE(e->SaveAddress(Store()));
    Reopen();
    auto& loaded = Load();
    ASSERT_EQ(loaded.size(), 1000u);
    EXPECT_EQ(Names().size(), 1000u);
    std::set<int> ids;
    std::set<std::string> companies;
    for (CAddressEntry* e : loaded) {
        ids.insert(e->GetProfileID());
        companies.insert(std::string(e->GetCompany()));
        EXPECT_NE(e->GetProfileID(), 0);
    }
    EXPECT_EQ(ids.size(), 1000u);
    EXPECT_EQ(companies.size(), 1000u);
    // What was saved is what the entries say: saving them again writes over their own storage only.
    for (auto& e : made) e->SetComments("again");
    for (auto& e : made) ASSERT_TRUE(e->SaveAddress(Store()));
    EXPECT_EQ(Names().size(), 1000u);
}

TEST_F(Contacts, DamagedEntriesLoadWhatTheyHoldAndMergeIntoNothing) {
    // Lengths that add up to more than the text: the fields that fit load.
    WriteRaw("101", Lengths({{0, 4}, {4, 5}, {8, 50}, {388, 3}}), "AcmeChief", "101");
    // Lengths that overflow 32 bits when added.
    WriteRaw("102", Lengths({{0, 4}, {4, 0xFFFFFFFFu}, {8, 2}}), "Acmexx", "102");
    // A lengths record cut short reads as zeros past its end.
    WriteRaw("103", std::string("\x04\0\0\0", 4), "Acme", "103");
    // Profile id 0: dropped from the list, its storage kept.
    WriteRaw("104", Lengths({{0, 4}}), "Acme", "0");
    // A text where the id should be reads as 0 too.
    WriteRaw("105", Lengths({{0, 4}}), "Acme", "abc");
    // Blank names are skipped, and streams are not entries.
    WriteRaw("  ", Lengths({{0, 4}}), "Acme", "106");
    IStream* stream = nullptr;
    ASSERT_EQ(
        Store()->CreateStream("107", STGM_CREATE | STGM_READWRITE | STGM_SHARE_EXCLUSIVE, 0, 0, &stream),
        S_OK);
    stream->Release();

    auto& loaded = Load();
    std::map<int, CAddressEntry*> byId;
    for (CAddressEntry* e : loaded) byId[e->GetProfileID()] = e;
    ASSERT_EQ(byId.size(), 3u);
    EXPECT_EQ(byId[101]->GetCompany(), "Acme");
    EXPECT_EQ(byId[101]->GetJobTitle(), "Chief");
    EXPECT_EQ(byId[101]->GetFileAs(), "");
    EXPECT_EQ(byId[101]->GetNameDataPtr()->GetFirstName(), "");
    EXPECT_EQ(byId[102]->GetCompany(), "Acme");
    EXPECT_EQ(byId[102]->GetJobTitle(), "");
    EXPECT_EQ(byId[103]->GetCompany(), "Acme");
    EXPECT_EQ(Names().size(), 6u);  // nothing destroyed
}

TEST_F(Contacts, AnEntryWhoseIdNamesAnotherStorageMovesInsteadOfOverwritingIt) {
    WriteRaw("201", Lengths({{0, 5}}), "Owner", "201");
    WriteRaw("202", Lengths({{0, 5}}), "Other", "201");     // a copy claiming the first one's id
    WriteRaw("203", Lengths({{0, 6}}), "NoId!!", nullptr);  // no id: the entry keeps a drawn one
    auto& loaded = Load();
    ASSERT_EQ(loaded.size(), 3u);
    for (CAddressEntry* e : loaded) {
        e->SetComments("edited");
        ASSERT_TRUE(e->SaveAddress(Store()));
    }
    auto& again = Load();
    std::set<std::string> companies;
    std::set<int> ids;
    for (CAddressEntry* e : again) {
        companies.insert(std::string(e->GetCompany()));
        ids.insert(e->GetProfileID());
        EXPECT_EQ(e->GetComments(), "edited");
    }
    EXPECT_EQ(companies, (std::set<std::string>{"Owner", "Other", "NoId!!"}));
    EXPECT_EQ(ids.size(), 3u);
    EXPECT_EQ(Names().size(), 3u);
    EXPECT_EQ(Names().count("201"), 1u);
}

TEST_F(Contacts, AHugeTextClaimingSmallLengthsCostsOnlyWhatTheyUse) {
    // 100 MB of text behind a record that uses 9 bytes of it.
    {
        CStorageManager sub;
        ASSERT_TRUE(sub.OpenSubStorage(Store(), "301", kMode, true, false));
        std::string lengths = Lengths({{0, 4}, {4, 5}});
        sub.WriteData("String Data Length", lengths.data(), 404);
        sub.WriteNumber("Profile ID", 301);
        IStream* text = nullptr;
        ASSERT_EQ(sub.m_pStorage->CreateStream(
                      "String Data", STGM_CREATE | STGM_READWRITE | STGM_SHARE_EXCLUSIVE, 0, 0, &text),
                  S_OK);
        ULARGE_INTEGER size;
        size.QuadPart = 100u << 20;
        ASSERT_EQ(text->SetSize(size), S_OK);
        text->Write("AcmeChief", 9, nullptr);
        text->Release();
    }
    auto& loaded = Load();
    ASSERT_EQ(loaded.size(), 1u);
    EXPECT_EQ(loaded.front()->GetCompany(), "Acme");
    EXPECT_EQ(loaded.front()->GetJobTitle(), "Chief");
    Store()->Revert();  // nothing to keep
}

TEST_F(Contacts, ATextThatClaimsMoreThanItHoldsCostsWhatItHolds) {
    // The directory entry claims almost 2 GB, and so do the lengths: the stream reads as what its
    // sectors really hold, which is not the text, so nothing parses; the entry still loads.
    WriteRaw("302", Lengths({{0, 4}, {4, 0x7FFFFFF0u}}), "Acme", "302");
    Close();
    tavik::test::ClaimHugeStreamSize(Path(), "String Data");
    Reopen();
    auto& loaded = Load();
    ASSERT_EQ(loaded.size(), 1u);
    EXPECT_EQ(loaded.front()->GetProfileID(), 302);
    EXPECT_EQ(loaded.front()->GetJobTitle(), "");
}

TEST_F(Contacts, AnotherReaderSeesTheEntrysStreams) {
    CAddressEntry entry;
    Fill(entry, 3);
    ASSERT_TRUE(entry.SaveAddress(Store()));
    Close();
    std::string script =
        "import olefile,sys\n"
        "f=olefile.OleFileIO(sys.argv[1],raise_defects=olefile.DEFECT_INCORRECT)\n"
        "for e in sorted(f.listdir(streams=True,storages=False)):\n"
        "    print('/'.join(e), f.get_size('/'.join(e)))\n"
        "print(f.openstream(sys.argv[2]+'/Profile ID').read().decode())\n";
    CString name;
    name.Format("%d", entry.GetProfileID());
    std::string command =
        "/usr/bin/python3 -c \"" + script + "\" " + Path() + " " + name.GetString() + " 2>&1";
    FILE* pipe = popen(command.c_str(), "r");
    ASSERT_NE(pipe, nullptr);
    std::string output;
    char line[512];
    while (fgets(line, sizeof line, pipe)) output += line;
    ASSERT_EQ(pclose(pipe), 0) << output;
    const std::string n = name.GetString();
    EXPECT_EQ(output, n + "/Profile ID " + std::to_string(n.size()) + "\n" + n + "/String Data " +
                          std::to_string(entry.BuildMailBoxStringData().GetLength()) + "\n" + n +
                          "/String Data Length 404\n" + n + "\n");
}

}  // namespace
