#include "messages/internal/RemovalPasses.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <functional>
#include <iterator>
#include <map>
#include <queue>
#include <unordered_map>

namespace tavik::lib {
namespace {

// Distinct patterns longer than this together are not indexed (the trie costs about 21 bytes a
// character); only a hostile message comes near it.
constexpr std::size_t kMaxPatternText = 4u << 20;

class Trie {
public:
    explicit Trie(const std::vector<std::string_view>& patterns) {
        m_rootNext.fill(0);
        NewNode(0);
        for (std::size_t id = 0; id < patterns.size(); ++id) {
            std::uint32_t node = 0;
            for (char c : patterns[id]) {
                std::uint32_t next = Child(node, static_cast<unsigned char>(c));
                if (next == 0) next = AddChild(node, static_cast<unsigned char>(c));
                node = next;
            }
            m_pattern[node] = static_cast<std::int32_t>(id);
        }
        // Failure and dictionary links, breadth first.
        std::vector<std::uint32_t> queue;
        for (std::uint32_t c = m_firstChild[0]; c; c = m_sibling[c]) queue.push_back(c);
        for (std::size_t head = 0; head < queue.size(); ++head) {
            const std::uint32_t u = queue[head];
            for (std::uint32_t v = m_firstChild[u]; v; v = m_sibling[v]) {
                std::uint32_t f = m_fail[u];
                for (;;) {
                    std::uint32_t next = Child(f, m_label[v]);
                    if (next) {
                        m_fail[v] = next;
                        break;
                    }
                    if (f == 0) break;
                    f = m_fail[f];
                }
                m_dict[v] = m_pattern[m_fail[v]] >= 0 ? m_fail[v] : m_dict[m_fail[v]];
                queue.push_back(v);
            }
        }
    }

    std::uint32_t Step(std::uint32_t state, unsigned char c) const {
        for (;;) {
            std::uint32_t next = Child(state, c);
            if (next || state == 0) return next;
            state = m_fail[state];
        }
    }
    // Calls f(id) for every pattern that ends at this state.
    template <class F>
    void Matches(std::uint32_t state, F&& f) const {
        if (m_pattern[state] >= 0) f(m_pattern[state]);
        for (std::uint32_t d = m_dict[state]; d; d = m_dict[d]) f(m_pattern[d]);
    }

private:
    std::uint32_t Child(std::uint32_t node, unsigned char c) const {
        if (node == 0) return m_rootNext[c];
        for (std::uint32_t v = m_firstChild[node]; v; v = m_sibling[v]) {
            if (m_label[v] == c) return v;
        }
        return 0;
    }
    std::uint32_t NewNode(unsigned char label) {
        m_firstChild.push_back(0);
        m_sibling.push_back(0);
        m_fail.push_back(0);
        m_dict.push_back(0);
        m_pattern.push_back(-1);
        m_label.push_back(label);
        return static_cast<std::uint32_t>(m_label.size() - 1);
    }
    std::uint32_t AddChild(std::uint32_t node, unsigned char c) {
        std::uint32_t v = NewNode(c);
        m_sibling[v] = m_firstChild[node];
        m_firstChild[node] = v;
        if (node == 0) m_rootNext[c] = v;
        return v;
    }

    std::vector<std::uint32_t> m_firstChild, m_sibling, m_fail, m_dict;
    std::vector<std::int32_t> m_pattern;
    std::vector<unsigned char> m_label;
    std::array<std::uint32_t, 256> m_rootNext;
};

// An occurrence: the positions (in the original text) of its first and last character. It still stands
// while exactly its length of characters between the two is alive.
struct Occurrence {
    std::uint32_t first, last;
    bool operator<(const Occurrence& o) const {
        return first < o.first || (first == o.first && last < o.last);
    }
    bool operator>(const Occurrence& o) const { return o < *this; }
    bool operator==(const Occurrence& o) const { return first == o.first && last == o.last; }
};

// The characters removed so far, as merged intervals of original positions.
class DeadSet {
public:
    bool Alive(std::int64_t pos) const {
        auto it = m_dead.upper_bound(static_cast<std::uint32_t>(pos));
        if (it == m_dead.begin()) return true;
        --it;
        return pos > it->second;
    }
    // Nearest alive position before pos (-1 when none) and after pos (end when none).
    std::int64_t Before(std::int64_t pos) const {
        std::int64_t p = pos - 1;
        if (p < 0) return -1;
        auto it = m_dead.upper_bound(static_cast<std::uint32_t>(p));
        if (it != m_dead.begin()) {
            --it;
            if (p <= it->second) p = static_cast<std::int64_t>(it->first) - 1;
        }
        return p;
    }
    std::int64_t After(std::int64_t pos, std::int64_t end) const {
        std::int64_t p = pos + 1;
        if (p >= end) return end;
        auto it = m_dead.upper_bound(static_cast<std::uint32_t>(p));
        if (it != m_dead.begin()) {
            --it;
            if (p <= it->second) p = static_cast<std::int64_t>(it->second) + 1;
        }
        return p;
    }
    // Alive characters in [first, last]; stops counting dead intervals after limit of them (work).
    std::int64_t AliveIn(std::uint32_t first, std::uint32_t last, std::uint64_t& work) const {
        std::int64_t dead = 0;
        auto it = m_dead.upper_bound(first);
        if (it != m_dead.begin() && std::prev(it)->second >= first) --it;
        for (; it != m_dead.end() && it->first <= last; ++it) {
            dead += std::min(it->second, last) - std::max(it->first, first) + 1;
            ++work;
        }
        return static_cast<std::int64_t>(last) - first + 1 - dead;
    }
    void Kill(std::uint32_t first, std::uint32_t last) {
        auto it = m_dead.upper_bound(first);
        if (it != m_dead.begin() && std::prev(it)->second + 1 >= first) --it;
        while (it != m_dead.end() && it->first <= last + 1) {
            first = std::min(first, it->first);
            last = std::max(last, it->second);
            it = m_dead.erase(it);
        }
        m_dead.emplace(first, last);
    }
    const std::map<std::uint32_t, std::uint32_t>& Intervals() const { return m_dead; }

private:
    std::map<std::uint32_t, std::uint32_t> m_dead;
};

}  // namespace

bool RemoveEachInTurn(std::string& text, const std::vector<std::string_view>& patterns, WorkBudget& budget) {
    // Distinct patterns, and for each the last pass that uses it; an empty pattern removes nothing and
    // one longer than the text never occurs (the text only gets shorter).
    std::vector<std::string_view> distinct;
    std::unordered_map<std::string_view, int> ids;
    std::vector<int> passes;
    std::size_t patternText = 0;
    for (std::string_view p : patterns) {
        if (p.empty() || p.size() > text.size()) continue;
        auto [it, added] = ids.emplace(p, static_cast<int>(distinct.size()));
        if (added) {
            distinct.push_back(p);
            patternText += p.size();
        }
        passes.push_back(it->second);
    }
    if (passes.empty()) return true;
    // Past the bounds the removals are not made, and the budget is marked spent.
    auto giveUp = [&budget] { return budget.Spend(~std::uint64_t(0)); };
    if (patternText > kMaxPatternText || text.size() >= 0xFFFFFFFFu) return giveUp();
    std::vector<std::size_t> lastPass(distinct.size(), 0);
    for (std::size_t k = 0; k < passes.size(); ++k) lastPass[passes[k]] = k;
    // The longest pattern still to be used from each pass on: how far a join can make new occurrences.
    std::vector<std::size_t> reach(passes.size() + 1, 0);
    for (std::size_t k = passes.size(); k-- > 0;)
        reach[k] = std::max(reach[k + 1], distinct[passes[k]].size());

    const Trie trie(distinct);
    std::vector<std::vector<Occurrence>> found(distinct.size());
    // Occurrences are kept until their pass: at most about four bytes of them per byte of text.
    const std::uint64_t keepAtMost = text.size() / 2 + (1u << 20);
    std::uint64_t kept = 0;
    std::uint32_t state = 0;
    std::uint64_t matches = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        state = trie.Step(state, static_cast<unsigned char>(text[i]));
        trie.Matches(state, [&](int id) {
            ++matches;
            found[id].push_back(
                {static_cast<std::uint32_t>(i + 1 - distinct[id].size()), static_cast<std::uint32_t>(i)});
        });
        // Patterns inside one another can match many times at each position: count them as they come.
        if (matches >= 4096) {
            kept += matches;
            if (!budget.Spend(matches) || kept > keepAtMost) return giveUp();
            matches = 0;
        }
    }
    kept += matches;
    if (!budget.Spend(matches) || kept > keepAtMost) return giveUp();

    const std::int64_t end = static_cast<std::int64_t>(text.size());
    DeadSet dead;
    std::string window;
    std::vector<std::uint32_t> where;
    using Heap = std::priority_queue<Occurrence, std::vector<Occurrence>, std::greater<>>;

    for (std::size_t k = 0; k < passes.size(); ++k) {
        const int id = passes[k];
        const std::int64_t length = static_cast<std::int64_t>(distinct[id].size());
        std::vector<Occurrence> list = std::move(found[id]);
        found[id].clear();
        std::sort(list.begin(), list.end());
        list.erase(std::unique(list.begin(), list.end()), list.end());
        Heap joined;
        std::size_t next = 0;
        while (next < list.size() || !joined.empty()) {
            Occurrence o;
            if (!joined.empty() && (next >= list.size() || joined.top() < list[next])) {
                o = joined.top();
                joined.pop();
            } else {
                o = list[next++];
            }
            std::uint64_t work = 1;
            const bool stands =
                dead.Alive(o.first) && dead.Alive(o.last) && dead.AliveIn(o.first, o.last, work) == length;
            if (!budget.Spend(work)) break;
            if (!stands) continue;
            // The leftmost occurrence: every earlier one has been taken or broken up.
            dead.Kill(o.first, o.last);
            const std::int64_t left = dead.Before(o.first), right = dead.After(o.last, end);
            const std::size_t span = reach[k];
            if (left < 0 || right >= end || span < 2) continue;
            // New occurrences can only run across the join: look at span - 1 characters on each side.
            window.clear();
            where.clear();
            for (std::int64_t p = left; p >= 0 && where.size() < span - 1; p = dead.Before(p)) {
                where.push_back(static_cast<std::uint32_t>(p));
            }
            std::reverse(where.begin(), where.end());
            const std::size_t leftCount = where.size();
            for (std::int64_t p = right; p < end && where.size() < leftCount + span - 1;
                 p = dead.After(p, end)) {
                where.push_back(static_cast<std::uint32_t>(p));
            }
            for (std::uint32_t p : where) window += text[p];
            if (!budget.Spend(window.size())) break;
            std::uint32_t node = 0;
            std::uint64_t hits = 0;
            for (std::size_t i = 0; i < window.size(); ++i) {
                node = trie.Step(node, static_cast<unsigned char>(window[i]));
                if (i < leftCount) continue;
                trie.Matches(node, [&](int hit) {
                    const std::size_t first = i + 1 - distinct[hit].size();
                    if (first >= leftCount || lastPass[hit] < k) return;
                    ++hits;
                    const Occurrence occ{where[first], where[i]};
                    if (hit == id) {
                        joined.push(occ);
                    } else {
                        found[hit].push_back(occ);
                    }
                });
            }
            kept += hits;
            if (!budget.Spend(hits) || kept > keepAtMost) {
                giveUp();
                break;
            }
        }
        if (budget.Exhausted()) break;
    }

    if (dead.Intervals().empty()) return !budget.Exhausted();
    std::string out;
    out.reserve(text.size());
    std::size_t from = 0;
    for (const auto& [first, last] : dead.Intervals()) {
        out.append(text, from, first - from);
        from = static_cast<std::size_t>(last) + 1;
    }
    out.append(text, from, std::string::npos);
    text.swap(out);
    return !budget.Exhausted();
}

}  // namespace tavik::lib
