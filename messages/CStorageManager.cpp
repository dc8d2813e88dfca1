#include "messages/CStorageManager.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unordered_set>

#include "platform/COleStreamFile.h"
#include "util/CFileName.h"
#include "util/CStringToken.h"

namespace {

constexpr DWORD kReadMode = STGM_READ | STGM_SHARE_EXCLUSIVE;
constexpr DWORD kWriteMode = STGM_CREATE | STGM_READWRITE | STGM_SHARE_EXCLUSIVE;

// Releases an interface at the end of a scope.
template <class T>
struct Released {
    T* p = nullptr;
    ~Released() {
        if (p) p->Release();
    }
};

// The key under which CompareNoCase finds two texts equal: ASCII letters folded, up to the first NUL.
std::string noCaseKey(const char* text) {
    std::string key(text);
    for (char& c : key)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return key;
}

}  // namespace

CStorageManager::CStorageManager() = default;

CStorageManager::CStorageManager(IStorage* storage) : m_pStorage(storage) {
    if (m_pStorage) m_pStorage->AddRef();
}

CStorageManager::CStorageManager(const char* path, bool transacted) { OpenStorageFile(path, transacted); }

CStorageManager::~CStorageManager() { Close(); }

CString CStorageManager::NameOf(UINT nameId) {
    CString name;
    name.LoadString(nameId);
    return name;
}

void CStorageManager::Check(HRESULT hr) {
    m_hResult = hr;
    if (FAILED(hr)) throw new CStorageManagerException(hr);
}

void CStorageManager::OpenStorageFile(const char* path, bool transacted) {
    Close();
    DWORD extra = transacted ? STGM_TRANSACTED : 0;
    IStorage* storage = nullptr;
    HRESULT hr;
    if (CFileName(path).Exist())
        hr = StgOpenStorage(path, nullptr, STGM_READWRITE | STGM_SHARE_EXCLUSIVE | extra, nullptr, 0,
                            &storage);
    else
        hr = StgCreateDocfile(path, STGM_CREATE | STGM_READWRITE | STGM_SHARE_EXCLUSIVE | extra, 0, &storage);
    Check(hr);
    m_pStorage = storage;
}

bool CStorageManager::OpenSubStorage(IStorage* parent, const char* name, DWORD mode, bool create,
                                     bool transacted) {
    if (!parent) return false;
    Close();
    // Our own reference, so that the parent cannot go away while the child is being opened.
    parent->AddRef();
    Released<IStorage> keep{parent};
    DWORD fullMode = mode | (transacted ? STGM_TRANSACTED : 0);
    IStorage* storage = nullptr;
    HRESULT hr = parent->OpenStorage(name, nullptr, fullMode, nullptr, 0, &storage);
    if (hr == STG_E_FILENOTFOUND && create)
        hr = parent->CreateStorage(name, fullMode | STGM_CREATE, 0, 0, &storage);
    Check(hr);
    m_pStorage = storage;
    return m_pStorage != nullptr;
}

bool CStorageManager::OpenSubStorage(IStorage* parent, UINT nameId, DWORD mode, bool create,
                                     bool transacted) {
    return OpenSubStorage(parent, NameOf(nameId), mode, create, transacted);
}

bool CStorageManager::StreamExists(const char* name) {
    if (!m_pStorage) return false;
    IStream* stream = nullptr;
    m_hResult = m_pStorage->OpenStream(name, nullptr, kReadMode, 0, &stream);
    if (stream) stream->Release();
    return m_hResult != STG_E_FILENOTFOUND;
}

bool CStorageManager::StreamExists(UINT nameId) { return StreamExists(NameOf(nameId)); }

bool CStorageManager::StorageExists(const char* name) {
    if (!m_pStorage) return false;
    IStorage* storage = nullptr;
    m_hResult =
        m_pStorage->OpenStorage(name, nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, nullptr, 0, &storage);
    if (storage) storage->Release();
    return m_hResult != STG_E_FILENOTFOUND;
}

bool CStorageManager::StorageExists(UINT nameId) { return StorageExists(NameOf(nameId).Left(30)); }

IStream* CStorageManager::OpenForRead(const char* name) {
    if (!m_pStorage) return nullptr;
    IStream* stream = nullptr;
    HRESULT hr = m_pStorage->OpenStream(name, nullptr, kReadMode, 0, &stream);
    if (hr == STG_E_FILENOTFOUND) {
        m_hResult = hr;
        return nullptr;
    }
    Check(hr);
    return stream;
}

ULONG CStorageManager::GetStreamSize(const char* name) {
    Released<IStream> stream{OpenForRead(name)};
    if (!stream.p) return 0;
    STATSTG stat;
    std::memset(&stat, 0, sizeof stat);
    Check(stream.p->Stat(&stat, STATFLAG_NONAME));
    return stat.cbSize.LowPart;
}

ULONG CStorageManager::GetStreamSize(UINT nameId) { return GetStreamSize(NameOf(nameId)); }

ULONG CStorageManager::ReadData(const char* name, void* buffer, ULONG count) {
    Released<IStream> stream{OpenForRead(name)};
    if (!stream.p) return 0;
    ULONG read = 0;
    Check(stream.p->Read(buffer, count, &read));
    return read;
}

ULONG CStorageManager::ReadData(UINT nameId, void* buffer, ULONG count) {
    return ReadData(NameOf(nameId), buffer, count);
}

bool CStorageManager::ReadBytes(const char* name, std::string& bytes) {
    Released<IStream> stream{OpenForRead(name)};
    if (!stream.p) return false;
    bytes.clear();
    // Grown by what the stream really yields: a damaged file can claim any size for a stream.
    char chunk[64 * 1024];
    for (;;) {
        ULONG read = 0;
        Check(stream.p->Read(chunk, sizeof chunk, &read));
        bytes.append(chunk, read);
        if (read < sizeof chunk) break;
    }
    return true;
}

void CStorageManager::ReadString(const char* name, CString& value, int maxLength) {
    std::string bytes;
    if (!ReadBytes(name, bytes)) return;
    // Text ends at its first zero byte, as a zero-terminated buffer would read.
    value = CString(bytes.c_str());
}

void CStorageManager::ReadString(UINT nameId, CString& value, int maxLength) {
    ReadString(NameOf(nameId), value, maxLength);
}

void CStorageManager::ReadNumber(const char* name, DWORD& value) {
    if (!StreamExists(name)) return;
    char text[101] = {};
    ReadData(name, text, 100);
    value = static_cast<DWORD>(std::strtoul(text, nullptr, 10));
}

void CStorageManager::ReadNumber(UINT nameId, DWORD& value) { ReadNumber(NameOf(nameId), value); }

bool CStorageManager::WriteData(const char* name, const void* data, ULONG count) {
    if (!m_pStorage) return false;
    IStream* raw = nullptr;
    Check(m_pStorage->CreateStream(name, kWriteMode, 0, 0, &raw));
    Released<IStream> stream{raw};
    ULONG written = 0;
    if (count > 0) Check(stream.p->Write(data, count, &written));
    return true;
}

bool CStorageManager::WriteData(UINT nameId, const void* data, ULONG count) {
    return WriteData(NameOf(nameId), data, count);
}

void CStorageManager::WriteString(const char* name, const CString& value) {
    WriteData(name, value.GetString(), static_cast<ULONG>(value.GetLength()));
}

void CStorageManager::WriteString(UINT nameId, const CString& value) { WriteString(NameOf(nameId), value); }

void CStorageManager::WriteNumber(const char* name, DWORD value) {
    CString text;
    text.Format("%u", static_cast<unsigned>(value));
    WriteString(name, text);
}

void CStorageManager::WriteNumber(UINT nameId, DWORD value) { WriteNumber(NameOf(nameId), value); }

void CStorageManager::WriteStringList(const char* name, CStringArray& values, const char* delimiter) {
    CString text;
    for (int i = 0; i < values.GetSize(); ++i) {
        text += delimiter ? delimiter : "";
        text += values[i];
    }
    WriteString(name, text);
}

void CStorageManager::WriteStringList(UINT nameId, CStringArray& values, const char* delimiter) {
    WriteStringList(NameOf(nameId), values, delimiter);
}

void CStorageManager::ReadStringList(const char* name, CStringArray& values, const char* delimiters) {
    std::string bytes;
    if (!ReadBytes(name, bytes)) return;
    // Entries already present, ignoring case, are skipped; a set keeps a list of thousands linear.
    std::unordered_set<std::string> present;
    for (int i = 0; i < values.GetSize(); ++i) present.insert(noCaseKey(values[i].GetString()));
    CStringToken tokens(bytes.c_str(), delimiters);
    for (auto it = tokens.Begin(); it != tokens.End(); ++it) {
        if (it->empty() || !present.insert(noCaseKey(it->c_str())).second) continue;
        values.Add(CString(it->c_str()));
    }
}

void CStorageManager::ReadStringList(UINT nameId, CStringArray& values, const char* delimiters) {
    ReadStringList(NameOf(nameId), values, delimiters);
}

void CStorageManager::WriteNumberList(const char* name, std::list<DWORD>& values) {
    std::string bytes;
    bytes.reserve(values.size() * 4);
    for (DWORD v : values) {
        char le[4] = {static_cast<char>(v), static_cast<char>(v >> 8), static_cast<char>(v >> 16),
                      static_cast<char>(v >> 24)};
        bytes.append(le, 4);
    }
    WriteData(name, bytes.data(), static_cast<ULONG>(bytes.size()));
}

void CStorageManager::WriteNumberList(UINT nameId, std::list<DWORD>& values) {
    WriteNumberList(NameOf(nameId), values);
}

void CStorageManager::ReadNumberList(const char* name, std::list<DWORD>& values) {
    std::string bytes;
    if (!ReadBytes(name, bytes)) return;
    std::unordered_set<DWORD> present(values.begin(), values.end());
    for (size_t i = 0; i + 4 <= bytes.size(); i += 4) {
        auto b = reinterpret_cast<const unsigned char*>(bytes.data() + i);
        DWORD v = b[0] | (DWORD(b[1]) << 8) | (DWORD(b[2]) << 16) | (DWORD(b[3]) << 24);
        if (present.insert(v).second) values.push_back(v);
    }
}

void CStorageManager::ReadNumberList(UINT nameId, std::list<DWORD>& values) {
    ReadNumberList(NameOf(nameId), values);
}

void CStorageManager::DeleteElement(const char* name) {
    m_hResult = m_pStorage ? m_pStorage->DestroyElement(name) : STG_E_INVALIDPOINTER;
}

void CStorageManager::DeleteElement(UINT nameId) { DeleteElement(NameOf(nameId)); }

bool CStorageManager::CopyTo(IStorage* destination) {
    if (!m_pStorage) return false;
    Check(m_pStorage->CopyTo(0, nullptr, nullptr, destination));
    return true;
}

void CStorageManager::Close() {
    if (!m_pStorage) return;
    m_hResult = m_pStorage->Commit(STGC_DEFAULT);
    m_pStorage->Release();
    m_pStorage = nullptr;
}

template <class Visit>
void CStorageManager::ForEachStream(Visit visit) {
    if (!m_pStorage) return;
    IEnumSTATSTG* raw = nullptr;
    Check(m_pStorage->EnumElements(0, nullptr, 0, &raw));
    Released<IEnumSTATSTG> elements{raw};
    IMalloc* malloc = nullptr;
    CoGetMalloc(1, &malloc);
    Released<IMalloc> allocator{malloc};
    STATSTG stat;
    ULONG fetched = 0;
    while (elements.p->Next(1, &stat, &fetched) == S_OK && fetched == 1) {
        CString name(stat.pwcsName);
        if (allocator.p)
            allocator.p->Free(stat.pwcsName);
        else
            CoTaskMemFree(stat.pwcsName);
        if (stat.type != STGTY_STREAM) continue;
        COleStreamFile file;
        CFileException error;
        if (!file.OpenStream(m_pStorage, name, CFile::modeRead | CFile::shareExclusive, &error)) {
            CString text;
            text.Format("OpenStream Failed! Error #: %u", static_cast<unsigned>(m_hResult));
            throw new CStorageManagerException(text);
        }
        std::string bytes;
        try {
            char chunk[16 * 1024];
            while (UINT read = file.Read(chunk, sizeof chunk)) {
                bytes.append(chunk, read);
                if (read < sizeof chunk) break;
            }
        } catch (CFileException* e) {
            char description[256] = {};
            if (!e->GetErrorMessage(description, sizeof description))
                std::snprintf(description, sizeof description, "file error %d", e->m_cause);
            e->Delete();
            CString text;
            text.Format("ReadStream Failed: %s", description);
            throw new CStorageManagerException(text);
        }
        visit(bytes);
    }
}

void CStorageManager::ReadStreamsIntoArray(CStringArray& values) {
    std::unordered_set<std::string> present;
    for (int i = 0; i < values.GetSize(); ++i) present.insert(noCaseKey(values[i].GetString()));
    ForEachStream([&](const std::string& bytes) {
        CString text(bytes.c_str());
        if (present.insert(noCaseKey(text.GetString())).second) values.Add(text);
    });
}

void CStorageManager::ReadStreamsIntoNumberList(std::list<DWORD>& values) {
    std::unordered_set<DWORD> present(values.begin(), values.end());
    ForEachStream([&](const std::string& bytes) {
        DWORD v = static_cast<DWORD>(std::strtoul(bytes.substr(0, 100).c_str(), nullptr, 10));
        if (present.insert(v).second) values.push_back(v);
    });
}
