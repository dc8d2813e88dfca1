// The friend and spammer lists as a check reads them: does any non-empty entry occur anywhere in a
// sender's text, ASCII letter case ignored. Thousands of entries are asked for every message of a
// mailbox, so the entries are compiled once into one automaton (Aho-Corasick) that reads each sender
// once, whatever the number or length of the entries.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>
#include <vector>

#include "platform/CArray.h"

namespace tavik::host {

class SenderListMatcher {
public:
    // Null: an empty list.
    explicit SenderListMatcher(const CStringArray* entries);
    bool Holds(std::string_view sender) const;

private:
    struct Node {
        uint32_t firstEdge = 0;  // its edges, sorted by byte, in m_edgeBytes/m_edgeTargets
        uint32_t edgeCount = 0;
        int32_t fail = 0;
        bool terminal = false;  // an entry ends here, or at a node its failure chain reaches
    };
    int32_t Next(int32_t node, uint8_t byte) const;  // the edge's target, or -1

    std::vector<Node> m_nodes;
    std::vector<uint8_t> m_edgeBytes;
    std::vector<int32_t> m_edgeTargets;
    std::array<int32_t, 256> m_root{};  // the root's edges by byte; 0 stays at the root
    bool m_empty = true;
};

}  // namespace tavik::host
