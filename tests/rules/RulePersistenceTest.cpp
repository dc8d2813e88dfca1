// Rules in storage and in the registry: both storage layouts read and migrated, the sub-storage names,
// merge-mode enumeration, deletion in both stores, damaged records, and what another reader sees.
#include <gtest/gtest.h>

#include <cstdio>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "platform/Clock.h"
#include "platform/Registry.h"
#include "rules/internal/RuleStrings.h"
#include "rules/internal/StorageRecords.h"
#include "tests/rules/RuleTestSupport.h"
#include "tests/support/TempDir.h"

namespace {

using namespace tavik::test;

constexpr DWORD kRuleMode = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;
const char kParent[] = "Software\\Brannick\\Tavik Mail\\Test\\Rules";

template <class T>
struct Kind;
template <>
struct Kind<CSpamBlockProfile> {
    static constexpr const char* kContainer = "Shields";
    static constexpr const char* kOwnStreams = "Complain To,Numeric Data,Spam Action";
    static constexpr const char* kOldElements[] = {"/Notify Admin"};
};
template <>
struct Kind<CForwardMailProfile> {
    static constexpr const char* kContainer = "Redirector";
    static constexpr const char* kOwnStreams =
        "Cache Recipients,Default Subject,Format Body Filename,Numeric Data";
    static constexpr const char* kOldElements[] = {"/Use Default Subject", "/Active Entry", "/Recipient"};
};
template <>
struct Kind<CAutoResponderProfile> {
    static constexpr const char* kContainer = "AutoResponder";
    static constexpr const char* kOwnStreams = "Cache Duplicates,Numeric Data,String Data,String Data Length";
    static constexpr const char* kOldElements[] = {"/Duplicate Action", "/Ignore Duplicates", "/Active Entry",
                                                   "/Duplicates"};
};

// Runs python3-olefile in its strict mode over a file: one line per element under the given storage.
std::string OleListing(const std::string& file, bool withBytes) {
    const std::string script =
        "import olefile,sys\n"
        "f=olefile.OleFileIO(sys.argv[1],raise_defects=olefile.DEFECT_INCORRECT)\n"
        "for e in sorted(f.listdir(streams=True,storages=True)):\n"
        "    p='/'.join(e)\n"
        "    if f.get_type(e)==olefile.STGTY_STORAGE: print('d',p); continue\n"
        "    print('f',p,f.openstream(e).read().hex() if sys.argv[2]=='1' else f.get_size(p))\n";
    const std::string command =
        "/usr/bin/python3 -c \"" + script + "\" '" + file + "' " + (withBytes ? "1" : "0") + " 2>&1";
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) return "popen failed";
    std::string output;
    char line[4096];
    while (fgets(line, sizeof line, pipe)) output += line;
    if (pclose(pipe) != 0) output += "(olefile failed)";
    return output;
}

// A settings file holding the rule containers, opened afresh for each step.
class RuleFile {
public:
    IStorage* Open() {
        m_root = std::make_unique<CStorageManager>(m_path.c_str(), true);
        return m_root->GetStorage();
    }
    void Commit() { m_root.reset(); }
    // The container's sub-storage, created when missing.
    CStorageManager& Container(const char* name) {
        m_box = std::make_unique<CStorageManager>();
        m_box->OpenSubStorage(Open(), name, kRuleMode, true, true);
        return *m_box;
    }
    void CommitContainer() {
        m_box.reset();
        Commit();
    }
    template <class T>
    void Save(T& rule) {
        rule.SaveStorageData(Open(), Kind<T>::kContainer);
        Commit();
    }
    template <class T>
    std::list<T> Load(std::list<T> list = {}, bool append = false) {
        T::EnumStorage(Container(Kind<T>::kContainer).GetStorage(), list, append);
        CommitContainer();
        return list;
    }
    const std::string& path() const { return m_path; }

private:
    TempDir m_dir;
    std::string m_path = m_dir.file("user.tvs");
    std::unique_ptr<CStorageManager> m_root, m_box;
};

template <class T>
std::list<T> LoadFromRegistry(const char* parent = kParent) {
    T walker;
    std::list<T> list;
    walker.OpenRegistryKey(HKEY_CURRENT_USER, parent, nullptr);
    walker.EnumRegistryKey(list, parent);
    walker.Close();
    return list;
}

bool KeyExists(const std::string& path) {
    HKEY key = nullptr;
    if (RegOpenKeyEx(HKEY_CURRENT_USER, path.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS) return false;
    RegCloseKey(key);
    return true;
}

void DeleteTree(const std::string& path) {
    HKEY key = nullptr;
    if (RegOpenKeyEx(HKEY_CURRENT_USER, path.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS) return;
    char name[1000];
    for (;;) {
        DWORD size = sizeof name;
        if (RegEnumKeyEx(key, 0, name, &size, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS) break;
        DeleteTree(path + "\\" + name);
    }
    RegCloseKey(key);
    RegDeleteKey(HKEY_CURRENT_USER, path.c_str());
}

template <class T>
class KindPersistence : public ::testing::Test {
protected:
    void TearDown() override { DeleteTree(kParent); }
    ScopedClockPin m_pin{1000, LocalTime(2024, 6, 4, 10, 0, 0).GetTime()};
    RuleFile m_file;
};
using Kinds = ::testing::Types<CSpamBlockProfile, CForwardMailProfile, CAutoResponderProfile>;
TYPED_TEST_SUITE(KindPersistence, Kinds);

TYPED_TEST(KindPersistence, StorageKeepsEveryFieldButTheIntervalSwitches) {
    TypeParam rule;
    Fill(rule, 1);
    this->m_file.Save(rule);
    EXPECT_EQ(OleListing(this->m_file.path(), false).find("(olefile failed)"), std::string::npos);
    std::list<TypeParam> loaded = this->m_file.template Load<TypeParam>();
    ASSERT_EQ(loaded.size(), 1u);
    EXPECT_EQ(loaded.front().GetStorageName(), "Rule 1");
    // A record of the current layout comes back with both intervals switched off.
    CString name, tag, action, object, success, activeOn;
    DWORD all, useDate, useTime;
    rule.GetFilterData(name, tag, action, object, success, activeOn, all, useDate, useTime);
    rule.SetFilterData(name, tag, action, object, success, activeOn, all, 0, 0);
    EXPECT_EQ(Describe(loaded.front()), Describe(rule));

    // The sub-storage holds the current layout's streams and nothing else.
    std::string names;
    for (const char* stream : {"Base Numeric Data", "Base String Data", "Base String Data Length",
                               "Cached Processed IDs", "Ignore List"})
        names += std::string(stream) + ",";
    names += Kind<TypeParam>::kOwnStreams;
    std::string listed;
    const std::string prefix = std::string("f ") + Kind<TypeParam>::kContainer + "/Rule 1/";
    std::string listing = OleListing(this->m_file.path(), false);
    for (size_t at = listing.find(prefix); at != std::string::npos; at = listing.find(prefix, at + 1)) {
        const size_t start = at + prefix.size();
        listed += listing.substr(start, listing.rfind(' ', listing.find('\n', start)) - start) + ",";
    }
    std::string expected = names + ",";
    std::sort(expected.begin(), expected.end());
    std::sort(listed.begin(), listed.end());
    EXPECT_EQ(listed, expected) << listing;
}

TYPED_TEST(KindPersistence, RegistryKeepsEveryField) {
    TypeParam rule;
    Fill(rule, 2);
    rule.SaveRegistryData(kParent);
    std::list<TypeParam> loaded = LoadFromRegistry<TypeParam>();
    ASSERT_EQ(loaded.size(), 1u);
    if constexpr (std::is_same_v<TypeParam, CAutoResponderProfile>) {
        // The load ends with the expiry, which marks a list that has no mark yet.
        std::string got = Describe(loaded.front());
        const size_t mark = got.find("mark=2024,06,04,10,00,00\n");
        ASSERT_NE(mark, std::string::npos) << got;
        EXPECT_EQ(got.replace(mark, 24, "mark="), Describe(rule));
    } else {
        EXPECT_EQ(Describe(loaded.front()), Describe(rule));
    }
}

TYPED_TEST(KindPersistence, DeletionRemovesTheRuleFromBothStores) {
    TypeParam rule;
    Fill(rule, 3);
    rule.SaveRegistryData(kParent);
    this->m_file.Save(rule);
    const std::string key = std::string(kParent) + "\\Rule 3";
    ASSERT_TRUE(KeyExists(key + "\\Processed") && KeyExists(key + "\\Ignore"));
    rule.SetDeleted(true);
    rule.SaveRegistryData(kParent);
    this->m_file.Save(rule);
    EXPECT_FALSE(KeyExists(key));
    EXPECT_TRUE(KeyExists(kParent));
    EXPECT_EQ(OleListing(this->m_file.path(), false), std::string("d ") + Kind<TypeParam>::kContainer + "\n");
    EXPECT_TRUE(this->m_file.template Load<TypeParam>().empty());
}

// The old layout: one stream per value, numbers as decimal text, lists as sub-storages of streams.
TYPED_TEST(KindPersistence, OldLayoutIsReadAndTheNextSaveMigratesIt) {
    {
        CStorageManager& box = this->m_file.Container(Kind<TypeParam>::kContainer);
        CStorageManager old;
        old.OpenSubStorage(box.GetStorage(), "Old rule", kRuleMode, true, true);
        for (auto [name, value] : {std::pair{"FilterName", "Old rule"},
                                   {"Mail Tag", "From"},
                                   {"Action", "is"},
                                   {"Active On", "Mondays"},
                                   {"Hit Count", "7"},
                                   {"Use Date Interval", "1"},
                                   {"Filter All", "garbage"},
                                   {"From Date", "1000000000"},
                                   {"Use Default Subject", "0"},
                                   {"Active Entry", "1"},
                                   {"Notify Admin", "1"},
                                   {"Spam Action", "Bounce"},
                                   {"Duplicate Action", "hourly"},
                                   {"Ignore Duplicates", "99999999999"}})
            old.WriteString(name, value);
        for (const char* list : {"Processed", "Recipient", "Duplicates"}) {
            CStorageManager sub;
            sub.OpenSubStorage(old.GetStorage(), list, kRuleMode, true, false);
            sub.WriteString("a", "11");
            sub.WriteString("b", "X@Example.com");
            sub.WriteString("c", "x@example.com");
            sub.WriteString("d", "11");
        }
        old.Close();
        this->m_file.CommitContainer();
    }
    std::list<TypeParam> loaded = this->m_file.template Load<TypeParam>();
    ASSERT_EQ(loaded.size(), 1u);
    TypeParam& rule = loaded.front();
    EXPECT_EQ(Fields(rule), "Old rule|From|is||Do Nothing|||Mondays");
    const std::string described = Describe(rule);
    for (const char* expected :
         {"use date=1\n", "filter all=0\n", "hits=7\n", "dates=1000000000\n", "processed=11,\n"})
        EXPECT_NE(described.find(expected), std::string::npos) << expected << " in\n" << described;
    if constexpr (std::is_same_v<TypeParam, CSpamBlockProfile>) {
        EXPECT_NE(described.find("admin=1\nwebmaster=0"), std::string::npos) << described;
        EXPECT_NE(described.find("spam action=Bounce"), std::string::npos);
    } else if constexpr (std::is_same_v<TypeParam, CForwardMailProfile>) {
        EXPECT_NE(described.find("use subject=0\nactive=1\nrecipients=11,X@Example.com\n"), std::string::npos)
            << described;
    } else {
        // The ignore-duplicates text does not fit 32 bits: the field keeps its default.
        EXPECT_NE(described.find("duplicate action=hourly\nmark=\nignore duplicates=0"), std::string::npos)
            << described;
        EXPECT_NE(described.find("duplicates=11,X@Example.com\n"), std::string::npos) << described;
    }

    this->m_file.Save(rule);
    std::string listing = OleListing(this->m_file.path(), false);
    for (const char* old : {"/FilterName", "/Hit Count", "/Processed"})
        EXPECT_EQ(listing.find(old), std::string::npos) << old << " left in\n" << listing;
    for (const char* old : Kind<TypeParam>::kOldElements)
        EXPECT_EQ(listing.find(old), std::string::npos) << old << " left in\n" << listing;
    // Read back from the current layout: the same, with the date interval switched off.
    std::string migrated = Describe(rule);
    migrated.replace(migrated.find("use date=1"), 10, "use date=0");
    EXPECT_EQ(Describe(this->m_file.template Load<TypeParam>().front()), migrated);
}

class Persistence : public ::testing::Test {
protected:
    void TearDown() override { DeleteTree(kParent); }
    ScopedClockPin m_pin{1000, LocalTime(2024, 6, 4, 10, 0, 0).GetTime()};
    RuleFile m_file;
    TempDir m_dir;
};

// Each value as olefile shows it: 4 bytes little-endian in hexadecimal.
std::string Hex(DWORD value) {
    char hex[9];
    std::snprintf(hex, sizeof hex, "%02x%02x%02x%02x", value & 0xFF, (value >> 8) & 0xFF,
                  (value >> 16) & 0xFF, value >> 24);
    return hex;
}

TEST_F(Persistence, ShieldStreamsHoldTheDocumentedBytes) {
    CSpamBlockProfile shield = Named<CSpamBlockProfile>("Weekly");
    shield.SetSpamOptions("", "Mark", 0, 0, 1, 0, 1, 1, 0);  // webmaster only, switched on
    shield.AddProcessedID(0x0A0B0C0D);
    CStringArray ignore;
    ignore.Add("a");
    ignore.Add("bc");
    shield.SetIgnoreList(ignore);
    m_file.Save(shield);
    const DWORD now = DWORD(LocalTime(2024, 6, 4, 10, 0, 0).GetTime());
    // "Numeric Data" stores notify other before notify webmaster.
    EXPECT_EQ(OleListing(m_file.path(), true),
              "d Shields\n"
              "d Shields/Weekly\n"
              "f Shields/Weekly/Base Numeric Data " +
                  Hex(0) + Hex(0) + Hex(0) + Hex(1) + Hex(now) + Hex(now + 86400) + Hex(now) + Hex(now) +
                  "\n"
                  "f Shields/Weekly/Base String Data "
                  "5765656b6c79486561646572636f6e7461696e73446f204e6f7468696e67416c6c2044617973\n"
                  "f Shields/Weekly/Base String Data Length " +
                  Hex(6) + Hex(6) + Hex(8) + Hex(0) + Hex(10) + Hex(0) + Hex(0) + Hex(8) +
                  "\n"
                  "f Shields/Weekly/Cached Processed IDs 0d0c0b0a\n"
                  "f Shields/Weekly/Complain To \n"
                  "f Shields/Weekly/Ignore List 7c617c6263\n"
                  "f Shields/Weekly/Numeric Data " +
                  Hex(0) + Hex(0) + Hex(0) + Hex(1) + Hex(1) + Hex(1) + Hex(0) +
                  "\n"
                  "f Shields/Weekly/Spam Action 4d61726b\n");
    // And back: webmaster set, other clear.
    CString complain, action;
    DWORD abuse, admin, webmaster, other, active, verify, intelligence;
    m_file.Load<CSpamBlockProfile>().front().GetSpamOptions(complain, action, abuse, admin, webmaster, other,
                                                            active, verify, intelligence);
    EXPECT_EQ(webmaster, 1u);
    EXPECT_EQ(other, 0u);
}

TEST_F(Persistence, StorageNamesAreTheRuleNameOrTwentyFreeLetters) {
    const std::string thirty(30, 'n'), thirtyOne(31, 'n');
    CSpamBlockProfile own = Named<CSpamBlockProfile>(thirty.c_str()),
                      colon = Named<CSpamBlockProfile>("Re: offers");
    CSpamBlockProfile longA = Named<CSpamBlockProfile>((thirtyOne + "A").c_str());
    CSpamBlockProfile longB = Named<CSpamBlockProfile>((thirtyOne + "B").c_str());
    for (CSpamBlockProfile* rule : {&own, &colon, &longA, &longB}) m_file.Save(*rule);
    EXPECT_EQ(own.GetStorageName(), thirty.c_str());
    // The clock is pinned, so both long names draw the same letters first; the second draws on.
    for (const CSpamBlockProfile* rule : {&colon, &longA, &longB}) {
        const std::string name = rule->GetStorageName().str();
        EXPECT_EQ(name.size(), 20u);
        EXPECT_EQ(name.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"),
                  std::string::npos);
    }
    EXPECT_NE(longA.GetStorageName(), longB.GetStorageName());
    EXPECT_NE(colon.GetStorageName(), longA.GetStorageName());
    // Renaming a saved rule keeps its sub-storage.
    longA.SetFilterData("Short now", "Header", "contains", "", "Do Nothing", "All Days", 0, 0, 0);
    const CString kept = longA.GetStorageName();
    m_file.Save(longA);
    EXPECT_EQ(longA.GetStorageName(), kept);
    std::list<CSpamBlockProfile> loaded = m_file.Load<CSpamBlockProfile>({}, true);
    std::string names;
    for (const auto& rule : loaded) names += rule.GetFilterName().str() + ",";
    EXPECT_EQ(loaded.size(), 4u) << names;
}

TEST_F(Persistence, MergeModeRefreshesRulesOfTheSameName) {
    CForwardMailProfile a = Named<CForwardMailProfile>("A"), b = Named<CForwardMailProfile>("B");
    CForwardMailProfile c = Named<CForwardMailProfile>("C");
    a.AddProcessedID(1);
    a.AddProcessedID(2);
    a.SetRedirectOptions("stored.tpl", "FWD", 0, 0, 0);
    for (CForwardMailProfile* rule : {&a, &b, &c}) m_file.Save(*rule);
    {  // C's stored copy loses its match action: a damaged record.
        CStorageManager& box = m_file.Container("Redirector");
        CStorageManager rule;
        rule.OpenSubStorage(box.GetStorage(), "C", kRuleMode, false, true);
        rule.WriteData("Base String Data Length", "\x01\0\0\0\x06\0\0\0\0\0\0\0", 12);
        rule.Close();
        m_file.CommitContainer();
    }

    std::list<CForwardMailProfile> list;
    list.push_back(Named<CForwardMailProfile>("a"));  // names match exactly: "a" is another rule
    list.push_back(Named<CForwardMailProfile>("A"));
    list.back().AddProcessedID(3);
    {  // switches set in the registry copy outlive the refresh, which reads them off
        CString name, tag, action, object, onSuccess, activeOn;
        DWORD all, dates, times;
        list.back().GetFilterData(name, tag, action, object, onSuccess, activeOn, all, dates, times);
        list.back().SetFilterData(name, tag, action, object, onSuccess, activeOn, all, 1, 1);
    }
    list.push_back(Named<CForwardMailProfile>("C"));
    CForwardMailProfile gone = Named<CForwardMailProfile>("B");
    gone.SetDeleted(true);
    list.push_back(gone);  // a deleted rule counts as absent
    list = m_file.Load(list);

    std::string summary;
    for (const auto& rule : list) {
        CString body, subject;
        DWORD useBody, useSubject, active;
        rule.GetRedirectOptions(body, subject, useBody, useSubject, active);
        std::list<DWORD> ids;
        rule.GetProcessedIDs(ids);
        CString name, tag, action, object, onSuccess, activeOn;
        DWORD all, dates, times;
        rule.GetFilterData(name, tag, action, object, onSuccess, activeOn, all, dates, times);
        summary += rule.GetFilterName().str() + (rule.GetDeleted() ? " deleted" : "") + " " + body.str() +
                   " " + std::to_string(ids.size()) + (dates ? " dates" : "") + (times ? " times" : "") +
                   "\n";
    }
    EXPECT_EQ(summary,
              "a  0\n"
              "A stored.tpl 3 dates times\n"
              "C deleted  0\n"
              "B deleted  0\n"
              "B  0\n");
    // Append mode adds every stored rule with a name that reads valid, whatever the list holds.
    EXPECT_EQ(m_file.Load(std::list<CForwardMailProfile>(2), true).size(), 4u);
}

// Damage written over one stream of a saved rule; the rule reads as far as its data allow and the
// others in the container load as before.
TEST_F(Persistence, DamagedRecordsReadSafely) {
    struct Case {
        const char* stream;
        std::string bytes;
        const char* expected;  // a line Describe must show, or "dropped" when the rule reads invalid
    } cases[] = {
        {"Base String Data Length", std::string(32, '\xff'), "dropped"},
        {"Base String Data Length", std::string("\x06\0\0\0\x06\0\0\0\x08\0\0\0", 12),
         "fields=Damage|Header|contains||Do Nothing|||All Days\n"},  // lengths it lacks: fields kept
        {"Base String Data Length",
         std::string("\x06\0\0\0\x06\0\0\0\x08\0\0\0\0\0\0\0\xf0\xff\xff\xff\0\0\0\0\0\0\0\0\x08\0\0\0", 32),
         "fields=Damage|Header|contains||Do NothingAll Days|||All Days\n"},
        {"Base String Data", std::string("Dam\0ge", 6), "dropped"},
        {"Base Numeric Data", std::string("\x05\0\0\0\x01\0\0\0\x09\x09", 10), "filter all=5\nuse date=0\n"},
        {"Base Numeric Data", "", "filter all=0\nuse date=0\nuse time=0\nhits=0\n"},
        {"Cached Processed IDs", std::string("\x07\0\0\0\x07\0\0\0\x08\0\0", 11), "processed=7,\n"},
        {"Ignore List", "||||", "ignore=\n"},
        {"Numeric Data", std::string("\x01\0\0\0\x01", 5),
         "abuse=1\nadmin=0\nwebmaster=0\nother=0\nactive=0\nverify=1"},
        {"Numeric Data", std::string(3, '\x01'),
         "abuse=0\nadmin=0\nwebmaster=0\nother=0\nactive=0\nverify=1"},
    };
    for (const Case& c : cases) {
        RuleFile file;
        CSpamBlockProfile damaged = Named<CSpamBlockProfile>("Damage"),
                          good = Named<CSpamBlockProfile>("Good");
        damaged.AddProcessedID(4);
        file.Save(damaged);
        file.Save(good);
        {
            CStorageManager& box = file.Container("Shields");
            CStorageManager rule;
            rule.OpenSubStorage(box.GetStorage(), "Damage", kRuleMode, false, true);
            rule.WriteData(c.stream, c.bytes.data(), static_cast<ULONG>(c.bytes.size()));
            rule.Close();
            file.CommitContainer();
        }
        std::list<CSpamBlockProfile> loaded = file.Load<CSpamBlockProfile>();
        std::string names, described;
        for (const auto& rule : loaded) {
            names += rule.GetFilterName().str() + ",";
            if (rule.GetFilterName() == "Damage") described = Describe(rule);
        }
        const bool dropped = std::string(c.expected) == "dropped";
        EXPECT_EQ(names, dropped ? "Good," : "Good,Damage,") << c.stream << " " << c.expected;
        if (!dropped) {
            EXPECT_NE(described.find(c.expected), std::string::npos) << c.expected << " in\n" << described;
        }
    }
}

TEST_F(Persistence, RegistryLoadOfAMissingKeyCreatesItEmpty) {
    const std::string key = std::string(kParent) + "\\Nobody";
    CAutoResponderProfile rule = Named<CAutoResponderProfile>("Left as is");
    rule.LoadRegistryData(key.c_str());
    EXPECT_TRUE(KeyExists(key));
    EXPECT_EQ(rule.GetFilterName(), "");
    EXPECT_EQ(Describe(rule), Describe(CAutoResponderProfile()));
    HKEY handle = nullptr;
    DWORD values = 99, subKeys = 99;
    ASSERT_EQ(RegOpenKeyEx(HKEY_CURRENT_USER, key.c_str(), 0, KEY_READ, &handle), ERROR_SUCCESS);
    RegQueryInfoKey(handle, nullptr, nullptr, nullptr, &subKeys, nullptr, nullptr, &values, nullptr, nullptr,
                    nullptr, nullptr);
    RegCloseKey(handle);
    EXPECT_EQ(values, 0u);
    // Empty parent, name or key: nothing at all.
    CSpamBlockProfile unnamed;
    unnamed.SaveRegistryData(kParent);
    Named<CSpamBlockProfile>("x").SaveRegistryData("");
    unnamed.LoadRegistryData("");
    EXPECT_EQ(LoadFromRegistry<CSpamBlockProfile>().size(), 1u);
}

TEST_F(Persistence, LargeProcessedKeysLoadWhole) {
    CSpamBlockProfile rule = Named<CSpamBlockProfile>("Busy");
    rule.SaveRegistryData(kParent);
    CRegistryManager processed;
    processed.OpenRegistryKey(HKEY_CURRENT_USER, (std::string(kParent) + "\\Busy\\Processed").c_str(),
                              nullptr);
    std::list<DWORD> ids;
    for (DWORD i = 0; i < 100000; ++i) ids.push_back(i * 2654435761u);
    processed.SetAnonDwordValues(ids);
    processed.Close();
    std::list<CSpamBlockProfile> loaded = LoadFromRegistry<CSpamBlockProfile>();
    ASSERT_EQ(loaded.size(), 1u);
    EXPECT_EQ(loaded.front().GetProcessedIDCount(), 100000u);
    EXPECT_TRUE(loaded.front().SearchProcessedID(99999 * 2654435761u));

    // Saved back after a check (one removed near the front, one added), then over a stray value that
    // the list could not have written: each load gives the list as saved, and nothing else stays.
    const std::string path = std::string(kParent) + "\\Busy\\Processed";
    for (bool stray : {false, true}) {
        CSpamBlockProfile& busy = loaded.front();
        busy.RemoveProcessedID((stray ? 9 : 5) * 2654435761u);
        busy.AddProcessedID(stray ? 8 : 7);
        if (stray) {
            processed.OpenRegistryKey(HKEY_CURRENT_USER, path.c_str(), nullptr);
            RegSetValueEx(processed.GetKeyHandle(), "Stray", 0, REG_SZ, reinterpret_cast<const BYTE*>("x"),
                          2);
            processed.Close();
        }
        busy.SaveRegistryData(kParent);
        std::list<DWORD> saved, back;
        busy.GetProcessedIDs(saved);
        loaded = LoadFromRegistry<CSpamBlockProfile>();
        ASSERT_EQ(loaded.size(), 1u);
        loaded.front().GetProcessedIDs(back);
        EXPECT_EQ(back, saved) << stray;
        DWORD values = 0;
        processed.OpenRegistryKey(HKEY_CURRENT_USER, path.c_str(), nullptr);
        RegQueryInfoKey(processed.GetKeyHandle(), nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                        &values, nullptr, nullptr, nullptr, nullptr);
        processed.Close();
        EXPECT_EQ(values, 100000u) << stray;
    }
}

TEST_F(Persistence, RegistryExportShowsTheRuleKey) {
    CForwardMailProfile rule = Named<CForwardMailProfile>("Weekly");
    rule.AddProcessedID(0x2a);
    CStringArray list;
    list.Add("boss@example.com");
    rule.SetRecipients(list);
    list[0] = "me@example.com";
    rule.SetIgnoreList(list);
    rule.SaveRegistryData(kParent);
    const std::string file = m_dir.file("rule.reg");
    ASSERT_EQ(RegExportKey((std::string("HKEY_CURRENT_USER\\") + kParent + "\\Weekly").c_str(), file.c_str()),
              ERROR_SUCCESS);
    const std::string utf16 = ReadFile(file);
    std::string text;
    for (size_t i = 2; i + 1 < utf16.size(); i += 2)
        if (utf16[i] != '\r') text += utf16[i];
    const DWORD now = DWORD(LocalTime(2024, 6, 4, 10, 0, 0).GetTime());
    char times[200];
    std::snprintf(times, sizeof times,
                  "\"From Date\"=dword:%08x\n\"To Date\"=dword:%08x\n\"From Time\"=dword:%08x\n\"To "
                  "Time\"=dword:%08x\n",
                  now, now + 86400, now, now);
    const std::string key = std::string("[HKEY_CURRENT_USER\\") + kParent + "\\Weekly";
    EXPECT_EQ(
        text,
        "Windows Registry Editor Version 5.00\n\n" + key +
            "]\n"
            "\"FilterName\"=\"Weekly\"\n\"Mail Tag\"=\"Header\"\n\"Action\"=\"contains\"\n\"Object\"=\"\"\n"
            "\"On Success\"=\"Do Nothing\"\n\"Move To Folder\"=\"\"\n\"Temporary File\"=\"\"\n"
            "\"Active On\"=\"All Days\"\n\"Hit Count\"=dword:00000001\n\"Filter All\"=dword:00000000\n"
            "\"Use Date Interval\"=dword:00000000\n\"Use Time Interval\"=dword:00000000\n" +
            times +
            "\"Default Subject\"=\"FWD: %SUBJECT%\"\n\"Format Body Filename\"=\"\"\n"
            "\"Active Entry\"=dword:00000000\n\"Use Default Subject\"=dword:00000001\n"
            "\"Use Default Body\"=dword:00000000\n\n" +
            key + "\\Ignore]\n\"Value0\"=\"me@example.com\"\n\n" + key +
            "\\Processed]\n\"Value0\"=dword:0000002a\n\n" + key +
            "\\Recipients]\n\"Value0\"=\"boss@example.com\"\n\n");
}

// A file written elsewhere may hold a sub-storage without a name: enumeration clears it away.
TEST_F(Persistence, NamelessSubStoragesAreRemoved) {
    CSpamBlockProfile kept = Named<CSpamBlockProfile>("Kept"), lost = Named<CSpamBlockProfile>("Q");
    m_file.Save(kept);
    m_file.Save(lost);
    std::string bytes = ReadFile(m_file.path());
    // The directory entry of "Q": its name in UTF-16, zero padding, the name length 4, type storage.
    const std::string entry = std::string("Q\0", 2) + std::string(62, '\0') + std::string("\x04\0\x01", 3);
    const size_t at = bytes.find(entry);
    ASSERT_NE(at, std::string::npos);
    bytes[at] = '\0';
    bytes[at + 64] = '\x02';
    WriteFile(m_file.path(), bytes);
    std::list<CSpamBlockProfile> loaded = m_file.Load<CSpamBlockProfile>();
    ASSERT_EQ(loaded.size(), 1u);
    EXPECT_EQ(loaded.front().GetFilterName(), "Kept");
    const std::string listing = OleListing(m_file.path(), false);
    EXPECT_EQ(listing.substr(0, listing.find("d Shields/Kept")), "d Shields\n") << listing;
}

// Lists read from storage (ignore list, recipients, duplicates) drop entries they already hold,
// ignoring case, whether the entry came before the read or earlier in the same text.
TEST(EntryLists, RepeatsAreDroppedIgnoringCase) {
    CStringArray list;
    for (const char* entry : {"Keep@Example.com", "keep@example.com", "b"}) list.Add(entry);
    tavik::lib::EntryAdder adder(list);
    const char text[] = "KEEP@example.COM|B||new|NEW\0tail|x\0y|";
    adder.AddSplit(std::string(text, sizeof text - 1));
    adder.Add("X");
    std::vector<std::string> got;
    for (int i = 0; i < list.GetSize(); ++i) got.push_back(list[i].str());
    EXPECT_EQ(got, (std::vector<std::string>{"Keep@Example.com", "keep@example.com", "b", "new", "x"}));

    // Enough entries for the lookup table to grow several times on the way.
    std::string many;
    for (int i = 0; i < 3000; ++i)
        many += "user" + std::to_string(i) + "@example.com|USER" + std::to_string(i) + "@EXAMPLE.COM|";
    adder.AddSplit(many);
    ASSERT_EQ(list.GetSize(), 5 + 3000);
    EXPECT_EQ(list[5 + 2999].str(), "user2999@example.com");
    adder.Add("User17@Example.Com");
    EXPECT_EQ(list.GetSize(), 5 + 3000);
}

}  // namespace
