// Reading and writing the records of a rule's sub-storage, safe against damaged data: fixed records
// shorter than expected fill only the values they hold, decimal text that is garbage or does not fit 32
// bits is ignored, and lists never cost more than linear time in what the stream holds.
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "messages/CStorageManager.h"
#include "platform/CArray.h"

namespace tavik::lib {

// The stream of 32-bit little-endian values into the targets, in order; targets beyond what the stream
// holds keep their values. Returns how many were filled.
size_t ReadDwords(CStorageManager& storage, UINT nameId, std::initializer_list<DWORD*> targets);
void WriteDwords(CStorageManager& storage, UINT nameId, std::initializer_list<DWORD> values);

// The old layout's number streams: decimal text, blanks before it allowed. False, value untouched, when
// the stream is missing, holds no digits or a number beyond 32 bits.
bool ParseDecimal(const std::string& text, DWORD& value);
bool ReadDecimal(CStorageManager& storage, UINT nameId, DWORD& value);

// Appends entries to a list unless it holds them already (ignoring case), each in constant time.
class EntryAdder {
public:
    explicit EntryAdder(CStringArray& list);
    // Empty entries are skipped; an entry ends at its first zero byte.
    void Add(std::string_view entry);
    // Each entry of text split at '|'.
    void AddSplit(std::string_view text);

private:
    // The slot of the entry, or the free slot where it would go.
    size_t Find(std::string_view entry, std::uint64_t hash) const;
    // Enters the list's entry at index, which is not there yet.
    void Place(size_t index);
    // Makes the table a power of two, at least that many slots and more than twice the list, then enters
    // the list.
    void Rebuild(size_t slots);

    CStringArray& m_list;
    // Entries of the list by the hash of their folded text, as index + 1 (0: free): open addressing over
    // the list itself, so that nothing is copied to be looked up.
    std::vector<std::uint32_t> m_slots;
};

// Visits the bytes of every stream of the named sub-storage, when it exists.
void ForEachStreamIn(CStorageManager& storage, UINT subStorageId,
                     const std::function<void(const std::string&)>& visit);

// Removes each named element; missing ones are no error.
void DeleteElements(CStorageManager& storage, std::initializer_list<UINT> nameIds);

// Fills fields from a text record (the texts concatenated) and their lengths, in order. The first field
// is taken only when the text (up to its first zero byte) is at least as long as its length; each later
// one when its start lies within the text, cut at the text's end. The first field not taken stops the
// parsing. Lengths of any size are safe. Only the first count fields are looked at, so a lengths
// record cut short leaves the fields it has no length for as they were.
struct RecordField {
    DWORD length;
    CString* field;
};
void ParseRecord(const char* text, const RecordField* fields, size_t count);

// Decimal text as atoi reads it (blanks, sign, digits), saturating beyond the range of int.
int DecimalOf(const CString& text);

// The resource text of an id.
CString ResourceText(UINT id);

}  // namespace tavik::lib
