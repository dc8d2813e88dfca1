// The identifiers of the messages a rule has handled: an ordered list, duplicates allowed (a file or a
// registry key can hold them twice), with search, append and removal of the first occurrence in constant
// time. An account checks thousands of messages against dozens of rules holding thousands of
// identifiers each, so none of these may walk the list.
#pragma once

#include <cstdint>
#include <list>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/WinTypes.h"

namespace tavik::lib {

class ProcessedIdList {
public:
    bool Contains(DWORD id) const { return id ? FindSlot(id) != kNone : m_zeroPresent; }
    // Appends, present or not.
    void Append(DWORD id);
    // Appends unless present; true when it did.
    bool AppendUnique(DWORD id);
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
        for (size_t i = 0; i < m_values.size(); ++i)
            if (!Removed(i)) visit(m_values[i]);
    }

    bool operator==(const ProcessedIdList& other) const { return ToList() == other.ToList(); }

private:
    static constexpr size_t kNone = ~size_t(0);

    // The table holds each distinct non-zero value once, beside where its first live occurrence is: a
    // search and the add that follows it touch one place in memory, which for lists of 50,000
    // identifiers is the cost that counts. Key 0 marks a free slot, so the value 0 is kept beside the
    // table.
    struct Slot {
        DWORD key;
        std::uint32_t first;
    };
    size_t FindSlot(DWORD id) const;
    size_t Home(DWORD id) const;
    // The slot of id, or the free slot where it would go (the table has room for one more).
    size_t Probe(DWORD id) const;
    // Where the first live occurrence of a present id is kept.
    std::uint32_t& FirstOf(DWORD id) { return id ? m_slots[FindSlot(id)].first : m_zeroFirst; }
    void Insert(DWORD id, std::uint32_t index);
    void Erase(DWORD id);
    void Grow(size_t slots);
    bool Full() const { return (m_used + 1) * 4 > m_slots.size() * 3; }
    void GrowIfFull() {
        if (Full()) Grow(m_slots.empty() ? kFirstSlots : m_slots.size() * 2);
    }
    void Push(DWORD id);
    bool Removed(size_t index) const { return !m_removed.empty() && m_removed[index]; }
    // Drops removed entries once they outnumber the live ones.
    void Compact();

    static constexpr size_t kFirstSlots = 16;

    std::vector<DWORD> m_values;  // list order, removed entries included
    std::vector<bool> m_removed;  // empty until the first removal, then one flag per entry
    size_t m_live = 0;
    std::vector<Slot> m_slots;  // open addressing, linear probing, power-of-two size, at most 3/4 full
    size_t m_used = 0;
    int m_shift = 64;  // 64 - log2(slots)
    bool m_zeroPresent = false;
    std::uint32_t m_zeroFirst = 0;
    // Values present more than once, with their number of live occurrences; rare, so kept aside.
    std::unordered_map<DWORD, std::uint32_t> m_repeats;
};

}  // namespace tavik::lib
