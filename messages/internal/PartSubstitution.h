// The second step of both renderings: each part's raw content, in message order, gives way to what the
// part renders to.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "messages/internal/TextSearch.h"

namespace detail {

// A set of the 16-byte substrings of a text, with false positives but no false negatives: a pattern
// with one substring outside the set cannot occur in the text.
class GramFilter {
public:
    static constexpr std::size_t kGram = 16;
    // Sized for a text of about expectedLength bytes (a longer one only gives more false positives).
    explicit GramFilter(std::size_t expectedLength);
    // Adds the substrings of text that end at positions from..to-1.
    void Add(std::string_view text, std::size_t from, std::size_t to);
    // False only when the pattern (at least kGram long) cannot occur in the text added.
    bool MayContain(std::string_view pattern) const;

private:
    void Set(std::uint64_t hash);
    bool Test(std::uint64_t hash) const;

    std::vector<std::uint64_t> m_bits;
    std::uint64_t m_mask;
};

// The text being rendered, as the literal steps would leave it: replacing the first occurrence of a
// content in the whole text. The first occurrence is usually the content's own place, just after what
// was replaced before, and is then found by a search that only moves forward; an earlier one can only lie
// in what was replaced already, which the gram filter rules out for ordinary mail.
class PartSubstitution {
public:
    // text: the body; expectedLength: about how long the rendered text will get.
    PartSubstitution(std::string text, std::size_t expectedLength, WorkBudget& budget);

    // In the text, the first occurrence of the content up to its first zero byte (a C-string search; an
    // empty one is found at 0) loses the content's whole length (or what is left of the text) and gets
    // with in its place; without an occurrence nothing changes. False, changing nothing, once the budget
    // is spent.
    bool Replace(std::string_view content, std::string_view with);
    // The text; the object is then spent.
    std::string Take();

private:
    std::size_t FindFirst(std::string_view key);
    void Append(std::string_view text);

    std::string m_body;  // the original text; from m_rest on it is still untouched
    std::size_t m_rest = 0;
    std::string m_done;  // the text before m_rest, as the replacements left it
    GramFilter m_grams;  // of m_done
    WorkBudget& m_budget;
};

}  // namespace detail
