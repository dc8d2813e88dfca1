#include "messages/internal/PartSubstitution.h"

#include <algorithm>

namespace detail {
namespace {

constexpr std::uint64_t kBase = 0x100000001B3ull;

std::uint64_t mix(std::uint64_t x) {
    x ^= x >> 31;
    x *= 0x7FB5D329728EA185ull;
    x ^= x >> 27;
    x *= 0x81DADEF4BC2DD44Dull;
    return x ^ (x >> 33);
}

std::uint64_t power(std::size_t n) {
    std::uint64_t p = 1;
    for (std::size_t i = 0; i < n; ++i) p *= kBase;
    return p;
}

const std::uint64_t kTop = power(GramFilter::kGram - 1);

// Calls f with the hash of every kGram-long substring of text ending at from..to-1.
template <class F>
void forEachGram(std::string_view text, std::size_t from, std::size_t to, F&& f) {
    constexpr std::size_t k = GramFilter::kGram;
    from = std::max(from, k - 1);
    if (to > text.size()) to = text.size();
    if (from >= to) return;
    std::uint64_t h = 0;
    for (std::size_t i = from + 1 - k; i < from; ++i) h = h * kBase + static_cast<unsigned char>(text[i]);
    for (std::size_t end = from; end < to; ++end) {
        h = h * kBase + static_cast<unsigned char>(text[end]);
        if (!f(h)) return;
        h -= kTop * static_cast<unsigned char>(text[end + 1 - k]);
    }
}

}  // namespace

GramFilter::GramFilter(std::size_t expectedLength) {
    // About four bits per substring: a substring not in the text passes with a chance near 1 in 6, so a
    // content that does not occur is ruled out within its first few substrings.
    std::size_t bits = 1 << 16;
    while (bits < expectedLength * 4 && bits < (std::size_t(1) << 34)) bits <<= 1;
    m_bits.assign(bits / 64, 0);
    m_mask = bits - 1;
}

void GramFilter::Set(std::uint64_t hash) {
    std::uint64_t a = mix(hash), b = mix(a);
    m_bits[(a & m_mask) >> 6] |= std::uint64_t(1) << (a & 63);
    m_bits[(b & m_mask) >> 6] |= std::uint64_t(1) << (b & 63);
}

bool GramFilter::Test(std::uint64_t hash) const {
    std::uint64_t a = mix(hash), b = mix(a);
    return (m_bits[(a & m_mask) >> 6] >> (a & 63) & 1) && (m_bits[(b & m_mask) >> 6] >> (b & 63) & 1);
}

void GramFilter::Add(std::string_view text, std::size_t from, std::size_t to) {
    forEachGram(text, from, to, [this](std::uint64_t h) {
        Set(h);
        return true;
    });
}

bool GramFilter::MayContain(std::string_view pattern) const {
    bool all = true;
    forEachGram(pattern, 0, pattern.size(), [&](std::uint64_t h) { return all = Test(h); });
    return all;
}

PartSubstitution::PartSubstitution(std::string text, std::size_t expectedLength, WorkBudget& budget)
    : m_body(std::move(text)), m_grams(expectedLength), m_budget(budget) {}

void PartSubstitution::Append(std::string_view text) {
    const std::size_t from = m_done.size();
    m_done.append(text);
    m_grams.Add(m_done, from, m_done.size());
}

// The first occurrence in m_done + m_body[m_rest..], as an index into that text.
std::size_t PartSubstitution::FindFirst(std::string_view key) {
    constexpr auto npos = std::string_view::npos;
    const std::string_view done(m_done), rest = std::string_view(m_body).substr(m_rest);
    if (key.empty()) return 0;
    // Wholly inside the replaced part: only when the filter cannot rule it out.
    if (key.size() <= done.size() && (key.size() < GramFilter::kGram || m_grams.MayContain(key))) {
        std::size_t at = FindText(done, key);
        m_budget.Spend(at == npos ? done.size() : at + key.size());
        if (at != npos) return at;
    }
    // Starting in the replaced part and running on into the untouched one.
    if (!done.empty() && key.size() > 1) {
        const std::size_t from = done.size() > key.size() - 1 ? done.size() - (key.size() - 1) : 0;
        std::string window(done.substr(from));
        window.append(rest.substr(0, key.size() - 1));
        std::size_t at = FindText(window, key);
        if (at != npos && from + at < done.size()) return from + at;
    }
    // In the untouched part: the search stops at the content's own place at the latest, and the next
    // search starts after it, so these searches add up to one pass over the text.
    std::size_t at = FindText(rest, key);
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
        Append(std::string_view(m_body).substr(m_rest, start - m_rest));
        Append(with);
        m_rest = std::min(m_body.size(), start + length);
    } else if (at + length <= m_done.size()) {
        // Inside what was replaced before: rare, and paid for unless nothing changes (a text part repeated:
        // its rendering is its content, found where the first copy was rendered).
        if (with == std::string_view(m_done).substr(at, length)) return true;
        m_budget.Spend(m_done.size() - at);
        m_done.replace(at, length, with);
        m_grams.Add(m_done, at, at + with.size() + GramFilter::kGram - 1);
    } else {
        const std::size_t over = at + length - m_done.size();
        m_done.resize(at);
        Append(with);
        m_rest = std::min(m_body.size(), m_rest + over);
    }
    return true;
}

std::string PartSubstitution::Take() {
    m_done.append(m_body, m_rest, std::string::npos);
    m_body.clear();
    m_rest = 0;
    return std::move(m_done);
}

}  // namespace detail
