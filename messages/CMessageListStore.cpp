// The message store operations of CMessageList: one sub-storage per record in the account's message
// storage, its streams, the older layout's migration, and loading whole stores with progress.
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "messages/CMessageList.h"
#include "messages/CStorageManager.h"
#include "platform/OleStorage.h"
#include "platform/WindowMessages.h"
#include "util/CStringToken.h"

namespace {

constexpr UINT IDS_NUMERIC_DATA = 3053;
constexpr DWORD kRecordMode = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;
constexpr ULONG kNumericDataSize = 32;
// Whether a record's sub-storage is opened in a transaction of its own: worth it when writing (the record
// lands whole or not at all), pure cost when only reading (a copy of its tree per open).
constexpr bool kWriteTransacted = true;
constexpr bool kReadTransacted = false;

// The streams of the older layout, which the current one folds into "Numeric Data".
const char* const kOlderStreams[] = {"Seen",    "Read", "Type",       "Number ID",
                                     "SpamTag", "Size", "Compressed", "Encrypted"};

std::atomic<CMessageList::ProfileFieldsReader> g_profileReader{nullptr};

DWORD readLE(const unsigned char* p) {
    return p[0] | (DWORD(p[1]) << 8) | (DWORD(p[2]) << 16) | (DWORD(p[3]) << 24);
}

void writeLE(unsigned char* p, DWORD v) {
    p[0] = static_cast<unsigned char>(v);
    p[1] = static_cast<unsigned char>(v >> 8);
    p[2] = static_cast<unsigned char>(v >> 16);
    p[3] = static_cast<unsigned char>(v >> 24);
}

struct FreeDeleter {
    void operator()(BYTE* p) const { std::free(p); }
};

// Counts loaded records and reports each to the host window.
class ProgressReporter {
public:
    ProgressReporter(CMessageList::_tagLoadProgressData* progress, CMailBoxProfile* profile)
        : m_progress(progress), m_profile(profile) {}

    void RecordLoaded() {
        if (!m_progress) return;
        ++m_count;
        m_running += 100;
        if (m_progress->dwRecordCount < 1) m_progress->dwRecordCount = 1;
        SendMessage(m_progress->hWnd, m_progress->uRecordMessage, reinterpret_cast<WPARAM>(m_profile),
                    static_cast<LPARAM>(m_count));
        PostMessage(m_progress->hWnd, m_progress->uPercentMessage, 0,
                    static_cast<LPARAM>(m_running / m_progress->dwRecordCount));
    }

private:
    CMessageList::_tagLoadProgressData* m_progress;
    CMailBoxProfile* m_profile;
    DWORD m_count = 0;
    DWORD m_running = 0;
};

// The id recorded in a sub-storage's "Numeric Data"; false when the sub-storage or its numbers are
// missing. Probes without CStorageManager so that an absent name reports no error.
bool storedId(IStorage* parent, const CString& name, DWORD& id) {
    IStorage* sub = nullptr;
    if (FAILED(parent->OpenStorage(name.GetString(), nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, nullptr, 0,
                                   &sub)))
        return false;
    CString streamName;
    streamName.LoadString(IDS_NUMERIC_DATA);
    IStream* stream = nullptr;
    unsigned char numeric[kNumericDataSize] = {};
    ULONG read = 0;
    if (SUCCEEDED(
            sub->OpenStream(streamName.GetString(), nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, 0, &stream))) {
        stream->Read(numeric, kNumericDataSize, &read);
        stream->Release();
    }
    sub->Release();
    if (read < 20) return false;
    id = readLE(numeric + 16);
    return true;
}

bool elementExists(IStorage* parent, const CString& name) {
    IStorage* sub = nullptr;
    HRESULT hr =
        parent->OpenStorage(name.GetString(), nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, nullptr, 0, &sub);
    if (sub) sub->Release();
    return hr != STG_E_FILENOTFOUND;
}

// Loads the named record; true (and the record appended) when it holds a message.
bool loadInto(IStorage* parent, const CString& name, std::list<CMessageList*>& list,
              CMailBoxProfile* profile) {
    auto record = std::make_unique<CMessageList>(parent);
    record->LoadMessage(parent, name, profile);
    if (record->GetMsgSize() == 0) return false;
    list.push_back(record.release());
    return true;
}

}  // namespace

void CMessageList::SetProfileFieldsReader(ProfileFieldsReader reader) { g_profileReader.store(reader); }

void CMessageList::LoadMessage(IStorage* parent, CString storageName, CMailBoxProfile* profile) {
    m_strStorageName = storageName;
    try {
        CStorageManager storage;
        if (!storage.OpenSubStorage(parent, storageName, kRecordMode, true, kReadTransacted)) return;
        m_bDirty = false;
        unsigned char numeric[kNumericDataSize] = {};
        // Reading is the size test: a missing or empty stream gives no bytes.
        if (storage.ReadData(IDS_NUMERIC_DATA, numeric, kNumericDataSize) > 0) {
            m_bSeen = readLE(numeric) != 0;
            m_bRead = readLE(numeric + 4) != 0;
            m_MsgType = static_cast<enum_MsgType>(readLE(numeric + 8));
            m_dwSpamTag = readLE(numeric + 12);
            m_dwID = readLE(numeric + 16);
            m_dwSize = readLE(numeric + 20);
            m_dwCompressed = readLE(numeric + 24);
            m_dwEncrypted = readLE(numeric + 28);
        } else {
            storage.ReadNumber("Size", m_dwSize);
            storage.ReadNumber("SpamTag", m_dwSpamTag);
            storage.ReadNumber("Number ID", m_dwID);
            storage.ReadNumber("Compressed", m_dwCompressed);
            storage.ReadNumber("Encrypted", m_dwEncrypted);
            CString seen, read, type;
            storage.ReadString("Seen", seen);
            storage.ReadString("Read", read);
            storage.ReadString("Type", type);
            m_bSeen = seen.CompareNoCase("Yes") == 0;
            m_bRead = read.CompareNoCase("Yes") == 0;
            if (type.CompareNoCase("received") == 0)
                m_MsgType = MsgReceived;
            else if (type.CompareNoCase("sent") == 0)
                m_MsgType = MsgSent;
            // The next save writes the current layout and drops these streams.
            m_bDirty = true;
        }
        storage.ReadString("Header", m_strHeader);
        storage.ReadString("Folder", m_strFolderLocation);
        storage.ReadString("Identification", m_strMessageID);
        m_bHasBody = storage.GetStreamSize("Body") > 0;
        CString header = m_strHeader;
        ParseHeader(header);
        if (profile) {
            if (ProfileFieldsReader reader = g_profileReader.load())
                reader(profile, m_strAccountName, m_strServerName, m_strOutgoingServer, m_strEmailAddress);
        }
        storage.Close();
    } catch (CStorageManagerException* e) {
        e->Delete();
    }
}

void CMessageList::SaveMessage(IStorage* parent) {
    if (m_strMessageID.IsEmpty()) m_strMessageID = RandomString(20, 2);
    if (m_strStorageName.IsEmpty()) m_strStorageName = GetHash(RandomString(20, 2), 10);
    if (m_bDeleted) {
        if (parent) parent->DestroyElement(m_strStorageName.GetString());
        return;
    }
    if (!m_bDirty) return;
    // Storage names are drawn from a generator reseeded from the tick count, so two records can be given
    // the same one. A name that already holds another message's numbers is not ours to overwrite.
    DWORD existingId = 0;
    if (parent && storedId(parent, m_strStorageName, existingId) && existingId != m_dwID) {
        static std::atomic<unsigned> salt{0};
        do {
            CString seed = RandomString(20, 2);
            seed.AppendFormat("%u", salt.fetch_add(1));
            m_strStorageName = GetHash(seed, 10);
        } while (m_strStorageName.IsEmpty() || elementExists(parent, m_strStorageName));
    }
    try {
        CStorageManager storage;
        if (storage.OpenSubStorage(parent, m_strStorageName, kRecordMode, true, kWriteTransacted)) {
            storage.WriteString("Folder", m_strFolderLocation);
            storage.WriteString("Identification", m_strMessageID);
            storage.WriteString("Header", m_strHeader);
            unsigned char numeric[kNumericDataSize];
            writeLE(numeric, m_bSeen ? 1 : 0);
            writeLE(numeric + 4, m_bRead ? 1 : 0);
            writeLE(numeric + 8, static_cast<DWORD>(m_MsgType));
            writeLE(numeric + 12, m_dwSpamTag);
            writeLE(numeric + 16, m_dwID);
            writeLE(numeric + 20, m_dwSize);
            writeLE(numeric + 24, m_dwCompressed);
            writeLE(numeric + 28, m_dwEncrypted);
            storage.WriteData(IDS_NUMERIC_DATA, numeric, kNumericDataSize);
            if (m_pBodyBuffer) {
                ULONG length = static_cast<ULONG>(m_pBodyBuffer->GetLength());
                std::unique_ptr<BYTE, FreeDeleter> bytes(m_pBodyBuffer->Detach());
                storage.WriteData("Body", bytes.get(), length);
                m_bHasBody = length > 0;
            }
            for (const char* older : kOlderStreams) storage.DeleteElement(older);
        }
        m_bDirty = false;
        storage.Close();
        // A commit that did not land leaves the record to be saved again.
        if (FAILED(storage.m_hResult)) m_bDirty = true;
    } catch (CStorageManagerException* e) {
        e->Delete();
    }
}

void CMessageList::SetBody(CString& text) {
    if (!m_pParentStorage) return;
    delete m_pBodyBuffer;
    m_pBodyBuffer = nullptr;
    auto buffer = std::make_unique<CMemFile>(1024);
    buffer->Write(text.GetString(), static_cast<UINT>(text.GetLength()));
    m_pBodyBuffer = buffer.release();
    m_bDirty = true;
    SaveMessage(m_pParentStorage);
    delete m_pBodyBuffer;
    m_pBodyBuffer = nullptr;
}

bool CMessageList::GetBody(CString& text) {
    text.Empty();
    if (!m_pParentStorage && m_pBodyBuffer) {
        // A record read from a flat file has no store yet; its body is the buffer, which ends with a
        // zero byte that is not part of the body.
        ULONGLONG length = m_pBodyBuffer->GetLength();
        ULONGLONG saved = m_pBodyBuffer->GetPosition();
        m_pBodyBuffer->SeekToBegin();
        std::string bytes(static_cast<size_t>(length), '\0');
        UINT got = m_pBodyBuffer->Read(bytes.data(), static_cast<UINT>(length));
        m_pBodyBuffer->Seek(static_cast<LONGLONG>(saved), CFile::begin);
        bytes.resize(got);
        text = CString(bytes.c_str());
        return !text.IsEmpty();
    }
    if (m_pParentStorage && !m_strMessageID.IsEmpty()) {
        if (m_strStorageName.IsEmpty()) return false;
        try {
            CStorageManager storage;
            if (storage.OpenSubStorage(m_pParentStorage, m_strStorageName, kRecordMode, true,
                                       kReadTransacted)) {
                std::string bytes;
                if (storage.ReadBytes("Body", bytes) && !bytes.empty()) text = CString(std::move(bytes));
            }
        } catch (CStorageManagerException* e) {
            e->Delete();
        }
    }
    return !text.IsEmpty();
}

void CMessageList::EnumStorage(IStorage* parent, std::list<CMessageList*>& list, CMailBoxProfile* profile,
                               _tagLoadProgressData* progress) {
    if (!parent) return;
    IEnumSTATSTG* elements = nullptr;
    if (FAILED(parent->EnumElements(0, nullptr, 0, &elements)) || !elements) return;
    IMalloc* malloc = nullptr;
    CoGetMalloc(1, &malloc);
    ProgressReporter reporter(progress, profile);
    std::vector<std::u16string> doomed;
    STATSTG stat;
    ULONG fetched = 0;
    while (elements->Next(1, &stat, &fetched) == S_OK && fetched == 1) {
        std::u16string wide = stat.pwcsName ? std::u16string(stat.pwcsName) : std::u16string();
        if (malloc)
            malloc->Free(stat.pwcsName);
        else
            CoTaskMemFree(stat.pwcsName);
        if (stat.type != STGTY_STORAGE) continue;
        if (wide.empty()) {
            doomed.push_back(wide);
            continue;
        }
        if (loadInto(parent, CString(wide.c_str()), list, profile))
            reporter.RecordLoaded();
        else
            doomed.push_back(wide);
    }
    elements->Release();
    if (malloc) malloc->Release();
    // Destroyed after the walk, so that the enumeration never sees its storage change under it.
    for (const std::u16string& name : doomed) parent->DestroyElement(name.c_str());
}

void CMessageList::EnumStorage(CString index, IStorage* parent, std::list<CMessageList*>& list,
                               CMailBoxProfile* profile, _tagLoadProgressData* progress) {
    if (!parent) return;
    ProgressReporter reporter(progress, profile);
    std::vector<CString> doomed;
    CStringToken names(index, ",");
    for (auto it = names.Begin(); it != names.End(); ++it) {
        CString name(it->c_str());
        if (loadInto(parent, name, list, profile))
            reporter.RecordLoaded();
        else
            doomed.push_back(name);
    }
    for (const CString& name : doomed) parent->DestroyElement(name.GetString());
}
