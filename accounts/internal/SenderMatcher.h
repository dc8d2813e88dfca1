// Answers whether any entry of a friend or spammer list occurs in a sender text, ignoring ASCII case,
// in one pass over the text however long the list is (an Aho-Corasick automaton over the entries).
// The answer is that of searching each entry with XString::NCFind: an entry counts up to its first zero
// byte, so an entry that starts with one is found in every text. Immutable once built; safe to share
// between threads.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>
#include <vector>

#include "platform/CArray.h"

namespace tavik::lib {

class SenderMatcher {
public:
    // Empty entries are skipped, as the list test skips them.
    explicit SenderMatcher(const CStringArray& entries);

    bool Matches(std::string_view text) const;

private:
    std::uint32_t Next(std::uint32_t state, unsigned char c) const;

    bool m_matchesAll = false;
    bool m_hasPatterns = false;
    std::array<std::uint32_t, 256> m_root{};  // the root's moves; 0 stays at the root
    std::vector<std::uint32_t> m_firstEdge;   // per state, its first edge; one more at the end
    std::vector<unsigned char> m_edgeByte;    // edges of each state, sorted by byte
    std::vector<std::uint32_t> m_edgeTarget;
    std::vector<std::uint32_t> m_fail;
    std::vector<unsigned char> m_accepts;  // an entry ends here or at a state its failure chain reaches
};

}  // namespace tavik::lib
