#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "util/CStringToken.h"

namespace {

using List = std::vector<std::string>;

List tokens(const char* text, const char* delimiters) {
    List out;
    CStringToken(text, delimiters).GetTokenList(out);
    return out;
}

TEST(CStringToken, SplitsIntoMaximalRuns) {
    EXPECT_EQ(tokens(",,a;b,,", ",;"), (List{"a", "b"}));
    EXPECT_EQ(tokens("", " "), List{});
    EXPECT_EQ(tokens("abc", ""), List{"abc"});
    EXPECT_EQ(tokens(nullptr, " "), List{});

    CStringToken t("a b", " ");
    t.CreateTokenList("c", " ");  // appends
    EXPECT_EQ(t.Size(), 3);
    EXPECT_EQ(t[2], "c");
    EXPECT_EQ(t[3], "");
    EXPECT_EQ(t.Elements(1, "+"), "b+c");
    EXPECT_EQ(t.Elements(3, "+"), "");

    List keep{"old"};
    CStringToken().GetTokenList(keep);  // replaced, not appended to
    EXPECT_TRUE(keep.empty());
}

TEST(CStringToken, CursorStopsAtBothEnds) {
    CStringToken t("x,y", ",");
    ASSERT_NE(static_cast<const std::string*>(t), nullptr);
    EXPECT_EQ(*static_cast<const std::string*>(t), "x");
    --t;  // already at the first token
    EXPECT_EQ(*static_cast<const std::string*>(t), "x");
    CStringToken before = t++;
    EXPECT_EQ(*static_cast<const std::string*>(before), "x");
    EXPECT_EQ(*static_cast<const std::string*>(t), "y");
    ++t;
    EXPECT_EQ(static_cast<const std::string*>(t), nullptr);
    ++t;  // stays at the end
    CStringToken atEnd = t--;
    EXPECT_EQ(static_cast<const std::string*>(atEnd), nullptr);
    EXPECT_EQ(*static_cast<const std::string*>(t), "y");

    CStringToken copy(t);  // the copy keeps the cursor position
    EXPECT_EQ(*static_cast<const std::string*>(copy), "y");
    EXPECT_EQ(static_cast<const std::string*>(CStringToken()), nullptr);
}

}  // namespace
