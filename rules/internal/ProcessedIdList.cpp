#include "rules/internal/ProcessedIdList.h"

#include <algorithm>
#include <utility>

namespace tavik::lib {

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
    const size_t mask = m_slots.size() - 1;
    size_t i = Home(id);
    while (m_slots[i].key != 0 && m_slots[i].key != id) i = (i + 1) & mask;
    return i;
}

size_t ProcessedIdList::FindSlot(DWORD id) const {
    if (m_slots.empty()) return kNone;
    const size_t i = Probe(id);
    return m_slots[i].key == id ? i : kNone;
}

void ProcessedIdList::Grow(size_t slots) {
    std::vector<Slot> old = std::move(m_slots);
    m_slots.assign(slots, Slot{0, 0});
    m_shift = 64;
    for (size_t n = slots; n > 1; n >>= 1) --m_shift;
    for (const Slot& slot : old)
        if (slot.key != 0) m_slots[Probe(slot.key)] = slot;
}

void ProcessedIdList::Reserve(size_t count) {
    m_values.reserve(count);
    size_t slots = std::max(m_slots.size(), kFirstSlots);
    while (count * 4 > slots * 3) slots *= 2;
    if (slots != m_slots.size()) Grow(slots);
}

void ProcessedIdList::Insert(DWORD id, std::uint32_t index) {
    if (id == 0) {
        m_zeroPresent = true;
        m_zeroFirst = index;
        return;
    }
    GrowIfFull();
    m_slots[Probe(id)] = Slot{id, index};
    ++m_used;
}

void ProcessedIdList::Erase(DWORD id) {
    if (id == 0) {
        m_zeroPresent = false;
        return;
    }
    // Backward-shift deletion keeps every probe sequence unbroken without tombstones.
    const size_t mask = m_slots.size() - 1;
    size_t hole = FindSlot(id);
    m_slots[hole].key = 0;
    --m_used;
    for (size_t j = (hole + 1) & mask; m_slots[j].key != 0; j = (j + 1) & mask) {
        const size_t home = Home(m_slots[j].key);
        const bool reachable = hole <= j ? (hole < home && home <= j) : (hole < home || home <= j);
        if (reachable) continue;
        m_slots[hole] = m_slots[j];
        m_slots[j].key = 0;
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
        Slot& slot = m_slots[Probe(id)];
        if (slot.key == id) return false;
        slot = Slot{id, index};
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
    m_slots.clear();
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

}  // namespace tavik::lib
