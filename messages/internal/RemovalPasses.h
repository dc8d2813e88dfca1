// The clean-up step of both renderings.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "messages/internal/TextSearch.h"

namespace tavik::lib {

// For each pattern in turn, as XString::RemoveAll does: the leftmost occurrence is removed, again and
// again, until the pattern no longer occurs; then the next pattern. Every pattern's occurrences are found
// in one scan of the text (Aho-Corasick), and after that only where a removal joins two pieces of text.
// Returns false, with the budget marked spent, when the work or the occurrences waiting for their pass
// (about four bytes of them per byte of text) would pass their bounds; the text then holds what the
// removals up to that point left.
bool RemoveEachInTurn(std::string& text, const std::vector<std::string_view>& patterns, WorkBudget& budget);

}  // namespace tavik::lib
