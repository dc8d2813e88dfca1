#include <gtest/gtest.h>

#include "util/CStringEx.h"

namespace {

TEST(CStringEx, InPlaceEdits) {
    CStringEx s("abc");
    EXPECT_EQ(s.Insert(5, "x"), "abc  x");
    EXPECT_EQ(CStringEx("abc").Insert(1, ""), "abc");
    EXPECT_EQ(CStringEx("abc").Delete(1, -1), "a");
    EXPECT_EQ(CStringEx("abc").Delete(1, 99), "a");
    EXPECT_EQ(CStringEx("abc").Delete(3, 1), "abc");
    EXPECT_EQ(CStringEx("abc").Delete(-1, 1), "abc");
    EXPECT_EQ(CStringEx("hello world").Replace(0, 5, "goodbye"), "goodbye world");
    EXPECT_EQ(CStringEx("ab").Replace(4, 1, "z"), "ab  z");
}

TEST(CStringEx, SearchesStayInBounds) {
    const CStringEx s("Hello hello");
    EXPECT_EQ(s.Find('l', 4), 8);
    EXPECT_EQ(s.Find("hello"), 6);
    EXPECT_EQ(s.FindNoCase('H', 1), 6);
    EXPECT_EQ(s.FindNoCase('z'), -1);
    EXPECT_EQ(s.FindNoCase("HELLO", 1), 6);
    EXPECT_EQ(s.FindNoCase("x", 99), -1);

    const CStringEx r("abcab");
    EXPECT_EQ(r.ReverseFind("ab", -1), 3);
    EXPECT_EQ(r.ReverseFind("ab", 2), 0);
    EXPECT_EQ(r.ReverseFind("b", 0), -1);
    EXPECT_EQ(r.ReverseFind("", -1), -1);
    EXPECT_EQ(CStringEx("").ReverseFind("a", -1), -1);
    EXPECT_EQ(r.ReverseFindNoCase("AB", -1), 3);
    EXPECT_EQ(r.ReverseFindNoCase('C', 1), -1);
    EXPECT_EQ(r.ReverseFindNoCase('C', 2), 2);
    EXPECT_EQ(r.ReverseFind("abcabx", -1), -1);  // longer than the text
}

TEST(CStringEx, FindReplace) {
    CStringEx s("a.b.c");
    EXPECT_EQ(s.FindReplace(".", "..", 1), 2);  // inserted text is not searched again
    EXPECT_EQ(s, "a..b..c");
    CStringEx first("x x x");
    EXPECT_EQ(first.FindReplace("x", "yy", 0), 1);
    EXPECT_EQ(first, "yy x x");
    CStringEx nc("Cat cAT dog");
    EXPECT_EQ(nc.FindReplaceNoCase("CAT", "bird", 1), 2);
    EXPECT_EQ(nc, "bird bird dog");
    CStringEx shrink("AaAa-aa");
    EXPECT_EQ(shrink.FindReplaceNoCase("aa", "b", 1), 3);  // positions shift as the text shrinks
    EXPECT_EQ(shrink, "bb-b");
    EXPECT_EQ(shrink.FindReplace("", "z", 1), 0);
}

TEST(CStringEx, Fields) {
    const CStringEx s("a,b,,c");
    EXPECT_EQ(s.GetField(',', 2), "");
    EXPECT_EQ(s.GetField(',', 3), "c");
    EXPECT_EQ(s.GetField(',', 9), "");
    EXPECT_EQ(s.GetFieldCount(','), 4);
    EXPECT_EQ(CStringEx("a::b::c").GetField("::", 1), "b");
    EXPECT_EQ(CStringEx("aaa").GetFieldCount("aa"), 2);
    EXPECT_EQ(CStringEx("").GetFieldCount(','), 1);

    const CStringEx html("<b>one</b> <b>two</b> <b>three");
    EXPECT_EQ(html.GetDelimitedField("<b>", "</b>", 1), "two");
    EXPECT_EQ(html.GetDelimitedField("<b>", "</b>", 2), "");  // no close after it
    EXPECT_EQ(html.GetDelimitedField("<i>", "</i>", 0), "");
}

}  // namespace
