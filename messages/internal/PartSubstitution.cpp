#include "messages/internal/PartSubstitution.h"

#include <algorithm>
#include <cstring>

namespace tavik::lib {
namespace {

std::uint64_t mix(std::uint64_t x) {
    x ^= x >> 31;
    x *= 0x7FB5D329728EA185ull;
    x ^= x >> 27;
    x *= 0x81DADEF4BC2DD44Dull;
    return x ^ (x >> 33);
}

// The 16 bytes at p, hashed; the same bytes anywhere give the same hash.
std::uint64_t gramHash(const char* p) {
    static_assert(GramFilter::kGram == 16);
    std::uint64_t a, b;
    std::memcpy(&a, p, 8);
    std::memcpy(&b, p + 8, 8);
    return mix(a * 0x9E3779B97F4A7C15ull ^ (b + 0xD6E8FEB86659FD93ull) * 0xC2B2AE3D27D4EB4Full);
}

}  // namespace

void GramFilter::Set(std::uint64_t hash) {
    const std::uint64_t a = hash & m_mask;
    m_bits[a >> 6] |= std::uint64_t(1) << (a & 63);
}

bool GramFilter::Test(std::uint64_t hash) const {
    const std::uint64_t a = hash & m_mask;
    return m_bits[a >> 6] >> (a & 63) & 1;
}

void GramFilter::Forget(std::size_t from) {
    // Samples that reach from or beyond are to be added again; the old ones stay as false positives.
    const std::size_t first = from + 1 > kGram ? (from + 1 - kGram + kStep - 1) / kStep * kStep : 0;
    m_next = std::min(m_next, first);
}

bool GramFilter::MayContain(std::string_view text, std::string_view pattern, std::uint64_t& work) {
    work = 0;
    if (pattern.size() < kShortest) return true;
    if (m_bits.empty() || m_stale) {
        // About eight bits per sample: a substring not in the text passes with a chance near 1 in 8.
        std::size_t bits = 1 << 16;
        while (bits < m_expected / kStep * 8 && bits < (std::size_t(1) << 34)) bits <<= 1;
        m_bits.assign(bits / 64, 0);
        m_mask = bits - 1;
        m_next = 0;
        m_stale = false;
        work += bits / 64;
    }
    for (; m_next + kGram <= text.size(); m_next += kStep) {
        Set(gramHash(text.data() + m_next));
        ++work;
    }
    // Which starting offsets (modulo kStep) are still possible.
    std::uint64_t possible = (std::uint64_t(1) << kStep) - 1;
    for (std::size_t start = 0; start + kGram <= pattern.size(); ++start) {
        const std::size_t offset = start % kStep;
        if ((possible >> offset & 1) && !Test(gramHash(pattern.data() + start))) {
            possible &= ~(std::uint64_t(1) << offset);
            if (possible == 0) return false;
        }
    }
    return true;
}

PartSubstitution::PartSubstitution(std::string_view text, std::size_t expectedLength, WorkBudget& budget)
    : m_body(text), m_grams(expectedLength), m_budget(budget) {
    m_done.reserve(text.size());
}

// The first occurrence in m_done + m_body[m_rest..], as an index into that text.
std::size_t PartSubstitution::FindFirst(std::string_view key) {
    constexpr auto npos = std::string_view::npos;
    const std::string_view done(m_done), rest = m_body.substr(m_rest);
    if (key.empty()) return 0;
    // Wholly inside the replaced part: only when the filter cannot rule it out.
    std::uint64_t work = 0;
    const bool maybe = key.size() <= done.size() && m_grams.MayContain(done, key, work);
    m_budget.Spend(work);
    if (maybe) {
        std::size_t at = FindTextNear(done, key);
        m_budget.Spend(at == npos ? done.size() : at + key.size());
        if (at != npos) return at;
    }
    // Starting in the replaced part and running on into the untouched one: from its last key.size() - 1
    // characters. Where the key's head first starts there settles it, unless the comparison fails.
    if (!done.empty() && key.size() > 1) {
        const std::size_t from = done.size() > key.size() - 1 ? done.size() - (key.size() - 1) : 0;
        const std::string_view head = key.substr(0, std::min<std::size_t>(key.size(), 32));
        std::string window(done.substr(from));
        window.append(rest.substr(0, head.size() - 1));
        std::size_t at = FindText(window, head);
        if (at == npos || from + at >= done.size()) at = npos;
        if (at != npos && head.size() < key.size()) {
            if (rest.size() > head.size() - 1)
                window.append(rest.substr(head.size() - 1, key.size() - head.size()));
            if (std::string_view(window).substr(at, key.size()) != key) {
                at = FindText(window, key, at + 1);
                if (at != npos && from + at >= done.size()) at = npos;
            }
        }
        if (at != npos) return from + at;
    }
    // In the untouched part: the search stops at the content's own place at the latest, and the next
    // search starts after it, so these searches add up to one pass over the text.
    std::size_t at = FindTextNear(rest, key);
    if (at == npos) {
        m_budget.Spend(rest.size());
        return npos;
    }
    return done.size() + at;
}

bool PartSubstitution::Replace(std::string_view content, std::string_view with) {
    if (m_budget.Exhausted()) return false;
    const std::string_view key = content.substr(0, content.find('\0'));
    const std::size_t at = FindFirst(key);
    if (at == std::string_view::npos) return true;
    const std::size_t length = content.size();
    if (at >= m_done.size()) {
        const std::size_t start = m_rest + (at - m_done.size());
        m_done.append(m_body.substr(m_rest, start - m_rest));
        m_done.append(with);
        m_rest = std::min(m_body.size(), start + length);
    } else if (at + length <= m_done.size()) {
        // Inside what was replaced before: rare, and paid for unless nothing changes (a text part repeated:
        // its rendering is its content, found where the first copy was rendered).
        if (with == std::string_view(m_done).substr(at, length)) return true;
        m_budget.Spend(m_done.size() - at);
        m_done.replace(at, length, with);
        if (with.size() == length) {
            m_grams.Forget(at);
        } else {
            m_grams.Clear();
        }
    } else {
        const std::size_t over = at + length - m_done.size();
        m_done.resize(at);
        m_grams.Forget(at);
        m_done.append(with);
        m_rest = std::min(m_body.size(), m_rest + over);
    }
    return true;
}

std::string PartSubstitution::Take() {
    m_done.append(m_body.substr(m_rest));
    m_body = {};
    m_rest = 0;
    return std::move(m_done);
}

}  // namespace tavik::lib
