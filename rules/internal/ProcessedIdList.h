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

namespace detail {

class ProcessedIdList {
public:
    bool Contains(DWORD id) const { return Find(id) != nullptr; }
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
            if (!m_removed[i]) visit(m_values[i]);
    }

    bool operator==(const ProcessedIdList& other) const { return ToList() == other.ToList(); }

private:
    // One distinct value and where its first live occurrence is; kFree marks an empty slot. Eight bytes,
    // so that a table of 50,000 identifiers stays small: growing memory is what a busy list costs most.
    struct Slot {
        DWORD key;
        std::uint32_t first;
    };
    static constexpr std::uint32_t kFree = 0xFFFFFFFFu;

    const Slot* Find(DWORD id) const;
    Slot* Find(DWORD id) { return const_cast<Slot*>(static_cast<const ProcessedIdList*>(this)->Find(id)); }
    size_t Home(DWORD id) const;
    // The slot of id, or the free slot where it would go (the table has room for one more).
    Slot* Probe(DWORD id);
    void Insert(DWORD id, std::uint32_t index);
    void Erase(Slot* slot);
    void Grow(size_t slots);
    // Drops removed entries once they outnumber the live ones.
    void Compact();

    std::vector<DWORD> m_values;  // list order, removed entries included
    std::vector<bool> m_removed;
    size_t m_live = 0;
    std::vector<Slot> m_slots;  // open addressing, linear probing, power-of-two size, at most 3/4 full
    size_t m_used = 0;
    int m_shift = 64;  // 64 - log2(slots)
    // Values present more than once, with their number of live occurrences; rare, so kept aside.
    std::unordered_map<DWORD, std::uint32_t> m_repeats;
};

}  // namespace detail
