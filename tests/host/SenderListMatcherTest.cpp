// The friend and spammer list automaton against the plain reading of the lists (each non-empty entry
// searched for in the sender, ASCII case ignored).
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "host/SenderListMatcher.h"

using tavik::host::SenderListMatcher;

namespace {

std::string Lower(std::string s) {
    for (char& c : s)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return s;
}

bool Plain(const CStringArray& entries, const std::string& sender) {
    for (int i = 0; i < entries.GetSize(); ++i) {
        std::string e = Lower(std::string(entries.GetAt(i)));
        if (!e.empty() && Lower(sender).find(e) != std::string::npos) return true;
    }
    return false;
}

CStringArray List(std::initializer_list<const char*> entries) {
    CStringArray list;
    for (const char* e : entries) list.Add(e);
    return list;
}

}  // namespace

// Entries anywhere in the sender, case ignored; entries that overlap or sit inside one another, where
// a match must be found through a failure link; empty entries and lists that match nothing.
TEST(SenderListMatcher, FindsEntriesAnywhereWhateverTheirOverlap) {
    CStringArray list = List({"Ann@Example.com", "", "abcd", "bc", "xyzzy", "zzyq", "@spam.example"});
    SenderListMatcher m(&list);
    EXPECT_TRUE(m.Holds("Ann Lee <ANN@example.COM>"));
    EXPECT_TRUE(m.Holds("abce")) << "\"bc\" inside an unfinished \"abcd\"";
    EXPECT_TRUE(m.Holds("xyzzyq"));
    EXPECT_TRUE(m.Holds("xyzzq") == false);
    EXPECT_TRUE(m.Holds("zzyq"));
    EXPECT_TRUE(m.Holds("offers@spam.example.net"));
    EXPECT_FALSE(m.Holds("ann@example.co"));
    EXPECT_FALSE(m.Holds(""));
    EXPECT_FALSE(m.Holds(std::string("a\0b", 3)));

    CStringArray blanks = List({"", ""});
    EXPECT_FALSE(SenderListMatcher(&blanks).Holds("anything")) << "empty entries match nothing";
    EXPECT_FALSE(SenderListMatcher(nullptr).Holds("anything"));
    CStringArray high = List({"\xC3\x89lodie"});
    EXPECT_TRUE(SenderListMatcher(&high).Holds("<\xC3\x89lodie@example.fr>"));
    EXPECT_FALSE(SenderListMatcher(&high).Holds("<\xC3\xA9lodie@example.fr>")) << "only ASCII letters fold";
}

// Random lists and senders over a small alphabet, where entries overlap all the time, read the same way
// by the automaton and by the plain search.
TEST(SenderListMatcher, AgreesWithThePlainSearch) {
    std::mt19937 random(20261124);
    auto text = [&](size_t most) {
        std::string s(random() % (most + 1), ' ');
        for (char& c : s) c = "abcAB@."[random() % 7];
        return s;
    };
    for (int round = 0; round < 300; ++round) {
        CStringArray list;
        for (int i = 0, n = static_cast<int>(random() % 12); i < n; ++i) list.Add(text(5).c_str());
        SenderListMatcher m(&list);
        for (int k = 0; k < 40; ++k) {
            const std::string sender = text(30);
            ASSERT_EQ(m.Holds(sender), Plain(list, sender)) << "sender \"" << sender << "\", round " << round;
        }
    }
}
