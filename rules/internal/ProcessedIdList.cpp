#include "rules/internal/ProcessedIdList.h"

#include <algorithm>
#include <utility>

namespace detail {

namespace {
constexpr size_t kFirstSlots = 16;
// Removed entries are dropped when there are more of them than this and than live ones.
constexpr size_t kCompactAbove = 64;
}  // namespace

size_t ProcessedIdList::Home(DWORD id) const {
    // Fibonacci hashing: the top bits of the product spread runs and strides of numbers as well as the
    // CRC-32 values identifiers usually are.
    return static_cast<size_t>((static_cast<std::uint64_t>(id) * 0x9E3779B97F4A7C15ull) >> m_shift);
}

const ProcessedIdList::Slot* ProcessedIdList::Find(DWORD id) const {
    if (m_slots.empty()) return nullptr;
    const size_t mask = m_slots.size() - 1;
    for (size_t i = Home(id);; i = (i + 1) & mask) {
        const Slot& slot = m_slots[i];
        if (slot.first == kFree) return nullptr;
        if (slot.key == id) return &slot;
    }
}

void ProcessedIdList::Grow(size_t slots) {
    std::vector<Slot> old = std::move(m_slots);
    m_slots.assign(slots, Slot{0, kFree});
    m_shift = 64;
    for (size_t n = slots; n > 1; n >>= 1) --m_shift;
    const size_t mask = slots - 1;
    for (const Slot& slot : old) {
        if (slot.first == kFree) continue;
        size_t i = Home(slot.key);
        while (m_slots[i].first != kFree) i = (i + 1) & mask;
        m_slots[i] = slot;
    }
}

void ProcessedIdList::Reserve(size_t count) {
    m_values.reserve(count);
    m_removed.reserve(count);
    size_t slots = std::max(m_slots.size(), kFirstSlots);
    while (count * 4 > slots * 3) slots *= 2;
    if (slots != m_slots.size()) Grow(slots);
}

ProcessedIdList::Slot* ProcessedIdList::Probe(DWORD id) {
    const size_t mask = m_slots.size() - 1;
    size_t i = Home(id);
    while (m_slots[i].first != kFree && m_slots[i].key != id) i = (i + 1) & mask;
    return &m_slots[i];
}

void ProcessedIdList::Insert(DWORD id, std::uint32_t index) {
    if ((m_used + 1) * 4 > m_slots.size() * 3) Grow(m_slots.empty() ? kFirstSlots : m_slots.size() * 2);
    *Probe(id) = Slot{id, index};
    ++m_used;
}

void ProcessedIdList::Erase(Slot* slot) {
    // Backward-shift deletion keeps every probe sequence unbroken without tombstones.
    const size_t mask = m_slots.size() - 1;
    size_t hole = static_cast<size_t>(slot - m_slots.data());
    m_slots[hole].first = kFree;
    --m_used;
    for (size_t j = (hole + 1) & mask; m_slots[j].first != kFree; j = (j + 1) & mask) {
        size_t home = Home(m_slots[j].key);
        bool reachable = hole <= j ? (hole < home && home <= j) : (hole < home || home <= j);
        if (reachable) continue;
        m_slots[hole] = m_slots[j];
        m_slots[j].first = kFree;
        hole = j;
    }
}

void ProcessedIdList::Append(DWORD id) {
    const auto index = static_cast<std::uint32_t>(m_values.size());
    m_values.push_back(id);
    m_removed.push_back(false);
    ++m_live;
    if (Find(id)) {
        auto [repeat, added] = m_repeats.try_emplace(id, 1);
        ++repeat->second;
    } else {
        Insert(id, index);
    }
}

bool ProcessedIdList::AppendUnique(DWORD id) {
    // One probe finds the identifier or the slot it takes.
    if ((m_used + 1) * 4 > m_slots.size() * 3) Grow(m_slots.empty() ? kFirstSlots : m_slots.size() * 2);
    Slot* slot = Probe(id);
    if (slot->first != kFree) return false;
    *slot = Slot{id, static_cast<std::uint32_t>(m_values.size())};
    ++m_used;
    m_values.push_back(id);
    m_removed.push_back(false);
    ++m_live;
    return true;
}

bool ProcessedIdList::RemoveFirst(DWORD id) {
    Slot* slot = Find(id);
    if (!slot) return false;
    const size_t index = slot->first;
    m_removed[index] = true;
    --m_live;
    auto repeat = m_repeats.find(id);
    if (repeat == m_repeats.end()) {
        Erase(slot);
    } else {
        if (--repeat->second == 1) m_repeats.erase(repeat);
        // Another occurrence lies further on.
        size_t next = index + 1;
        while (m_removed[next] || m_values[next] != id) ++next;
        slot->first = static_cast<std::uint32_t>(next);
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
    for (DWORD id : live) Append(id);
}

void ProcessedIdList::Clear() {
    m_values.clear();
    m_removed.clear();
    m_slots.clear();
    m_repeats.clear();
    m_shift = 64;
    m_live = 0;
    m_used = 0;
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
