#include "rules/internal/ProcessedIdList.h"

#include <algorithm>
#include <utility>

namespace tavik::lib {

namespace {
// Removed entries are dropped when there are more of them than this and than live ones.
constexpr size_t kCompactAbove = 64;
}  // namespace

void ProcessedIdList::Grow(size_t slots) {
    std::vector<Group> oldGroups = std::move(m_groups);
    std::vector<std::uint32_t> oldFirst = std::move(m_first);
    m_groups.assign((slots + kGroup - 1) / kGroup, Group{});
    m_slots = m_groups.size() * kGroup;
    if (!oldFirst.empty()) m_first.assign(m_slots, kUnknown);
    for (size_t g = 0; g < oldGroups.size(); ++g) {
        for (size_t k = 0; k < kGroup; ++k) {
            if (oldGroups[g].tags[k] == 0) continue;
            const size_t slot = Probe(oldGroups[g].keys[k]);
            KeyAt(slot) = oldGroups[g].keys[k];
            TagAt(slot) = oldGroups[g].tags[k];
            if (!oldFirst.empty()) m_first[slot] = oldFirst[g * kGroup + k];
        }
    }
}

void ProcessedIdList::Reserve(size_t count) {
    size_t slots = std::max(m_slots, kFirstSlots);
    while (count * 4 > slots * 3) slots *= 2;
    if (slots != m_slots) Grow(slots);
}

void ProcessedIdList::TrackPositions() {
    m_first.assign(m_slots, kUnknown);
    std::uint32_t index = 0;
    for (DWORD id : m_values) {
        if (m_removed.empty() || !m_removed[index]) {
            std::uint32_t& first = m_first[Probe(id)];
            if (first == kUnknown) first = index;
        }
        ++index;
    }
}

void ProcessedIdList::Erase(size_t hole) {
    // Backward-shift deletion keeps every probe sequence unbroken without tombstones.
    TagAt(hole) = 0;
    --m_used;
    for (size_t j = Next(hole); TagAt(j) != 0; j = Next(j)) {
        const size_t home = Home(Hash(KeyAt(j)));
        const bool reachable = hole <= j ? (hole < home && home <= j) : (hole < home || home <= j);
        if (reachable) continue;
        KeyAt(hole) = KeyAt(j);
        TagAt(hole) = TagAt(j);
        if (!m_first.empty()) m_first[hole] = m_first[j];
        TagAt(j) = 0;
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
    GrowIfFull();
    const size_t slot = Probe(id);
    if (TagAt(slot))
        ++m_repeats.try_emplace(id, 1).first->second;
    else
        Take(slot, id, index);
    Push(id);
}

bool ProcessedIdList::AppendUnique(DWORD id) {
    const auto index = static_cast<std::uint32_t>(m_values.size());
    // One probe finds the identifier or the slot it takes.
    GrowIfFull();
    const size_t slot = Probe(id);
    if (TagAt(slot)) return false;
    Take(slot, id, index);
    Push(id);
    return true;
}

void ProcessedIdList::AppendLittleEndian(const void* bytes, size_t count, bool unique) {
    // Room for every value in the table first, so that the loop below never grows it.
    Reserve(m_live + count);
    const size_t before = m_values.size();
    auto index = static_cast<std::uint32_t>(before);
    // The table's fields in locals: the stores below would otherwise make the compiler load them anew.
    Group* const groups = m_groups.data();
    std::uint32_t* const first = m_first.empty() ? nullptr : m_first.data();
    const size_t slots = m_slots;
    size_t used = m_used;
    // What goes into the list, gathered first: one insert at the end of the deque copies block by block.
    std::vector<DWORD> kept;
    kept.reserve(count);
    const auto* p = static_cast<const unsigned char*>(bytes);
    for (size_t n = 0; n < count; ++n, p += 4) {
        const DWORD id = p[0] | (DWORD(p[1]) << 8) | (DWORD(p[2]) << 16) | (DWORD(p[3]) << 24);
        const std::uint64_t hash = Hash(id);
        const std::uint8_t tag = Tag(hash);
        size_t i = static_cast<size_t>(((hash >> 32) * slots) >> 32);
        while (groups[i / kGroup].tags[i % kGroup] != 0 &&
               (groups[i / kGroup].tags[i % kGroup] != tag || groups[i / kGroup].keys[i % kGroup] != id))
            i = i + 1 == slots ? 0 : i + 1;
        Group& group = groups[i / kGroup];
        if (group.tags[i % kGroup] == 0) {
            group.keys[i % kGroup] = id;
            group.tags[i % kGroup] = tag;
            if (first) first[i] = index;
            ++used;
        } else {
            if (unique) continue;
            ++m_repeats.try_emplace(id, 1).first->second;
        }
        kept.push_back(id);
        ++index;
    }
    m_values.insert(m_values.end(), kept.begin(), kept.end());
    m_used = used;
    if (!m_removed.empty()) m_removed.resize(index, false);
    m_live += index - before;
}

bool ProcessedIdList::RemoveFirst(DWORD id) {
    const size_t slot = FindSlot(id);
    if (slot == kNone) return false;
    if (m_first.empty()) TrackPositions();
    const size_t index = m_first[slot];
    if (m_removed.empty()) m_removed.resize(m_values.size(), false);
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
        m_first[slot] = static_cast<std::uint32_t>(next);
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
    m_groups.clear();
    m_slots = 0;
    m_first.clear();
    m_repeats.clear();
    m_live = 0;
    m_used = 0;
}

std::list<DWORD> ProcessedIdList::ToList() const {
    std::list<DWORD> out;
    ForEach([&](DWORD id) { out.push_back(id); });
    return out;
}

std::string ProcessedIdList::ToBytes() const {
    std::string bytes(m_live * 4, '\0');
    char* out = bytes.data();
    ForEach([&](DWORD id) {
        out[0] = static_cast<char>(id);
        out[1] = static_cast<char>(id >> 8);
        out[2] = static_cast<char>(id >> 16);
        out[3] = static_cast<char>(id >> 24);
        out += 4;
    });
    return bytes;
}

}  // namespace tavik::lib
