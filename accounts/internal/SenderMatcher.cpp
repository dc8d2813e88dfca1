#include "accounts/internal/SenderMatcher.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace tavik::lib {

namespace {

unsigned char upper(unsigned char c) {
    return (c >= 'a' && c <= 'z') ? static_cast<unsigned char>(c - 32) : c;
}

// The trie while it is built, in flat arrays (one allocation each, however many entries): each node's
// children are a chain of siblings, newest first.
struct BuildTrie {
    std::vector<std::uint32_t> firstChild;
    std::vector<std::uint32_t> nextSibling;
    std::vector<unsigned char> byte;  // of the edge into the node
    std::vector<unsigned char> accepts;

    explicit BuildTrie(size_t capacity) {
        firstChild.reserve(capacity);
        nextSibling.reserve(capacity);
        byte.reserve(capacity);
        accepts.reserve(capacity);
        Add(0);
    }
    size_t Size() const { return firstChild.size(); }
    std::uint32_t Add(unsigned char c) {
        firstChild.push_back(0);
        nextSibling.push_back(0);
        byte.push_back(c);
        accepts.push_back(0);
        return static_cast<std::uint32_t>(firstChild.size() - 1);
    }
    std::uint32_t ChildOf(std::uint32_t node, unsigned char c) const {
        for (std::uint32_t child = firstChild[node]; child != 0; child = nextSibling[child])
            if (byte[child] == c) return child;
        return 0;
    }
    std::uint32_t AddChild(std::uint32_t node, unsigned char c) {
        const std::uint32_t child = Add(c);
        nextSibling[child] = firstChild[node];
        firstChild[node] = child;
        return child;
    }
};

}  // namespace

SenderMatcher::SenderMatcher(const CStringArray& entries) {
    size_t bytes = 1;
    for (int i = 0; i < entries.GetSize(); ++i) bytes += std::strlen(entries[i].GetString());
    BuildTrie trie(bytes);
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
            std::uint32_t next = trie.ChildOf(node, c);
            if (next == 0) next = trie.AddChild(node, c);
            node = next;
        }
        trie.accepts[node] = 1;
        m_hasPatterns = true;
    }
    if (m_matchesAll || !m_hasPatterns) return;

    const size_t count = trie.Size();
    m_fail.assign(count, 0);
    m_accepts = std::move(trie.accepts);
    // Breadth first, so that every failure target is complete before it is used.
    std::vector<std::uint32_t> queue;
    queue.reserve(count);
    for (std::uint32_t child = trie.firstChild[0]; child != 0; child = trie.nextSibling[child]) {
        m_root[trie.byte[child]] = child;
        queue.push_back(child);
    }
    for (size_t head = 0; head < queue.size(); ++head) {
        const std::uint32_t node = queue[head];
        for (std::uint32_t target = trie.firstChild[node]; target != 0; target = trie.nextSibling[target]) {
            const unsigned char c = trie.byte[target];
            std::uint32_t f = m_fail[node];
            std::uint32_t via = 0;
            for (;;) {
                via = f == 0 ? m_root[c] : trie.ChildOf(f, c);
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
    m_edgeByte.reserve(count - 1);
    m_edgeTarget.reserve(count - 1);
    std::vector<std::pair<unsigned char, std::uint32_t>> children;
    for (size_t n = 0; n < count; ++n) {
        children.clear();
        for (std::uint32_t child = trie.firstChild[n]; child != 0; child = trie.nextSibling[child])
            children.emplace_back(trie.byte[child], child);
        std::sort(children.begin(), children.end());
        m_firstEdge[n + 1] = m_firstEdge[n] + static_cast<std::uint32_t>(children.size());
        for (const auto& [c, target] : children) {
            m_edgeByte.push_back(c);
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
