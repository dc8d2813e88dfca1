// The second step of both renderings: each part's raw content, in message order, gives way to what the
// part renders to.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "messages/internal/TextSearch.h"

namespace tavik::lib {

// The 16-byte substrings of a text that start at every 32nd position, with false positives but no false
// negatives, filled in as the text grows. A pattern of at least 47 bytes that occurred wholly inside the
// text would have, for the offset its start has from the sampled positions, every one of its substrings
// at that offset in the set; so when each offset has one missing, the pattern cannot occur.
class GramFilter {
public:
    static constexpr std::size_t kGram = 16;
    static constexpr std::size_t kStep = 32;
    static constexpr std::size_t kShortest = kGram + kStep - 1;

    // Sized for a text of about expectedLength bytes (a longer one only gives more false positives); no
    // memory is taken until the first test.
    explicit GramFilter(std::size_t expectedLength) : m_expected(expectedLength) {}
    // False only when the pattern cannot occur in text, which must have grown only at its end since the
    // last call, unless Forget or Clear said otherwise. Adds what the text gained since; work is what that
    // took.
    bool MayContain(std::string_view text, std::string_view pattern, std::uint64_t& work);
    // The text was cut at position from (and may grow again from there).
    void Forget(std::size_t from);
    // The text changed in place: everything is to be added again.
    void Clear() { m_stale = true; }

private:
    void Set(std::uint64_t hash);
    bool Test(std::uint64_t hash) const;

    std::size_t m_expected;
    std::vector<std::uint64_t> m_bits;
    std::uint64_t m_mask = 0;
    std::size_t m_next = 0;  // the next sampled position to add
    bool m_stale = false;    // the bits hold substrings of text that changed in place: start again
};

// The text being rendered, as the literal steps would leave it: replacing the first occurrence of a
// content in the whole text. The first occurrence is usually the content's own place, just after what
// was replaced before, and is then found by a search that only moves forward; an earlier one can only lie
// in what was replaced already, which the gram filter rules out for ordinary mail.
class PartSubstitution {
public:
    // text: the body, which must outlive the object; expectedLength: about how long the rendered text will
    // get.
    PartSubstitution(std::string_view text, std::size_t expectedLength, WorkBudget& budget);

    // In the text, the first occurrence of the content up to its first zero byte (a C-string search; an
    // empty one is found at 0) loses the content's whole length (or what is left of the text) and gets
    // with in its place; without an occurrence nothing changes. False, changing nothing, once the budget
    // is spent.
    bool Replace(std::string_view content, std::string_view with);
    // The text; the object is then spent.
    std::string Take();

private:
    std::size_t FindFirst(std::string_view key);

    std::string_view m_body;  // the original text; from m_rest on it is still untouched
    std::size_t m_rest = 0;
    std::string m_done;  // the text before m_rest, as the replacements left it
    GramFilter m_grams;  // of m_done
    WorkBudget& m_budget;
};

}  // namespace tavik::lib
