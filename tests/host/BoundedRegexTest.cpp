// The rules' regular expressions: the syntax they accept, what they refuse, and that no text or pattern
// makes a search run past its budget.
#include "host/BoundedRegex.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "host/HeaderText.h"

namespace tavik::host {
namespace {

using Result = BoundedRegex::Result;

Result Find(const std::string& pattern, const std::string& text) {
    BoundedRegex re;
    std::string why;
    EXPECT_TRUE(re.Compile(pattern, &why)) << pattern << ": " << why;
    return re.Search(Utf8ToCodePoints(text));
}

TEST(BoundedRegex, Syntax) {
    struct Case {
        const char* pattern;
        const char* text;
        bool found;
    };
    const Case cases[] = {
        {"viagra", "Buy VIAGRA now", true},
        {"v.agra", "V1AGRA", true},
        {"v.agra", "v\nagra", false},  // "." stops at a line end
        {"^buy", "Buy now", true},
        {"^now", "Buy now", false},
        {"^now$", "Buy\nnow\n", true},  // ^ and $ at each line
        {"cheap (pills|meds)$", "cheap MEDS", true},
        {"cheap (?:pills|meds)", "cheap drugs", false},
        {"[a-c]+x", "BBBX", true},  // ranges ignore case both ways
        {"[A-C]x", "bx", true},
        {"[^a-z]", "abcXYZ", false},
        {"[^a-z]", "abc1", true},
        {"[]x]", "]", true},
        {"[a-]", "-", true},
        {"\\d{3}-\\d{4}", "call 555-1234", true},
        {"\\d{3}-\\d{4}", "call 55-1234", false},
        {"^a{2,3}$", "aaaa", false},
        {"^a{2,}$", "aaaaaaa", true},
        {"^(ab){2}$", "abab", true},
        {"colou?r", "COLOR", true},
        {"a+?b", "aab", true},  // lazy quantifiers answer as greedy ones
        {"\\bwin\\b", "you win!", true},
        {"\\bwin\\b", "winner", false},
        {"\\Bin", "win", true},
        {"\\w+@\\w+\\.com", "mail x_y@host.com now", true},
        {"\\s\\S", "a b", true},
        {"[\\d\\s]+x", "1 2x", true},
        {"\\x41\\x{20AC}", "a€", true},
        {"\\$\\d+\\.\\d\\d", "only $9.99", true},
        {"a{,2}", "a{,2}", true},  // not a count: literal braces
        {"x{y", "x{y", true},
        {"(?i)straße", "STRAßE", true},
        {"ÉLÈVE", "élève", true},
        {"[à-å]", "Ä", true},
        {"(a|)+b", "b", true},  // empty alternatives and loops end
        {"(a*)*$", "", true},
        {"", "anything", true},
    };
    for (const Case& c : cases)
        EXPECT_EQ(Find(c.pattern, c.text), c.found ? Result::kFound : Result::kNotFound)
            << "/" << c.pattern << "/ on \"" << c.text << "\"";
}

TEST(BoundedRegex, RefusesWhatItCannotSearchInLinearTime) {
    const char* refused[] = {
        "(a)\\1", "(?=x)", "(?<=x)y", "(?!x)",   "(?P<n>x)", "(ab",         "ab)",
        "*a",     "a**",   "a{3}{2}", "a{1001}", "a{3,2}",   "[abc",        "[z-a]",
        "\\q",    "x\\",   "^*",      "\\xZZ",   "[\\W]",    "[[:alpha:]]", "\\b+",
    };
    for (const char* pattern : refused) {
        BoundedRegex re;
        std::string why;
        EXPECT_FALSE(re.Compile(pattern, &why)) << pattern;
        EXPECT_FALSE(why.empty()) << pattern;
        EXPECT_FALSE(re.IsCompiled());
        EXPECT_EQ(re.Search(U"anything"), Result::kNotFound);
    }
    BoundedRegex re;
    EXPECT_FALSE(re.Compile(std::string(1001, 'a')));
    EXPECT_TRUE(re.Compile(std::string(1000, 'a')));
    // Counts that multiply out past the program cap are refused quickly, empty groups included.
    EXPECT_FALSE(re.Compile("(a{1000}){1000}"));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(re.Compile("((((){1000}){1000}){1000}){1000}"));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    // Nesting is bounded before the parser's stack is.
    EXPECT_FALSE(re.Compile(std::string(500, '(') + std::string(500, ')')));
}

TEST(BoundedRegex, HostileTextCostsLinearTime) {
    // Exponential for a backtracking engine; here a handful of states per character.
    const std::u32string as(50000, U'a');
    BoundedRegex re;
    ASSERT_TRUE(re.Compile("(a+)+b"));
    uint64_t used = 0;
    EXPECT_EQ(re.Search(as, BoundedRegex::kDefaultBudget, &used), Result::kNotFound);
    EXPECT_LT(used, 50000u * 4 * re.ProgramSize());
    ASSERT_TRUE(re.Compile("(x+x+)+y"));
    EXPECT_EQ(re.Search(std::u32string(50000, U'x')), Result::kNotFound);
    // A large program over a long text runs out of budget and says so.
    ASSERT_TRUE(re.Compile("a{0,1000}b"));
    EXPECT_EQ(re.Search(as, 1'000'000, &used), Result::kOutOfTime);
    EXPECT_LE(used, 1'000'000u + 3 * re.ProgramSize());
    // The same search with the budget it needs answers.
    EXPECT_EQ(re.Search(std::u32string(2000, U'a') + U'b'), Result::kFound);
}

}  // namespace
}  // namespace tavik::host
