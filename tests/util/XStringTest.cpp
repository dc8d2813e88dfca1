#include <gtest/gtest.h>

#include "util/XString.h"

#include <climits>
#include <random>
#include <string>

namespace {

// The separator is process-wide: every test starts from '|' and puts it back.
class XStringTest : public ::testing::Test {
protected:
    void SetUp() override {
        XString::SetSeparator('|');
        XString::SetSeparator('|');
    }
    void TearDown() override { SetUp(); }
};

TEST_F(XStringTest, ValueEditsLeaveTheOriginalAlone) {
    const XString s("Hello World");
    EXPECT_EQ(s.Upper(), "HELLO WORLD");
    EXPECT_EQ(s.Reverse(), "dlroW olleH");
    EXPECT_EQ(XString("  a b \t\r\n").Trim(), "a b");
    EXPECT_EQ(s.FromTo(6, 8), "Wor");
    EXPECT_EQ(s.Insert(XString("x"), 12), "Hello World");
    EXPECT_EQ(s.Insert(XString("x"), -1), "Hello World");
    EXPECT_EQ(s.Insert(XString("!"), 11), "Hello World!");
    EXPECT_EQ(s, "Hello World");

    XString t("abc");
    EXPECT_EQ(t--, "abc");
    EXPECT_EQ(t, "ab");
    EXPECT_EQ(--t, "a");
    --t;
    --t;  // nothing left to remove
    EXPECT_TRUE(!t);
}

TEST_F(XStringTest, NumbersBothWays) {
    EXPECT_EQ(XString(-42), "-42");
    EXPECT_EQ(XString(2.5), "2.5");
    EXPECT_DOUBLE_EQ(XString("3.25abc").Double(), 3.25);
    EXPECT_EQ(XString("17 apples").Int(), 17);
    EXPECT_EQ(XString("").Char(), '\0');
    EXPECT_FALSE(XString("0").Bool());
    EXPECT_FALSE(XString("yes").Bool());
    EXPECT_EQ(XString("12.345").GetDoubleFormatString(), "%6.3lf");
    EXPECT_EQ(XString("12").GetDoubleFormatString(), "%2.0lf");
}

TEST_F(XStringTest, SearchesWithAndWithoutCase) {
    const XString s("Hello");
    EXPECT_EQ(s.NCFind(XString("LL")), 2);
    EXPECT_EQ(s.Find("LL"), -1);
    EXPECT_EQ(s.NCFind('L', 3), 3);
    EXPECT_EQ(s.NCFind('L', 9), -1);
    EXPECT_EQ(s.Count('l'), 2);
    EXPECT_EQ(XString("aaaa").Count(XString("aa")), 2);
    EXPECT_EQ(XString("aaaa").Count(XString("")), 0);
    EXPECT_EQ(XString("a,b,c").FindIndex(',', 2), 3);
    EXPECT_EQ(XString("a,b,c").FindIndex(',', 3), -1);
}

TEST_F(XStringTest, Removal) {
    const XString abc("abc");
    EXPECT_EQ(abc.Remove(1, 2), "ac");
    EXPECT_EQ(abc.Remove(1, -1), "abc");
    EXPECT_EQ(abc.Remove(-1, 2), "abc");
    EXPECT_EQ(abc.Remove(1, 99), "a");
    EXPECT_EQ(XString("abab").Remove(XString("ab")), "ab");
    EXPECT_EQ(XString("xAbyab").NCRemove(XString("aB")), "xyab");
    EXPECT_EQ(XString("AxaX").NCRemoveAll('x'), "Aa");
    EXPECT_EQ(abc.RemoveAll(XString("")), "abc");  // must not loop forever
}

// RemoveAll must equal "remove the first occurrence, search again from the start" on any input.
TEST_F(XStringTest, RemoveAllMatchesRepeatedFirstRemoval) {
    auto naive = [](std::string text, const std::string& pattern, bool noCase) {
        auto fold = [noCase](std::string t) {
            if (noCase)
                for (char& c : t) c = static_cast<char>(c >= 'a' && c <= 'z' ? c - 32 : c);
            return t;
        };
        for (size_t at; (at = fold(text).find(fold(pattern))) != std::string::npos;)
            text.erase(at, pattern.size());
        return text;
    };
    std::mt19937 rng(7);
    const char alphabet[] = "abAB";
    for (int round = 0; round < 3000; ++round) {
        std::string text, pattern;
        for (size_t n = rng() % 14; n > 0; --n) text += alphabet[rng() % 4];
        for (size_t n = 1 + rng() % 3; n > 0; --n) pattern += alphabet[rng() % 4];
        ASSERT_EQ(XString(text.c_str()).RemoveAll(XString(pattern.c_str())).str(),
                  naive(text, pattern, false))
            << text << " - " << pattern;
        ASSERT_EQ(XString(text.c_str()).NCRemoveAll(XString(pattern.c_str())).str(),
                  naive(text, pattern, true))
            << text << " - " << pattern;
    }
}

TEST_F(XStringTest, Replacement) {
    const XString s("one two one");
    EXPECT_EQ(s.Replace(XString("1"), XString("one")), "1 two one");  // new text first
    EXPECT_EQ(s.Replace(XString("1"), XString("three")), "one two one");
    EXPECT_EQ(s.Replace(XString("2"), 4, 7), "one 2 one");

    XString all("aXbxc");
    EXPECT_EQ(all.NCReplaceAll(XString("x"), XString("x")), 2);  // replacement not searched again
    EXPECT_EQ(all, "axbxc");
    XString grow("a.b.c");
    EXPECT_EQ(grow.ReplaceAll(XString(".."), XString(".")), 2);
    EXPECT_EQ(grow, "a..b..c");
    XString kept("Foo BAR bar");
    EXPECT_EQ(kept.NCReplaceAll(XString("baz"), XString("bar")), 2);
    EXPECT_EQ(kept, "Foo baz baz");
    EXPECT_EQ(kept.ReplaceAll(XString("x"), XString("")), 0);
}

TEST_F(XStringTest, PlaceholdersAndLayout) {
    EXPECT_EQ(XString("a*b*c").ReplaceText(XString("1|2")), "a1b2c");
    EXPECT_EQ(XString("a*b*c").ReplaceText(XString("1")), "a1b*c");
    // A star inside a value is filled by the next value; 0xA7 stands for a literal star.
    EXPECT_EQ(XString("<*>").ReplaceText(XString("x*y|z")), "<xzy>");
    EXPECT_EQ(XString("a\xA7*").ReplaceText(XString("1")), "a*1");
    EXPECT_EQ(XString("a*b").ReplaceText(XString("|2")), "a*b");  // stops at the first empty value

    EXPECT_EQ(XString("\tab\tc").ReplaceTabs(4), "    ab  c");
    EXPECT_EQ(XString("abcd\te").ReplaceTabs(4), "abcd    e");
    EXPECT_EQ(XString("a\tb").ReplaceTabs(0), "a\tb");
    EXPECT_EQ(XString("abcdef").Fill(4), "abcdef");
}

TEST_F(XStringTest, ReadingAndSettingElements) {
    const XString s("a|b|c");
    EXPECT_EQ(s.Elements(1, 2), "b|c");
    EXPECT_EQ(s.Elements(1, 4), "b|c||");
    EXPECT_EQ(s.Elements(-1, 1), "");
    EXPECT_EQ(s.Elements(2, 1), "");
    EXPECT_EQ(XString("a|b").Element(5), "");
    EXPECT_EQ(XString("a|b").Elements(4, 6), "||");  // start beyond the end: wanted - 1 separators
    EXPECT_EQ(XString("a||c").Element(1), "");
    EXPECT_EQ(XString("a|b|").Elements(2, 3), "|");
    EXPECT_EQ(XString("x:y:z").Element(1, ':'), "y");
    EXPECT_EQ(XString::GetSeparator(), '|');  // the argument form leaves the shared one alone
    EXPECT_EQ(XString("1|2.5|c|0").GetDouble(1), 2.5);
    bool b = true;
    XString("1|2.5|c|0").Get(b, 3);
    EXPECT_FALSE(b);

    EXPECT_EQ(XString("a|b").SetElement(4, "z"), "a|b|||z");
    EXPECT_EQ(XString("a|b|c").SetElement(2, ""), "a|b|");
    EXPECT_EQ(XString("a|b").SetElement(-1, "z"), "a|b");
    EXPECT_EQ(XString("").SetElement(0, "z"), "z");
    EXPECT_EQ(XString("a").SetElement(1, 2.5), "a|2.5");
}

TEST_F(XStringTest, ElementLookupAndSorting) {
    const XString s("x|2|2.0|yes");
    EXPECT_EQ(s.ElementIndex("2.0"), 2);
    EXPECT_EQ(s.ElementIndex(2.0), 1);
    EXPECT_EQ(s.ElementIndex(0), 0);  // "x" reads as 0

    EXPECT_EQ(XString("1|10|2").ElementSortInt(), "1|2|10");
    EXPECT_EQ(XString("1|10|2").ElementSortString(), "1|10|2");
    EXPECT_EQ(XString("2.50|1").ElementSortDouble(), "1|2.5");
    EXPECT_EQ(XString("b|\xE9|a").ElementSortChar(), "\xE9|a|b");  // characters compare as signed bytes
    XString::SetSeparator(',');
    EXPECT_EQ(XString("3,1,2").ElementSortInt(), "1,2,3");
}

TEST_F(XStringTest, HostileInputStaysDefinedAndLinear) {
    // An element reading "nan" used to break the sort's ordering; it now goes last.
    EXPECT_EQ(XString("3|nan|1|2").ElementSortDouble(), "1|2|3|nan");
    EXPECT_EQ(XString("nan|0|nan|-1").ElementSortDouble(), "-1|0|nan|nan");
    // Positions far apart: the count j - i + 1 must not wrap around.
    EXPECT_EQ(XString("Hello").FromTo(1, INT_MAX), "ello");
    // A line of tabs and a long list of values: replacing the first one again and again was quadratic.
    const int n = 300000;
    EXPECT_EQ(XString(CString(std::string(n, '\t'))).ReplaceTabs(1), XString(CString(std::string(n, ' '))));
    std::string values;
    for (int i = 0; i < n; ++i) values += i ? "|7" : "7";
    EXPECT_EQ(XString(CString(std::string(n, '*'))).ReplaceText(XString(CString(values))),
              XString(CString(std::string(n, '7'))));
}

TEST_F(XStringTest, SeparatorSavesOneLevel) {
    EXPECT_EQ(XString::SetSeparator(':'), ':');
    EXPECT_EQ(XString("a:b").Element(1), "b");
    XString::SetSeparator(';');
    EXPECT_EQ(XString::RestoreSeparator(), ':');
    EXPECT_EQ(XString::RestoreSeparator(), ':');  // only one level is kept
}

}  // namespace
