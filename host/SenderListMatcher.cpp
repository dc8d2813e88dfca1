#include "host/SenderListMatcher.h"

#include <algorithm>
#include <map>

namespace tavik::host {

namespace {

uint8_t Fold(uint8_t c) { return c >= 'A' && c <= 'Z' ? static_cast<uint8_t>(c - 'A' + 'a') : c; }

}  // namespace

SenderListMatcher::SenderListMatcher(const CStringArray* entries) {
    // The trie first, with ordered maps (sorted edges for free), then flattened.
    std::vector<std::map<uint8_t, int32_t>> children(1);
    std::vector<bool> terminal(1, false);
    for (int i = 0; entries && i < entries->GetSize(); ++i) {
        const CString& entry = entries->GetAt(i);
        if (entry.IsEmpty()) continue;
        m_empty = false;
        int32_t node = 0;
        for (int k = 0; k < entry.GetLength(); ++k) {
            const uint8_t c = Fold(static_cast<uint8_t>(entry[k]));
            auto [at, added] = children[node].emplace(c, static_cast<int32_t>(children.size()));
            if (added) {
                children.emplace_back();
                terminal.push_back(false);
            }
            node = at->second;
        }
        terminal[node] = true;
    }

    m_nodes.resize(children.size());
    for (size_t n = 0; n < children.size(); ++n) {
        m_nodes[n].firstEdge = static_cast<uint32_t>(m_edgeBytes.size());
        m_nodes[n].edgeCount = static_cast<uint32_t>(children[n].size());
        m_nodes[n].terminal = terminal[n];
        for (const auto& [byte, target] : children[n]) {
            m_edgeBytes.push_back(byte);
            m_edgeTargets.push_back(target);
        }
    }
    for (const auto& [byte, target] : children[0]) m_root[byte] = target;

    // Failure links breadth first: a node's link is the longest proper suffix of its path that is also
    // a path from the root, so a parent's link is always known before its children's.
    std::vector<int32_t> queue;
    for (const auto& [byte, target] : children[0]) queue.push_back(target);
    for (size_t head = 0; head < queue.size(); ++head) {
        const int32_t node = queue[head];
        for (const auto& [byte, child] : children[node]) {
            int32_t f = m_nodes[node].fail;
            int32_t next;
            while ((next = Next(f, byte)) < 0 && f != 0) f = m_nodes[f].fail;
            m_nodes[child].fail = next > 0 && next != child ? next : 0;
            m_nodes[child].terminal = m_nodes[child].terminal || m_nodes[m_nodes[child].fail].terminal;
            queue.push_back(child);
        }
    }
}

int32_t SenderListMatcher::Next(int32_t node, uint8_t byte) const {
    if (node == 0) return m_root[byte] > 0 ? m_root[byte] : -1;
    const Node& n = m_nodes[static_cast<size_t>(node)];
    const uint8_t* first = m_edgeBytes.data() + n.firstEdge;
    const uint8_t* last = first + n.edgeCount;
    const uint8_t* at = std::lower_bound(first, last, byte);
    return at != last && *at == byte ? m_edgeTargets[static_cast<size_t>(at - m_edgeBytes.data())] : -1;
}

bool SenderListMatcher::Holds(std::string_view sender) const {
    if (m_empty) return false;
    int32_t state = 0;
    for (char ch : sender) {
        const uint8_t c = Fold(static_cast<uint8_t>(ch));
        int32_t next;
        while ((next = Next(state, c)) < 0 && state != 0) state = m_nodes[static_cast<size_t>(state)].fail;
        state = next < 0 ? 0 : next;
        if (m_nodes[static_cast<size_t>(state)].terminal) return true;
    }
    return false;
}

}  // namespace tavik::host
