#include "accounts/CRegistryManager.h"

#include <charconv>
#include <cstring>
#include <vector>

IMPLEMENT_DYNAMIC(CRegistryManager, CObject)

namespace {

// Names and texts are read through buffers of this size, plus one byte for a terminator.
constexpr DWORD kBufferSize = 1000;

// "Value%d", without a format string to parse: a rule writes thousands of these per save.
CString AnonName(int index) {
    char name[24] = "Value";
    const auto end = std::to_chars(name + 5, name + sizeof name, index).ptr;
    return CString(std::string_view(name, static_cast<size_t>(end - name)));
}

}  // namespace

LONG CRegistryManager::OpenRegistryKey(HKEY root, const char* path, DWORD* disposition) {
    DWORD ignored = 0;
    return RegCreateKeyEx(root, path, 0, nullptr, REG_OPTION_NON_VOLATILE, KEY_ALL_ACCESS, nullptr, &m_hKey,
                          disposition ? disposition : &ignored);
}

LONG CRegistryManager::OpenRegistryKey(HKEY root, UINT pathId, DWORD* disposition) {
    CString path;
    path.LoadString(pathId);
    return OpenRegistryKey(root, path, disposition);
}

void CRegistryManager::Close() {
    if (m_hKey) RegCloseKey(m_hKey);
    m_hKey = nullptr;
}

void CRegistryManager::DeleteKey(CString name) { RegDeleteKey(m_hKey, name); }

void CRegistryManager::GetStringValues(std::map<DWORD, CString*>& values) {
    char buffer[kBufferSize + 1];
    for (auto& [id, target] : values) {
        CString name;
        name.LoadString(id);
        DWORD size = kBufferSize;
        if (RegQueryValueEx(m_hKey, name, nullptr, nullptr, reinterpret_cast<BYTE*>(buffer), &size) !=
            ERROR_SUCCESS)
            continue;
        buffer[size] = '\0';
        *target = buffer;
    }
}

void CRegistryManager::GetDwordValues(std::map<DWORD, DWORD*>& values) {
    for (auto& [id, target] : values) {
        CString name;
        name.LoadString(id);
        BYTE buffer[kBufferSize + 1] = {};
        DWORD size = kBufferSize;
        if (RegQueryValueEx(m_hKey, name, nullptr, nullptr, buffer, &size) != ERROR_SUCCESS) continue;
        std::memcpy(target, buffer, sizeof(DWORD));
    }
}

void CRegistryManager::SetStringValues(std::map<DWORD, CString*>& values) {
    for (auto& [id, source] : values) {
        CString name;
        name.LoadString(id);
        RegSetValueEx(m_hKey, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(source->GetString()),
                      static_cast<DWORD>(source->GetLength() + 1));
    }
}

void CRegistryManager::SetDwordValues(std::map<DWORD, DWORD*>& values) {
    for (auto& [id, source] : values) {
        CString name;
        name.LoadString(id);
        RegSetValueEx(m_hKey, name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(source), sizeof(DWORD));
    }
}

void CRegistryManager::GetStringValues(std::map<CString, CString>& values) {
    values.clear();
    char name[kBufferSize + 1];
    char data[kBufferSize + 1];
    for (DWORD index = 0;; ++index) {
        DWORD nameSize = kBufferSize, dataSize = kBufferSize;
        if (RegEnumValue(m_hKey, index, name, &nameSize, nullptr, nullptr, reinterpret_cast<BYTE*>(data),
                         &dataSize) != ERROR_SUCCESS)
            break;
        data[dataSize] = '\0';
        values[CString(name)] = data;
    }
}

void CRegistryManager::SetStringValues(std::map<CString, CString>& values) {
    for (auto& [name, text] : values)
        RegSetValueEx(m_hKey, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(text.GetString()),
                      static_cast<DWORD>(text.GetLength() + 1));
}

namespace {

// Walks the values of key in enumeration order, handing each text to add, until the first that fails.
template <class Add>
void ReadAnonStrings(HKEY key, Add add) {
    char name[kBufferSize + 1];
    char data[kBufferSize + 1];
    for (DWORD index = 0;; ++index) {
        DWORD nameSize = kBufferSize, dataSize = kBufferSize;
        if (RegEnumValue(key, index, name, &nameSize, nullptr, nullptr, reinterpret_cast<BYTE*>(data),
                         &dataSize) != ERROR_SUCCESS)
            break;
        data[dataSize] = '\0';
        add(CString(data));
    }
}

void WriteAnonString(HKEY key, int index, const CString& text) {
    RegSetValueEx(key, AnonName(index), 0, REG_SZ, reinterpret_cast<const BYTE*>(text.GetString()),
                  static_cast<DWORD>(text.GetLength() + 1));
}

}  // namespace

void CRegistryManager::GetAnonStringValues(CStringArray& values) {
    values.RemoveAll();
    ReadAnonStrings(m_hKey, [&](const CString& text) { values.Add(text); });
}

void CRegistryManager::GetAnonStringValues(std::list<CString>& values) {
    values.clear();
    ReadAnonStrings(m_hKey, [&](const CString& text) { values.push_back(text); });
}

void CRegistryManager::SetAnonStringValues(CStringArray& values) {
    for (int i = 0; i < values.GetSize(); ++i) WriteAnonString(m_hKey, i, values[i]);
}

void CRegistryManager::SetAnonStringValues(std::list<CString>& values) {
    int i = 0;
    for (const CString& text : values) WriteAnonString(m_hKey, i++, text);
}

namespace {

template <class Container>
void ReadAnonDwords(HKEY key, Container& values) {
    values.clear();
    char name[kBufferSize + 1];
    for (DWORD index = 0;; ++index) {
        DWORD nameSize = kBufferSize, value = 0, size = sizeof value;
        if (RegEnumValue(key, index, name, &nameSize, nullptr, nullptr, reinterpret_cast<BYTE*>(&value),
                         &size) != ERROR_SUCCESS)
            break;
        values.push_back(value);
    }
}

template <class Container>
void WriteAnonDwords(HKEY key, const Container& values) {
    int i = 0;
    for (DWORD value : values)
        RegSetValueEx(key, AnonName(i++), 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value), sizeof value);
}

// Whether name is AnonName(index), without making it.
bool IsAnonName(const char* name, DWORD length, DWORD index) {
    char digits[16];
    const auto end = std::to_chars(digits, digits + sizeof digits, index).ptr;
    const auto count = static_cast<size_t>(end - digits);
    return length == 5 + count && std::memcmp(name, "Value", 5) == 0 &&
           std::memcmp(name + 5, digits, count) == 0;
}

}  // namespace

bool CRegistryManager::UpdateAnonDwordValues(const std::vector<DWORD>& values) {
    DWORD subKeys = 0, count = 0;
    if (RegQueryInfoKey(m_hKey, nullptr, nullptr, nullptr, &subKeys, nullptr, nullptr, &count, nullptr,
                        nullptr, nullptr, nullptr) != ERROR_SUCCESS ||
        subKeys != 0)
        return false;
    // The whole old list is read before the first write: a write ends the registry's cached walk.
    std::vector<DWORD> old;
    old.reserve(count);
    char name[kBufferSize + 1];
    for (DWORD index = 0;; ++index) {
        DWORD nameSize = kBufferSize, type = 0, value = 0, size = sizeof value;
        const LONG code = RegEnumValue(m_hKey, index, name, &nameSize, nullptr, &type,
                                       reinterpret_cast<BYTE*>(&value), &size);
        if (code == ERROR_NO_MORE_ITEMS) break;
        if (code != ERROR_SUCCESS || type != REG_DWORD || size != sizeof value ||
            !IsAnonName(name, nameSize, index))
            return false;
        old.push_back(value);
    }
    for (size_t i = 0; i < values.size(); ++i)
        if (i >= old.size() || old[i] != values[i])
            RegSetValueEx(m_hKey, AnonName(static_cast<int>(i)), 0, REG_DWORD,
                          reinterpret_cast<const BYTE*>(&values[i]), sizeof values[i]);
    for (size_t i = old.size(); i > values.size(); --i)
        RegDeleteValue(m_hKey, AnonName(static_cast<int>(i - 1)));
    return true;
}

void CRegistryManager::GetAnonDwordValues(std::list<DWORD>& values) { ReadAnonDwords(m_hKey, values); }
void CRegistryManager::GetAnonDwordValues(std::vector<DWORD>& values) { ReadAnonDwords(m_hKey, values); }
void CRegistryManager::SetAnonDwordValues(std::list<DWORD>& values) { WriteAnonDwords(m_hKey, values); }
void CRegistryManager::SetAnonDwordValues(const std::vector<DWORD>& values) {
    WriteAnonDwords(m_hKey, values);
}

void CRegistryManager::QueryValue(const char* name, DWORD type, CString& value, DWORD size) {
    std::vector<char> buffer(static_cast<size_t>(size) + 1);
    DWORD got = size;
    if (RegQueryValueEx(m_hKey, name, nullptr, &type, reinterpret_cast<BYTE*>(buffer.data()), &got) !=
        ERROR_SUCCESS)
        return;
    buffer[got] = '\0';
    value = buffer.data();
}

LONG CRegistryManager::LoadRegistryKey(const char* file) { return RegRestoreKey(m_hKey, file, 0); }

LONG CRegistryManager::SaveRegistryKey(const char* file) { return RegSaveKey(m_hKey, file, nullptr); }
