// The identifiers of the messages a rule has handled: an ordered list, duplicates allowed (a file or a
// registry key can hold them twice), with search, append and removal of the first occurrence in constant
// time. An account checks thousands of messages against dozens of rules holding thousands of
// identifiers each, so none of these may walk the list.
#pragma once

#include <cstdint>
#include <deque>
#include <list>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/WinTypes.h"

namespace tavik::lib {

class ProcessedIdList {
public:
    bool Contains(DWORD id) const { return FindSlot(id) != kNone; }
    // Appends, present or not.
    void Append(DWORD id);
    // Appends unless present; true when it did.
    bool AppendUnique(DWORD id);
    // Appends count values stored as 4 bytes little-endian each, as Append (AppendUnique when unique)
    // would one after the other.
    void AppendLittleEndian(const void* bytes, size_t count, bool unique);
    // Removes the first occurrence; false when there is none.
    bool RemoveFirst(DWORD id);
    void Clear();
    // Room for count identifiers in all, so that a load grows nothing on the way.
    void Reserve(size_t count);
    size_t Size() const { return m_live; }
    bool Empty() const { return m_live == 0; }

    // In list order.
    std::list<DWORD> ToList() const;
    // Each value as 4 bytes little-endian, in list order.
    std::string ToBytes() const;
    template <class Visit>
    void ForEach(Visit visit) const {
        if (m_removed.empty()) {
            for (DWORD id : m_values) visit(id);
            return;
        }
        size_t i = 0;
        for (DWORD id : m_values)
            if (!m_removed[i++]) visit(id);
    }

    bool operator==(const ProcessedIdList& other) const { return ToList() == other.ToList(); }

private:
    static constexpr size_t kNone = ~size_t(0);
    static constexpr std::uint32_t kUnknown = ~std::uint32_t(0);

    // The table holds each distinct value once. Beside each slot a tag byte: 0 for a free slot, else
    // seven bits of the value's hash; a search looks at a value only when its tag matches. Twelve slots
    // share a cache line, tags first: for lists of 50,000 identifiers the table outgrows the caches and
    // each line (and page) a probe touches is a wait for memory, so a search that misses and the append
    // after it touch one line instead of one for the tag and another for the value.
    static constexpr size_t kGroup = 12;
    struct alignas(64) Group {
        std::uint8_t tags[kGroup];
        std::uint8_t unused[4];
        DWORD keys[kGroup];
    };
    static_assert(sizeof(Group) == 64);
    std::uint8_t& TagAt(size_t i) { return m_groups[i / kGroup].tags[i % kGroup]; }
    std::uint8_t TagAt(size_t i) const { return m_groups[i / kGroup].tags[i % kGroup]; }
    DWORD& KeyAt(size_t i) { return m_groups[i / kGroup].keys[i % kGroup]; }
    DWORD KeyAt(size_t i) const { return m_groups[i / kGroup].keys[i % kGroup]; }
    size_t Next(size_t i) const { return i + 1 == m_slots ? 0 : i + 1; }

    size_t FindSlot(DWORD id) const {
        if (m_slots == 0) return kNone;
        const size_t i = Probe(id);
        return TagAt(i) ? i : kNone;
    }
    static std::uint64_t Hash(DWORD id) { return static_cast<std::uint64_t>(id) * 0x9E3779B97F4A7C15ull; }
    // Fibonacci hashing: the top bits of the product spread runs and strides of numbers as well as the
    // CRC-32 values identifiers usually are; scaled to the number of slots, which need not be a power of
    // two. The tag comes from lower bits, which the slot number hardly depends on.
    size_t Home(std::uint64_t hash) const { return static_cast<size_t>(((hash >> 32) * m_slots) >> 32); }
    static std::uint8_t Tag(std::uint64_t hash) {
        return static_cast<std::uint8_t>(0x80 | ((hash >> 24) & 0x7F));
    }
    // The slot of id, or the free slot where it would go (the table has room for one more).
    size_t Probe(DWORD id) const {
        const std::uint64_t hash = Hash(id);
        const std::uint8_t tag = Tag(hash);
        size_t i = Home(hash);
        while (TagAt(i) != 0 && (TagAt(i) != tag || KeyAt(i) != id)) i = Next(i);
        return i;
    }
    // Fills a free slot.
    void Take(size_t slot, DWORD id, std::uint32_t index) {
        KeyAt(slot) = id;
        TagAt(slot) = Tag(Hash(id));
        if (!m_first.empty()) m_first[slot] = index;
        ++m_used;
    }
    // The positions, slot by slot, found by one walk of the list at the first removal.
    void TrackPositions();
    void Erase(size_t slot);
    void Grow(size_t slots);
    bool Full() const { return (m_used + 1) * 4 > m_slots * 3; }
    void GrowIfFull() {
        if (Full()) Grow(m_slots == 0 ? kFirstSlots : m_slots * 2);
    }
    void Push(DWORD id);
    // Drops removed entries once they outnumber the live ones.
    void Compact();

    static constexpr size_t kFirstSlots = kGroup;

    // List order, removed entries included. Growing a deque never moves what it holds: copying a list of
    // 50,000 identifiers into fresh memory would cost more than all the searches between two growths.
    std::deque<DWORD> m_values;
    std::vector<bool> m_removed;  // empty until the first removal, then one flag per entry
    size_t m_live = 0;
    // Open addressing, linear probing, at most 3/4 full.
    std::vector<Group> m_groups;
    size_t m_slots = 0;
    size_t m_used = 0;
    // Beside each slot, where the value's first live occurrence is; only removals need it, so it is empty
    // until the first one.
    std::vector<std::uint32_t> m_first;
    // Values present more than once, with their number of live occurrences; rare, so kept aside.
    std::unordered_map<DWORD, std::uint32_t> m_repeats;
};

}  // namespace tavik::lib
