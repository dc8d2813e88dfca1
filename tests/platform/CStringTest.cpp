#include <gtest/gtest.h>

#include <climits>

#include "platform/CArray.h"
#include "platform/CString.h"
#include "platform/StringResources.h"

TEST(CString, SlicingClampsOutOfRangeArguments) {
    CString s("abcdef");
    EXPECT_EQ(s.Mid(-3, 2), "ab");
    EXPECT_EQ(s.Mid(4, 99), "ef");
    EXPECT_EQ(s.Mid(10), "");
    EXPECT_EQ(s.Mid(INT_MIN), "abcdef");
    EXPECT_EQ(s.Mid(INT_MAX), "");
    EXPECT_EQ(s.Mid(1, -1), "");
    EXPECT_EQ(s.Left(-1), "");
    EXPECT_EQ(s.Left(99), "abcdef");
    EXPECT_EQ(s.Right(99), "abcdef");
}

TEST(CString, SearchesHonourStartAndBounds) {
    CString s("hello world");
    EXPECT_EQ(s.Find('o', 5), 7);
    EXPECT_EQ(s.Find('o', 11), -1);
    EXPECT_EQ(s.Find('o', -1), -1);
    EXPECT_EQ(s.Find("wor", 7), -1);
    EXPECT_EQ(s.Find(""), 0);
    EXPECT_EQ(s.ReverseFind('o'), 7);
    EXPECT_EQ(s.FindOneOf("wr"), 6);
}

TEST(CString, EditsReturnCountsAndLengths) {
    CString s("a-b-c");
    EXPECT_EQ(s.Replace("-", "--"), 2);
    EXPECT_EQ(s, "a--b--c");
    EXPECT_EQ(s.Replace("", "x"), 0);
    EXPECT_EQ(s.Remove('-'), 4);
    EXPECT_EQ(s, "abc");
    EXPECT_EQ(s.Insert(99, '!'), 4);
    EXPECT_EQ(s, "abc!");
    EXPECT_EQ(s.Delete(2, 99), 2);
    EXPECT_EQ(s.Delete(5), 2);
    EXPECT_EQ(s, "ab");
}

TEST(CString, TrimAndCaseInTheCLocale) {
    CString s(" \t\r\nxx yy\n ");
    s.Trim();
    EXPECT_EQ(s, "xx yy");
    s.TrimLeft('x');
    EXPECT_EQ(s, " yy");
    s.TrimRight("y ");
    EXPECT_EQ(s, "");

    CString t(
        "Stra\xDF"
        "e \xC4pfel abc");
    t.MakeUpper();
    EXPECT_EQ(t,
              "STRA\xDF"
              "E \xC4PFEL ABC");  // only ASCII letters change
    EXPECT_EQ(CString("ABC").CompareNoCase("abd"), -1);
}

TEST(CString, KeepsZeroBytesAndFormats) {
    CString s("a\0b", 3);
    EXPECT_EQ(s.GetLength(), 3);
    CString copy = s + s;
    EXPECT_EQ(copy.Find('b', 3), 5);

    CString f;
    f.Format("%s=%05d;%u", "n", 42, 7u);
    EXPECT_EQ(f, "n=00042;7");
    f.Format("%s", std::string(1000, 'z').c_str());
    EXPECT_EQ(f.GetLength(), 1000);
    f.AppendFormat("%c", '!');
    EXPECT_EQ(f.Right(2), "z!");
}

TEST(CString, BufferRoundTrip) {
    CString s("abc");
    char* p = s.GetBuffer(10);
    std::snprintf(p, 11, "%s", "0123456");
    s.ReleaseBuffer();
    EXPECT_EQ(s, "0123456");
    p = s.GetBuffer(0);
    p[2] = '\0';
    s.ReleaseBuffer();
    EXPECT_EQ(s, "01");
    s.GetBufferSetLength(4);
    s.ReleaseBuffer(1);
    EXPECT_EQ(s, "0");
}

// The 1252 table itself is walked in UnicodeTest.
TEST(CString, WideConstructionIsWindowsAnsi) { EXPECT_EQ(CString(u"x\u0153\u4E2D"), "x\x9C?"); }

TEST(CString, LoadStringFromRegisteredTables) {
    static const AFX_STRING_RESOURCE base[] = {{1, "one"}, {2, "two"}};
    static const AFX_STRING_RESOURCE over[] = {{2, "TWO"}};
    AfxRegisterStringTable(base, 2);
    AfxRegisterStringTable(over, 1);
    CString s;
    EXPECT_TRUE(s.LoadString(1));
    EXPECT_EQ(s, "one");
    EXPECT_TRUE(s.LoadString(2));
    EXPECT_EQ(s, "TWO");
    EXPECT_FALSE(s.LoadString(3));
    EXPECT_TRUE(s.IsEmpty());
    AfxUnregisterStringTable(over);
    AfxUnregisterStringTable(base);
    EXPECT_FALSE(s.LoadString(1));
}

TEST(CArray, InsertRemoveAndGrow) {
    CStringArray a;
    EXPECT_EQ(a.Add("x"), 0);
    a.SetAtGrow(3, "w");
    EXPECT_EQ(a.GetSize(), 4);
    EXPECT_EQ(a[1], "");
    a.InsertAt(0, "first", 2);
    EXPECT_EQ(a.GetSize(), 6);
    a.RemoveAt(1, 3);
    ASSERT_EQ(a.GetSize(), 3);
    EXPECT_EQ(a[0], "first");
    EXPECT_EQ(a[2], "w");
}
