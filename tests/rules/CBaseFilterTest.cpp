// The base rule on its own: comparisons of all four classes, the schedule on a pinned clock, processed
// identifiers and their file, the text record, random names, date and time parsing, INI import.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "platform/Clock.h"
#include "platform/FileSystem.h"
#include "rules/CAutoResponderProfile.h"
#include "rules/CForwardMailProfile.h"
#include "rules/CSpamBlockProfile.h"
#include "tests/rules/RuleTestSupport.h"
#include "tests/support/TempDir.h"
#include "tests/support/WriteFaults.h"
#include "util/XString.h"

namespace {

using tavik::test::BaseProbe;
using tavik::test::LocalTime;
using tavik::test::Named;
using tavik::test::ReadFile;
using tavik::test::SweepWriteFaults;
using tavik::test::TempDir;
using tavik::test::WriteFault;
using tavik::test::WriteFile;

// What each class's comparisons do, as its row of the comparison table says.
struct Row {
    bool sameIgnoresCase;     // operator== against its own class
    bool deletedSameFalse;    // ... answers false for a deleted rule
    bool deletedStringFalse;  // operator==(CString), which ignores case in all but the redirector
    bool stringIgnoresCase;
    bool deletedOthersFalse;  // !=, <, >
};

template <class T>
void CheckComparisons(const Row& row) {
    const T spam = Named<T>("Spam"), lower = Named<T>("spam"), same = Named<T>("Spam");
    EXPECT_EQ(spam == lower, row.sameIgnoresCase);
    EXPECT_TRUE(spam == same);
    EXPECT_EQ(spam == CString("SPAM"), row.stringIgnoresCase);
    EXPECT_TRUE(spam == CString("Spam"));
    EXPECT_TRUE(spam != lower);
    EXPECT_FALSE(spam != same);
    // Byte-wise and unsigned: 0xE9 sorts after 'z'; a prefix sorts first.
    EXPECT_TRUE(Named<T>("z") < Named<T>("\xE9"));
    EXPECT_TRUE(Named<T>("\xE9") > Named<T>("z"));
    EXPECT_TRUE(Named<T>("ab") < Named<T>("abc"));
    EXPECT_FALSE(Named<T>("abc") < Named<T>("ab"));

    T deleted = Named<T>("Spam");
    deleted.SetDeleted(true);
    EXPECT_EQ(deleted == same, !row.deletedSameFalse);
    EXPECT_EQ(deleted == CString("Spam"), !row.deletedStringFalse);
    EXPECT_EQ(deleted != lower, !row.deletedOthersFalse);
    EXPECT_EQ(deleted < Named<T>("Zed"), !row.deletedOthersFalse);
    EXPECT_EQ(deleted > Named<T>("Abe"), !row.deletedOthersFalse);
}

TEST(BaseFilter, ComparisonsFollowEachClassRow) {
    CheckComparisons<BaseProbe>({true, true, true, true, true});
    CheckComparisons<CSpamBlockProfile>({false, true, true, true, true});
    CheckComparisons<CForwardMailProfile>({false, false, false, false, false});
    CheckComparisons<CAutoResponderProfile>({false, false, false, true, false});
}

TEST(BaseFilter, CopiesEveryFieldButTheKey) {
    ScopedClockPin pin;
    BaseProbe a = Named<BaseProbe>("Original");
    a.AddProcessedID(7);
    a.AddProcessedID(9);
    CStringArray ignore;
    ignore.Add("x@example.com");
    a.SetIgnoreList(ignore);
    a.SetMailBoxFolder("Junk");
    a.SetDeleted(true);
    a.OpenRegistryKey(HKEY_CURRENT_USER, "Software\\Brannick\\Tavik Mail\\Copy", nullptr);
    BaseProbe b(a), c;
    c = a;
    c = c;
    for (const BaseProbe* copy : {&b, &c}) {
        EXPECT_EQ(copy->GetFilterName(), "Original");
        EXPECT_EQ(copy->GetMailBoxFolder(), "Junk");
        EXPECT_TRUE(copy->GetDeleted());
        EXPECT_EQ(copy->GetHitCount(), 2u);
        EXPECT_TRUE(copy->SearchProcessedID(9));
        CStringArray list;
        copy->GetIgnoreList(list);
        ASSERT_EQ(list.GetSize(), 1);
        EXPECT_EQ(list[0], "x@example.com");
        EXPECT_EQ(copy->GetKeyHandle(), nullptr);
    }
    a.Close();
}

class Schedule : public ::testing::Test {
protected:
    void At(int day, int hour, int minute, int second) {
        m_pin.SetTime(LocalTime(2024, 6, day, hour, minute, second).GetTime());
    }
    ScopedClockPin m_pin;
    BaseProbe m_rule = Named<BaseProbe>("Rule");
};

// 2 June 2024 is a Sunday; 8 June the Saturday after.
TEST_F(Schedule, DayWordsIgnoreCase) {
    struct Case {
        const char* word;
        const char* days;  // Sunday .. Saturday
    } cases[] = {
        {"All Days", "1111111"}, {"weekends", "1000001"}, {"WEEKENDS", "1000001"},
        {"MONDAYS", "0100000"},  {"tuesdays", "0010000"}, {"Saturdays", "0000001"},
        {"Weekdays", "0111110"}, {"", "0000000"},         {"Holidays", "0000000"},
    };
    for (const Case& c : cases) {
        m_rule.SetFilterData("Rule", "Header", "contains", "", "Do Nothing", c.word, 0, 0, 0);
        std::string active;
        for (int day = 2; day <= 8; ++day) {
            At(day, 12, 0, 0);
            active += m_rule.IsActiveOn() ? '1' : '0';
            EXPECT_EQ(m_rule.CheckActivateStatus(), m_rule.IsActiveOn());
        }
        EXPECT_EQ(active, c.days) << c.word;
    }
}

TEST_F(Schedule, IntervalsIncludeBothEndsAndNeverWrap) {
    // Clock times from another day: only the time of day counts.
    m_rule.SetTimeIntervals(LocalTime(2000, 1, 1, 9, 0, 0), LocalTime(2010, 5, 5, 17, 0, 0));
    m_rule.SetFilterData("Rule", "Header", "contains", "", "Do Nothing", "All Days", 0, 0, 1);
    const struct {
        int h, m, s;
        bool open;
    } times[] = {{8, 59, 59, false}, {9, 0, 0, true}, {17, 0, 0, true}, {17, 0, 1, false}};
    for (const auto& t : times) {
        At(4, t.h, t.m, t.s);
        EXPECT_EQ(m_rule.CheckActivateStatus(), t.open) << t.h << ":" << t.m << ":" << t.s;
    }
    m_rule.SetTimeIntervals(LocalTime(2000, 1, 1, 22, 0, 0), LocalTime(2000, 1, 1, 6, 0, 0));
    for (int hour : {23, 5, 22, 6, 12}) {
        At(4, hour, 0, 0);
        EXPECT_FALSE(m_rule.CheckActivateStatus()) << hour;
    }
    m_rule.SetFilterData("Rule", "Header", "contains", "", "Do Nothing", "All Days", 0, 1, 0);
    m_rule.SetDateIntervals(LocalTime(2024, 6, 3, 12, 0, 0), LocalTime(2024, 6, 5, 12, 0, 0));
    At(3, 11, 59, 59);
    EXPECT_FALSE(m_rule.CheckActivateStatus());
    At(3, 12, 0, 0);
    EXPECT_TRUE(m_rule.CheckActivateStatus());
    At(5, 12, 0, 0);
    EXPECT_TRUE(m_rule.CheckActivateStatus());
    At(5, 12, 0, 1);
    EXPECT_FALSE(m_rule.CheckActivateStatus());
}

TEST_F(Schedule, ActiveEntrySwitchesTheKindsOff) {
    CSpamBlockProfile shield = Named<CSpamBlockProfile>("Shield");
    CForwardMailProfile redirector = Named<CForwardMailProfile>("Redirector");
    CAutoResponderProfile responder = Named<CAutoResponderProfile>("Responder");
    At(4, 12, 0, 0);
    EXPECT_EQ(shield.GetActiveEntry() + redirector.GetActiveEntry() + responder.GetActiveEntry(), 0u);
    DWORD on = 1;
    shield.SetActiveEntry(on);
    redirector.SetActiveEntry(on);
    responder.SetActiveEntry(on);
    EXPECT_EQ(shield.GetActiveEntry() + redirector.GetActiveEntry() + responder.GetActiveEntry(), 3u);
    shield.SetFilterData("Shield", "Header", "contains", "", "Do Nothing", "Weekends", 0, 0, 0);
    EXPECT_EQ(shield.GetActiveEntry(), 0u);
}

TEST(BaseFilter, ProcessedIdentifiersCountHitsOnce) {
    ScopedClockPin pin;
    BaseProbe rule = Named<BaseProbe>("Rule");
    CStringArray ignore;
    ignore.Add("kept");
    rule.SetIgnoreList(ignore);
    rule.AddProcessedID(42);
    rule.AddProcessedID(42);
    rule.AddProcessedID(43);
    EXPECT_EQ(rule.GetHitCount(), 2u);
    EXPECT_EQ(rule.GetProcessedIDCount(), 2u);
    rule.IncrementHits(5);
    EXPECT_EQ(rule.GetHitCount(), 7u);
    rule.RemoveProcessedID(42);
    rule.RemoveProcessedID(99);
    EXPECT_FALSE(rule.SearchProcessedID(42));
    EXPECT_TRUE(rule.SearchProcessedID(43));
    rule.ResetFilter();
    EXPECT_EQ(rule.GetHitCount(), 0u);
    EXPECT_EQ(rule.GetProcessedIDCount(), 0u);
    rule.AddProcessedID(1);
    rule.ResetValues();
    EXPECT_EQ(rule.GetProcessedIDCount(), 0u);
    rule.GetIgnoreList(ignore);
    EXPECT_EQ(ignore.GetSize(), 1);  // ResetValues leaves the ignore list
}

TEST(BaseFilter, ProcessedIdentifierFile) {
    TempDir dir;
    TavikSetApplicationDirectory(dir.path().c_str());
    BaseProbe rule = Named<BaseProbe>("Weekly");
    rule.AddProcessedID(0x04030201);
    rule.AddProcessedID(0xFFFFFFFE);
    rule.SaveProcessedIDs();
    TavikSetApplicationDirectory(nullptr);
    const std::string path = dir.file("Weekly.tpd");
    EXPECT_EQ(rule.GetProcessedIDsFile(), path.c_str());
    EXPECT_EQ(ReadFile(path), std::string("\x01\x02\x03\x04\xfe\xff\xff\xff", 8));

    // 14 bytes: three identifiers in file order, the last two bytes ignored, the hit count untouched.
    WriteFile(path, std::string("\x01\0\0\0\x03\0\0\0\x02\0\0\0\x09\x09", 14));
    rule.LoadProcessedIDs();
    std::list<DWORD> ids;
    rule.GetProcessedIDs(ids);
    EXPECT_EQ(ids, (std::list<DWORD>{1, 3, 2}));
    EXPECT_EQ(rule.GetHitCount(), 2u);

    // A missing file changes nothing; a save that cannot write leaves the previous file.
    rule.SetProcessedIDsFile(dir.file("absent.tpd").c_str());
    rule.LoadProcessedIDs();
    EXPECT_EQ(rule.GetProcessedIDCount(), 3u);
    rule.SetProcessedIDsFile(path.c_str());
    std::filesystem::create_directory(path + ".new");
    rule.SaveProcessedIDs();
    EXPECT_EQ(ReadFile(path).size(), 14u);
    std::filesystem::remove(path + ".new");
    rule.ResetFilter();
    rule.SaveProcessedIDs();
    EXPECT_EQ(ReadFile(path), "");
    EXPECT_FALSE(std::filesystem::exists(path + ".new"));
}

// The file is replaced whole: with each file-system change of a save failing in turn, it holds the old
// list or the new one, and nothing is left beside it.
TEST(BaseFilter, AProcessedIdentifierSaveThatFailsAnywhereLeavesTheOldFile) {
    TempDir dir;
    const std::string path = dir.file("Weekly.tpd");
    const std::string old("\x01\0\0\0\x02\0\0\0", 8);
    BaseProbe rule = Named<BaseProbe>("Weekly");
    rule.SetProcessedIDsFile(path.c_str());
    for (DWORD id = 1; id <= 5000; ++id) rule.AddProcessedID(id);
    WriteFile(path, old);  // else the save picks its own path
    rule.SaveProcessedIDs();
    const std::string fresh = ReadFile(path);
    ASSERT_EQ(fresh.size(), 20000u);

    int failures = SweepWriteFaults([&](int n) {
        SCOPED_TRACE(n);
        WriteFile(path, old);
        bool hit;
        {
            WriteFault fault(n, ENOSPC);
            rule.SaveProcessedIDs();
            hit = fault.Hit();
        }
        const std::string now = ReadFile(path);
        EXPECT_TRUE(now == old || now == fresh) << now.size() << " bytes";
        EXPECT_FALSE(std::filesystem::exists(path + ".new"));
        return hit;
    });
    EXPECT_GE(failures, 4);  // the new file's creation, its write, its flush, the rename
}

TEST(BaseFilter, TextRecordParsesOnlyWhatTheTextHolds) {
    ScopedClockPin pin;
    BaseProbe rule;
    rule.SetFilterData("Name", "Tag", "Act", "Obj", "Win", "Mondays", 0, 0, 0);
    rule.SetMailBoxFolder("Box");
    rule.SetProcessedIDsFile("f.tpd");
    const CString text = rule.BuildBaseFilterString();
    EXPECT_EQ(text, "NameTagActObjWinBoxf.tpdMondays");
    _tagSTR_BASEFILTERDATA lengths = {4, 3, 3, 3, 3, 3, 5, 7};
    BaseProbe copy;
    copy.ParseBaseFilterString(text, &lengths);
    EXPECT_EQ(copy.BuildBaseFilterString(), text);
    EXPECT_EQ(copy.GetMailBoxFolder(), "Box");

    struct Case {
        const char* text;
        _tagSTR_BASEFILTERDATA lengths;
        const char* expected;  // the record after parsing into "n|t|a|o|s|f|p|w"
    } cases[] = {
        {"abc", {4, 1, 1, 1, 1, 1, 1, 1}, "n|t|a|o|s|f|p|w"},  // text shorter than the name
        {"abcdefgh",
         {2, 0xFFFFFFFF, 1, 1, 1, 1, 1, 1},
         "ab|cdefgh|a|o|s|f|p|w"},                          // cut at the end, then stop
        {"abcd", {2, 2, 0, 0, 0, 0, 0, 1}, "ab|cd||||||"},  // starts at the end are taken
        {"abcd", {0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 1, 1, 1, 1}, "n|t|a|o|s|f|p|w"},
        {"ab",
         {1, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF},
         "a|b|a|o|s|f|p|w"},  // offsets beyond 32 bits stop the parsing, never wrap
    };
    for (const Case& c : cases) {
        BaseProbe r;
        r.SetFilterData("n", "t", "a", "o", "s", "w", 0, 0, 0);
        r.SetMailBoxFolder("f");
        r.SetProcessedIDsFile("p");
        r.ParseBaseFilterString(c.text, &c.lengths);
        EXPECT_EQ(tavik::test::Fields(r), c.expected) << c.text;
    }
    BaseProbe untouched = Named<BaseProbe>("Same");
    untouched.ParseBaseFilterString(nullptr, &lengths);
    untouched.ParseBaseFilterString("text", nullptr);
    EXPECT_EQ(untouched.GetFilterName(), "Same");
}

TEST(BaseFilter, RandomStringsAsTheMessageRecordMakesThem) {
    ScopedClockPin pin(1000);
    BaseProbe rule;
    EXPECT_EQ(rule.RandomString(20, 1), "8KeBVj3GZEReyBV9MatE");
    EXPECT_EQ(rule.RandomString(20, 2), "IbpBVjDXkGReySgBMatO");
    EXPECT_EQ(rule.RandomString(20, 3), "22334556678800112334");
    EXPECT_EQ(rule.RandomString(5, 7).GetLength(), 5);
}

TEST(BaseFilter, DatesAndTimesReplaceWhatIsOutOfRange) {
    BaseProbe rule;
    struct Case {
        const char* text;
        bool date;
        CTime expected;
    } cases[] = {
        {"2003:4:5", true, LocalTime(2003, 4, 5, 12, 0, 0)},
        {"1969:13:0", true, LocalTime(2000, 1, 1, 12, 0, 0)},
        {"2039:12:32", true, LocalTime(2000, 12, 1, 12, 0, 0)},
        {"garbage", true, LocalTime(2000, 1, 1, 12, 0, 0)},
        {"99999999999:-99999999999:7", true, LocalTime(2000, 1, 7, 12, 0, 0)},
        {"2001:2:31", true, LocalTime(2001, 3, 3, 12, 0, 0)},
        {"0:60:30", false, LocalTime(2000, 1, 1, 12, 0, 30)},
        {"9:15:59", false, LocalTime(2000, 1, 1, 9, 15, 59)},
        {"24:0:0", false, LocalTime(2000, 1, 2, 0, 0, 0)},
        {"", false, LocalTime(2000, 1, 1, 12, 0, 0)},
    };
    for (const Case& c : cases) {
        XString::SetSeparator('|');
        CTime result;
        if (c.date)
            rule.ParseSetDate(c.text, result);
        else
            rule.ParseSetTime(c.text, result);
        EXPECT_EQ(result.GetTime(), c.expected.GetTime()) << c.text;
        EXPECT_EQ(XString::GetSeparator(), ':');
    }
}

TEST(BaseFilter, IniImportFillsMissingKeysWithNoneAndZero) {
    TempDir dir;
    const std::string ini = dir.file("rules.ini");
    WriteFile(ini,
              "[Rule1]\r\nFilterName=From the boss\r\nObject=\"boss@example.com\"\r\nHit Count=12\r\n"
              "Use Date Interval=1\r\nFrom Date=2004:2:29\r\nTo Time=18:30:00\r\n");
    BaseProbe rule;
    rule.AddProcessedID(5);
    rule.ImportFromIni("rule1", ini.c_str());
    EXPECT_EQ(tavik::test::Fields(rule), "From the boss|None|None|boss@example.com|None|None|None|None");
    CString name, tag, action, object, success, activeOn;
    DWORD all = 9, useDate = 9, useTime = 9;
    rule.GetFilterData(name, tag, action, object, success, activeOn, all, useDate, useTime);
    EXPECT_EQ(all + useTime, 0u);
    EXPECT_EQ(useDate, 1u);
    EXPECT_EQ(rule.GetHitCount(), 12u);
    EXPECT_EQ(rule.GetProcessedIDCount(), 1u);  // lists are not imported
    CTime from, to;
    rule.GetDateIntervals(from, to);
    EXPECT_EQ(from, LocalTime(2004, 2, 29, 12, 0, 0));
    EXPECT_EQ(to, LocalTime(2000, 1, 1, 12, 0, 0));
    rule.GetTimeIntervals(from, to);
    EXPECT_EQ(from, LocalTime(2000, 1, 1, 12, 1, 1));
    EXPECT_EQ(to, LocalTime(2000, 1, 1, 18, 30, 0));
}

}  // namespace
