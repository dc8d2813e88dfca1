// The storage operations of CAddressEntry: one sub-storage per contact in the account's contact storage.
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "contacts/CAddressEntry.h"
#include "messages/CStorageManager.h"
#include "platform/Kernel.h"
#include "platform/OleStorage.h"

namespace {

constexpr UINT IDS_PROFILE_ID = 3006;
constexpr UINT IDS_STRING_DATA = 3054;
constexpr UINT IDS_STRING_DATA_LENGTH = 3055;
constexpr DWORD kEntryMode = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;
// Reading needs no transaction of its own (a copy of the entry's tree per open); writing does, so that
// an entry lands whole.
constexpr bool kReadTransacted = false;
constexpr bool kWriteTransacted = true;
// Ids are 0..32767; past this many draws without a free one the contact storage is taken as full.
constexpr int kMaxDraws = 1 << 17;

std::atomic<CAddressEntry::ProfileFieldsReader> g_profileReader{nullptr};

DWORD ReadLE(const unsigned char* p) {
    return p[0] | (DWORD(p[1]) << 8) | (DWORD(p[2]) << 16) | (DWORD(p[3]) << 24);
}

void WriteLE(unsigned char* p, DWORD v) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<unsigned char>(v >> (8 * i));
}

// Whether parent holds an element of that name, of either kind. Probes directly, so that an absent name
// reports no error; anything but "not found" counts as taken.
bool ElementExists(IStorage* parent, const CString& name) {
    IStorage* storage = nullptr;
    HRESULT hr = parent->OpenStorage(name.GetString(), nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, nullptr, 0,
                                     &storage);
    if (storage) storage->Release();
    if (hr != STG_E_FILENOTFOUND) return true;
    IStream* stream = nullptr;
    hr = parent->OpenStream(name.GetString(), nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, 0, &stream);
    if (stream) stream->Release();
    return hr != STG_E_FILENOTFOUND;
}

// Up to limit bytes from the start of the stream, read in steps so that memory follows the bytes that
// are really there, not the size a damaged file claims. False when the stream is missing or empty; a
// stream that cannot be read further gives what was read.
bool ReadPrefix(IStorage* storage, const CString& name, unsigned long long limit, std::string& bytes) {
    IStream* stream = nullptr;
    if (FAILED(
            storage->OpenStream(name.GetString(), nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, 0, &stream)) ||
        !stream)
        return false;
    STATSTG stat{};
    bool present = SUCCEEDED(stream->Stat(&stat, STATFLAG_NONAME)) && stat.cbSize.QuadPart >= 1;
    constexpr ULONG kStep = 1 << 16;
    while (present && bytes.size() < limit) {
        size_t at = bytes.size();
        ULONG want = static_cast<ULONG>(std::min<unsigned long long>(kStep, limit - at));
        bytes.resize(at + want);
        ULONG got = 0;
        HRESULT hr = stream->Read(bytes.data() + at, want, &got);
        bytes.resize(at + got);
        if (FAILED(hr) || got < want) break;
    }
    stream->Release();
    return present;
}

CString Resource(UINT id) {
    CString text;
    text.LoadString(id);
    return text;
}

CString NameOf(int id) {
    CString name;
    name.Format("%d", id);
    return name;
}

}  // namespace

void CAddressEntry::SetProfileFieldsReader(ProfileFieldsReader reader) { g_profileReader.store(reader); }

void CAddressEntry::LoadAddress(IStorage* parent, CString name, CMailBoxProfile* profile) {
    try {
        CStorageManager storage;
        if (!storage.OpenSubStorage(parent, name, kEntryMode, true, kReadTransacted)) return;
        m_strStoredName = name;
        // Both text streams must hold something; a read of nothing is the size test.
        unsigned char raw[kLengthsSize] = {};
        if (storage.ReadData(IDS_STRING_DATA_LENGTH, raw, kLengthsSize) >= 1) {
            _tagSTR_ADDRESSENTRY lengths;
            DWORD* slot = reinterpret_cast<DWORD*>(&lengths);
            unsigned long long claimed = 0;
            for (ULONG i = 0; i < kLengthsSize / 4; ++i) {
                slot[i] = ReadLE(raw + 4 * i);
                claimed += slot[i];
            }
            // No more than the lengths can use, so a huge text claiming small lengths costs nothing.
            std::string text;
            if (ReadPrefix(storage.m_pStorage, Resource(IDS_STRING_DATA), claimed, text))
                ParseAddressEntryData(text.data(), &lengths);
        }
        DWORD id = static_cast<DWORD>(m_nProfileID);
        storage.ReadNumber(IDS_PROFILE_ID, id);
        m_nProfileID = static_cast<int>(id);
        if (profile) {
            if (ProfileFieldsReader reader = g_profileReader.load())
                reader(profile, m_strAccountName, m_strServerName, m_strOutgoingServer, m_strEmailAddress);
        }
        m_bDirty = false;
        storage.Close();
    } catch (CStorageManagerException* e) {
        e->Delete();
    }
}

bool CAddressEntry::SaveAddress(IStorage* parent) {
    if (!parent) return false;
    CString name = NameOf(m_nProfileID);
    if (m_bDeleted) {
        // An entry never stored has no sub-storage: the one its id names belongs to another contact.
        if (!m_strStoredName.IsEmpty()) parent->DestroyElement(m_strStoredName.GetString());
        m_strStoredName.Empty();
        return true;
    }
    if (!m_bDirty) return true;
    if (name != m_strStoredName && (m_nProfileID == 0 || ElementExists(parent, name))) {
        // Redrawn from a seed that differs on every draw, since the tick count that made the clash may
        // not have moved.
        static std::atomic<unsigned> salt{0};
        int draws = 0;
        do {
            if (++draws > kMaxDraws) return false;
            std::srand(GetTickCount() + 0x9E3779B9u * salt.fetch_add(1));
            m_nProfileID = std::rand();
            name = NameOf(m_nProfileID);
        } while (m_nProfileID == 0 || (name != m_strStoredName && ElementExists(parent, name)));
    }
    try {
        CStorageManager storage;
        if (!storage.OpenSubStorage(parent, name, kEntryMode, true, kWriteTransacted)) return false;
        _tagSTR_ADDRESSENTRY lengths;
        BuildStringDataLengths(lengths);
        unsigned char raw[kLengthsSize];
        const DWORD* slot = reinterpret_cast<const DWORD*>(&lengths);
        for (ULONG i = 0; i < kLengthsSize / 4; ++i) WriteLE(raw + 4 * i, slot[i]);
        storage.WriteData(IDS_STRING_DATA_LENGTH, raw, kLengthsSize);
        CString text = BuildMailBoxStringData();
        storage.WriteData(IDS_STRING_DATA, text.GetString(), static_cast<ULONG>(text.GetLength()));
        storage.WriteNumber(IDS_PROFILE_ID, static_cast<DWORD>(m_nProfileID));
        storage.Close();
        if (FAILED(storage.m_hResult)) return false;
    } catch (CStorageManagerException* e) {
        e->Delete();
        return false;
    }
    m_bDirty = false;
    // An entry whose id no longer names the sub-storage it came from has moved.
    if (!m_strStoredName.IsEmpty() && m_strStoredName != name)
        parent->DestroyElement(m_strStoredName.GetString());
    m_strStoredName = name;
    return true;
}

void CAddressEntry::EnumStorage(IStorage* parent, std::list<CAddressEntry*>& list, CMailBoxProfile* profile) {
    if (!parent) return;
    IEnumSTATSTG* elements = nullptr;
    if (FAILED(parent->EnumElements(0, nullptr, 0, &elements)) || !elements) return;
    // Names first, loads after, so that the walk never sees the storage change under it.
    std::vector<CString> names;
    STATSTG stat;
    ULONG fetched = 0;
    while (elements->Next(1, &stat, &fetched) == S_OK && fetched == 1) {
        CString name = stat.pwcsName ? CString(stat.pwcsName) : CString();
        CoTaskMemFree(stat.pwcsName);
        if (stat.type != STGTY_STORAGE) continue;
        CString trimmed = name;
        trimmed.Trim();
        if (!trimmed.IsEmpty()) names.push_back(name);
    }
    elements->Release();
    for (const CString& name : names) {
        auto entry = std::make_unique<CAddressEntry>();
        entry->LoadAddress(parent, name, profile);
        if (entry->GetProfileID() != 0) list.push_back(entry.release());
    }
}
