#include "accounts/internal/SenderMatcher.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace tavik::lib {

namespace {

unsigned char upper(unsigned char c) {
    return (c >= 'a' && c <= 'z') ? static_cast<unsigned char>(c - 32) : c;
}

// The trie while it is built: children per node in insertion order.
struct BuildNode {
    std::vector<std::pair<unsigned char, std::uint32_t>> children;
    bool accepts = false;
};

std::uint32_t childOf(const std::vector<BuildNode>& nodes, std::uint32_t node, unsigned char c) {
    for (const auto& [byte, target] : nodes[node].children)
        if (byte == c) return target;
    return 0;
}

}  // namespace

SenderMatcher::SenderMatcher(const CStringArray& entries) {
    std::vector<BuildNode> nodes(1);
    for (int i = 0; i < entries.GetSize(); ++i) {
        const CString& entry = entries[i];
        if (entry.IsEmpty()) continue;
        // The search takes the entry as a C string.
        const size_t length = std::strlen(entry.GetString());
        if (length == 0) {
            m_matchesAll = true;
            continue;
        }
        std::uint32_t node = 0;
        for (size_t k = 0; k < length; ++k) {
            const unsigned char c = upper(static_cast<unsigned char>(entry.GetString()[k]));
            std::uint32_t next = childOf(nodes, node, c);
            if (next == 0) {
                next = static_cast<std::uint32_t>(nodes.size());
                nodes[node].children.emplace_back(c, next);
                nodes.emplace_back();
            }
            node = next;
        }
        nodes[node].accepts = true;
        m_hasPatterns = true;
    }
    if (m_matchesAll || !m_hasPatterns) return;

    const size_t count = nodes.size();
    m_fail.assign(count, 0);
    m_accepts.assign(count, 0);
    for (size_t n = 0; n < count; ++n) m_accepts[n] = nodes[n].accepts ? 1 : 0;
    // Breadth first, so that every failure target is complete before it is used.
    std::vector<std::uint32_t> queue;
    queue.reserve(count);
    for (const auto& [byte, target] : nodes[0].children) {
        m_root[byte] = target;
        queue.push_back(target);
    }
    for (size_t head = 0; head < queue.size(); ++head) {
        const std::uint32_t node = queue[head];
        for (const auto& [byte, target] : nodes[node].children) {
            std::uint32_t f = m_fail[node];
            std::uint32_t via = 0;
            for (;;) {
                via = f == 0 ? m_root[byte] : childOf(nodes, f, byte);
                if (via != 0 || f == 0) break;
                f = m_fail[f];
            }
            m_fail[target] = via;
            if (m_accepts[via]) m_accepts[target] = 1;
            queue.push_back(target);
        }
    }
    // Flattened, each state's edges sorted for the search.
    m_firstEdge.assign(count + 1, 0);
    for (size_t n = 0; n < count; ++n) {
        auto& children = nodes[n].children;
        std::sort(children.begin(), children.end());
        m_firstEdge[n + 1] = m_firstEdge[n] + static_cast<std::uint32_t>(children.size());
        for (const auto& [byte, target] : children) {
            m_edgeByte.push_back(byte);
            m_edgeTarget.push_back(target);
        }
    }
}

std::uint32_t SenderMatcher::Next(std::uint32_t state, unsigned char c) const {
    for (;;) {
        if (state == 0) return m_root[c];
        const unsigned char* first = m_edgeByte.data() + m_firstEdge[state];
        const unsigned char* last = m_edgeByte.data() + m_firstEdge[state + 1];
        const unsigned char* hit = std::lower_bound(first, last, c);
        if (hit != last && *hit == c) return m_edgeTarget[static_cast<size_t>(hit - m_edgeByte.data())];
        state = m_fail[state];
    }
}

bool SenderMatcher::Matches(std::string_view text) const {
    if (m_matchesAll) return true;
    if (!m_hasPatterns) return false;
    std::uint32_t state = 0;
    for (char ch : text) {
        state = Next(state, upper(static_cast<unsigned char>(ch)));
        if (m_accepts[state]) return true;
    }
    return false;
}

}  // namespace tavik::lib
