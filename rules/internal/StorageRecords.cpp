#include "rules/internal/StorageRecords.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace tavik::lib {

namespace {

char Folded(char c) { return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c; }

std::uint64_t FoldedHash(std::string_view text) {
    char buffer[128];
    std::string large;
    char* out = buffer;
    if (text.size() > sizeof buffer) {
        large.resize(text.size());
        out = large.data();
    }
    for (size_t i = 0; i < text.size(); ++i) out[i] = Folded(text[i]);
    return std::hash<std::string_view>()(std::string_view(out, text.size()));
}

bool SameFolded(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (Folded(a[i]) != Folded(b[i])) return false;
    return true;
}

// An entry as the list compares it: up to its first zero byte.
std::string_view EntryText(const CString& entry) { return entry.GetString(); }

template <class T>
struct Released {
    T* p = nullptr;
    ~Released() {
        if (p) p->Release();
    }
};

}  // namespace

void ParseRecord(const char* text, const RecordField* fields, size_t count) {
    const std::uint64_t available = std::strlen(text);
    std::uint64_t offset = 0;  // 64 bits: no number of 32-bit lengths a record has can overflow it
    for (size_t i = 0; i < count; ++i) {
        const RecordField& f = fields[i];
        if (i == 0 ? available < f.length : offset > available) return;
        const std::uint64_t take = std::min<std::uint64_t>(f.length, available - offset);
        *f.field = CString(text + offset, static_cast<int>(take));
        offset += f.length;
    }
}

int DecimalOf(const CString& text) {
    long value = std::strtol(text.GetString(), nullptr, 10);
    return static_cast<int>(std::clamp<long>(value, INT_MIN, INT_MAX));
}

CString ResourceText(UINT id) {
    CString text;
    text.LoadString(id);
    return text;
}

size_t ReadDwords(CStorageManager& storage, UINT nameId, std::initializer_list<DWORD*> targets) {
    std::vector<unsigned char> raw(targets.size() * 4);
    const size_t got = storage.ReadData(nameId, raw.data(), static_cast<ULONG>(raw.size())) / 4;
    size_t i = 0;
    for (DWORD* target : targets) {
        if (i == got) break;
        const unsigned char* b = raw.data() + i * 4;
        *target = b[0] | (DWORD(b[1]) << 8) | (DWORD(b[2]) << 16) | (DWORD(b[3]) << 24);
        ++i;
    }
    return got;
}

void WriteDwords(CStorageManager& storage, UINT nameId, std::initializer_list<DWORD> values) {
    std::vector<unsigned char> raw;
    for (DWORD v : values)
        for (int shift = 0; shift < 32; shift += 8) raw.push_back(static_cast<unsigned char>(v >> shift));
    storage.WriteData(nameId, raw.data(), static_cast<ULONG>(raw.size()));
}

bool ParseDecimal(const std::string& text, DWORD& value) {
    size_t i = 0;
    while (i < text.size() && (text[i] == ' ' || text[i] == '\t')) ++i;
    std::uint64_t number = 0;
    size_t digits = 0;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i, ++digits) {
        number = number * 10 + static_cast<unsigned>(text[i] - '0');
        if (number > 0xFFFFFFFFull) return false;
    }
    if (digits == 0) return false;
    value = static_cast<DWORD>(number);
    return true;
}

bool ReadDecimal(CStorageManager& storage, UINT nameId, DWORD& value) {
    // Numbers were written as at most ten digits; a long stream is not a number of ours.
    char text[101] = {};
    if (!storage.StreamExists(nameId)) return false;
    storage.ReadData(nameId, text, 100);
    return ParseDecimal(text, value);
}

EntryAdder::EntryAdder(CStringArray& list) : m_list(list) {
    if (!list.IsEmpty()) Rebuild(0);
}

size_t EntryAdder::Find(std::string_view entry, std::uint64_t hash) const {
    const size_t mask = m_slots.size() - 1;
    for (size_t i = hash & mask;; i = (i + 1) & mask)
        if (m_slots[i] == 0 || SameFolded(entry, EntryText(m_list[static_cast<int>(m_slots[i] - 1)])))
            return i;
}

void EntryAdder::Place(size_t index) {
    // At most half full, so that a search ends soon at a free slot.
    if ((index + 1) * 2 > m_slots.size()) {
        Rebuild(m_slots.size() * 2);
        return;
    }
    const std::string_view text = EntryText(m_list[static_cast<int>(index)]);
    m_slots[Find(text, FoldedHash(text))] = static_cast<std::uint32_t>(index + 1);
}

void EntryAdder::Rebuild(size_t slots) {
    // A power of two, which Find's mask needs.
    const size_t least = std::max(slots, 2 * (static_cast<size_t>(m_list.GetSize()) + 1));
    size_t size = 16;
    while (size < least) size *= 2;
    m_slots.assign(size, 0);
    for (int i = 0; i < m_list.GetSize(); ++i) {
        const std::string_view text = EntryText(m_list[i]);
        const size_t slot = Find(text, FoldedHash(text));
        if (m_slots[slot] == 0) m_slots[slot] = static_cast<std::uint32_t>(i + 1);
    }
}

void EntryAdder::Add(std::string_view entry) {
    entry = entry.substr(0, entry.find('\0'));
    if (entry.empty()) return;
    if (!m_slots.empty() && m_slots[Find(entry, FoldedHash(entry))] != 0) return;
    m_list.vector().emplace_back(entry);
    Place(static_cast<size_t>(m_list.GetSize() - 1));
}

void EntryAdder::AddSplit(std::string_view text) {
    // Room for every entry the text can hold, so that the table is not rebuilt on the way; a non-empty entry
    // takes at least two bytes, so a run of separators reserves no more than half its length.
    const size_t pieces = static_cast<size_t>(std::count(text.begin(), text.end(), '|')) + 1;
    const size_t most = static_cast<size_t>(m_list.GetSize()) + std::min(pieces, text.size() / 2 + 1);
    if (most * 2 > m_slots.size()) Rebuild(most * 2);
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find('|', start);
        if (end == std::string_view::npos) end = text.size();
        Add(text.substr(start, end - start));
        start = end + 1;
    }
}

void ForEachStreamIn(CStorageManager& storage, UINT subStorageId,
                     const std::function<void(const std::string&)>& visit) {
    const CString name = ResourceText(subStorageId);
    if (!storage.IsOpen() || !storage.StorageExists(name)) return;
    CStorageManager sub;
    if (!sub.OpenSubStorage(storage.GetStorage(), name, STGM_READ | STGM_SHARE_EXCLUSIVE, false, false))
        return;
    // Names first: the streams are opened after the walk, never under it.
    std::vector<CString> names;
    {
        IEnumSTATSTG* raw = nullptr;
        if (FAILED(sub.GetStorage()->EnumElements(0, nullptr, 0, &raw)) || !raw) return;
        Released<IEnumSTATSTG> elements{raw};
        STATSTG stat;
        ULONG fetched = 0;
        while (elements.p->Next(1, &stat, &fetched) == S_OK && fetched == 1) {
            if (stat.type == STGTY_STREAM && stat.pwcsName) names.emplace_back(stat.pwcsName);
            CoTaskMemFree(stat.pwcsName);
        }
    }
    for (const CString& stream : names) {
        std::string bytes;
        if (sub.ReadBytes(stream, bytes)) visit(bytes);
    }
}

void DeleteElements(CStorageManager& storage, std::initializer_list<UINT> nameIds) {
    for (UINT id : nameIds) storage.DeleteElement(id);
}

}  // namespace tavik::lib
