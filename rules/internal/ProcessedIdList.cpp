#include "rules/internal/ProcessedIdList.h"

#include <algorithm>
#include <utility>

namespace detail {

namespace {
// Removed entries are dropped when there are more of them than this and than live ones.
constexpr size_t kCompactAbove = 64;
}  // namespace

size_t ProcessedIdList::Home(DWORD id) const {
    // Fibonacci hashing: the top bits of the product spread runs and strides of numbers as well as the
    // CRC-32 values identifiers usually are.
    return static_cast<size_t>((static_cast<std::uint64_t>(id) * 0x9E3779B97F4A7C15ull) >> m_shift);
}

size_t ProcessedIdList::Probe(DWORD id) const {
    const size_t mask = m_keys.size() - 1;
    size_t i = Home(id);
    while (m_keys[i] != 0 && m_keys[i] != id) i = (i + 1) & mask;
    return i;
}

size_t ProcessedIdList::FindSlot(DWORD id) const {
    if (m_keys.empty()) return kNone;
    const size_t i = Probe(id);
    return m_keys[i] == id ? i : kNone;
}

void ProcessedIdList::CopyFrom(const ProcessedIdList& other) {
    m_values = other.m_values;
    m_removed = other.m_removed;
    m_live = other.m_live;
    m_keys = other.m_keys;
    m_firsts.reset(other.m_keys.empty() ? nullptr : new std::uint32_t[other.m_keys.size()]);
    if (m_firsts) std::copy(other.m_firsts.get(), other.m_firsts.get() + other.m_keys.size(), m_firsts.get());
    m_used = other.m_used;
    m_shift = other.m_shift;
    m_zeroPresent = other.m_zeroPresent;
    m_zeroFirst = other.m_zeroFirst;
    m_repeats = other.m_repeats;
}

void ProcessedIdList::Grow(size_t slots) {
    std::vector<DWORD> keys = std::move(m_keys);
    std::unique_ptr<std::uint32_t[]> firsts = std::move(m_firsts);
    m_keys.assign(slots, 0);
    m_firsts.reset(new std::uint32_t[slots]);
    m_shift = 64;
    for (size_t n = slots; n > 1; n >>= 1) --m_shift;
    for (size_t j = 0; j < keys.size(); ++j) {
        if (keys[j] == 0) continue;
        const size_t i = Probe(keys[j]);
        m_keys[i] = keys[j];
        m_firsts[i] = firsts[j];
    }
}

void ProcessedIdList::Reserve(size_t count) {
    m_values.reserve(count);
    size_t slots = std::max(m_keys.size(), kFirstSlots);
    while (count * 4 > slots * 3) slots *= 2;
    if (slots != m_keys.size()) Grow(slots);
}

void ProcessedIdList::Insert(DWORD id, std::uint32_t index) {
    if (id == 0) {
        m_zeroPresent = true;
        m_zeroFirst = index;
        return;
    }
    GrowIfFull();
    const size_t i = Probe(id);
    m_keys[i] = id;
    m_firsts[i] = index;
    ++m_used;
}

void ProcessedIdList::Erase(DWORD id) {
    if (id == 0) {
        m_zeroPresent = false;
        return;
    }
    // Backward-shift deletion keeps every probe sequence unbroken without tombstones.
    const size_t mask = m_keys.size() - 1;
    size_t hole = FindSlot(id);
    m_keys[hole] = 0;
    --m_used;
    for (size_t j = (hole + 1) & mask; m_keys[j] != 0; j = (j + 1) & mask) {
        const size_t home = Home(m_keys[j]);
        const bool reachable = hole <= j ? (hole < home && home <= j) : (hole < home || home <= j);
        if (reachable) continue;
        m_keys[hole] = m_keys[j];
        m_firsts[hole] = m_firsts[j];
        m_keys[j] = 0;
        hole = j;
    }
}

void ProcessedIdList::Push(DWORD id) {
    m_values.push_back(id);
    if (!m_removed.empty()) m_removed.push_back(false);
    ++m_live;
}

void ProcessedIdList::Append(DWORD id) {
    const auto index = static_cast<std::uint32_t>(m_values.size());
    if (Contains(id))
        ++m_repeats.try_emplace(id, 1).first->second;
    else
        Insert(id, index);
    Push(id);
}

bool ProcessedIdList::AppendUnique(DWORD id) {
    const auto index = static_cast<std::uint32_t>(m_values.size());
    if (id == 0) {
        if (m_zeroPresent) return false;
        Insert(0, index);
    } else {
        // One probe finds the identifier or the slot it takes.
        GrowIfFull();
        const size_t i = Probe(id);
        if (m_keys[i] == id) return false;
        m_keys[i] = id;
        m_firsts[i] = index;
        ++m_used;
    }
    Push(id);
    return true;
}

bool ProcessedIdList::RemoveFirst(DWORD id) {
    if (!Contains(id)) return false;
    std::uint32_t& first = FirstOf(id);
    const size_t index = first;
    if (m_removed.empty()) m_removed.resize(m_values.size(), false);
    m_removed[index] = true;
    --m_live;
    auto repeat = m_repeats.find(id);
    if (repeat == m_repeats.end()) {
        Erase(id);
    } else {
        if (--repeat->second == 1) m_repeats.erase(repeat);
        // Another occurrence lies further on.
        size_t next = index + 1;
        while (m_removed[next] || m_values[next] != id) ++next;
        first = static_cast<std::uint32_t>(next);
    }
    Compact();
    return true;
}

void ProcessedIdList::Compact() {
    const size_t removed = m_values.size() - m_live;
    if (removed <= kCompactAbove || removed <= m_live) return;
    std::vector<DWORD> live;
    live.reserve(m_live);
    ForEach([&](DWORD id) { live.push_back(id); });
    Clear();
    Reserve(live.size());
    for (DWORD id : live) Append(id);
}

void ProcessedIdList::Clear() {
    m_values.clear();
    m_removed.clear();
    m_keys.clear();
    m_firsts.reset();
    m_repeats.clear();
    m_shift = 64;
    m_live = 0;
    m_used = 0;
    m_zeroPresent = false;
}

std::list<DWORD> ProcessedIdList::ToList() const {
    std::list<DWORD> out;
    ForEach([&](DWORD id) { out.push_back(id); });
    return out;
}

std::string ProcessedIdList::ToBytes() const {
    std::string bytes;
    bytes.reserve(m_live * 4);
    ForEach([&](DWORD id) {
        const char le[4] = {static_cast<char>(id), static_cast<char>(id >> 8), static_cast<char>(id >> 16),
                            static_cast<char>(id >> 24)};
        bytes.append(le, 4);
    });
    return bytes;
}

}  // namespace detail
